// The A4 voucher: a header with the letter box between the issuer and the voucher, the receiver,
// the items (over as many pages as they take, the header repeated), and on the last page the
// totals, Ley 27.743's block, the authorisation with the QR code and the issuer's footer.
#include <algorithm>

#include "invoicing/receipt/pdf_canvas.h"
#include "invoicing/receipt/receipt_content.h"
#include "invoicing/receipt/receipt_renderers.h"
#include "invoicing/receipt/receipt_text.h"

namespace {

constexpr double page_width = 595.28;
constexpr double page_height = 841.89;
constexpr double margin = 10 * points_per_mm;
constexpr double left = margin;
constexpr double right = page_width - margin;
constexpr double middle = page_width / 2;
constexpr double letter_box = 40;
constexpr double body_size = 8.5;
constexpr double leading = 11;
constexpr double gap = 4;
// 0.6 mm modules: AFIP's QR (version 11 or 12) is about 40 mm wide and scans at 150 dpi.
constexpr double qr_module = 0.6 * points_per_mm;
constexpr double qr_quiet_modules = 4;

// A column of the items table: its title and where its text goes.
struct Column {
    const char* title;
    double edge;  // the left edge of the description, the right edge of a number
    std::string ItemRow::*text;
};

const Column itemised_columns[] = {
    {"Descripción", left + 4, &ItemRow::description},     {"Cantidad", left + 320, &ItemRow::quantity},
    {"Precio Unit.", left + 400, &ItemRow::unit_price},    {"% IVA", left + 450, &ItemRow::vat},
    {"Subtotal", right - 4, &ItemRow::subtotal},
};
const Column included_columns[] = {
    {"Descripción", left + 4, &ItemRow::description},
    {"Cantidad", left + 370, &ItemRow::quantity},
    {"Precio Unit.", left + 450, &ItemRow::unit_price},
    {"Subtotal", right - 4, &ItemRow::subtotal},
};
constexpr double description_width = 250;

class A4Voucher {
public:
    A4Voucher(const VoucherContent& content, const Receipt& receipt)
        : m_content(content), m_receipt(receipt),
          m_document(page_width, page_height, content.type_name + " " + content.letter + " " + content.number, receipt.date),
          m_qr(encode_qr(content.qr_address))
    {
    }

    std::string render()
    {
        const double items_top = header();
        std::vector<double> heights;
        for (const ItemRow& item : m_content.items)
            heights.push_back(item_lines(item).size() * leading + 3);
        const double last_room = bottom_top() - gap - items_top;
        const double full_room = page_height - margin - 2 * leading - items_top;
        if (last_room < 0)
            throw ReceiptError("the voucher's header, totals and footer do not fit on an A4 page");
        // Pages of [first, end) items: full pages while the rest does not fit above the totals.
        std::vector<std::pair<size_t, size_t>> pages;
        for (size_t first = 0;;) {
            double height = 0;
            for (size_t i = first; i < heights.size(); ++i)
                height += heights[i];
            if (height <= last_room) {
                pages.emplace_back(first, heights.size());
                break;
            }
            size_t end = first;
            for (double used = 0; end < heights.size() && used + heights[end] <= full_room; ++end)
                used += heights[end];
            end = std::max(end, first + 1);
            pages.emplace_back(first, end);
            first = end;
        }
        for (size_t page = 0; page < pages.size(); ++page) {
            if (page > 0) {
                m_document.next_page();
                header();
            }
            double y = items_top;
            for (size_t i = pages[page].first; i < pages[page].second; ++i)
                y = item(m_content.items[i], y);
            if (page + 1 == pages.size())
                bottom();
            m_document.text(right, page_height - margin, "Página " + std::to_string(page + 1) + "/" + std::to_string(pages.size()),
                            Font::regular, 7, Align::right);
        }
        return m_document.finish();
    }

private:
    std::vector<std::string> wrapped(const std::string& text, double width, Font font, double size) const
    {
        return wrap_text(text, [&](const std::string& line) { return m_document.text_width(line, font, size) <= width; });
    }

