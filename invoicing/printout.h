#ifndef TARVO_INVOICING_PRINTOUT_H
#define TARVO_INVOICING_PRINTOUT_H

#include <optional>
#include <string>

#include "invoicing/ledger.h"
#include "invoicing/receipt/receipt.h"
#include "invoicing/voucher.h"

// The printed lines of a voucher, as the printout takes them.
std::vector<ReceiptItem> receipt_items(const Voucher& voucher);

// Why the voucher's items do not add up to its amounts; "" when they do or there are none.
std::string items_problem(const Voucher& voucher);

// Everything the printout of an approved sale shows: the issuer's profile, the voucher as sent,
// its authorisation and QR, the receptor from the voucher, else from what the registry said
// (`registry_person`, JSON kept in the ledger); a CAEA voucher shows its CAEA's validity (`caea`).
// Throws ReceiptError.
Receipt receipt_of(const SaleRecord& sale, const IssuerProfile& issuer, const std::optional<std::string>& registry_person,
                   const std::optional<CaeaGrant>& caea = std::nullopt);

#endif
