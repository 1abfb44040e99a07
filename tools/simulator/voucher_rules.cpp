#include "voucher_rules.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string_view>

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

bool one_of(long long value, std::initializer_list<long long> set)
{
    return std::find(set.begin(), set.end(), value) != set.end();
}

char class_of(const VoucherCheck& c)
{
    return voucher_class(c.voucher_type);
}

bool is_note(const VoucherCheck& c)
{
    return one_of(c.voucher_type, {2, 3, 7, 8, 12, 13, 52, 53, 202, 203, 207, 208, 212, 213});
}

bool is_credit_invoice(const VoucherCheck& c)
{
    return one_of(c.voucher_type, {201, 206, 211});
}

bool is_credit_invoice_note(const VoucherCheck& c)
{
    return one_of(c.voucher_type, {202, 203, 207, 208, 212, 213});
}

std::optional<long long> today_of(const VoucherCheck& c)
{
    return day_of_date(c.today);
}

// CbteFch outside [N - before, N + after], N the day the request is sent; an unreadable date too.
bool date_outside(const VoucherCheck& c, long long before, long long after)
{
    const auto date = day_of_date(c.detail.date);
    const long long today = *today_of(c);
    return !date || *date < today - before || *date > today + after;
}

bool is_service(const VoucherCheck& c)
{
    return c.detail.concept == 2 || c.detail.concept == 3;
}

// A date of the service period; the payment date alone is no such date (a credit invoice of goods carries it).
bool any_service_period_date(const VoucherCheck& c)
{
    return !c.detail.service_from.empty() || !c.detail.service_to.empty();
}

