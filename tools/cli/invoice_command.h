#ifndef TARVO_TOOLS_CLI_INVOICE_COMMAND_H
#define TARVO_TOOLS_CLI_INVOICE_COMMAND_H

#include <optional>
#include <string>

#include "command_line.h"

// "tarvoafip_cli invoice": authorises the voucher (or the batch) of the options through the
// invoicing core and prints each outcome as a JSON line; returns the exit status, the core's
// result code (0 approved, 20 rejected, 21 unknown, 1-17 the exchange failed...).
int run_invoice(const CliOptions& options, const std::optional<std::string>& password);

// "tarvoafip_cli padron CUIT": what AFIP's registry says of it, as JSON; returns the exit status.
int run_padron(const CliOptions& options, const std::optional<std::string>& password);

// "tarvoafip_cli caea ...": CAEA contingency through the core; returns the exit status.
int run_caea(const CliOptions& options, const std::optional<std::string>& password);

// "tarvoafip_cli receipt": a printed voucher of a sale of the ledger; returns the exit status.
int run_receipt(const CliOptions& options);

// "tarvoafip_cli ledger list|show": the ledger's sales; returns the exit status.
int run_ledger(const CliOptions& options);

#endif
