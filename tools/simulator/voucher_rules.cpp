#include "voucher_rules.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "util/argentina_time.h"
#include "parameters.h"
#include "soap.h"

namespace {

// ---- Reading a detail as AFIP's schema types it ----

enum class Type { text, int16, int32, int64, real };

struct Field {
    const char* name;
    Type type;
    bool required;
};

struct ListOf {
    const char* list;
    const char* item;
    std::vector<Field> fields;
};

// A leading '+' is the schema's too, but not before a '-'.
const char* after_plus(const std::string& text)
{
    return text.data() + (text.size() > 1 && text[0] == '+' && text[1] != '-');
}

std::optional<long long> read_integer(const std::string& text, Type type)
{
    const char* begin = after_plus(text);
    long long value = 0;
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    const long long limit = type == Type::int16 ? std::numeric_limits<std::int16_t>::max()
                            : type == Type::int32 ? std::numeric_limits<std::int32_t>::max()
                                                  : std::numeric_limits<std::int64_t>::max();
    if (value > limit || value < -limit - 1)
        return std::nullopt;
    return value;
}

// xs:double's decimal forms; INF and NaN are refused, as no amount is infinite.
std::optional<double> read_real(const std::string& text)
{
    const char* begin = after_plus(text);
    const char* end = text.data() + text.size();
    if (begin == end || std::any_of(begin, end, [](char c) { return !std::isdigit(static_cast<unsigned char>(c)) &&
                                                                    c != '.' && c != '-' && c != '+' && c != 'e' && c != 'E'; }))
        return std::nullopt;
    double value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value);
    if (error != std::errc() || stop != end || !std::isfinite(value))
        return std::nullopt;
    return value;
}

bool readable(const std::string& text, Type type)
{
    return type == Type::text ? true : type == Type::real ? read_real(text).has_value() : read_integer(text, type).has_value();
}

std::string element(const std::string& name, const std::string& text)
{
    return "<" + name + ">" + xml_escape(text) + "</" + name + ">";
}

// Appends the fields present under `parent`, in order; false when a required one is missing or unreadable.
bool echo_fields(const pugi::xml_node& parent, const std::vector<Field>& fields, std::string& echo)
{
    for (const Field& field : fields) {
        const pugi::xml_node node = child_by_local_name(parent, field.name);
        const std::string text = text_by_local_name(parent, {field.name});
        if (!node && !field.required)
            continue;
        if (!node || !readable(text, field.type))
            return false;
        echo += element(field.name, text);
    }
    return true;
}

bool echo_list(const pugi::xml_node& detail, const ListOf& list, std::string& echo)
{
    const pugi::xml_node node = child_by_local_name(detail, list.list);
    if (!node)
        return true;
    echo += "<" + std::string(list.list) + ">";
    for (const pugi::xml_node& item : node.children()) {
        if (item.type() != pugi::node_element || local_name(item) != list.item)
            continue;
        echo += "<" + std::string(list.item) + ">";
        if (!echo_fields(item, list.fields, echo))
            return false;
        echo += "</" + std::string(list.item) + ">";
    }
    echo += "</" + std::string(list.list) + ">";
    return true;
}

const std::vector<Field> leading_fields = {
    {"Concepto", Type::int32, true},   {"DocTipo", Type::int32, true},     {"DocNro", Type::int64, true},
    {"CbteDesde", Type::int64, true},  {"CbteHasta", Type::int64, true}};
const std::vector<Field> amount_fields = {
    {"ImpTotal", Type::real, true}, {"ImpTotConc", Type::real, true}, {"ImpNeto", Type::real, true},
    {"ImpOpEx", Type::real, true},  {"ImpTrib", Type::real, true},    {"ImpIVA", Type::real, true},
    {"FchServDesde", Type::text, false}, {"FchServHasta", Type::text, false}, {"FchVtoPago", Type::text, false},
    {"MonId", Type::text, false},   {"MonCotiz", Type::real, false},  {"CanMisMonExt", Type::text, false},
    {"CondicionIVAReceptorId", Type::int32, false}};
