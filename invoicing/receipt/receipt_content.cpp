#include "invoicing/receipt/receipt_content.h"

#include <algorithm>
#include <cmath>

#include "invoicing/receipt/receipt_text.h"

namespace {

constexpr size_t longest_qr_address = 800; // twice what AFIP's payload takes
constexpr size_t most_other_taxes = 20;

bool all_digits(const std::string& text, size_t size)
{
    return text.size() == size && text.find_first_not_of("0123456789") == std::string::npos;
}

bool valid_associated(const PrintedAssociatedVoucher& voucher)
{
    return voucher_type_info(voucher.type) && voucher.point_of_sale >= 1 && voucher.point_of_sale <= 99998 &&
           voucher.number >= 1 && voucher.number <= 99999999 && (voucher.date.empty() || valid_date(voucher.date));
}

// What a printed voucher needs of each field; the first rule broken is reported.
const struct {
    const char* field;
    const char* problem;
    bool (*holds)(const Receipt&);
} field_rules[] = {
    {"voucher_type", "is not a voucher type AFIP lists", [](const Receipt& r) { return voucher_type_info(r.voucher_type) != nullptr; }},
    {"point_of_sale", "must be 1 to 99998", [](const Receipt& r) { return r.point_of_sale >= 1 && r.point_of_sale <= 99998; }},
    {"number", "must be 1 to 99999999", [](const Receipt& r) { return r.number >= 1 && r.number <= 99999999; }},
    {"date", "must be a date written yyyymmdd", [](const Receipt& r) { return valid_date(r.date); }},
    {"concept", "must be 1, 2 or 3", [](const Receipt& r) { return concept_name(r.concept) != nullptr; }},
    {"service_from", "must be a date written yyyymmdd for services",
     [](const Receipt& r) { return r.concept == 1 || valid_date(r.service_from); }},
    {"service_to", "must be a date written yyyymmdd for services",
     [](const Receipt& r) { return r.concept == 1 || valid_date(r.service_to); }},
    {"payment_due", "must be empty or a date written yyyymmdd",
     [](const Receipt& r) { return r.payment_due.empty() || valid_date(r.payment_due); }},
    {"currency", "must be a currency id of 3 characters", [](const Receipt& r) { return r.currency.size() == 3; }},
    {"quotation", "must be positive and below 10^9",
     [](const Receipt& r) { return std::isfinite(r.quotation) && r.quotation > 0 && r.quotation < 1e9; }},
    {"issuer.name", "must not be empty", [](const Receipt& r) { return !r.issuer.name.empty(); }},
    {"issuer.cuit", "must be a valid CUIT of 11 digits", [](const Receipt& r) { return valid_cuit(r.issuer.cuit); }},
    {"issuer.activities_start", "must be a date written yyyymmdd",
     [](const Receipt& r) { return valid_date(r.issuer.activities_start); }},
    {"issuer.vat_condition", "is not a VAT condition AFIP lists",
     [](const Receipt& r) { return vat_condition_name(r.issuer.vat_condition) != nullptr; }},
    {"receiver.document_type", "is not a document type AFIP lists",
     [](const Receipt& r) { return document_type_name(r.receiver.document_type) != nullptr; }},
    {"receiver.document_number", "must not be negative", [](const Receipt& r) { return r.receiver.document_number >= 0; }},
    {"receiver.vat_condition", "is not a VAT condition AFIP lists",
     [](const Receipt& r) { return vat_condition_name(r.receiver.vat_condition) != nullptr; }},
    {"vat_lines", "hold a VAT rate id AFIP does not list",
     [](const Receipt& r) {
         return std::all_of(r.vat_lines.begin(), r.vat_lines.end(), [](const VatLine& line) { return vat_rate_info(line.id); });
     }},
    {"other_taxes", "must be at most 20", [](const Receipt& r) { return r.other_taxes.size() <= most_other_taxes; }},
    {"other_taxes", "hold a rate that is not a percentage from 0 to 100",
     [](const Receipt& r) {
         return std::all_of(r.other_taxes.begin(), r.other_taxes.end(),
                            [](const OtherTax& tax) { return std::isfinite(tax.rate) && tax.rate >= 0 && tax.rate <= 100; });
     }},
    {"associated", "hold a voucher whose type, point of sale, number or date is not valid",
     [](const Receipt& r) { return std::all_of(r.associated.begin(), r.associated.end(), valid_associated); }},
    {"authorisation.code", "must be 14 digits", [](const Receipt& r) { return all_digits(r.authorisation.code, 14); }},
    {"authorisation.cae_expiry", "must be a date written yyyymmdd",
     [](const Receipt& r) { return r.authorisation.kind != AuthorisationKind::cae || valid_date(r.authorisation.cae_expiry); }},
    {"authorisation.caea_from", "must be a date written yyyymmdd",
     [](const Receipt& r) { return r.authorisation.kind != AuthorisationKind::caea || valid_date(r.authorisation.caea_from); }},
    {"authorisation.caea_to", "must be a date written yyyymmdd",
     [](const Receipt& r) { return r.authorisation.kind != AuthorisationKind::caea || valid_date(r.authorisation.caea_to); }},
    {"qr_address", "must be 1 to 800 bytes",
     [](const Receipt& r) { return !r.qr_address.empty() && r.qr_address.size() <= longest_qr_address; }},
};

// The free texts a voucher prints, each valid UTF-8 and of bounded length so that it fits the page.
const struct {
    const char* field;
    size_t longest;
    const std::string& (*text)(const Receipt&);
} text_fields[] = {
    {"issuer.name", 200, [](const Receipt& r) -> const std::string& { return r.issuer.name; }},
    {"issuer.address", 200, [](const Receipt& r) -> const std::string& { return r.issuer.address; }},
    {"issuer.iibb", 200, [](const Receipt& r) -> const std::string& { return r.issuer.iibb; }},
    {"issuer.footer", 1000, [](const Receipt& r) -> const std::string& { return r.issuer.footer; }},
    {"receiver.name", 200, [](const Receipt& r) -> const std::string& { return r.receiver.name; }},
    {"receiver.address", 200, [](const Receipt& r) -> const std::string& { return r.receiver.address; }},
    {"description", 500, [](const Receipt& r) -> const std::string& { return r.description; }},
};

void check_text(const std::string& field, const std::string& text, size_t longest)
{
    if (!valid_utf8(text))
        throw ReceiptError(field + " is not valid UTF-8");
    if (column_count(text) > longest)
        throw ReceiptError(field + " is longer than " + std::to_string(longest) + " characters");
}

std::string currency_symbol(const std::string& currency)
{
    const CurrencyInfo* info = currency_info(currency);
    return info ? info->symbol : currency;
}

std::string vat_percent(int rate_id) { return percent_text(vat_rate_info(rate_id)->percent) + "%"; }

// "FACTURA A 00001-00000042"
std::string voucher_name(int type, int point_of_sale, std::int64_t number)
{
    const VoucherTypeInfo* info = voucher_type_info(type);
    return std::string(info->name) + " " + info->letter + " " + zero_padded(point_of_sale, 5) + "-" + zero_padded(number, 8);
}

std::vector<LabelledValue> totals(const Receipt& r, const std::string& symbol, bool vat_itemised)
{
    const VoucherAmounts& a = r.amounts;
    std::vector<LabelledValue> lines;
    if (vat_itemised) {
        lines.push_back({"Importe Neto Gravado:", money_text(a.net, symbol)});
        if (a.untaxed != Money())
            lines.push_back({"Importe Neto No Gravado:", money_text(a.untaxed, symbol)});
        if (a.exempt != Money())
            lines.push_back({"Importe Exento:", money_text(a.exempt, symbol)});
        for (const VatLine& line : r.vat_lines)
            lines.push_back({"IVA " + vat_percent(line.id) + ":", money_text(line.amount, symbol)});
    } else {
        lines.push_back({"Subtotal:", money_text(a.total - a.other_taxes, symbol)});
    }
    lines.push_back({"Importe Otros Tributos:", money_text(a.other_taxes, symbol)});
    lines.push_back({"Importe Total:", money_text(a.total, symbol)});
    return lines;
}

std::vector<std::string> receiver_lines(const Receiver& receiver)
{
    std::vector<std::string> lines;
    if (receiver.document_number != 0)
        lines.push_back(std::string(document_type_name(receiver.document_type)) + ": " + std::to_string(receiver.document_number));
    if (!receiver.name.empty())
        lines.push_back("Apellido y Nombre / Razón Social: " + printable(receiver.name));
    lines.push_back(std::string("Condición frente al IVA: ") + vat_condition_name(receiver.vat_condition));
    if (!receiver.address.empty())
        lines.push_back("Domicilio: " + printable(receiver.address));
    return lines;
}

// Ley 27.743: a class B voucher to a final consumer shows the VAT its total contains and the
// other national indirect taxes. Class C issuers charge no VAT and are left out.
void add_transparency(const Receipt& r, const std::string& symbol, VoucherContent& content)
{
    if (vat_display(content.letter) != VatDisplay::included || r.receiver.vat_condition != 5)
        return;
    content.transparency_title = "Régimen de Transparencia Fiscal al Consumidor (Ley 27.743)";
    content.transparency.push_back({"IVA Contenido:", money_text(r.amounts.vat, symbol)});
    Money national;
    for (const OtherTax& tax : r.other_taxes) {
        const TaxTypeInfo* info = tax_type_info(tax.id);
        if (info && info->national_indirect)
            national += tax.amount;
    }
    if (national != Money())
        content.transparency.push_back({"Otros Impuestos Nacionales Indirectos:", money_text(national, symbol)});
}

} // namespace

