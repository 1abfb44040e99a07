#include "invoicing/receipt/receipt.h"
#include "invoicing/receipt/receipt_content.h"
#include "invoicing/receipt/receipt_renderers.h"

namespace {

const struct {
    const char* name;
    ReceiptFormat format;
    std::string (*render)(const VoucherContent&, const Receipt&);
} formats[] = {
    {"pdf-a4", ReceiptFormat::pdf_a4, render_a4_pdf},
    {"pdf-80mm", ReceiptFormat::pdf_80mm, render_ticket_pdf},
    {"escpos", ReceiptFormat::escpos, render_escpos},
};

} // namespace

std::optional<ReceiptFormat> receipt_format_named(const std::string& name)
{
    for (const auto& row : formats)
        if (name == row.name)
            return row.format;
    return std::nullopt;
}

std::string render_receipt(const Receipt& receipt, ReceiptFormat format)
{
    validate_receipt(receipt);
    const VoucherContent content = voucher_content(receipt);
    for (const auto& row : formats)
        if (row.format == format)
            return row.render(content, receipt);
    throw ReceiptError("unknown receipt format");
}