const ListOf associated = {"CbtesAsoc", "CbteAsoc",
                           {{"Tipo", Type::int32, true}, {"PtoVta", Type::int32, true}, {"Nro", Type::int64, true},
                            {"Cuit", Type::text, false}, {"CbteFch", Type::text, false}}};
const ListOf taxes = {"Tributos", "Tributo",
                      {{"Id", Type::int16, true}, {"Desc", Type::text, false}, {"BaseImp", Type::real, true},
                       {"Alic", Type::real, true}, {"Importe", Type::real, true}}};
const ListOf rates = {"Iva", "AlicIva", {{"Id", Type::int32, true}, {"BaseImp", Type::real, true}, {"Importe", Type::real, true}}};
const ListOf optionals = {"Opcionales", "Opcional", {{"Id", Type::text, false}, {"Valor", Type::text, false}}};
const ListOf buyers = {"Compradores", "Comprador",
                       {{"DocTipo", Type::int32, true}, {"DocNro", Type::int64, true}, {"Porcentaje", Type::real, true}}};
const ListOf activities = {"Actividades", "Actividad", {{"Id", Type::int64, true}}};

double real_of(const pugi::xml_node& node, const char* name)
{
    return read_real(text_by_local_name(node, {name})).value_or(0);
}

long long integer_of(const pugi::xml_node& node, const char* name)
{
    return read_integer(text_by_local_name(node, {name}), Type::int64).value_or(0);
}

std::vector<pugi::xml_node> items(const pugi::xml_node& detail, const ListOf& list)
{
    std::vector<pugi::xml_node> found;
    for (const pugi::xml_node& item : child_by_local_name(detail, list.list).children())
        if (item.type() == pugi::node_element && local_name(item) == list.item)
            found.push_back(item);
    return found;
}

// ---- What the rules share ----

constexpr double identification_threshold = 10000000; // RG 5700/2025: a final consumer is named from here

bool close(double a, double b, size_t terms = 1)
{
    return std::fabs(a - b) <= 0.01 * static_cast<double>(std::max<size_t>(terms, 1)) + 1e-9;
}

bool one_of(long long value, std::initializer_list<long long> set)
{
    return std::find(set.begin(), set.end(), value) != set.end();
}

char cls(const VoucherCheck& c)
{
    return voucher_class(c.voucher_type);
}

bool is_note(const VoucherCheck& c)
{
    return one_of(c.voucher_type, {2, 3, 7, 8, 12, 13, 52, 53, 202, 203, 207, 208, 212, 213});
}

bool is_credit_invoice_note(const VoucherCheck& c)
{
    return one_of(c.voucher_type, {202, 203, 207, 208, 212, 213});
}

// CbteFch outside [N - before, N + after], N the day the request is sent; an unreadable date too.
bool date_outside(const VoucherCheck& c, long long before, long long after)
{
    const auto date = day_of_date(c.detail.date);
    const long long today = *day_of_date(c.today);
    return !date || *date < today - before || *date > today + after;
}

bool is_service(const VoucherCheck& c)
{
    return c.detail.concept == 2 || c.detail.concept == 3;
}

bool any_service_date(const VoucherCheck& c)
{
    return !c.detail.service_from.empty() || !c.detail.service_to.empty() || !c.detail.payment_due.empty();
}

template <typename Item, typename Value>
double sum(const std::vector<Item>& list, Value value)
{
    double total = 0;
    for (const Item& item : list)
        total += value(item);
    return total;
}

bool identified_by_cuit(const VoucherCheck& c)
{
    return one_of(c.detail.document_type, {80, 86, 87});
}

std::optional<int> receptor_in_padron(const VoucherCheck& c)
{
    return c.padron ? c.padron->condition_of(c.detail.document_number) : std::nullopt;
}

const ReceptorCondition* known_condition(long long id)
{
    const auto& conditions = receptor_conditions();
    const auto found = std::find_if(conditions.begin(), conditions.end(), [&](const ReceptorCondition& c) { return c.id == id; });
    return found == conditions.end() ? nullptr : &*found;
}

