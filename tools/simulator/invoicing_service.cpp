#include "invoicing_service.h"

#include <charconv>
#include <optional>
#include <vector>

#include "argentina_time.h"

namespace {

const char envelope_start[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
    "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"><soap:Body>";
const char envelope_end[] = "</soap:Body></soap:Envelope>";

// Days between a voucher's date and the expiry of its authorisation code.
constexpr std::chrono::hours cae_validity{24 * 10};

Reply operation_reply(const std::string& operation, const std::string& result_content, const std::string& summary)
{
    Reply reply;
    reply.body = std::string(envelope_start) + "<" + operation + "Response xmlns=\"http://ar.gov.afip.dif.FEV1/\"><" +
                 operation + "Result>" + result_content + "</" + operation + "Result></" + operation + "Response>" +
                 envelope_end;
    reply.summary = operation + " " + summary;
    return reply;
}

Reply client_fault(const std::string& text, const std::string& summary)
{
    Reply reply;
    reply.status = 500;
    reply.body = std::string(envelope_start) + "<soap:Fault><faultcode>soap:Client</faultcode><faultstring>" +
                 xml_escape(text) + "</faultstring><detail /></soap:Fault>" + envelope_end;
    reply.summary = summary + " -> fault soap:Client: " + text;
    return reply;
}

std::string error_list(int code, const std::string& message)
{
    return "<Errors><Err><Code>" + std::to_string(code) + "</Code><Msg>" + xml_escape(message) + "</Msg></Err></Errors>";
}

std::optional<long> parse_number(const std::string& text)
{
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// The Err 600 message for credentials the service does not accept; empty when accepted.
std::string credential_problem(const TicketRegistry& tickets, const pugi::xml_node& operation)
{
    const pugi::xml_node auth = child_by_local_name(operation, "Auth");
    switch (tickets.check(text_by_local_name(auth, {"Token"}), text_by_local_name(auth, {"Sign"}))) {
    case TicketCheck::valid: return {};
    case TicketCheck::expired: return "ValidacionDeToken: el Token ha expirado";
    case TicketCheck::unknown: break;
    }
    return "ValidacionDeToken: No validaron las credenciales";
}

} // namespace

InvoicingService::InvoicingService(const TicketRegistry& tickets) : m_tickets(tickets) {}

Reply InvoicingService::handle(const std::string& request_body)
{
    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_buffer(request_body.data(), request_body.size());
    const pugi::xml_node operation = soap_body_content(document);
    if (!parsed || !operation)
        return client_fault("Server was unable to read request. ---> There is an error in XML document.", "(unreadable)");

    const std::string name = local_name(operation);
    if (name == "FEDummy")
        return dummy();
    if (name == "FECompUltimoAutorizado")
        return last_authorised(operation);
    if (name == "FECAESolicitar")
        return authorise(operation);
    return client_fault("Server did not recognize the value of HTTP Header SOAPAction: http://ar.gov.afip.dif.FEV1/" +
                            name + ".",
                        name);
}

Reply InvoicingService::dummy() const
{
    return operation_reply("FEDummy", "<AppServer>OK</AppServer><DbServer>OK</DbServer><AuthServer>OK</AuthServer>", "-> OK");
}

Reply InvoicingService::last_authorised(const pugi::xml_node& operation)
{
    const std::string problem = credential_problem(m_tickets, operation);
    if (!problem.empty())
        return operation_reply("FECompUltimoAutorizado", error_list(600, problem), "-> Err 600: " + problem);

    const std::string cuit = text_by_local_name(operation, {"Auth", "Cuit"});
    const auto point_of_sale = parse_number(text_by_local_name(operation, {"PtoVta"}));
    const auto voucher_type = parse_number(text_by_local_name(operation, {"CbteTipo"}));
    if (!point_of_sale || !voucher_type)
        return client_fault("Server was unable to read request. ---> PtoVta o CbteTipo no es un numero.",
                            "FECompUltimoAutorizado");

    long last = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_last_number.find({cuit, *point_of_sale, *voucher_type});
        if (found != m_last_number.end())
            last = found->second;
    }
    const std::string result = "<PtoVta>" + std::to_string(*point_of_sale) + "</PtoVta><CbteTipo>" +
                               std::to_string(*voucher_type) + "</CbteTipo><CbteNro>" + std::to_string(last) +
                               "</CbteNro>";
    return operation_reply("FECompUltimoAutorizado", result,
                           "cuit=" + cuit + " ptovta=" + std::to_string(*point_of_sale) +
                               " tipo=" + std::to_string(*voucher_type) + " -> CbteNro=" + std::to_string(last));
}

Reply InvoicingService::authorise(const pugi::xml_node& operation)
{
    const std::string problem = credential_problem(m_tickets, operation);
    if (!problem.empty())
        return operation_reply("FECAESolicitar", error_list(600, problem), "-> Err 600: " + problem);

    const std::string cuit = text_by_local_name(operation, {"Auth", "Cuit"});
    const pugi::xml_node request = child_by_local_name(operation, "FeCAEReq");
    const auto point_of_sale = parse_number(text_by_local_name(request, {"FeCabReq", "PtoVta"}));
    const auto voucher_type = parse_number(text_by_local_name(request, {"FeCabReq", "CbteTipo"}));
    std::vector<pugi::xml_node> details;
    for (const pugi::xml_node& node : child_by_local_name(request, "FeDetReq").children())
        if (local_name(node) == "FECAEDetRequest")
            details.push_back(node);
    if (!point_of_sale || !voucher_type || details.empty())
        return client_fault("Server was unable to read request. ---> FeCAEReq incompleto.", "FECAESolicitar");

    const WallClock::time_point now = WallClock::now();
    const std::string today = format_argentina_date(now);
    std::string detail_results;
    size_t approved = 0;
    std::string numbers;
    std::lock_guard<std::mutex> lock(m_mutex);
    long& last = m_last_number[{cuit, *point_of_sale, *voucher_type}];
    for (const pugi::xml_node& detail : details) {
        const auto range_start = parse_number(text_by_local_name(detail, {"CbteDesde"}));
        const auto range_end = parse_number(text_by_local_name(detail, {"CbteHasta"}));
        const std::string date = text_by_local_name(detail, {"CbteFch"});
        std::string outcome;
        if (range_start && range_end && *range_start == last + 1 && *range_end >= *range_start) {
            last = *range_end;
            ++approved;
            numbers += " " + std::to_string(*range_start);
            outcome = "<Resultado>A</Resultado><CAE>" + random_digits(14) + "</CAE><CAEFchVto>" +
                      format_argentina_date(now + cae_validity) + "</CAEFchVto>";
        } else {
            outcome = "<Resultado>R</Resultado><Observaciones><Obs><Code>10016</Code><Msg>El numero o fecha del "
                      "comprobante no se corresponde con el proximo a autorizar. Consultar metodo "
                      "FECompUltimoAutorizado.</Msg></Obs></Observaciones><CAE></CAE><CAEFchVto></CAEFchVto>";
        }
        detail_results += "<FECAEDetResponse><Concepto>" + xml_escape(text_by_local_name(detail, {"Concepto"})) +
                          "</Concepto><DocTipo>" + xml_escape(text_by_local_name(detail, {"DocTipo"})) +
                          "</DocTipo><DocNro>" + xml_escape(text_by_local_name(detail, {"DocNro"})) +
                          "</DocNro><CbteDesde>" + xml_escape(text_by_local_name(detail, {"CbteDesde"})) +
                          "</CbteDesde><CbteHasta>" + xml_escape(text_by_local_name(detail, {"CbteHasta"})) +
                          "</CbteHasta><CbteFch>" + xml_escape(date.empty() ? today : date) + "</CbteFch>" + outcome +
                          "</FECAEDetResponse>";
    }

    const char* overall = approved == details.size() ? "A" : approved == 0 ? "R" : "P";
    const std::string header = "<FeCabResp><Cuit>" + xml_escape(cuit) + "</Cuit><PtoVta>" +
                               std::to_string(*point_of_sale) + "</PtoVta><CbteTipo>" + std::to_string(*voucher_type) +
                               "</CbteTipo><FchProceso>" + today + "</FchProceso><CantReg>" +
                               std::to_string(details.size()) + "</CantReg><Resultado>" + overall +
                               "</Resultado><Reproceso>N</Reproceso></FeCabResp>";
    return operation_reply("FECAESolicitar", header + "<FeDetResp>" + detail_results + "</FeDetResp>",
                           "cuit=" + cuit + " ptovta=" + std::to_string(*point_of_sale) + " tipo=" +
                               std::to_string(*voucher_type) + " -> Resultado=" + overall +
                               (numbers.empty() ? "" : " CbteNro=" + numbers.substr(1)));
}