    // Lines from `y` (the top of the first), each wrapped to the width; the y below the last.
    double paragraph(const std::vector<std::string>& lines, double x, double y, double width, Font font, double size,
                     double line_height)
    {
        for (const std::string& text : lines)
            for (const std::string& line : wrapped(text, width, font, size)) {
                m_document.text(x, y + size, line, font, size);
                y += line_height;
            }
        return y;
    }

    double boxed(const std::vector<std::string>& lines, double y)
    {
        if (lines.empty())
            return y;
        const double bottom = paragraph(lines, left + 6, y + 4, right - left - 12, Font::regular, body_size, leading) + 3;
        m_document.box(left, y, right - left, bottom - y);
        return bottom + gap;
    }

    const Column* columns_begin() const { return m_content.vat_itemised ? std::begin(itemised_columns) : std::begin(included_columns); }
    const Column* columns_end() const { return m_content.vat_itemised ? std::end(itemised_columns) : std::end(included_columns); }

    // Header, receiver and the items table's titles; the y where items start.
    double header()
    {
        const double top = margin;
        const double left_x = left + 8;
        const double right_x = middle + letter_box / 2 + 8;
        const double column_width = middle - letter_box / 2 - 8 - left_x;

        double left_y = top + 8;
        if (!m_receipt.issuer.logo_png.empty())
            left_y += m_document.image(m_receipt.issuer.logo_png, left_x, left_y, column_width, 50, Align::left) + 6;
        left_y = paragraph({m_content.issuer_name}, left_x, left_y, column_width, Font::bold, 13, 16);
        left_y = paragraph(m_content.issuer_lines, left_x, left_y + 2, column_width, Font::regular, body_size, leading);

        double right_y = paragraph({m_content.type_name}, right_x, top + 8, column_width, Font::bold, 15, 18);
        right_y = paragraph({m_content.numbering, m_content.issue_date}, right_x, right_y + 2, column_width, Font::bold, 9, 12);
        right_y = paragraph(m_content.issuer_tax_lines, right_x, right_y + 2, column_width, Font::regular, body_size, leading);

        const double bottom = std::max({left_y, right_y, top + letter_box}) + 6;
        m_document.box(left, top, right - left, bottom - top);
        m_document.box(middle - letter_box / 2, top, letter_box, letter_box, 1);
        m_document.line(middle, top + letter_box, middle, bottom);
        m_document.text(middle, top + 27, std::string(1, m_content.letter), Font::bold, 24, Align::center);
        m_document.text(middle, top + 36, m_content.type_code, Font::bold, 6.5, Align::center);

        double y = boxed(m_content.period_lines, bottom + gap);
        std::vector<std::string> receiver = m_content.receiver_lines;
        receiver.insert(receiver.end(), m_content.reference_lines.begin(), m_content.reference_lines.end());
        y = boxed(receiver, y);

        m_document.box(left, y, right - left, 14, 0.85);
        for (const Column* column = columns_begin(); column != columns_end(); ++column)
            m_document.text(column->edge, y + 10, column->title, Font::bold, 8,
                            column == columns_begin() ? Align::left : Align::right);
        return y + 14 + 3;
    }

    std::vector<std::string> item_lines(const ItemRow& item) const
    {
        return wrapped(item.description, description_width, Font::regular, body_size);
    }

    double item(const ItemRow& item, double y)
    {
        const double bottom = paragraph(item_lines(item), left + 4, y, description_width, Font::regular, body_size, leading);
        for (const Column* column = columns_begin() + 1; column != columns_end(); ++column)
            m_document.text(column->edge, y + body_size, item.*(column->text), Font::regular, body_size, Align::right);
        return bottom + 3;
    }

    double qr_band_height() const { return (m_qr.width + 2 * qr_quiet_modules) * qr_module; }
    double footer_height() const
    {
        double lines = 0;
        for (const std::string& line : m_content.footer_lines)
            lines += std::max<size_t>(1, wrapped(line, right - left, Font::regular, 7.5).size());
        return lines * 9.5;
    }
    double transparency_height() const
    {
        return m_content.transparency_title.empty() ? 0 : (1 + m_content.transparency.size()) * leading + 8 + gap;
    }
    double totals_height() const
    {
        const double taxes = m_content.other_taxes.empty() ? 0 : (2 + m_content.other_taxes.size()) * leading;
        return std::max(m_content.totals.size() * 13.0, taxes) + 8;
    }
    double bottom_top() const
    {
        return page_height - margin - 12 - footer_height() - qr_band_height() - transparency_height() - totals_height();
    }