// For services every one of the three dates goes with the others; for goods only the period's two.
bool date_missing_among_others(const VoucherCheck& c, const std::string& date)
{
    return date.empty() && (any_service_period_date(c) || (is_service(c) && !c.detail.payment_due.empty()));
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

std::optional<int> receptor_condition_in_padron(const VoucherCheck& c)
{
    return c.padron ? c.padron->condition_of(c.detail.document_number) : std::nullopt;
}

std::optional<int> issuer_condition_in_padron(const VoucherCheck& c)
{
    long long cuit = 0;
    const auto [end, error] = std::from_chars(c.issuer.data(), c.issuer.data() + c.issuer.size(), cuit);
    if (!c.padron || error != std::errc() || end != c.issuer.data() + c.issuer.size())
        return std::nullopt;
    return c.padron->condition_of(cuit);
}

const ReceptorCondition* known_condition(long long id)
{
    const auto& conditions = receptor_conditions();
    const auto found = std::find_if(conditions.begin(), conditions.end(), [&](const ReceptorCondition& c) { return c.id == id; });
    return found == conditions.end() ? nullptr : &*found;
}

bool listed(const char* operation, long long id)
{
    return parameter_exists(operation, std::to_string(id));
}

// MonCotiz, or 1 where the voucher has none (pesos).
double rate_to_peso(const VoucherCheck& c)
{
    return c.detail.rate_to_peso.value_or(1);
}

// The simulator's quotation of the voucher's currency; nullopt for pesos and unknown currencies.
std::optional<double> official_rate(const VoucherCheck& c)
{
    if (c.detail.currency == "PES")
        return std::nullopt;
    for (const auto& [currency, rate] : quotations())
        if (c.detail.currency == currency)
            return std::strtod(rate, nullptr);
    return std::nullopt;
}

bool foreign_rate_sent(const VoucherCheck& c)
{
    return official_rate(c) && c.detail.rate_to_peso && *c.detail.rate_to_peso > 0;
}

// The types a debit or credit note may associate: those of its own class, and remitos (88, 991).
std::optional<std::vector<long long>> associable_types(long long note_type)
{
    if (note_type == 2 || note_type == 3)
        return std::vector<long long>{1, 2, 3, 4, 5, 34, 39, 60, 63, 88, 991};
    if (note_type == 7 || note_type == 8)
        return std::vector<long long>{6, 7, 8, 9, 10, 35, 40, 61, 64, 88, 991};
    if (note_type == 12 || note_type == 13)
        return std::vector<long long>{11, 12, 13, 15, 88, 991};
    return std::nullopt;
}

// yyyymmddhhmmss, a real date and time of day.
bool is_date_and_time(const std::string& text)
{
    const auto two_digits = [&](size_t at) { return std::stoi(text.substr(at, 2)); };
    return text.size() == 14 && text.find_first_not_of("0123456789") == std::string::npos && day_of_date(text.substr(0, 8)) &&
           two_digits(8) < 24 && two_digits(10) < 60 && two_digits(12) < 60;
}

bool amount_negative_outside_class_c(const VoucherCheck& c, double amount)
{
    return amount < 0 && class_of(c) != 'C';
}

const char* const next_number_text =
    "El numero o fecha del comprobante no se corresponde con el proximo a autorizar. Consultar metodo FECompUltimoAutorizado.";

constexpr RuleKind refuses_request = RuleKind::error;
constexpr RuleKind rejects = RuleKind::rejecting_observation;
constexpr RuleKind remarks = RuleKind::approving_observation;
constexpr bool afip = true, own = false;

// AFIP's rules, held to wsfev1-validations.md: the Err ones refuse the request before any voucher
// is looked at; every Obs that applies to a voucher is reported, and one of kind R rejects it.
// Each row: code, kind, text, whose text, whose code, condition, predicate.
const std::vector<VoucherRule> rules = {
    {10001, refuses_request, "El campo CantReg debe estar comprendido entre 1 y 9998.", own, afip, "`CantReg` outside 1–9998",
     [](const VoucherCheck& c) { return c.declared_count < 1 || c.declared_count > 9998; }},
    {10002, refuses_request, "Campo CantReg debe ser igual a lo informado en detalle. Informado: {CantReg}, Enviado: {Enviado}", afip,
     afip, "`CantReg` ≠ the number of details sent",
     [](const VoucherCheck& c) { return c.declared_count != static_cast<long long>(c.sent_count); }},
    {10003, refuses_request, "La cantidad de comprobantes del lote supera la permitida por el metodo FECompTotXRequest.", own, afip,
     "more details than `FECompTotXRequest` allows (250)",
     [](const VoucherCheck& c) { return c.sent_count > most_vouchers_per_request; }},
    {10000, refuses_request,
     "NO AUTORIZADO A EMITIR COMPROBANTES - LA CUIT INFORMADA NO SE ENCUENTRA AUTORIZADA A EMITIR COMPROBANTES ELECTRONICOS ORIGINALES O EL PERIODO DE INICIO AUTORIZADO ES POSTERIOR AL DE LA GENERACION DE LA SOLICITUD",
     afip, afip, "the issuer (`Auth/Cuit`) is not in the padrón",
     [](const VoucherCheck& c) { return !issuer_condition_in_padron(c); }},
    {10000, refuses_request,
     "NO AUTORIZADO A EMITIR COMPROBANTES - LA CUIT INFORMADA NO CORRESPONDE A UN RESPONSABLE INSCRIPTO EN EL IMPUESTO IVA.", afip,
     afip, "a voucher of class A, B or M from an issuer whose condition in the padrón is not 1 (responsable inscripto)",
     [](const VoucherCheck& c) {
         const auto condition = issuer_condition_in_padron(c);
         return (class_of(c) == 'A' || class_of(c) == 'B') && condition && *condition != 1;
     }},
    {10005, refuses_request,
     "NO AUTORIZADO A EMITIR COMPROBANTES - EL PUNTO DE VENTA INFORMADO DEBE ESTAR DADO DE ALTA Y SER DEL TIPO RECE", afip, afip,
     "`PtoVta` outside 1–99998, or not among `--points-of-sale`, or one of `--caea-points-of-sale`",
     [](const VoucherCheck& c) { return !c.point_of_sale_registered; }, Emission::cae},
    {10005, refuses_request,
     "NO AUTORIZADO A INFORMAR COMPROBANTES - EL PUNTO DE VENTA INFORMADO DEBE ESTAR DADO DE ALTA PARA CAEA", own, afip,
     "`PtoVta` outside 1–99998, or not among `--caea-points-of-sale` when that is given",
     [](const VoucherCheck& c) { return !c.point_of_sale_registered; }, Emission::caea},
    {602, refuses_request, "No existen datos en nuestros registros para los parametros ingresados.", afip, own,
     "a `CAEA` not granted to the issuer",
     [](const VoucherCheck& c) { return !c.caea; }, Emission::caea},
    {15009, refuses_request, "El plazo para informar los comprobantes emitidos con el CAEA vencio (FchTopeInf).", own, own,
     "N after the CAEA's `FchTopeInf`",
     [](const VoucherCheck& c) { return c.caea && c.today > c.caea->report_by; }, Emission::caea},
    {10007, refuses_request, "El campo CbteTipo debe ser alguno de los devueltos por el metodo FEParamGetTiposCbte.", own, own,
     "`CbteTipo` not in `FEParamGetTiposCbte`",
     [](const VoucherCheck& c) { return !listed("FEParamGetTiposCbte", c.voucher_type); }},
    {10016, refuses_request, next_number_text, afip, afip,
     "`CbteDesde` ≠ last authorised + 1 (a number sent again too), `CbteHasta` < `CbteDesde` or above 99999999, or `CbteFch` before the last authorised voucher's",
     [](const VoucherCheck& c) {
         const auto date = day_of_date(c.detail.date);
         return c.detail.first != c.next_number || c.detail.last < c.detail.first || c.detail.last > highest_voucher_number ||
                (!c.last_date.empty() && date && *date < *day_of_date(c.last_date));
     }},
    {10010, rejects, "El campo Concepto debe ser alguno de los devueltos por el metodo FEParamGetTiposConcepto.", own, own,
     "`Concepto` not in `FEParamGetTiposConcepto` (1, 2, 3)",
     [](const VoucherCheck& c) { return !listed("FEParamGetTiposConcepto", c.detail.concept); }},
    {10016, rejects,
     "Campo CbteFch Debe estar comprendido  en el  rango  N-5 y N+5 siendo N la fecha de envio del pedido  de autorizacion para 1 - Productos",
     afip, afip, "`Concepto` 1 and `CbteFch` outside N−5…N+5 (N: today in Argentina)",
     [](const VoucherCheck& c) { return c.detail.concept == 1 && !is_credit_invoice_note(c) && date_outside(c, 5, 5); },
     Emission::cae},
    {10016, rejects,
     "Campo CbteFch Debe estar comprendido  en el  rango  N-10 y N+10 siendo N la fecha de envio del pedido  de autorizacion para {Concepto}",
     own, afip, "`Concepto` 2 or 3 and `CbteFch` outside N−10…N+10",
     [](const VoucherCheck& c) { return is_service(c) && !is_credit_invoice_note(c) && date_outside(c, 10, 10); },
     Emission::cae},
    {10016, rejects,
     "Campo CbteFch Debe estar comprendido  en el  rango  N-5 y N siendo N la fecha de envio del pedido de autorizacion para Facturas de Credito del tipo Nota de Debito o Nota de Credito",
     afip, afip, "a credit-invoice note (202, 203, 207, 208, 212, 213) with `CbteFch` outside N−5…N",
     [](const VoucherCheck& c) { return is_credit_invoice_note(c) && date_outside(c, 5, 0); }, Emission::cae},
    {10016, rejects, "Campo CbteFch debe estar comprendido en la vigencia del CAEA (FchVigDesde a FchVigHasta).", own, own,
     "`CbteFch` outside the CAEA's `FchVigDesde`…`FchVigHasta`",
     [](const VoucherCheck& c) {
         return c.caea && (c.detail.date < c.caea->valid_from || c.detail.date > c.caea->valid_to || !day_of_date(c.detail.date));
     },
     Emission::caea},
    {1440, rejects, "El campo CbteFchHsGen es obligatorio y debe tener el formato yyyymmddhhmmss.", own, afip,
     "`CbteFchHsGen` missing, or not a date and time yyyymmddhhmmss",
     [](const VoucherCheck& c) { return !is_date_and_time(c.detail.generated_at); }, Emission::caea},
    {10152, rejects, "Para Concepto 1 (Productos) la fecha del comprobante no puede ser posterior al mes de envio del pedido.", own,
     afip, "`Concepto` 1 and `CbteFch` after N in a later month than N's",
     [](const VoucherCheck& c) {
         const auto date = day_of_date(c.detail.date);
         return c.detail.concept == 1 && date && *date > *today_of(c) && c.detail.date.substr(0, 6) > c.today.substr(0, 6);
     },
     Emission::cae},
    {10049, rejects, "Si el Concepto es 2 o 3 (Servicios) los campos FchServDesde, FchServHasta y FchVtoPago son obligatorios.", own,
     afip, "`Concepto` 2 or 3 without `FchServDesde`, `FchServHasta` and `FchVtoPago`",
     [](const VoucherCheck& c) {
         return is_service(c) && (c.detail.service_from.empty() || c.detail.service_to.empty() || c.detail.payment_due.empty());
     }},
    {10031, rejects, "El campo FchServDesde es obligatorio si se informa otra fecha de servicio.", own, afip,
     "`FchServHasta` (or, for services, `FchVtoPago`) sent without `FchServDesde`",
     [](const VoucherCheck& c) { return date_missing_among_others(c, c.detail.service_from); }},
    {10033, rejects, "El campo FchServHasta es obligatorio si se informa otra fecha de servicio.", own, afip,
     "`FchServDesde` (or, for services, `FchVtoPago`) sent without `FchServHasta`",
     [](const VoucherCheck& c) { return date_missing_among_others(c, c.detail.service_to); }},
    {10035, rejects, "El campo FchVtoPago es obligatorio si se informa otra fecha de servicio.", own, afip,
     "`Concepto` 2 or 3 with `FchServDesde` or `FchServHasta` but without `FchVtoPago` (a voucher of goods needs none)",
     [](const VoucherCheck& c) { return is_service(c) && any_service_period_date(c) && c.detail.payment_due.empty(); }},
    {10034, rejects, "Las fechas FchServDesde, FchServHasta y FchVtoPago deben tener el formato yyyymmdd.", own, own,
     "a service or payment date that is not a date yyyymmdd",
     [](const VoucherCheck& c) {
         for (const std::string* date : {&c.detail.service_from, &c.detail.service_to, &c.detail.payment_due})
             if (!date->empty() && (date->size() != 8 || !day_of_date(*date)))
                 return true;
         return false;
     }},
    {10032, rejects, "El campo FchServDesde no puede ser posterior a FchServHasta.", own, afip,
     "`FchServDesde` after `FchServHasta`",
     [](const VoucherCheck& c) {
         const auto from = day_of_date(c.detail.service_from), to = day_of_date(c.detail.service_to);
         return from && to && *from > *to;
     }},
    {10036, rejects, "El campo FchVtoPago no puede ser anterior a la fecha del comprobante.", own, afip,
     "`FchVtoPago` before `CbteFch`",
     [](const VoucherCheck& c) {
         const auto due = day_of_date(c.detail.payment_due), date = day_of_date(c.detail.date);
         return due && date && *due < *date;
     }},
    {10163, rejects, "El campo FchVtoPago es obligatorio informar si es una Factura de Credito.", afip, afip,
     "a credit invoice (201, 206, 211) without `FchVtoPago`",
     [](const VoucherCheck& c) { return is_credit_invoice(c) && c.detail.payment_due.empty(); }},
    {10065, rejects, "El campo ImpTotal no puede ser menor a cero (0).", own, afip, "`ImpTotal` < 0",
     [](const VoucherCheck& c) { return c.detail.total < 0; }},
    {10043, rejects, "El campo ImpTotConc no puede ser menor a cero (0).", own, afip, "not class C: `ImpTotConc` < 0",
     [](const VoucherCheck& c) { return amount_negative_outside_class_c(c, c.detail.untaxed); }},
    {10045, rejects, "El campo ImpNeto no puede ser menor a cero (0).", own, afip,
     "`ImpNeto` < 0 (10045 for `ImpNeto` and 10046 for `ImpTrib` is the simulator's reading of AFIP's manual)",
     [](const VoucherCheck& c) { return c.detail.net < 0; }},
    {10044, rejects, "El campo ImpOpEx no puede ser menor a cero (0).", own, afip, "not class C: `ImpOpEx` < 0",
     [](const VoucherCheck& c) { return amount_negative_outside_class_c(c, c.detail.exempt); }},
    {10046, rejects, "El campo ImpTrib no puede ser menor a cero (0).", own, afip, "`ImpTrib` < 0",
     [](const VoucherCheck& c) { return c.detail.taxes_total < 0; }},
    {10047, rejects, "El campo ImpIVA no puede ser menor a cero (0).", own, afip, "not class C: `ImpIVA` < 0",
     [](const VoucherCheck& c) { return amount_negative_outside_class_c(c, c.detail.vat); }},
    {10048, rejects,
     "El campo  'Importe Total' ImpTotal, debe ser igual  a la  suma de ImpTotConc + ImpNeto + ImpOpEx + ImpTrib + ImpIVA.", afip,
     afip, "classes A, B, M: `ImpTotal` ≠ `ImpTotConc + ImpNeto + ImpOpEx + ImpTrib + ImpIVA` beyond the tolerance",
     [](const VoucherCheck& c) {
         const VoucherDetail& d = c.detail;
         return (class_of(c) == 'A' || class_of(c) == 'B') &&
                !within_tolerance(d.total, d.untaxed + d.net + d.exempt + d.taxes_total + d.vat);
     }},
    {10048, rejects,
     "El campo  'Importe Total' ImpTotal, debe ser igual  a la  suma de ImpNeto + ImpTrib. Donde ImpNeto es igual al Sub Total", afip,
     afip, "class C: `ImpTotal` ≠ `ImpNeto + ImpTrib` beyond the tolerance",
     [](const VoucherCheck& c) { return class_of(c) == 'C' && !within_tolerance(c.detail.total, c.detail.net + c.detail.taxes_total); }},
    {10018, rejects, "Si ImpIva es mayor a 0 el objeto Iva y AlicIva son obligatorios.", afip, afip,
     "not class C: `ImpIVA` > 0 without `Iva/AlicIva`",
     [](const VoucherCheck& c) { return class_of(c) != 'C' && c.detail.vat > 0 && c.detail.vat_rates.empty(); }},
    {10018, rejects, "Si ImpIva es igual a 0 el objeto Iva y AlicIva son obligatorios. Id iva = 3 (iva 0)", afip, afip,
     "not class C: `ImpIVA` = 0 with an `AlicIva` whose `Id` is not 3",
     [](const VoucherCheck& c) {
         return class_of(c) != 'C' && c.detail.vat == 0 &&
                std::any_of(c.detail.vat_rates.begin(), c.detail.vat_rates.end(), [](const auto& r) { return r.id != 3; });
     }},
    {10019, rejects, "El campo Id en AlicIva debe ser alguno de los devueltos por el metodo FEParamGetTiposIva.", own, own,
     "an `AlicIva/Id` not in `FEParamGetTiposIva`",
     [](const VoucherCheck& c) {
         return std::any_of(c.detail.vat_rates.begin(), c.detail.vat_rates.end(),
                            [](const auto& r) { return !listed("FEParamGetTiposIva", r.id); });
     }},
    {10023, rejects, "La suma de los campos Importe en AlicIva debe ser igual al valor ingresado en ImpIVA.", own, afip,
     "not class C: Σ `AlicIva/Importe` ≠ `ImpIVA` beyond the tolerance (0.01 per rate)",
     [](const VoucherCheck& c) {
         const auto& r = c.detail.vat_rates;
         return class_of(c) != 'C' && !r.empty() && !within_tolerance(c.detail.vat, sum(r, [](const auto& x) { return x.amount; }), r.size());
     }},
    {10061, rejects, "La suma de los campos BaseImp en AlicIva debe ser igual al valor ingresado en ImpNeto.", own, afip,
     "not class C nor types 2, 3, 7, 8, 52, 53: Σ `AlicIva/BaseImp` ≠ `ImpNeto` beyond the tolerance (0.01 per rate)",
     [](const VoucherCheck& c) {
         const auto& r = c.detail.vat_rates;
         return class_of(c) != 'C' && !one_of(c.voucher_type, {2, 3, 7, 8, 52, 53}) && !r.empty() &&
                !within_tolerance(c.detail.net, sum(r, [](const auto& x) { return x.base; }), r.size());
     }},
    {10051, rejects, "Los importes informados en AlicIVA no se corresponden con los porcentajes.", afip, afip,
     "an `AlicIva/Importe` ≠ `BaseImp` × its rate (3: 0 %, 4: 10.5 %, 5: 21 %, 6: 27 %, 8: 5 %, 9: 2.5 %) beyond the tolerance",
     [](const VoucherCheck& c) {
         return std::any_of(c.detail.vat_rates.begin(), c.detail.vat_rates.end(), [](const auto& r) {
             return vat_percentage(r.id) >= 0 && !within_tolerance(r.amount, r.base * vat_percentage(r.id) / 100);
         });
     }},
    {10070, rejects, "Si ImpNeto es mayor a 0 el objeto IVA es obligatorio.", afip, afip, "classes A, B: `ImpNeto` > 0 without `Iva`",
     [](const VoucherCheck& c) {
         return (class_of(c) == 'A' || class_of(c) == 'B') && c.detail.net > 0 && c.detail.vat_rates.empty();
     }},
    {10071, rejects, "Para comprobantes tipo C el objeto IVA no debe informarse.", afip, afip,
     "class C with an `Iva` element, even empty",
     [](const VoucherCheck& c) { return class_of(c) == 'C' && c.detail.has_vat_element; }},
    {10044, rejects, "El campo ImpOpEx (importe exento) para comprobantes tipo C debe ser igual a cero (0).", afip, afip,
     "class C: `ImpOpEx` ≠ 0", [](const VoucherCheck& c) { return class_of(c) == 'C' && c.detail.exempt != 0; }},
    {10043, rejects, "El campo ImpTotConc (importe neto no gravado) para comprobantes tipo C debe ser igual a cero (0).", own, afip,
     "class C: `ImpTotConc` ≠ 0", [](const VoucherCheck& c) { return class_of(c) == 'C' && c.detail.untaxed != 0; }},
    {10047, rejects, "El campo ImpIVA (Importe de IVA) para comprobantes tipo C debe ser igual a cero (0).", own, afip,
     "class C: `ImpIVA` ≠ 0", [](const VoucherCheck& c) { return class_of(c) == 'C' && c.detail.vat != 0; }},
    {10024, rejects, "Si ImpTrib es mayor a 0 el objeto Tributos y Tributo son obligatorios.", afip, afip,
     "`ImpTrib` > 0 without `Tributos/Tributo`",
     [](const VoucherCheck& c) { return c.detail.taxes_total > 0 && c.detail.taxes.empty(); }},
    {10024, rejects, "Si ImpTrib es igual a 0 el objeto Tributos y Tributo no deben informarse.", afip, afip,
     "`ImpTrib` = 0 with a `Tributos` element, even empty",
     [](const VoucherCheck& c) { return c.detail.taxes_total == 0 && c.detail.has_taxes_element; }},
    {10025, rejects, "El campo Id en Tributo es obligatorio y debe ser alguno de los devueltos por el metodo FEParamGetTiposTributos.",
     afip, afip, "a `Tributo/Id` not in `FEParamGetTiposTributos`",
     [](const VoucherCheck& c) {
         return std::any_of(c.detail.taxes.begin(), c.detail.taxes.end(),
                            [](const auto& t) { return !listed("FEParamGetTiposTributos", t.id); });
     }},
    {10029, rejects, "La suma de los importes en Tributo debe ser igual al valor ingresado en ImpTrib.", afip, afip,
     "Σ `Tributo/Importe` ≠ `ImpTrib` beyond the tolerance (0.01 per tax)",
     [](const VoucherCheck& c) {
         const auto& t = c.detail.taxes;
         return !t.empty() && !within_tolerance(c.detail.taxes_total, sum(t, [](const auto& x) { return x.amount; }), t.size());
     }},
    {10013, rejects, "Para comprobantes clase A el campo DocTipo debe ser 80 (CUIT).", own, afip, "class A with `DocTipo` ≠ 80",
     [](const VoucherCheck& c) { return class_of(c) == 'A' && c.detail.document_type != 80; }},
    {10015, rejects, "El campo DocTipo debe ser alguno de los devueltos por el metodo FEParamGetTiposDoc.", own, afip,
     "a `DocTipo` not in `FEParamGetTiposDoc`",
     [](const VoucherCheck& c) { return !listed("FEParamGetTiposDoc", c.detail.document_type); }},
    {10015, rejects, "El campo DocNro es obligatorio y debe ser mayor a cero (0) si DocTipo no es 99.", own, afip,
     "`DocTipo` other than 99 with `DocNro` ≤ 0",
     [](const VoucherCheck& c) { return c.detail.document_type != 99 && c.detail.document_number <= 0; }},
    {10015, rejects,
     "{Comprobante} (CbteDesde igual a CbteHasta), DocTipo: {DocTipo}, DocNro {DocNro} no se encuentra registrado en los padrones de AFIP y no corresponde a una cuit pais.",
     afip, afip, "classes B, C, one voucher, `DocTipo` 80, 86 or 87 and a `DocNro` not in the padrón (23000000000 is exempt)",
     [](const VoucherCheck& c) {
         return (class_of(c) == 'B' || class_of(c) == 'C') && c.detail.first == c.detail.last && identified_by_cuit(c) &&
                !receptor_condition_in_padron(c) && c.detail.document_number != 23000000000LL;
     }},
    {10015, rejects, "{Comprobante}: desde $10.000.000 el receptor debe identificarse con DocTipo y DocNro.", own, afip,
     "class B, one voucher, to `DocTipo` 99 with `ImpTotal` × `MonCotiz` ≥ 10.000.000 pesos (RG 5700/2025)",
     [](const VoucherCheck& c) {
         return class_of(c) == 'B' && c.detail.first == c.detail.last && c.detail.document_type == 99 &&
                c.detail.total * rate_to_peso(c) >= identification_threshold;
     }},
    {10017, remarks, "Factura individual, DocTipo: 80, DocNro {DocNro} no se encuentra registrado en los padrones de AFIP.", afip,
     afip, "class A to `DocTipo` 80 and a `DocNro` not in the padrón",
     [](const VoucherCheck& c) { return class_of(c) == 'A' && c.detail.document_type == 80 && !receptor_condition_in_padron(c); }},
    {10063, remarks, "El receptor del comprobante no se encuentra activo en el impuesto IVA ni en el Monotributo.", own, afip,
     "class A to a receptor in the padrón whose condition is not 1, 6, 13 or 16",
     [](const VoucherCheck& c) {
         const auto condition = receptor_condition_in_padron(c);
         return class_of(c) == 'A' && condition && !one_of(*condition, {1, 6, 13, 16});
     }},
    {10217, remarks,
     "El credito fiscal discriminado en el presente comprobante solo podra ser computado a efectos del Procedimiento permanente de transicion al Regimen General.",
     afip, afip, "class A to a receptor in the padrón with condition 6, 13 or 16 (monotributo)",
     [](const VoucherCheck& c) {
         const auto condition = receptor_condition_in_padron(c);
         return class_of(c) == 'A' && condition && one_of(*condition, {6, 13, 16});
     }},
    {10069, rejects, "El campo DocNro no puede ser igual a la CUIT del emisor.", own, afip,
     "`DocNro` equal to the issuer's CUIT (`Auth/Cuit`)",
     [](const VoucherCheck& c) { return std::to_string(c.detail.document_number) == c.issuer; }},
    {10037, rejects, "El campo MonId debe ser alguno de los devueltos por el metodo FEParamGetTiposMonedas.", own, afip,
     "`MonId` missing or not in `FEParamGetTiposMonedas`",
     [](const VoucherCheck& c) { return !parameter_exists("FEParamGetTiposMonedas", c.detail.currency); }},
    {10038, rejects, "El campo MonCotiz es obligatorio y debe ser mayor a cero (0).", own, afip,
     "`MonCotiz` missing or ≤ 0, unless `CanMisMonExt` is S",
     [](const VoucherCheck& c) {
         return c.detail.same_foreign_currency != "S" && (!c.detail.rate_to_peso || *c.detail.rate_to_peso <= 0);
     }},
    {10039, rejects, "Si MonId es PES el campo MonCotiz debe ser igual a 1.", own, afip, "`MonId` PES with a `MonCotiz` other than 1",
     [](const VoucherCheck& c) { return c.detail.currency == "PES" && c.detail.rate_to_peso && *c.detail.rate_to_peso != 1; }},
    {10239, rejects, "El campo CanMisMonExt solo puede ser S o N.", own, afip, "`CanMisMonExt` sent with a value other than S or N",
     [](const VoucherCheck& c) {
         const std::string& value = c.detail.same_foreign_currency;
         return c.detail.has_same_foreign_currency && value != "S" && value != "N";
     }},
    {10241, rejects, "Si MonId es PES el campo CanMisMonExt no puede ser S.", own, afip, "`MonId` PES with `CanMisMonExt` S",
     [](const VoucherCheck& c) { return c.detail.currency == "PES" && c.detail.same_foreign_currency == "S"; }},
    {10119, rejects, "El campo MonCotiz no se corresponde con la cotizacion oficial de la moneda.", own, afip,
     "a currency other than PES whose `MonCotiz` is below 2 % or above 400 % of `FEParamGetCotizacion`'s",
     [](const VoucherCheck& c) {
         return foreign_rate_sent(c) && (*c.detail.rate_to_peso < *official_rate(c) * 0.02 ||
                                         *c.detail.rate_to_peso > *official_rate(c) * 4);
     }},
    {10240, rejects, "El campo MonCotiz no puede superar en mas de 1 a la cotizacion oficial de la moneda.", own, afip,
     "`CanMisMonExt` S and a `MonCotiz` more than 1 above `FEParamGetCotizacion`'s (the simulator's reading of RG 5616)",
     [](const VoucherCheck& c) {
         return foreign_rate_sent(c) && c.detail.same_foreign_currency == "S" && *c.detail.rate_to_peso > *official_rate(c) + 1;
     }},
    {10197, rejects, "Si el comprobante es Debito o Credito, enviar estructura CbteAsoc o PeriodoAsoc.", afip, afip,
     "a debit or credit note (2, 3, 7, 8, 12, 13, 52, 53, 202–213) without `CbtesAsoc/CbteAsoc` nor `PeriodoAsoc`",
     [](const VoucherCheck& c) { return is_note(c) && !c.detail.has_associated; }},
    {10040, rejects, "El tipo de comprobante asociado no corresponde al tipo de comprobante que se autoriza.", own, afip,
     "a note of class A, B or C (2, 3, 7, 8, 12, 13) associating a type outside its class's (A: 1–5, 34, 39, 60, 63; B: 6–10, 35, 40, 61, 64; C: 11–13, 15) and remitos 88, 991",
     [](const VoucherCheck& c) {
         const auto allowed = associable_types(c.voucher_type);
         return allowed && std::any_of(c.detail.associated.begin(), c.detail.associated.end(), [&](const auto& a) {
                    return std::find(allowed->begin(), allowed->end(), a.type) == allowed->end();
                });
     }},
    {10041, remarks, "El comprobante asociado no se encuentra autorizado.", own, afip,
     "a `CbteAsoc` of an electronic type (in `FEParamGetTiposCbte`) that this simulator did not authorise to its `Cuit` (or the issuer)",
     [](const VoucherCheck& c) {
         return std::any_of(c.detail.associated.begin(), c.detail.associated.end(), [&](const auto& a) {
             return listed("FEParamGetTiposCbte", a.type) && !(c.authorised && c.authorised(a.cuit.empty() ? c.issuer : a.cuit, a));
         });
     }},
    {10242, rejects, "El campo Condicion IVA receptor no es un valor valido. Consular metodo FEParamGetCondicionIvaReceptor", afip,
     afip, "`CondicionIVAReceptorId` not an id of `FEParamGetCondicionIvaReceptor`",
     [](const VoucherCheck& c) { return c.detail.receptor_condition && !known_condition(*c.detail.receptor_condition); }},
    {10243, rejects,
     "El campo Condicion IVA receptor no corresponde a la clase de comprobante. Consultar metodo FEParamGetCondicionIvaReceptor",
     own, afip,
     "`CondicionIVAReceptorId` valid but not for the class (A, M: 1, 6, 13, 16; B: 4, 5, 7, 8, 9, 10, 15; C: all; type 49: 5)",
     [](const VoucherCheck& c) {
         const ReceptorCondition* condition = c.detail.receptor_condition ? known_condition(*c.detail.receptor_condition) : nullptr;
         const std::string voucher_class = receptor_condition_class(c.voucher_type);
         return condition && !voucher_class.empty() && !condition_allows_class(condition->classes, voucher_class);
     }},
    {10245, remarks,
     "El campo Condicion Frente al IVA del receptor resultara obligatorio conforme lo reglamentado por la Resolucion General Nro 5616. Para mas informacion consular metodo FEParamGetCondicionIvaReceptor",
     afip, afip, "`CondicionIVAReceptorId` missing before `--receptor-condition-required-from`",
     [](const VoucherCheck& c) { return !c.detail.receptor_condition && c.today < c.receptor_condition_required_from; }},
    {10246, rejects,
     "Campo Condicion Frente al IVA del receptor es obligatorio conforme a lo reglamentado por la Resolucion General N° 5616.", afip,
     afip, "`CondicionIVAReceptorId` missing from `--receptor-condition-required-from` on",
     [](const VoucherCheck& c) { return !c.detail.receptor_condition && c.today >= c.receptor_condition_required_from; }},
};

const std::vector<ConsultationError> consultation_error_list = {
    {"FECompUltimoAutorizado", 11000, "El campo PtoVta debe estar comprendido entre 1 y 99998.", own, "`PtoVta` outside 1–99998"},
    {"FECompUltimoAutorizado", 11001, "El campo CbteTipo debe ser alguno de los devueltos por el metodo FEParamGetTiposCbte.", own,
     "`CbteTipo` not in `FEParamGetTiposCbte`"},
    {"FECompUltimoAutorizado", 11002, "El punto de venta no se encuentra habilitado a usar el presente WS. Ver metodo FEParamGetPtosVenta",
     afip, "`PtoVta` registered neither for CAE (`--points-of-sale` when given) nor for CAEA (`--caea-points-of-sale`)"},
    {"FECompConsultar", 10200, "El campo PtoVta debe estar comprendido entre 1 y 99998.", own, "`PtoVta` outside 1–99998"},
    {"FECompConsultar", 10201, "El campo CbteTipo debe ser alguno de los devueltos por el metodo FEParamGetTiposCbte.", own,
     "`CbteTipo` not in `FEParamGetTiposCbte`"},
    {"FECompConsultar", 10202, "El campo CbteNro debe estar comprendido entre 1 y 99999999.", own, "`CbteNro` outside 1–99999999"},
    {"FECompConsultar", 10104, "El punto de venta informado no se encuentra dado de alta.", own,
     "`PtoVta` registered neither for CAE (`--points-of-sale` when given) nor for CAEA (`--caea-points-of-sale`)"},
    {"FEParamGetCondicionIvaReceptor", 10244, "El campo ClaseCmp no es valido. Valores posibles: A, M, B, C, 49.", own,
     "`ClaseCmp` sent and none of A, M, B, C, 49 exactly"},
    {"FEParamGetCotizacion", 602, "Sin Resultados: - Metodo FEParamGetCotizacion.Codigo de moneda (PES) inexistente o SIN cotización",
     afip, "`MonId` PES"},
    {"FEParamGetCotizacion", 602, "No existen datos en nuestros registros para los parametros ingresados.", afip,
     "a `MonId` other than PES, DOL, 060, 012"},
    {"FECAEASolicitar", 15007, "Los campos Periodo (yyyymm) y Orden (1 o 2) no son validos.", own,
     "`Periodo` not a month or `Orden` neither 1 nor 2 (code chosen by the simulator)"},
    {"FECAEASolicitar", 15006, "El CAEA solo puede solicitarse desde 5 dias antes del inicio de la quincena hasta su ultimo dia.",
     own, "N earlier than 5 days before the fortnight's first day, or after its last"},
    {"FECAEASolicitar", 15008, "Ya existe un CAEA otorgado para el Periodo y Orden informados. Consultar metodo FECAEAConsultar.",
     own, "a CAEA was granted to the CUIT for that `Periodo` and `Orden` already (code chosen by the simulator)"},
    {"FECAEASinMovimientoInformar", 602, "No existen datos en nuestros registros para los parametros ingresados.", afip,
     "a `CAEA` not granted to the CUIT"},
    {"FECAEASinMovimientoInformar", 10005,
     "NO AUTORIZADO A INFORMAR COMPROBANTES - EL PUNTO DE VENTA INFORMADO DEBE ESTAR DADO DE ALTA PARA CAEA", own,
     "`PtoVta` outside 1–99998, or not among `--caea-points-of-sale` when that is given"},
    {"FECAEASinMovimientoInformar", 15009, "El plazo para informar los comprobantes emitidos con el CAEA vencio (FchTopeInf).", own,
     "N after the CAEA's `FchTopeInf` (code chosen by the simulator)"},
    {"FECAEASinMovimientoInformar", 15010, "El punto de venta informo comprobantes con el CAEA: no puede declararse sin movimiento.",
     own, "the point of sale informed vouchers under that CAEA (code chosen by the simulator)"},
};

} // namespace

