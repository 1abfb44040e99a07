// The 80 mm ticket as rows of a 48-column thermal printer, printed as they are by ESC/POS and
// drawn in a monospaced font for the ticket PDF.
#ifndef TARVO_INVOICING_RECEIPT_TICKET_ROWS_H
#define TARVO_INVOICING_RECEIPT_TICKET_ROWS_H

#include <string>
#include <vector>

#include "invoicing/receipt/receipt_content.h"

// 72 mm printable: 576 dots at 203 dpi, 48 characters of the printer's standard font (12 dots).
constexpr size_t ticket_columns = 48;

struct TicketRow {
    enum class Kind { text, logo, qr };
    Kind kind = Kind::text;
    std::string text;   // UTF-8, padded to its place; at most ticket_columns characters (half when large)
    bool bold = false;
    bool large = false; // double width and height
};

std::vector<TicketRow> ticket_rows(const VoucherContent& content, bool with_logo);

#endif
