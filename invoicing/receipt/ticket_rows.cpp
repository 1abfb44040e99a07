#include "invoicing/receipt/ticket_rows.h"

#include "invoicing/receipt/receipt_text.h"

namespace {

class TicketWriter {
public:
    void left(const std::string& text, bool bold = false) { wrapped(text, bold, false, false); }
    void centered(const std::string& text, bool bold = false, bool large = false) { wrapped(text, bold, large, true); }

    // The label on the left and the value on the right of the same row, when they fit together.
    void pair(const LabelledValue& pair, bool bold = false)
    {
        std::vector<std::string> lines = wrap_text(pair.label, fits(ticket_columns));
        const size_t last = lines.empty() ? 0 : column_count(lines.back());
        if (lines.empty() || last + 1 + column_count(pair.value) > ticket_columns)
            lines.push_back("");
        for (size_t i = 0; i + 1 < lines.size(); ++i)
            add(lines[i], bold, false);
        const std::string& label = lines.back();
        const size_t used = column_count(label) + column_count(pair.value);
        add(label + std::string(used < ticket_columns ? ticket_columns - used : 1, ' ') + pair.value, bold, false);
    }

    void rule() { add(std::string(ticket_columns, '-'), false, false); }
    void special(TicketRow::Kind kind) { m_rows.push_back({kind, "", false, false}); }
    std::vector<TicketRow> rows() { return std::move(m_rows); }

private:
    static std::function<bool(const std::string&)> fits(size_t columns)
    {
        return [columns](const std::string& text) { return column_count(text) <= columns; };
    }

    void wrapped(const std::string& text, bool bold, bool large, bool centre)
    {
        const size_t columns = large ? ticket_columns / 2 : ticket_columns;
        for (const std::string& line : wrap_text(text, fits(columns)))
            add(centre ? std::string((columns - column_count(line)) / 2, ' ') + line : line, bold, large);
    }

    void add(const std::string& text, bool bold, bool large) { m_rows.push_back({TicketRow::Kind::text, text, bold, large}); }

    std::vector<TicketRow> m_rows;
};

} // namespace

std::vector<TicketRow> ticket_rows(const VoucherContent& content, bool with_logo)
{
    TicketWriter ticket;
    if (with_logo)
        ticket.special(TicketRow::Kind::logo);
    ticket.centered(content.issuer_name, true);
    for (const std::string& line : content.issuer_lines)
        ticket.centered(line);
    for (const std::string& line : content.issuer_tax_lines)
        ticket.centered(line);
    ticket.rule();
    ticket.centered(content.type_name + " " + content.letter, true, true);
    ticket.centered(content.type_code);
    ticket.centered(content.numbering, true);
    ticket.centered(content.issue_date);
    for (const std::string& line : content.period_lines)
        ticket.left(line);
    for (const std::string& line : content.reference_lines)
        ticket.left(line);
    ticket.rule();
    for (const std::string& line : content.receiver_lines)
        ticket.left(line);
    ticket.rule();
    for (const ItemRow& item : content.items) {
        ticket.left(item.description);
        if (!item.subtotal.empty())
            ticket.pair({item.quantity + " x " + item.unit_price + (item.vat.empty() ? "" : " (" + item.vat + ")"),
                         item.subtotal});
    }
    ticket.rule();
    for (const OtherTaxRow& tax : content.other_taxes)
        ticket.pair({tax.description + " " + tax.rate + ":", tax.amount});
    for (size_t i = 0; i < content.totals.size(); ++i)
        ticket.pair(content.totals[i], i + 1 == content.totals.size());
    if (!content.transparency_title.empty()) {
        ticket.rule();
        ticket.left(content.transparency_title, true);
        for (const LabelledValue& line : content.transparency)
            ticket.pair(line);
    }
    ticket.rule();
    for (const LabelledValue& line : content.authorisation)
        ticket.pair(line, true);
    ticket.special(TicketRow::Kind::qr);
    for (const std::string& line : content.footer_lines)
        ticket.centered(line);
    return ticket.rows();
}