bool within_tolerance(double sent, double expected, size_t terms)
{
    const double absolute = 0.01 * static_cast<double>(std::max<size_t>(terms, 1));
    const double relative = 0.0001 * std::fabs(expected);
    return std::fabs(sent - expected) <= std::max(absolute, relative) + 1e-9;
}

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

std::string receptor_condition_class(long long type)
{
    if (type == 49)
        return "49";
    if (type >= 51 && type <= 54)
        return "M";
    const char voucher = voucher_class(type);
    return voucher ? std::string(1, voucher) : std::string();
}

bool condition_allows_class(const char* classes, const std::string& voucher_class)
{
    std::string_view rest(classes);
    while (!rest.empty()) {
        const size_t slash = rest.find('/');
        if (rest.substr(0, slash) == voucher_class)
            return true;
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    }
    return false;
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
    detail.caea = text_by_local_name(node, {"CAEA"});
    detail.generated_at = text_by_local_name(node, {"CbteFchHsGen"});
    detail.same_foreign_currency = text_by_local_name(node, {"CanMisMonExt"});
    detail.has_same_foreign_currency = child_by_local_name(node, "CanMisMonExt");
    if (child_by_local_name(node, "CondicionIVAReceptorId"))
        detail.receptor_condition = integer_of(node, "CondicionIVAReceptorId");
    detail.has_vat_element = child_by_local_name(node, "Iva");
    for (const pugi::xml_node& rate : items(node, rates))
        detail.vat_rates.push_back({integer_of(rate, "Id"), real_of(rate, "BaseImp"), real_of(rate, "Importe")});
    detail.has_taxes_element = child_by_local_name(node, "Tributos");
    for (const pugi::xml_node& tax : items(node, taxes))
        detail.taxes.push_back({integer_of(tax, "Id"), real_of(tax, "Importe")});
    for (const pugi::xml_node& voucher : items(node, associated))
        detail.associated.push_back({integer_of(voucher, "Tipo"), integer_of(voucher, "PtoVta"), integer_of(voucher, "Nro"),
                                     text_by_local_name(voucher, {"Cuit"})});
    detail.has_associated = detail.has_associated || !detail.associated.empty();
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
    return kind == refuses_request ? "Err" : kind == rejects ? "Obs-R" : "Obs-A";
}