const char* const next_number_text =
    "El numero o fecha del comprobante no se corresponde con el proximo a autorizar. Consultar metodo FECompUltimoAutorizado.";

using K = RuleKind;

// AFIP's rules, held to wsfev1-validations.md: the Err ones refuse the request before any voucher
// is looked at; every Obs that applies to a voucher is reported, and one of kind R rejects it.
const std::vector<VoucherRule> rules = {
    {10001, K::error, "El campo CantReg debe estar comprendido entre 1 y 9998.", false, "`CantReg` outside 1–9998",
     [](const VoucherCheck& c) { return c.declared_count < 1 || c.declared_count > 9998; }},
    {10002, K::error, "Campo CantReg debe ser igual a lo informado en detalle. Informado: {CantReg}, Enviado: {Enviado}", true,
     "`CantReg` ≠ the number of details sent",
     [](const VoucherCheck& c) { return c.declared_count != static_cast<long long>(c.sent_count); }},
    {10003, K::error, "La cantidad de comprobantes del lote supera la permitida por el metodo FECompTotXRequest.", false,
     "more details than `FECompTotXRequest` allows (250)",
     [](const VoucherCheck& c) { return c.sent_count > most_vouchers_per_request; }},
    {10016, K::error, next_number_text, true,
     "`CbteDesde` ≠ last authorised + 1 (a number sent again too), `CbteHasta` < `CbteDesde` or above 99999999, or `CbteFch` before the last authorised voucher's",
     [](const VoucherCheck& c) {
         return c.detail.first != c.next_number || c.detail.last < c.detail.first || c.detail.last > 99999999 ||
                (!c.last_date.empty() && day_of_date(c.detail.date) && *day_of_date(c.detail.date) < *day_of_date(c.last_date));
     }},
    {10016, K::rejecting_observation,
     "Campo CbteFch Debe estar comprendido  en el  rango  N-5 y N+5 siendo N la fecha de envio del pedido  de autorizacion para 1 - Productos",
     true, "`Concepto` 1 and `CbteFch` outside N−5…N+5 (N: today in Argentina)",
     [](const VoucherCheck& c) { return c.detail.concept == 1 && !is_credit_invoice_note(c) && date_outside(c, 5, 5); }},
    {10016, K::rejecting_observation,
     "Campo CbteFch Debe estar comprendido  en el  rango  N-10 y N+10 siendo N la fecha de envio del pedido  de autorizacion para {Concepto}",
     false, "`Concepto` 2 or 3 and `CbteFch` outside N−10…N+10",
     [](const VoucherCheck& c) { return is_service(c) && !is_credit_invoice_note(c) && date_outside(c, 10, 10); }},
    {10016, K::rejecting_observation,
     "Campo CbteFch Debe estar comprendido  en el  rango  N-5 y N siendo N la fecha de envio del pedido de autorizacion para Facturas de Credito del tipo Nota de Debito o Nota de Credito",
     true, "a credit-invoice note (202, 203, 207, 208, 212, 213) with `CbteFch` outside N−5…N",
     [](const VoucherCheck& c) { return is_credit_invoice_note(c) && date_outside(c, 5, 0); }},
    {10049, K::rejecting_observation,
     "Si el Concepto es 2 o 3 (Servicios) los campos FchServDesde, FchServHasta y FchVtoPago son obligatorios.", false,
     "`Concepto` 2 or 3 without `FchServDesde`, `FchServHasta` and `FchVtoPago`",
     [](const VoucherCheck& c) { return is_service(c) && !any_service_date(c); }},
    {10031, K::rejecting_observation, "El campo FchServDesde es obligatorio si se informa otra fecha de servicio.", false,
     "`FchServHasta` or `FchVtoPago` sent without `FchServDesde`",
     [](const VoucherCheck& c) { return any_service_date(c) && c.detail.service_from.empty(); }},
    {10033, K::rejecting_observation, "El campo FchServHasta es obligatorio si se informa otra fecha de servicio.", false,
     "`FchServDesde` or `FchVtoPago` sent without `FchServHasta`",
     [](const VoucherCheck& c) { return any_service_date(c) && c.detail.service_to.empty(); }},
    {10035, K::rejecting_observation, "El campo FchVtoPago es obligatorio si se informa otra fecha de servicio.", false,
     "`FchServDesde` or `FchServHasta` sent without `FchVtoPago`",
     [](const VoucherCheck& c) { return any_service_date(c) && c.detail.payment_due.empty(); }},
    {10034, K::rejecting_observation, "Las fechas FchServDesde, FchServHasta y FchVtoPago deben tener el formato yyyymmdd.", false,
     "a service or payment date that is not a date yyyymmdd (the simulator's reading of 10034)",
     [](const VoucherCheck& c) {
         for (const std::string* date : {&c.detail.service_from, &c.detail.service_to, &c.detail.payment_due})
             if (!date->empty() && !day_of_date(*date))
                 return true;
         return false;
     }},
    {10032, K::rejecting_observation, "El campo FchServDesde no puede ser posterior a FchServHasta.", false,
     "`FchServDesde` after `FchServHasta`",
     [](const VoucherCheck& c) {
         const auto from = day_of_date(c.detail.service_from), to = day_of_date(c.detail.service_to);
         return from && to && *from > *to;
     }},
    {10036, K::rejecting_observation, "El campo FchVtoPago no puede ser anterior a la fecha del comprobante.", false,
     "`FchVtoPago` before `CbteFch`",
     [](const VoucherCheck& c) {
         const auto due = day_of_date(c.detail.payment_due), date = day_of_date(c.detail.date);
         return due && date && *due < *date;
     }},
    {10048, K::rejecting_observation,
     "El campo  'Importe Total' ImpTotal, debe ser igual  a la  suma de ImpTotConc + ImpNeto + ImpOpEx + ImpTrib + ImpIVA.", true,
     "classes A, B, M: `ImpTotal` ≠ `ImpTotConc + ImpNeto + ImpOpEx + ImpTrib + ImpIVA` by more than 0.01",
     [](const VoucherCheck& c) {
         const VoucherDetail& d = c.detail;
         return cls(c) != 'C' && !close(d.total, d.untaxed + d.net + d.exempt + d.taxes_total + d.vat);
     }},
    {10048, K::rejecting_observation,
     "El campo  'Importe Total' ImpTotal, debe ser igual  a la  suma de ImpNeto + ImpTrib. Donde ImpNeto es igual al Sub Total", true,
     "class C: `ImpTotal` ≠ `ImpNeto + ImpTrib` by more than 0.01",
     [](const VoucherCheck& c) { return cls(c) == 'C' && !close(c.detail.total, c.detail.net + c.detail.taxes_total); }},
    {10018, K::rejecting_observation, "Si ImpIva es mayor a 0 el objeto Iva y AlicIva son obligatorios.", true,
     "not class C: `ImpIVA` > 0 without `Iva/AlicIva`",
     [](const VoucherCheck& c) { return cls(c) != 'C' && c.detail.vat > 0 && c.detail.vat_rates.empty(); }},
    {10018, K::rejecting_observation, "Si ImpIva es igual a 0 el objeto Iva y AlicIva son obligatorios. Id iva = 3 (iva 0)", true,
     "not class C: `ImpIVA` = 0 with an `AlicIva` whose `Id` is not 3",
     [](const VoucherCheck& c) {
         return cls(c) != 'C' && c.detail.vat == 0 &&
                std::any_of(c.detail.vat_rates.begin(), c.detail.vat_rates.end(), [](const auto& r) { return r.id != 3; });
     }},
    {10023, K::rejecting_observation, "La suma de los campos Importe en AlicIva debe ser igual al valor ingresado en ImpIVA.", false,
     "not class C: Σ `AlicIva/Importe` ≠ `ImpIVA` by more than 0.01 per rate",
     [](const VoucherCheck& c) {
         const auto& r = c.detail.vat_rates;
         return cls(c) != 'C' && !r.empty() && !close(sum(r, [](const auto& x) { return x.amount; }), c.detail.vat, r.size());
     }},
    {10061, K::rejecting_observation, "La suma de los campos BaseImp en AlicIva debe ser igual al valor ingresado en ImpNeto.", false,
     "not class C nor types 2, 3, 7, 8, 52, 53: Σ `AlicIva/BaseImp` ≠ `ImpNeto` by more than 0.01 per rate",
     [](const VoucherCheck& c) {
         const auto& r = c.detail.vat_rates;
         return cls(c) != 'C' && !one_of(c.voucher_type, {2, 3, 7, 8, 52, 53}) && !r.empty() &&
                !close(sum(r, [](const auto& x) { return x.base; }), c.detail.net, r.size());
     }},
    {10051, K::rejecting_observation, "Los importes informados en AlicIVA no se corresponden con los porcentajes.", true,
     "an `AlicIva/Importe` ≠ `BaseImp` × its rate (3: 0 %, 4: 10.5 %, 5: 21 %, 6: 27 %, 8: 5 %, 9: 2.5 %) by more than 0.01",
     [](const VoucherCheck& c) {
         return std::any_of(c.detail.vat_rates.begin(), c.detail.vat_rates.end(), [](const auto& r) {
             return vat_percentage(r.id) >= 0 && !close(r.amount, r.base * vat_percentage(r.id) / 100);
         });
     }},
    {10070, K::rejecting_observation, "Si ImpNeto es mayor a 0 el objeto IVA es obligatorio.", true,
     "classes A, B: `ImpNeto` > 0 without `Iva`",
     [](const VoucherCheck& c) { return (cls(c) == 'A' || cls(c) == 'B') && c.detail.net > 0 && c.detail.vat_rates.empty(); }},
    {10071, K::rejecting_observation, "Para comprobantes tipo C el objeto IVA no debe informarse.", true,
     "class C with an `Iva` element, even empty",
     [](const VoucherCheck& c) { return cls(c) == 'C' && c.detail.has_vat_element; }},
    {10044, K::rejecting_observation, "El campo ImpOpEx (importe exento) para comprobantes tipo C debe ser igual a cero (0).", true,
     "class C: `ImpOpEx` ≠ 0", [](const VoucherCheck& c) { return cls(c) == 'C' && c.detail.exempt != 0; }},
    {10043, K::rejecting_observation,
     "El campo ImpTotConc (importe neto no gravado) para comprobantes tipo C debe ser igual a cero (0).", false,
     "class C: `ImpTotConc` ≠ 0", [](const VoucherCheck& c) { return cls(c) == 'C' && c.detail.untaxed != 0; }},
    {10047, K::rejecting_observation, "El campo ImpIVA (Importe de IVA) para comprobantes tipo C debe ser igual a cero (0).", false,
     "class C: `ImpIVA` ≠ 0", [](const VoucherCheck& c) { return cls(c) == 'C' && c.detail.vat != 0; }},
    {10024, K::rejecting_observation, "Si ImpTrib es mayor a 0 el objeto Tributos y Tributo son obligatorios.", true,
     "`ImpTrib` > 0 without `Tributos/Tributo`",
     [](const VoucherCheck& c) { return c.detail.taxes_total > 0 && c.detail.taxes.empty(); }},
    {10024, K::rejecting_observation, "Si ImpTrib es igual a 0 el objeto Tributos y Tributo no deben informarse.", true,
     "`ImpTrib` = 0 with a `Tributos` element, even empty",
     [](const VoucherCheck& c) { return c.detail.taxes_total == 0 && c.detail.has_taxes_element; }},
    {10025, K::rejecting_observation,
     "El campo Id en Tributo es obligatorio y debe ser alguno de los devueltos por el metodo FEParamGetTiposTributos.", true,
     "a `Tributo/Id` not in `FEParamGetTiposTributos`",
     [](const VoucherCheck& c) {
         return std::any_of(c.detail.taxes.begin(), c.detail.taxes.end(), [](const auto& t) {
             return !parameter_exists("FEParamGetTiposTributos", std::to_string(t.id));
         });
     }},
    {10029, K::rejecting_observation, "La suma de los importes en Tributo debe ser igual al valor ingresado en ImpTrib.", true,
     "Σ `Tributo/Importe` ≠ `ImpTrib` by more than 0.01 per tax",
     [](const VoucherCheck& c) {
         const auto& t = c.detail.taxes;
         return !t.empty() && !close(sum(t, [](const auto& x) { return x.amount; }), c.detail.taxes_total, t.size());
     }},
    {10013, K::rejecting_observation, "Para comprobantes clase A el campo DocTipo debe ser 80 (CUIT).", false,
     "class A with `DocTipo` ≠ 80", [](const VoucherCheck& c) { return cls(c) == 'A' && c.detail.document_type != 80; }},
    {10015, K::rejecting_observation,
     "{Comprobante} (CbteDesde igual a CbteHasta), DocTipo: {DocTipo}, DocNro {DocNro} no se encuentra registrado en los padrones de AFIP y no corresponde a una cuit pais.",
     true, "classes B, C, one voucher, `DocTipo` 80, 86 or 87 and a `DocNro` not in the padrón (23000000000 is exempt)",
     [](const VoucherCheck& c) {
         return (cls(c) == 'B' || cls(c) == 'C') && c.detail.first == c.detail.last && identified_by_cuit(c) &&
                !receptor_in_padron(c) && c.detail.document_number != 23000000000LL;
     }},
    {10015, K::rejecting_observation,
     "{Comprobante}: desde $10.000.000 el receptor debe identificarse con DocTipo y DocNro.", false,
     "class B to `DocTipo` 99 with `ImpTotal` ≥ 10.000.000 (RG 5700/2025)",
     [](const VoucherCheck& c) {
         return cls(c) == 'B' && c.detail.document_type == 99 && c.detail.total >= identification_threshold;
     }},
    {10017, K::approving_observation,
     "Factura individual, DocTipo: 80, DocNro {DocNro} no se encuentra registrado en los padrones de AFIP.", true,
     "class A to `DocTipo` 80 and a `DocNro` not in the padrón",
     [](const VoucherCheck& c) { return cls(c) == 'A' && c.detail.document_type == 80 && !receptor_in_padron(c); }},
    {10063, K::approving_observation, "El receptor del comprobante no se encuentra activo en el impuesto IVA ni en el Monotributo.",
     false, "class A to a receptor in the padrón whose condition is not 1, 6, 13 or 16",
     [](const VoucherCheck& c) {
         const auto condition = receptor_in_padron(c);
         return cls(c) == 'A' && condition && !one_of(*condition, {1, 6, 13, 16});
     }},
    {10217, K::approving_observation,
     "El credito fiscal discriminado en el presente comprobante solo podra ser computado a efectos del Procedimiento permanente de transicion al Regimen General.",
     true, "class A to a receptor in the padrón with condition 6, 13 or 16 (monotributo)",
     [](const VoucherCheck& c) {
         const auto condition = receptor_in_padron(c);
         return cls(c) == 'A' && condition && one_of(*condition, {6, 13, 16});
     }},
    {10069, K::rejecting_observation, "El campo DocNro no puede ser igual a la CUIT del emisor.", false,
     "`DocNro` equal to the issuer's CUIT (`Auth/Cuit`)",
     [](const VoucherCheck& c) { return std::to_string(c.detail.document_number) == c.issuer; }},
    {10037, K::rejecting_observation, "El campo MonId debe ser alguno de los devueltos por el metodo FEParamGetTiposMonedas.", false,
     "`MonId` missing or not in `FEParamGetTiposMonedas`",
     [](const VoucherCheck& c) { return !parameter_exists("FEParamGetTiposMonedas", c.detail.currency); }},
    {10038, K::rejecting_observation, "El campo MonCotiz es obligatorio y debe ser mayor a cero (0).", false,
     "`MonCotiz` missing or ≤ 0, unless `CanMisMonExt` is S",
     [](const VoucherCheck& c) {
         return c.detail.same_foreign_currency != "S" && (!c.detail.rate_to_peso || *c.detail.rate_to_peso <= 0);
     }},
    {10039, K::rejecting_observation, "Si MonId es PES el campo MonCotiz debe ser igual a 1.", false,
     "`MonId` PES with a `MonCotiz` other than 1",
     [](const VoucherCheck& c) { return c.detail.currency == "PES" && c.detail.rate_to_peso && *c.detail.rate_to_peso != 1; }},
    {10197, K::rejecting_observation, "Si el comprobante es Debito o Credito, enviar estructura CbteAsoc o PeriodoAsoc.", true,
     "a debit or credit note (2, 3, 7, 8, 12, 13, 52, 53, 202–213) without `CbtesAsoc/CbteAsoc` nor `PeriodoAsoc`",
     [](const VoucherCheck& c) { return is_note(c) && !c.detail.has_associated; }},
    {10242, K::rejecting_observation,
     "El campo Condicion IVA receptor no es un valor valido. Consular metodo FEParamGetCondicionIvaReceptor", true,
     "`CondicionIVAReceptorId` not an id of `FEParamGetCondicionIvaReceptor`",
     [](const VoucherCheck& c) { return c.detail.receptor_condition && !known_condition(*c.detail.receptor_condition); }},
    {10243, K::rejecting_observation,
     "El campo Condicion IVA receptor no corresponde a la clase de comprobante. Consultar metodo FEParamGetCondicionIvaReceptor",
     false, "`CondicionIVAReceptorId` valid but not for the class (A, M: 1, 6, 13, 16; B: 4, 5, 7, 8, 9, 10, 15; C: all)",
     [](const VoucherCheck& c) {
         const ReceptorCondition* condition = c.detail.receptor_condition ? known_condition(*c.detail.receptor_condition) : nullptr;
         return condition && cls(c) != 0 && std::string(condition->classes).find(cls(c)) == std::string::npos;
     }},
    {10245, K::approving_observation,
     "El campo Condicion Frente al IVA del receptor resultara obligatorio conforme lo reglamentado por la Resolucion General Nro 5616. Para mas informacion consular metodo FEParamGetCondicionIvaReceptor",
     true, "`CondicionIVAReceptorId` missing before `--receptor-condition-required-from`",
     [](const VoucherCheck& c) { return !c.detail.receptor_condition && c.today < c.receptor_condition_required_from; }},
    {10246, K::rejecting_observation,
     "Campo Condicion Frente al IVA del receptor es obligatorio conforme a lo reglamentado por la Resolucion General N° 5616.", true,
     "`CondicionIVAReceptorId` missing from `--receptor-condition-required-from` on",
     [](const VoucherCheck& c) { return !c.detail.receptor_condition && c.today >= c.receptor_condition_required_from; }},
};

} // namespace

