// What a voucher prints, as text, shared by the A4 page, the ticket and ESC/POS so that all three
// say the same thing in the same words.
#ifndef TARVO_INVOICING_RECEIPT_RECEIPT_CONTENT_H
#define TARVO_INVOICING_RECEIPT_RECEIPT_CONTENT_H

#include <string>
#include <vector>

#include "invoicing/afip_codes.h"
#include "invoicing/receipt/receipt.h"

struct LabelledValue {
    std::string label; // "Importe Total:"
    std::string value; // "$ 1.234,56"
};

// A line of the sale as printed; only the description for a voucher without items.
struct ItemRow {
    std::string description;
    std::string quantity;
    std::string unit_price;
    std::string vat; // "21%" on class A and M vouchers, else empty
    std::string subtotal;
};

struct OtherTaxRow {
    std::string description;
    std::string base;
    std::string rate;
    std::string amount;
};

struct VoucherContent {
    char letter = ' ';
    std::string type_code;  // "COD. 006"
    std::string type_name;  // "FACTURA"
    std::string numbering;  // "Punto de Venta: 00001 Comp. Nro: 00000042"
    std::string number;     // "00001-00000042"
    std::string issue_date; // "Fecha de Emisión: 02/01/2025"
    std::string issuer_name;
    std::vector<std::string> issuer_lines;     // address, VAT condition
    std::vector<std::string> issuer_tax_lines; // CUIT, gross income, start of activities
    std::vector<std::string> period_lines;     // services' period and payment due date
    std::vector<std::string> receiver_lines;
    std::vector<std::string> reference_lines;  // associated vouchers, foreign currency
    bool vat_itemised = false;
    std::vector<ItemRow> items;
    std::vector<OtherTaxRow> other_taxes;
    std::vector<LabelledValue> totals; // the last is the total
    std::string transparency_title;    // empty when Ley 27.743's block does not apply
    std::vector<LabelledValue> transparency;
    std::vector<LabelledValue> authorisation;
    std::vector<std::string> footer_lines;
    std::string qr_address;
};

// Throws ReceiptError naming the first field a voucher cannot be printed with.
void validate_receipt(const Receipt& receipt);
// The content of a receipt validate_receipt() accepts.
VoucherContent voucher_content(const Receipt& receipt);
// quantity x unit price, rounded to the cent.
Money item_subtotal(const ReceiptItem& item);

#endif
