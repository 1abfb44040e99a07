#include "invoice_file.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <limits>
#include <set>

namespace {

using nlohmann::json;

// Reads the fields of one JSON object, remembering which it took so that the rest can be refused.
class Fields {
public:
    Fields(const json& object, std::string where) : m_object(object), m_where(std::move(where))
    {
        if (!m_object.is_object())
            fail("must be an object");
    }

    const json* find(const char* name)
    {
        m_known.insert(name);
        const auto found = m_object.find(name);
        return found == m_object.end() || found->is_null() ? nullptr : &*found;
    }

    const json& require(const char* name)
    {
        const json* value = find(name);
        if (value == nullptr)
            fail_field(name, "is required");
        return *value;
    }

    std::int64_t integer(const char* name, const json& value, std::int64_t highest)
    {
        if (!value.is_number_integer())
            fail_field(name, "must be a whole number");
        // Unsigned values above the signed range come as number_unsigned.
        if (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(highest))
            fail_field(name, "is out of range 0.." + std::to_string(highest));
        const std::int64_t number = value.get<std::int64_t>();
        if (number < 0 || number > highest)
            fail_field(name, "is out of range 0.." + std::to_string(highest));
        return number;
    }

    int small_integer(const char* name, const json& value)
    {
        return static_cast<int>(integer(name, value, std::numeric_limits<std::int32_t>::max()));
    }

    double number(const char* name, const json& value)
    {
        // Beyond 1e13 a double no longer holds every cent.
        if (!value.is_number() || std::fabs(value.get<double>()) >= 1e13)
            fail_field(name, "must be a number below 10^13");
        return value.get<double>();
    }

    Cents amount(const char* name, const json& value)
    {
        // Half a cent away from zero, with a margin for binary fractions such as 1.005.
        const double cents = number(name, value) * 100.0;
        return static_cast<Cents>(std::llround(cents + std::copysign(1e-6, cents)));
    }

    std::string text(const char* name, const json& value)
    {
        if (!value.is_string())
            fail_field(name, "must be a string");
        return value.get<std::string>();
    }

    std::string date(const char* name, const json& value)
    {
        const std::string date = text(name, value);
        if (date.size() != 8 || date.find_first_not_of("0123456789") != std::string::npos)
            fail_field(name, "must be a date written yyyymmdd");
        return date;
    }

    template <typename Item, typename Reader>
    std::vector<Item> list(const char* name, Reader read_item)
    {
        std::vector<Item> items;
        const json* value = find(name);
        if (value == nullptr)
            return items;
        if (!value->is_array())
            fail_field(name, "must be a list");
        for (size_t index = 0; index < value->size(); ++index) {
            Fields item((*value)[index], m_where + name + "[" + std::to_string(index) + "].");
            items.push_back(read_item(item));
            item.refuse_unknown();
        }
        return items;
    }

    void refuse_unknown() const
    {
        for (const auto& [name, value] : m_object.items())
            if (!m_known.count(name))
                fail_field(name, "is not a field of a voucher");
    }

    [[noreturn]] void fail(const std::string& problem) const
    {
        const std::string place = m_where.empty() ? "the voucher" : m_where.substr(0, m_where.size() - 1);
        throw InvoiceFileError(place + " " + problem);
    }

    [[noreturn]] void fail_field(const std::string& name, const std::string& problem) const
    {
        throw InvoiceFileError("field " + m_where + name + " " + problem);
    }

private:
    const json& m_object;
    std::string m_where; // "" at the top, "Iva[0]." inside a list
    std::set<std::string> m_known;
};

// MonCotiz and Alic go out as given, to six decimals at most, without trailing zeros.
std::string decimal_text(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.6f", value);
    std::string result = text;
    result.erase(result.find_last_not_of('0') + 1);
    if (result.back() == '.')
        result.pop_back();
    return result == "-0" ? "0" : result;
}

} // namespace

std::string format_cents(Cents amount)
{
    const unsigned long long magnitude =
        amount < 0 ? 0ULL - static_cast<unsigned long long>(amount) : static_cast<unsigned long long>(amount);
    char text[32];
    std::snprintf(text, sizeof text, "%s%llu.%02llu", amount < 0 ? "-" : "", magnitude / 100, magnitude % 100);
    return text;
}