char voucher_class(long long type)
{
    if ((type >= 1 && type <= 5) || (type >= 51 && type <= 54) || (type >= 201 && type <= 203) || one_of(type, {34, 39, 60, 63}))
        return 'A';
    if ((type >= 6 && type <= 10) || (type >= 206 && type <= 208) || one_of(type, {35, 40, 61, 64}))
        return 'B';
    if ((type >= 11 && type <= 13) || type == 15 || (type >= 211 && type <= 213))
        return 'C';
    return 0;
}

std::optional<VoucherDetail> read_voucher_detail(const pugi::xml_node& node, const std::string& today)
{
    VoucherDetail detail;
    std::string& echo = detail.echo;
    if (!echo_fields(node, leading_fields, echo))
        return std::nullopt;
    detail.date = text_by_local_name(node, {"CbteFch"});
    if (detail.date.empty())
        detail.date = today;
    echo += element("CbteFch", detail.date);
    if (!echo_fields(node, amount_fields, echo))
        return std::nullopt;
    for (const ListOf* list : {&associated, &taxes, &rates, &optionals})
        if (!echo_list(node, *list, echo))
            return std::nullopt;
    if (!echo_list(node, buyers, echo))
        return std::nullopt;
    if (const pugi::xml_node period = child_by_local_name(node, "PeriodoAsoc")) {
        echo += "<PeriodoAsoc>";
        echo_fields(period, {{"FchDesde", Type::text, false}, {"FchHasta", Type::text, false}}, echo);
        echo += "</PeriodoAsoc>";
        detail.has_associated = true;
    }
    if (!echo_list(node, activities, echo))
        return std::nullopt;

    detail.concept = integer_of(node, "Concepto");
    detail.document_type = integer_of(node, "DocTipo");
    detail.document_number = integer_of(node, "DocNro");
    detail.first = integer_of(node, "CbteDesde");
    detail.last = integer_of(node, "CbteHasta");
    detail.total = real_of(node, "ImpTotal");
    detail.untaxed = real_of(node, "ImpTotConc");
    detail.net = real_of(node, "ImpNeto");
    detail.exempt = real_of(node, "ImpOpEx");
    detail.taxes_total = real_of(node, "ImpTrib");
    detail.vat = real_of(node, "ImpIVA");
    detail.service_from = text_by_local_name(node, {"FchServDesde"});
    detail.service_to = text_by_local_name(node, {"FchServHasta"});
    detail.payment_due = text_by_local_name(node, {"FchVtoPago"});
    detail.currency = text_by_local_name(node, {"MonId"});
    if (child_by_local_name(node, "MonCotiz"))
        detail.rate_to_peso = real_of(node, "MonCotiz");
    detail.same_foreign_currency = text_by_local_name(node, {"CanMisMonExt"});
    if (child_by_local_name(node, "CondicionIVAReceptorId"))
        detail.receptor_condition = integer_of(node, "CondicionIVAReceptorId");
    detail.has_vat_element = child_by_local_name(node, "Iva");
    for (const pugi::xml_node& rate : items(node, rates))
        detail.vat_rates.push_back({integer_of(rate, "Id"), real_of(rate, "BaseImp"), real_of(rate, "Importe")});
    detail.has_taxes_element = child_by_local_name(node, "Tributos");
    for (const pugi::xml_node& tax : items(node, taxes))
        detail.taxes.push_back({integer_of(tax, "Id"), real_of(tax, "Importe")});
    detail.has_associated = detail.has_associated || !items(node, associated).empty();
    return detail;
}

