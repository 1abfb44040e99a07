// The items rule (README.md): on class A and M vouchers prices exclude VAT and the lines of each
// rate add up to that rate's base, the lines without a rate to the exempt and untaxed amounts; on
// the other classes prices include VAT and all lines add up to the total less other taxes. Each
// line may be a cent off, its subtotal being rounded.
#include <cmath>

#include "invoicing/afip_codes.h"
#include "invoicing/receipt/receipt.h"
#include "invoicing/receipt/receipt_content.h"
#include "invoicing/receipt/receipt_text.h"

namespace {

constexpr double largest_quantity = 1e9;
constexpr double largest_subtotal_cents = 1e15; // Money's bound of 10^13 pesos
constexpr size_t longest_description = 500;

// Lines that must add up to one amount of the voucher.
struct ItemGroup {
    int rate_id;        // the VAT rate of its lines; 0 for lines without one, or for every line
    std::string lines;  // "the items at VAT 21%"
    std::string amount; // "the voucher's base for VAT 21%"
    Money expected;
    Money sum;
    std::int64_t count = 0;
};

std::string item_problem(const ReceiptItem& item)
{
    if (!valid_utf8(item.description))
        return "the description is not valid UTF-8";
    if (item.description.find_first_not_of(" \t\n") == std::string::npos)
        return "the description is empty";
    if (column_count(item.description) > longest_description)
        return "the description is longer than 500 characters";
    if (!std::isfinite(item.quantity) || item.quantity <= 0 || item.quantity > largest_quantity)
        return "the quantity must be positive and at most 10^9";
    if (std::fabs(item.quantity * static_cast<double>(item.unit_price.cents())) >= largest_subtotal_cents)
        return "its amount is too large";
    if (item.vat_rate_id != 0 && !vat_rate_info(item.vat_rate_id))
        return "VAT rate id " + std::to_string(item.vat_rate_id) + " is not one AFIP lists";
    return "";
}

std::string rate_name(int rate_id) { return "VAT " + percent_text(vat_rate_info(rate_id)->percent) + "%"; }

} // namespace

std::string check_items(const std::vector<ReceiptItem>& items, const VoucherAmounts& amounts,
                        const std::vector<VatLine>& vat_lines, char voucher_class)
{
    if (items.empty())
        return "";
    const bool itemised = vat_display(voucher_class) == VatDisplay::itemised;
    std::vector<ItemGroup> groups;
    if (itemised) {
        for (const VatLine& line : vat_lines)
            if (vat_rate_info(line.id))
                groups.push_back({line.id, "the items at " + rate_name(line.id), "the voucher's base for " + rate_name(line.id), line.base, Money(), 0});
        groups.push_back({0, "the items without VAT", "the voucher's exempt and untaxed amounts", amounts.exempt + amounts.untaxed, Money(), 0});
    } else {
        groups.push_back({0, "the items", "the voucher's total less other taxes", amounts.total - amounts.other_taxes, Money(), 0});
    }
    for (size_t i = 0; i < items.size(); ++i) {
        const ReceiptItem& item = items[i];
        const std::string problem = item_problem(item);
        if (!problem.empty())
            return "item " + std::to_string(i + 1) + ": " + problem;
        const int rate_id = itemised ? item.vat_rate_id : 0;
        size_t group = 0;
        while (group < groups.size() && groups[group].rate_id != rate_id)
            ++group;
        if (group == groups.size())
            return "item " + std::to_string(i + 1) + ": the voucher has no VAT line for " + rate_name(rate_id);
        groups[group].sum += item_subtotal(item);
        ++groups[group].count;
    }
    for (const ItemGroup& group : groups)
        if (std::llabs(group.sum.cents() - group.expected.cents()) > group.count)
            return group.lines + " add up to " + amount_text(group.sum) + ", not to " + group.amount + ", " +
                   amount_text(group.expected);
    return "";
}