Invoice read_invoice(const std::string& json_text)
{
    json document;
    try {
        document = json::parse(json_text);
    } catch (const json::exception& error) {
        throw InvoiceFileError(std::string("the invoice file is not JSON: ") + error.what());
    }
    Fields fields(document, "");
    Invoice invoice;
    const auto required_integer = [&](const char* name) { return fields.small_integer(name, fields.require(name)); };
    const auto optional_amount = [&](const char* name) {
        const json* value = fields.find(name);
        return value ? fields.amount(name, *value) : Cents{0};
    };
    const auto optional_date = [&](const char* name) {
        const json* value = fields.find(name);
        return value ? fields.date(name, *value) : std::string();
    };

    invoice.point_of_sale = required_integer("PtoVta");
    invoice.voucher_type = required_integer("CbteTipo");
    invoice.concept = required_integer("Concepto");
    invoice.document_type = required_integer("DocTipo");
    invoice.document_number =
        fields.integer("DocNro", fields.require("DocNro"), std::numeric_limits<std::int64_t>::max());
    if (const json* number = fields.find("CbteNro"))
        invoice.number = fields.integer("CbteNro", *number, std::numeric_limits<std::int64_t>::max());
    invoice.date = optional_date("CbteFch");
    invoice.total = fields.amount("ImpTotal", fields.require("ImpTotal"));
    invoice.untaxed = optional_amount("ImpTotConc");
    invoice.net = optional_amount("ImpNeto");
    invoice.exempt = optional_amount("ImpOpEx");
    invoice.taxes_total = optional_amount("ImpTrib");
    invoice.vat_total = optional_amount("ImpIVA");
    if (const json* currency = fields.find("MonId"))
        invoice.currency = fields.text("MonId", *currency);
    if (const json* rate = fields.find("MonCotiz"))
        invoice.exchange_rate = decimal_text(fields.number("MonCotiz", *rate));
    if (const json* condition = fields.find("CondicionIVAReceptorId"))
        invoice.receiver_vat_condition = fields.small_integer("CondicionIVAReceptorId", *condition);
    invoice.service_from = optional_date("FchServDesde");
    invoice.service_to = optional_date("FchServHasta");
    invoice.payment_due = optional_date("FchVtoPago");

    invoice.vat = fields.list<VatRate>("Iva", [](Fields& item) {
        return VatRate{item.small_integer("Id", item.require("Id")), item.amount("BaseImp", item.require("BaseImp")),
                       item.amount("Importe", item.require("Importe"))};
    });
    invoice.taxes = fields.list<Tax>("Tributos", [](Fields& item) {
        Tax tax;
        tax.id = item.small_integer("Id", item.require("Id"));
        if (const json* description = item.find("Desc"))
            tax.description = item.text("Desc", *description);
        tax.base = item.amount("BaseImp", item.require("BaseImp"));
        tax.rate = decimal_text(item.number("Alic", item.require("Alic")));
        tax.amount = item.amount("Importe", item.require("Importe"));
        return tax;
    });
    invoice.associated = fields.list<AssociatedVoucher>("CbtesAsoc", [](Fields& item) {
        AssociatedVoucher voucher;
        voucher.type = item.small_integer("Tipo", item.require("Tipo"));
        voucher.point_of_sale = item.small_integer("PtoVta", item.require("PtoVta"));
        voucher.number = item.integer("Nro", item.require("Nro"), std::numeric_limits<std::int64_t>::max());
        if (const json* cuit = item.find("Cuit"))
            voucher.cuit = item.text("Cuit", *cuit);
        if (const json* date = item.find("CbteFch"))
            voucher.date = item.date("CbteFch", *date);
        return voucher;
    });
    invoice.optionals = fields.list<OptionalDatum>("Opcionales", [](Fields& item) {
        return OptionalDatum{item.text("Id", item.require("Id")), item.text("Valor", item.require("Valor"))};
    });
    fields.refuse_unknown();
    return invoice;
}