const std::vector<VoucherRule>& voucher_rules()
{
    return rules;
}

std::string rule_message(const VoucherRule& rule, const VoucherCheck& check)
{
    const char voucher = voucher_class(check.voucher_type);
    const std::pair<const char*, std::string> values[] = {
        {"{CantReg}", std::to_string(check.declared_count)},
        {"{Enviado}", std::to_string(check.sent_count)},
        {"{Comprobante}", voucher == 'C' ? "Comprobante C" : std::string("Factura ") + (voucher ? voucher : 'B')},
        {"{DocTipo}", std::to_string(check.detail.document_type)},
        {"{DocNro}", std::to_string(check.detail.document_number)},
        {"{Concepto}", check.detail.concept == 2 ? "2 - Servicios" : "3 - Productos y Servicios"},
    };
    std::string text = rule.text;
    for (const auto& [mark, value] : values)
        for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size()))
            text.replace(at, std::string(mark).size(), value);
    return text;
}

const char* rule_kind_name(RuleKind kind)
{
    return kind == K::error ? "Err" : kind == K::rejecting_observation ? "Obs-R" : "Obs-A";
}

std::string voucher_rules_table()
{
    std::string table = "| Code | Kind | `Msg` | Text | When |\n|---|---|---|---|---|\n";
    for (const VoucherRule& rule : rules)
        table += "| " + std::to_string(rule.code) + " | " + rule_kind_name(rule.kind) + " | `" + rule.text + "` | " +
                 (rule.afip_text ? "AFIP's" : "own") + " | " + rule.condition + " |\n";
    return table;
}