    // Totals, Ley 27.743's block, the authorisation with the QR code, the footer.
    void bottom()
    {
        double y = bottom_top();
        m_document.box(left, y, right - left, totals_height());
        if (!m_content.other_taxes.empty()) {
            const double x[] = {left + 6, left + 190, left + 230, left + 290};
            m_document.text(x[0], y + body_size + 4, "Otros Tributos", Font::bold, body_size);
            const char* titles[] = {"Descripción", "Base Imp.", "Alíc.", "Importe"};
            for (size_t i = 0; i < 4; ++i)
                m_document.text(x[i], y + body_size + 4 + leading, titles[i], Font::bold, 7.5, i == 0 ? Align::left : Align::right);
            double row_y = y + body_size + 4 + 2 * leading;
            for (const OtherTaxRow& tax : m_content.other_taxes) {
                const std::string description = wrapped(tax.description, 120, Font::regular, 7.5).front();
                const std::string cells[] = {description, tax.base, tax.rate, tax.amount};
                for (size_t i = 0; i < 4; ++i)
                    m_document.text(x[i], row_y, cells[i], Font::regular, 7.5, i == 0 ? Align::left : Align::right);
                row_y += leading;
            }
        }
        // Labels right-aligned clear of the widest amount.
        double values_width = 0;
        for (const LabelledValue& line : m_content.totals)
            values_width = std::max(values_width, m_document.text_width(line.value, Font::bold, 10));
        double total_y = y + 4 + 10;
        for (size_t i = 0; i < m_content.totals.size(); ++i) {
            const bool total = i + 1 == m_content.totals.size();
            const LabelledValue& line = m_content.totals[i];
            const Font font = total ? Font::bold : Font::regular;
            m_document.text(right - 6 - values_width - 12, total_y, line.label, font, total ? 10 : 9, Align::right);
            m_document.text(right - 6, total_y, line.value, font, total ? 10 : 9, Align::right);
            total_y += 13;
        }
        y += totals_height() + gap;

        if (!m_content.transparency_title.empty()) {
            m_document.text(left + 6, y + 4 + body_size, m_content.transparency_title, Font::bold, body_size);
            double line_y = y + 4 + body_size + leading;
            for (const LabelledValue& line : m_content.transparency) {
                m_document.text(left + 6, line_y, line.label + " " + line.value, Font::regular, body_size);
                line_y += leading;
            }
            m_document.box(left, y, right - left, transparency_height() - gap);
            y += transparency_height();
        }

        const double quiet = qr_quiet_modules * qr_module;
        m_document.qr(m_qr, left + quiet, y + quiet, m_qr.width * qr_module);
        const double text_x = left + qr_band_height() + 6;
        m_document.text(text_x, y + quiet + 12, "Comprobante Autorizado", Font::bold, 10);
        double line_y = y + quiet + 12;
        for (const LabelledValue& line : m_content.authorisation) {
            m_document.text(right - 6, line_y, line.label + " " + line.value, Font::bold, 10, Align::right);
            line_y += 15;
        }
        y += qr_band_height();
        for (const std::string& text : m_content.footer_lines) {
            const std::vector<std::string> lines = wrapped(text, right - left, Font::regular, 7.5);
            for (const std::string& line : lines)
                m_document.text(middle, (y += 9.5) - 2, line, Font::regular, 7.5, Align::center);
            if (lines.empty())
                y += 9.5;
        }
    }

    const VoucherContent& m_content;
    const Receipt& m_receipt;
    PdfDocument m_document;
    QrMatrix m_qr;
};

} // namespace

std::string render_a4_pdf(const VoucherContent& content, const Receipt& receipt)
{
    A4Voucher voucher(content, receipt);
    return voucher.render();
}
