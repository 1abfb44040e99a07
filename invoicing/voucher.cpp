#include "invoicing/voucher.h"

#include <nlohmann/json.hpp>

#include <algorithm>
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

    Money amount(const char* name, const json& value)
    {
        std::optional<Money> amount;
        if (value.is_number())
            amount = Money::from_number(value.get<double>());
        else if (value.is_string())
            amount = Money::parse(value.get<std::string>());
        if (!amount)
            fail_field(name, "must be a number below 10^13");
        return *amount;
    }

    // MonCotiz and Alic go out as given, to six decimals at most, without trailing zeros.
    std::string rate(const char* name, const json& value)
    {
        double rate = 0;
        if (value.is_number())
            rate = value.get<double>();
        else if (!value.is_string() || !Money::parse(value.get<std::string>()))
            fail_field(name, "must be a number below 10^13");
        else
            rate = std::stod(value.get<std::string>());
        if (!Money::from_number(rate))
            fail_field(name, "must be a number below 10^13");
        return decimal_text(rate);
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
        throw VoucherError(place + " " + problem);
    }

    [[noreturn]] void fail_field(const std::string& name, const std::string& problem) const
    {
        throw VoucherError("field " + m_where + name + " " + problem);
    }

private:
    const json& m_object;
    std::string m_where; // "" at the top, "Iva[0]." inside a list
    std::set<std::string> m_known;
};

} // namespace

