// The 80 mm ticket as a PDF: the rows a thermal printer prints, in DejaVu Sans Mono sized so that
// 48 characters fill the 72 mm printable width, on a page as long as the ticket.
#include <algorithm>

#include "invoicing/receipt/pdf_canvas.h"
#include "invoicing/receipt/receipt_renderers.h"
#include "invoicing/receipt/ticket_rows.h"

namespace {

constexpr double paper_width = 80 * points_per_mm;
constexpr double printable_width = 72 * points_per_mm;
constexpr double side_margin = (paper_width - printable_width) / 2;
constexpr double top_margin = 4 * points_per_mm;
constexpr double bottom_margin = 10 * points_per_mm;
// The printer's QR modules (6 dots at 203 dpi) and the logo's box (384 x 160 dots).
constexpr double qr_module = 0.75 * points_per_mm;
constexpr double logo_width = 48 * points_per_mm;
constexpr double logo_height = 20 * points_per_mm;
constexpr double row_gap = 2 * points_per_mm;

double logo_drawn_height(const std::string& png)
{
    const SurfaceOwner image = decode_png(png);
    const double width = cairo_image_surface_get_width(image.get());
    const double height = cairo_image_surface_get_height(image.get());
    return height * std::min(logo_width / width, logo_height / height);
}

} // namespace

std::string render_ticket_pdf(const VoucherContent& content, const Receipt& receipt)
{
    const std::vector<TicketRow> rows = ticket_rows(content, !receipt.issuer.logo_png.empty());
    const QrMatrix qr = encode_qr(content.qr_address);
    const double qr_side = qr.width * qr_module;

    PdfDocument document(paper_width, paper_width, content.type_name + " " + content.letter + " " + content.number, receipt.date);
    // The font size that makes 48 advances of the monospaced font the printable width.
    const double size = printable_width / document.text_width(std::string(ticket_columns, 'M'), Font::mono, 1);
    const double line_height = size * 1.25;
    double height = top_margin + bottom_margin;
    for (const TicketRow& row : rows) {
        if (row.kind == TicketRow::Kind::qr)
            height += qr_side + 2 * row_gap;
        else if (row.kind == TicketRow::Kind::logo)
            height += logo_drawn_height(receipt.issuer.logo_png) + row_gap;
        else
            height += row.large ? 2 * line_height : line_height;
    }

    document.set_page_size(paper_width, height);
    double y = top_margin;
    for (const TicketRow& row : rows) {
        if (row.kind == TicketRow::Kind::qr) {
            document.qr(qr, (paper_width - qr_side) / 2, y + row_gap, qr_side);
            y += qr_side + 2 * row_gap;
        } else if (row.kind == TicketRow::Kind::logo) {
            y += document.image(receipt.issuer.logo_png, side_margin + (printable_width - logo_width) / 2, y, logo_width,
                                logo_height, Align::center) +
                 row_gap;
        } else {
            const double row_size = row.large ? 2 * size : size;
            document.text(side_margin, y + row_size, row.text, row.bold ? Font::mono_bold : Font::mono, row_size);
            y += row.large ? 2 * line_height : line_height;
        }
    }
    return document.finish();
}
