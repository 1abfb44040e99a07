// The three renderers render_receipt() chooses from.
#ifndef TARVO_INVOICING_RECEIPT_RECEIPT_RENDERERS_H
#define TARVO_INVOICING_RECEIPT_RECEIPT_RENDERERS_H

#include <string>

#include "invoicing/receipt/receipt_content.h"

std::string render_a4_pdf(const VoucherContent& content, const Receipt& receipt);
std::string render_ticket_pdf(const VoucherContent& content, const Receipt& receipt);
std::string render_escpos(const VoucherContent& content, const Receipt& receipt);

#endif
