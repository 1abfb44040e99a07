#include "invoicing_service.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "argentina_time.h"
#include "wsfev1_operations.h"

namespace {

const char fev1_namespace[] = "http://ar.gov.afip.dif.FEV1/";
const char envelope_start[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\">";

// Small tables of AFIP's own codes: Id and Desc, valid from FchDesde with no end ("NULL").
struct ParameterTable {
    const char* operation;
    const char* element;
    const char* valid_from;
    std::vector<std::pair<const char*, const char*>> rows;
};
const ParameterTable parameter_tables[] = {
    {"FEParamGetTiposCbte", "CbteTipo", "20100917",
     {{"1", "Factura A"}, {"2", "Nota de Débito A"}, {"3", "Nota de Crédito A"}, {"6", "Factura B"},
      {"7", "Nota de Débito B"}, {"8", "Nota de Crédito B"}, {"11", "Factura C"}, {"12", "Nota de Débito C"},
      {"13", "Nota de Crédito C"}}},
    {"FEParamGetTiposDoc", "DocTipo", "20080725",
     {{"80", "CUIT"}, {"86", "CUIL"}, {"87", "CDI"}, {"89", "LE"}, {"90", "LC"}, {"94", "Pasaporte"}, {"96", "DNI"},
      {"99", "Doc. (Otro)"}}},
    {"FEParamGetTiposIva", "IvaTipo", "20090220",
     {{"3", "0%"}, {"4", "10.5%"}, {"5", "21%"}, {"6", "27%"}, {"8", "5%"}, {"9", "2.5%"}}},
    {"FEParamGetTiposMonedas", "Moneda", "20090403",
     {{"PES", "Pesos Argentinos"}, {"DOL", "Dólar Estadounidense"}, {"012", "Real"}, {"060", "Euro"}}},
    {"FEParamGetTiposConcepto", "ConceptoTipo", "20080725",
     {{"1", "Producto"}, {"2", "Servicios"}, {"3", "Productos y Servicios"}}},
    {"FEParamGetTiposTributos", "TributoTipo", "20100917",
     {{"1", "Impuestos nacionales"}, {"2", "Impuestos provinciales"}, {"3", "Impuestos municipales"},
      {"4", "Impuestos Internos"}, {"99", "Otro"}}},
};

// Id, Desc and the voucher classes (Cmp_Clase) each receiver condition applies to.
const char* const receiver_condition_table[][3] = {
    {"1", "IVA Responsable Inscripto", "A/M/C"},  {"4", "IVA Sujeto Exento", "B/C"},
    {"5", "Consumidor Final", "B/C"},             {"6", "Responsable Monotributo", "A/M/C"},
    {"7", "Sujeto No Categorizado", "B/C"},       {"8", "Proveedor del Exterior", "B/C"},
    {"9", "Cliente del Exterior", "B/C"},         {"10", "IVA Liberado - Ley N° 19.640", "B/C"},
    {"13", "Monotributista Social", "A/M/C"},     {"15", "IVA No Alcanzado", "B/C"},
    {"16", "Monotributo Trabajador Independiente Promovido", "A/M/C"}};

// A fixed quotation per currency, against the peso.
const std::pair<const char*, const char*> quotations[] = {{"PES", "1"}, {"DOL", "1045.5"}, {"060", "1130.25"}, {"012", "182.4"}};

constexpr std::chrono::hours cae_validity{24 * 10};
const char most_records_per_request[] = "250";
const char no_data[] = "No existen datos en nuestros registros para los parametros ingresados.";

std::string element(const std::string& name, const std::string& text)
{
    return "<" + name + ">" + xml_escape(text) + "</" + name + ">";
}

std::string errors(int code, const std::string& message)
{
    return "<Errors><Err>" + element("Code", std::to_string(code)) + element("Msg", message) + "</Err></Errors>";
}

// An answer as the service writes it: FEHeaderInfo in the SOAP header, the result in the body.
Reply operation_reply(const std::string& operation, const std::string& result, const std::string& summary)
{
    const WallClock::time_point now = WallClock::now();
    Reply reply;
    reply.body = std::string(envelope_start) + "<soap:Header><FEHeaderInfo xmlns=\"" + fev1_namespace +
                 "\"><ambiente>HomologacionExterno - afip_simulator</ambiente>" +
                 element("fecha", format_argentina_time(now)) + "<id>1.0.0</id></FEHeaderInfo></soap:Header>"
                 "<soap:Body><" + operation + "Response xmlns=\"" + fev1_namespace + "\"><" + operation + "Result>" +
                 result + "</" + operation + "Result></" + operation + "Response></soap:Body></soap:Envelope>";
    reply.summary = operation + " " + summary;
    return reply;
}

Reply fault(const char* code, const std::string& text, const std::string& summary)
{
    Reply reply;
    reply.status = 500;
    reply.body = std::string(envelope_start) + "<soap:Body><soap:Fault>" + element("faultcode", code) +
                 element("faultstring", text) + "<detail /></soap:Fault></soap:Body></soap:Envelope>";
    reply.summary = summary + " -> fault " + code + ": " + text;
    return reply;
}

Reply unreadable(const std::string& operation)
{
    return fault("soap:Client", "Server was unable to read request. ---> There is an error in XML document.", operation);
}

std::optional<long long> whole_number(const std::string& text)
{
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

bool decimal_number(const std::string& text)
{
    char* end = nullptr;
    std::strtod(text.c_str(), &end);
    return !text.empty() && end == text.c_str() + text.size();
}


// What the service says of the Auth element: empty when it accepts it, else the Err 600 text.
std::string token_problem(const TicketRegistry& tickets, const pugi::xml_node& auth)
{
    const std::optional<Ticket> ticket = tickets.find(text_by_local_name(auth, {"Token"}), text_by_local_name(auth, {"Sign"}));
    if (!ticket)
        return "ValidacionDeToken: No validaron las credenciales";
    const WallClock::time_point now = WallClock::now();
    if (now < ticket->generated || now >= ticket->expires) {
        const auto stamp = [](WallClock::time_point when) {
            return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(when.time_since_epoch()).count()) +
                   " (" + format_utc_clock(when) + ")";
        };
        return "ValidacionDeToken: No validaron las fechas del token GenTime, ExpTime, NowUTC: " +
               stamp(ticket->generated) + ", " + stamp(ticket->expires) + ", " + stamp(now);
    }
    const std::string cuit = text_by_local_name(auth, {"Cuit"});
    if (std::find(ticket->relations.begin(), ticket->relations.end(), cuit) == ticket->relations.end())
        return "ValidacionDeToken: No aparecio CUIT en lista de relaciones: " + cuit;
    return {};
}

// The detail's fields in the order of AFIP's answers; nullopt when a required one is missing or no number.
std::optional<std::string> detail_fields(const pugi::xml_node& detail, const std::string& today)
{
    std::string fields;
    for (const char* name : {"Concepto", "DocTipo", "DocNro", "CbteDesde", "CbteHasta"}) {
        const std::string value = text_by_local_name(detail, {name});
        if (!whole_number(value))
            return std::nullopt;
        fields += element(name, value);
    }
    const std::string date = text_by_local_name(detail, {"CbteFch"});
    fields += element("CbteFch", date.empty() ? today : date);
    for (const char* name : {"ImpTotal", "ImpTotConc", "ImpNeto", "ImpOpEx", "ImpTrib", "ImpIVA"}) {
        const std::string value = text_by_local_name(detail, {name});
        if (!decimal_number(value))
            return std::nullopt;
        fields += element(name, value);
    }
    for (const char* name : {"FchServDesde", "FchServHasta", "FchVtoPago", "MonId", "MonCotiz"})
        if (const std::string value = text_by_local_name(detail, {name}); !value.empty())
            fields += element(name, value);
    std::string rates;
    for (const pugi::xml_node& rate : child_by_local_name(detail, "Iva").children()) {
        const std::string id = text_by_local_name(rate, {"Id"});
        const std::string base = text_by_local_name(rate, {"BaseImp"});
        const std::string amount = text_by_local_name(rate, {"Importe"});
        if (!whole_number(id) || !decimal_number(base) || !decimal_number(amount))
            return std::nullopt;
        rates += "<AlicIva>" + element("Id", id) + element("BaseImp", base) + element("Importe", amount) + "</AlicIva>";
    }
    return rates.empty() ? fields : fields + "<Iva>" + rates + "</Iva>";
}

} // namespace

InvoicingService::InvoicingService(const TicketRegistry& tickets) : m_tickets(tickets) {}

Reply InvoicingService::handle(const std::string& request_body, const std::optional<std::string>& soap_action)
{
    const auto unrecognised = [](const std::string& action, const std::string& summary) {
        return fault("soap:Client", "Server did not recognize the value of HTTP Header SOAPAction: " + action + ".", summary);
    };
    std::string name;
    if (soap_action) {
        std::string action = *soap_action;
        if (action.size() >= 2 && action.front() == '"' && action.back() == '"')
            action = action.substr(1, action.size() - 2);
        const std::string prefix = fev1_namespace;
        if (action.rfind(prefix, 0) != 0 || !is_wsfev1_operation(action.substr(prefix.size())))
            return unrecognised(action, "SOAPAction " + action);
        name = action.substr(prefix.size());
    }
    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_buffer(request_body.data(), request_body.size());
    const pugi::xml_node operation = soap_body_content(document);
    if (!parsed || !operation)
        return unreadable("(unreadable)");
    if (name.empty()) {
        // Without the header the body names the operation, as if its action had been sent.
        name = local_name(operation);
        if (!is_wsfev1_operation(name))
            return unrecognised(fev1_namespace + name, name);
    }
    return operate(name, operation);
}

Reply InvoicingService::operate(const std::string& name, const pugi::xml_node& operation)
{
    if (name == "FEDummy")
        return operation_reply(name, "<AppServer>OK</AppServer><DbServer>OK</DbServer><AuthServer>OK</AuthServer>", "-> OK");

    using Handler = std::string (InvoicingService::*)(const pugi::xml_node&, const std::string&);
    static const std::map<std::string, Handler> handlers = {
        {"FECompUltimoAutorizado", &InvoicingService::last_authorised},
        {"FECAESolicitar", &InvoicingService::authorise},
        {"FECompConsultar", &InvoicingService::consult},
        {"FEParamGetPtosVenta", &InvoicingService::points_of_sale},
        {"FEParamGetCondicionIvaReceptor", &InvoicingService::receiver_conditions},
        {"FEParamGetCotizacion", &InvoicingService::quotation},
        {"FECompTotXRequest", &InvoicingService::records_per_request},
    };
    const auto table = std::find_if(std::begin(parameter_tables), std::end(parameter_tables),
                                    [&](const ParameterTable& t) { return name == t.operation; });
    const auto handler = handlers.find(name);
    if (table == std::end(parameter_tables) && handler == handlers.end())
        return fault("soap:Server", "afip_simulator no implementa la operacion " + name + " de WSFEv1.", name);

    const pugi::xml_node auth = child_by_local_name(operation, "Auth");
    const std::string cuit = text_by_local_name(auth, {"Cuit"});
    if (const std::string problem = token_problem(m_tickets, auth); !problem.empty()) {
        // Elements the schema requires come first, zero, as AFIP sends them.
        const std::string required = name == "FECompUltimoAutorizado" ? "<PtoVta>0</PtoVta><CbteTipo>0</CbteTipo><CbteNro>0</CbteNro>"
                                     : name == "FECompTotXRequest"    ? "<RegXReq>0</RegXReq>"
                                                                      : "";
        return operation_reply(name, required + errors(600, problem), "-> Err 600: " + problem);
    }

    std::string result;
    if (table != std::end(parameter_tables)) {
        for (const auto& [id, description] : table->rows)
            result += "<" + std::string(table->element) + ">" + element("Id", id) + element("Desc", description) +
                      element("FchDesde", table->valid_from) + "<FchHasta>NULL</FchHasta></" + table->element + ">";
        result = "<ResultGet>" + result + "</ResultGet>";
    } else {
        result = (this->*handler->second)(operation, cuit);
    }
    if (result.empty())
        return unreadable(name);
    const size_t code = result.find("<Code>");
    const std::string outcome = code == std::string::npos ? "OK" : "Err " + result.substr(code + 6, result.find('<', code + 6) - code - 6);
    return operation_reply(name, result, "cuit=" + cuit + " -> " + outcome);
}

std::string InvoicingService::receiver_conditions(const pugi::xml_node& operation, const std::string&)
{
    const std::string voucher_class = text_by_local_name(operation, {"ClaseCmp"});
    std::string conditions;
    for (const auto& condition : receiver_condition_table)
        if (voucher_class.empty() || std::string(condition[2]).find(voucher_class) != std::string::npos)
            conditions += "<CondicionIvaReceptor>" + element("Id", condition[0]) + element("Desc", condition[1]) +
                          element("Cmp_Clase", condition[2]) + "</CondicionIvaReceptor>";
    return conditions.empty() ? errors(602, no_data) : "<ResultGet>" + conditions + "</ResultGet>";
}

std::string InvoicingService::quotation(const pugi::xml_node& operation, const std::string&)
{
    const std::string currency = text_by_local_name(operation, {"MonId"});
    const auto found = std::find_if(std::begin(quotations), std::end(quotations),
                                    [&](const auto& quotation) { return currency == quotation.first; });
    if (found == std::end(quotations))
        return errors(602, no_data);
    return "<ResultGet>" + element("MonId", currency) + element("MonCotiz", found->second) +
           element("FchCotiz", format_argentina_date(WallClock::now())) + "</ResultGet>";
}

std::string InvoicingService::records_per_request(const pugi::xml_node&, const std::string&)
{
    return element("RegXReq", most_records_per_request);
}

std::string InvoicingService::points_of_sale(const pugi::xml_node&, const std::string& cuit)
{
    std::set<long long> points{1};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto used = m_points_of_sale.find(cuit);
        if (used != m_points_of_sale.end())
            points.insert(used->second.begin(), used->second.end());
    }
    std::string list;
    for (const long long point : points)
        list += "<PtoVenta>" + element("Nro", std::to_string(point)) +
                "<EmisionTipo>CAE</EmisionTipo><Bloqueado>N</Bloqueado><FchBaja>NULL</FchBaja></PtoVenta>";
    return "<ResultGet>" + list + "</ResultGet>";
}