const std::vector<ConsultationError>& consultation_errors()
{
    return consultation_error_list;
}

const ConsultationError& consultation_error(const std::string& operation, int code)
{
    for (const ConsultationError& error : consultation_error_list)
        if (operation == error.operation && error.code == code)
            return error;
    throw std::out_of_range("no error " + std::to_string(code) + " of " + operation);
}

std::string voucher_rules_table()
{
    std::string table = "| Code | Kind | `Msg` | Text | When |\n|---|---|---|---|---|\n";
    for (const VoucherRule& rule : rules)
        table += "| " + std::to_string(rule.code) + " | " + rule_kind_name(rule.kind) + " | `" + rule.text + "` | " +
                 (rule.afip_text ? "AFIP's" : "own") + (rule.afip_code ? "" : rule.afip_text ? " (own use)" : ", code too") + " | " +
                 (rule.emission == Emission::cae ? "CAE only: " : rule.emission == Emission::caea ? "CAEA only: " : "") +
                 rule.condition + " |\n";
    table += "\nThe other operations' own errors (`Errors/Err`, nothing else in the result but what the schema requires):\n\n"
             "| Operation | Code | `Msg` | Text | When |\n|---|---|---|---|---|\n";
    for (const ConsultationError& error : consultation_error_list)
        table += std::string("| `") + error.operation + "` | " + std::to_string(error.code) + " | `" + error.text + "` | " +
                 (error.afip_text ? "AFIP's" : "own") + " | " + error.condition + " |\n";
    return table;
}