Money item_subtotal(const ReceiptItem& item)
{
    return Money::from_cents(static_cast<std::int64_t>(std::llround(item.quantity * static_cast<double>(item.unit_price.cents()))));
}

void validate_receipt(const Receipt& receipt)
{
    for (const auto& rule : field_rules)
        if (!rule.holds(receipt))
            throw ReceiptError(std::string(rule.field) + " " + rule.problem);
    for (const auto& field : text_fields)
        check_text(field.field, field.text(receipt), field.longest);
    for (size_t i = 0; i < receipt.other_taxes.size(); ++i)
        check_text("other_taxes[" + std::to_string(i) + "].description", receipt.other_taxes[i].description, 200);
    const std::string problem =
        check_items(receipt.items, receipt.amounts, receipt.vat_lines, voucher_type_info(receipt.voucher_type)->letter);
    if (!problem.empty())
        throw ReceiptError("items: " + problem);
}

VoucherContent voucher_content(const Receipt& r)
{
    const VoucherTypeInfo* type = voucher_type_info(r.voucher_type);
    const std::string symbol = currency_symbol(r.currency);
    VoucherContent content;
    content.letter = type->letter;
    content.type_code = "COD. " + zero_padded(r.voucher_type, 3);
    content.type_name = type->name;
    content.numbering = "Punto de Venta: " + zero_padded(r.point_of_sale, 5) + " Comp. Nro: " + zero_padded(r.number, 8);
    content.number = zero_padded(r.point_of_sale, 5) + "-" + zero_padded(r.number, 8);
    content.issue_date = "Fecha de Emisión: " + date_text(r.date);

    content.issuer_name = printable(r.issuer.name);
    content.issuer_lines = {"Domicilio Comercial: " + printable(r.issuer.address),
                            std::string("Condición frente al IVA: ") + vat_condition_name(r.issuer.vat_condition)};
    content.issuer_tax_lines = {"CUIT: " + r.issuer.cuit, "Ingresos Brutos: " + printable(r.issuer.iibb),
                                "Fecha de Inicio de Actividades: " + date_text(r.issuer.activities_start)};
    if (r.concept != 1)
        content.period_lines.push_back("Período Facturado Desde: " + date_text(r.service_from) +
                                       " Hasta: " + date_text(r.service_to));
    if (!r.payment_due.empty())
        content.period_lines.push_back("Fecha de Vto. para el pago: " + date_text(r.payment_due));
    content.receiver_lines = receiver_lines(r.receiver);
    for (const PrintedAssociatedVoucher& voucher : r.associated)
        content.reference_lines.push_back("Comprobante Asociado: " + voucher_name(voucher.type, voucher.point_of_sale, voucher.number) +
                                          (voucher.date.empty() ? "" : " del " + date_text(voucher.date)));
    if (r.currency != "PES") {
        const CurrencyInfo* currency = currency_info(r.currency);
        content.reference_lines.push_back("Moneda: " + (currency ? std::string(currency->name) : printable(r.currency)) +
                                          " - Cotización: " + quantity_text(r.quotation));
    }

    content.vat_itemised = vat_display(type->letter) == VatDisplay::itemised;
    for (const ReceiptItem& item : r.items)
        content.items.push_back({printable(item.description), quantity_text(item.quantity), amount_text(item.unit_price),
                                 content.vat_itemised && item.vat_rate_id != 0 ? vat_percent(item.vat_rate_id) : "",
                                 amount_text(item_subtotal(item))});
    if (r.items.empty())
        content.items.push_back({r.description.empty() ? concept_name(r.concept) : printable(r.description), "", "", "", ""});
    for (const OtherTax& tax : r.other_taxes)
        content.other_taxes.push_back({printable(tax.description), amount_text(tax.base), percent_text(tax.rate) + "%",
                                       amount_text(tax.amount)});
    content.totals = totals(r, symbol, content.vat_itemised);
    add_transparency(r, symbol, content);

    const Authorisation& authorisation = r.authorisation;
    if (authorisation.kind == AuthorisationKind::cae)
        content.authorisation = {{"CAE N°:", authorisation.code}, {"Fecha de Vto. de CAE:", date_text(authorisation.cae_expiry)}};
    else
        content.authorisation = {{"CAEA N°:", authorisation.code},
                                 {"Vigencia del CAEA:", date_text(authorisation.caea_from) + " al " + date_text(authorisation.caea_to)}};

    size_t start = 0;
    while (start < r.issuer.footer.size()) {
        const size_t end = std::min(r.issuer.footer.find('\n', start), r.issuer.footer.size());
        content.footer_lines.push_back(printable(r.issuer.footer.substr(start, end - start)));
        start = end + 1;
    }
    content.qr_address = r.qr_address;
    return content;
}