std::string InvoicingService::last_authorised(const pugi::xml_node& operation, const std::string& cuit)
{
    const auto point_of_sale = whole_number(text_by_local_name(operation, {"PtoVta"}));
    const auto voucher_type = whole_number(text_by_local_name(operation, {"CbteTipo"}));
    if (!point_of_sale || !voucher_type)
        return {};
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_last_number.find({cuit, *point_of_sale, *voucher_type});
    return element("PtoVta", std::to_string(*point_of_sale)) + element("CbteTipo", std::to_string(*voucher_type)) +
           element("CbteNro", std::to_string(found == m_last_number.end() ? 0 : found->second));
}

std::string InvoicingService::authorise(const pugi::xml_node& operation, const std::string& cuit)
{
    const pugi::xml_node request = child_by_local_name(operation, "FeCAEReq");
    const auto point_of_sale = whole_number(text_by_local_name(request, {"FeCabReq", "PtoVta"}));
    const auto voucher_type = whole_number(text_by_local_name(request, {"FeCabReq", "CbteTipo"}));
    std::vector<pugi::xml_node> details;
    for (const pugi::xml_node& node : child_by_local_name(request, "FeDetReq").children())
        if (local_name(node) == "FECAEDetRequest")
            details.push_back(node);
    if (!point_of_sale || !voucher_type || details.empty())
        return {};

    const WallClock::time_point now = WallClock::now();
    const std::string today = format_argentina_date(now);
    const std::string processed = format_argentina_date(now, true);
    std::vector<std::string> fields;
    for (const pugi::xml_node& detail : details) {
        fields.push_back(detail_fields(detail, today).value_or(""));
        if (fields.back().empty())
            return {};
    }

    std::string detail_results;
    size_t approved = 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    const Series series{cuit, *point_of_sale, *voucher_type};
    long long& last = m_last_number[series];
    for (size_t i = 0; i < details.size(); ++i) {
        const long long first = *whole_number(text_by_local_name(details[i], {"CbteDesde"}));
        const long long final = *whole_number(text_by_local_name(details[i], {"CbteHasta"}));
        Voucher voucher{fields[i], "", "", processed};
        if (first == last + 1 && final >= first) {
            voucher.cae = random_digits(14);
            voucher.cae_expiry = format_argentina_date(now + cae_validity);
            for (long long number = first; number <= final; ++number)
                m_vouchers[{series, number}] = voucher;
            last = final;
            ++approved;
        }
        // The answer repeats the request's fields up to the date.
        detail_results += "<FECAEDetResponse>" + fields[i].substr(0, fields[i].find("<ImpTotal>")) +
                          element("Resultado", voucher.cae.empty() ? "R" : "A") + element("CAE", voucher.cae) +
                          element("CAEFchVto", voucher.cae_expiry) + "</FECAEDetResponse>";
    }
    m_points_of_sale[cuit].insert(*point_of_sale);

    const char* outcome = approved == details.size() ? "A" : approved == 0 ? "R" : "P";
    const std::string header = "<FeCabResp>" + element("Cuit", cuit) + element("PtoVta", std::to_string(*point_of_sale)) +
                               element("CbteTipo", std::to_string(*voucher_type)) + element("FchProceso", processed) +
                               element("CantReg", std::to_string(details.size())) + element("Resultado", outcome) +
                               "<Reproceso>N</Reproceso></FeCabResp>";
    return header + "<FeDetResp>" + detail_results + "</FeDetResp>" +
           (approved == details.size()
                ? ""
                : errors(10016, "El numero o fecha del comprobante no se corresponde con el proximo a autorizar. "
                                "Consultar metodo FECompUltimoAutorizado."));
}

std::string InvoicingService::consult(const pugi::xml_node& operation, const std::string& cuit)
{
    const pugi::xml_node query = child_by_local_name(operation, "FeCompConsReq");
    const auto voucher_type = whole_number(text_by_local_name(query, {"CbteTipo"}));
    const auto number = whole_number(text_by_local_name(query, {"CbteNro"}));
    const auto point_of_sale = whole_number(text_by_local_name(query, {"PtoVta"}));
    if (!voucher_type || !number || !point_of_sale)
        return {};
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_vouchers.find({{cuit, *point_of_sale, *voucher_type}, *number});
    if (found == m_vouchers.end())
        return errors(602, no_data);
    const Voucher& voucher = found->second;
    return "<ResultGet>" + voucher.fields + element("Resultado", "A") + element("CodAutorizacion", voucher.cae) +
           element("EmisionTipo", "CAE") + element("FchVto", voucher.cae_expiry) + element("FchProceso", voucher.processed) +
           element("PtoVta", std::to_string(*point_of_sale)) + element("CbteTipo", std::to_string(*voucher_type)) +
           "</ResultGet>";
}
