#ifndef TARVO_TOOLS_CLI_INVOICE_COMMAND_H
#define TARVO_TOOLS_CLI_INVOICE_COMMAND_H

#include "command_line.h"
#include "driver_library.h"

// Exit statuses of "tarvoafip_cli invoice" besides 0 (approved) and the library's 1-17.
const int exit_rejected = 20;      // AFIP refused the voucher; the output tells why
const int exit_outcome_unknown = 21; // the answer was lost and could not be recovered
const int exit_bad_invoice = 65;   // the invoice file is not a voucher (sysexits EX_DATAERR)
const int exit_cannot_create = 73; // the QR image cannot be written (EX_CANTCREAT)

// Reads the voucher, authorises it through `driver` (already configured, no headers queued) and
// prints the outcome as JSON on standard output; returns the exit status.
int run_invoice(const LoadedDriver& driver, const CliOptions& options);

#endif