bool is_sale_id(const std::string& text)
{
    return !text.empty() && text.size() <= 128 &&
           std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

Voucher read_voucher(const std::string& json_text)
{
    json document;
    try {
        document = json::parse(json_text);
    } catch (const json::exception& error) {
        throw VoucherError(std::string("the voucher is not JSON: ") + error.what());
    }
    return read_voucher(document);
}

Voucher read_voucher(const nlohmann::json& document)
{
    Fields fields(document, "");
    Voucher voucher;
    const auto required_integer = [&](const char* name) { return fields.small_integer(name, fields.require(name)); };
    const auto optional_amount = [&](const char* name) {
        const json* value = fields.find(name);
        return value ? fields.amount(name, *value) : Money();
    };
    const auto optional_date = [&](const char* name) {
        const json* value = fields.find(name);
        return value ? fields.date(name, *value) : std::string();
    };

    if (const json* sale_id = fields.find("sale_id")) {
        voucher.sale_id = fields.text("sale_id", *sale_id);
        if (!is_sale_id(voucher.sale_id))
            fields.fail_field("sale_id", "must be 1 to 128 bytes of text without control characters");
    }
    voucher.point_of_sale = required_integer("PtoVta");
    voucher.voucher_type = required_integer("CbteTipo");
    voucher.concept = required_integer("Concepto");
    voucher.document_type = required_integer("DocTipo");
    voucher.document_number =
        fields.integer("DocNro", fields.require("DocNro"), std::numeric_limits<std::int64_t>::max());
    if (const json* number = fields.find("CbteNro"))
        voucher.number = fields.integer("CbteNro", *number, std::numeric_limits<std::int64_t>::max());
    voucher.date = optional_date("CbteFch");
    voucher.total = fields.amount("ImpTotal", fields.require("ImpTotal"));
    voucher.untaxed = optional_amount("ImpTotConc");
    voucher.net = optional_amount("ImpNeto");
    voucher.exempt = optional_amount("ImpOpEx");
    voucher.taxes_total = optional_amount("ImpTrib");
    voucher.vat_total = optional_amount("ImpIVA");
    if (const json* currency = fields.find("MonId"))
        voucher.currency = fields.text("MonId", *currency);
    if (const json* rate = fields.find("MonCotiz"))
        voucher.exchange_rate = fields.rate("MonCotiz", *rate);
    if (const json* condition = fields.find("CondicionIVAReceptorId")) {
        if (condition->is_string() && condition->get<std::string>() == "padron")
            voucher.condition_from_registry = true;
        else if (!condition->is_number_integer())
            fields.fail_field("CondicionIVAReceptorId", "must be a whole number, or \"padron\" for AFIP's registry to say");
        else
            voucher.receiver_vat_condition = fields.small_integer("CondicionIVAReceptorId", *condition);
    }
    voucher.service_from = optional_date("FchServDesde");
    voucher.service_to = optional_date("FchServHasta");
    voucher.payment_due = optional_date("FchVtoPago");

    voucher.vat = fields.list<VatRate>("Iva", [](Fields& item) {
        return VatRate{item.small_integer("Id", item.require("Id")), item.amount("BaseImp", item.require("BaseImp")),
                       item.amount("Importe", item.require("Importe"))};
    });
    voucher.taxes = fields.list<Tax>("Tributos", [](Fields& item) {
        Tax tax;
        tax.id = item.small_integer("Id", item.require("Id"));
        if (const json* description = item.find("Desc"))
            tax.description = item.text("Desc", *description);
        tax.base = item.amount("BaseImp", item.require("BaseImp"));
        tax.rate = item.rate("Alic", item.require("Alic"));
        tax.amount = item.amount("Importe", item.require("Importe"));
        return tax;
    });
    voucher.associated = fields.list<AssociatedVoucher>("CbtesAsoc", [](Fields& item) {
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
    voucher.optionals = fields.list<OptionalDatum>("Opcionales", [](Fields& item) {
        return OptionalDatum{item.text("Id", item.require("Id")), item.text("Valor", item.require("Valor"))};
    });
    if (const json* receptor = fields.find("receptor")) {
        Fields receptor_fields(*receptor, "receptor.");
        VoucherReceptor read;
        if (const json* name = receptor_fields.find("name"))
            read.name = receptor_fields.text("name", *name);
        if (const json* address = receptor_fields.find("address"))
            read.address = receptor_fields.text("address", *address);
        receptor_fields.refuse_unknown();
        voucher.receptor = read;
    }
    voucher.items = fields.list<VoucherItem>("items", [](Fields& item) {
        VoucherItem line;
        line.description = item.text("description", item.require("description"));
        const json& quantity = item.require("quantity");
        if (!quantity.is_number() || !(quantity.get<double>() > 0) || quantity.get<double>() >= 1e9)
            item.fail_field("quantity", "must be a number above 0 and below 10^9");
        line.quantity = quantity.get<double>();
        line.unit_price = item.amount("unit_price", item.require("unit_price"));
        if (const json* rate = item.find("vat_rate_id"))
            line.vat_rate_id = item.small_integer("vat_rate_id", *rate);
        return line;
    });
    fields.refuse_unknown();
    return voucher;
}

std::string canonical_voucher(const Voucher& voucher)
{
    nlohmann::ordered_json out;
    out["PtoVta"] = voucher.point_of_sale;
    out["CbteTipo"] = voucher.voucher_type;
    out["Concepto"] = voucher.concept;
    out["DocTipo"] = voucher.document_type;
    out["DocNro"] = voucher.document_number;
    if (voucher.number)
        out["CbteNro"] = *voucher.number;
    if (!voucher.date.empty())
        out["CbteFch"] = voucher.date;
    out["ImpTotal"] = voucher.total.text();
    out["ImpTotConc"] = voucher.untaxed.text();
    out["ImpNeto"] = voucher.net.text();
    out["ImpOpEx"] = voucher.exempt.text();
    out["ImpTrib"] = voucher.taxes_total.text();
    out["ImpIVA"] = voucher.vat_total.text();
    out["MonId"] = voucher.currency;
    out["MonCotiz"] = voucher.exchange_rate;
    if (voucher.receiver_vat_condition)
        out["CondicionIVAReceptorId"] = *voucher.receiver_vat_condition;
    else if (voucher.condition_from_registry)
        out["CondicionIVAReceptorId"] = "padron";
    for (const auto& [name, date] : {std::pair("FchServDesde", &voucher.service_from),
                                     std::pair("FchServHasta", &voucher.service_to),
                                     std::pair("FchVtoPago", &voucher.payment_due)})
        if (!date->empty())
            out[name] = *date;
    for (const VatRate& rate : voucher.vat)
        out["Iva"].push_back({{"Id", rate.id}, {"BaseImp", rate.base.text()}, {"Importe", rate.amount.text()}});
    for (const Tax& tax : voucher.taxes) {
        nlohmann::ordered_json item{{"Id", tax.id}};
        if (!tax.description.empty())
            item["Desc"] = tax.description;
        item["BaseImp"] = tax.base.text();
        item["Alic"] = tax.rate;
        item["Importe"] = tax.amount.text();
        out["Tributos"].push_back(item);
    }
    for (const AssociatedVoucher& associated : voucher.associated) {
        nlohmann::ordered_json item{{"Tipo", associated.type}, {"PtoVta", associated.point_of_sale}, {"Nro", associated.number}};
        if (!associated.cuit.empty())
            item["Cuit"] = associated.cuit;
        if (!associated.date.empty())
            item["CbteFch"] = associated.date;
        out["CbtesAsoc"].push_back(item);
    }
    for (const OptionalDatum& datum : voucher.optionals)
        out["Opcionales"].push_back({{"Id", datum.id}, {"Valor", datum.value}});
    if (voucher.receptor)
        out["receptor"] = {{"name", voucher.receptor->name}, {"address", voucher.receptor->address}};
    for (const VoucherItem& item : voucher.items) {
        nlohmann::ordered_json line{{"description", item.description}, {"quantity", item.quantity},
                                    {"unit_price", item.unit_price.text()}};
        if (item.vat_rate_id != 0)
            line["vat_rate_id"] = item.vat_rate_id;
        out["items"].push_back(line);
    }
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
