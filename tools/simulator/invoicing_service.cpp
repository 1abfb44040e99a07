#include "invoicing_service.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "util/argentina_time.h"
#include "parameters.h"
#include "voucher_rules.h"
#include "util/wsfev1.h"

namespace {

const char envelope_start[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\">";

constexpr long long cae_validity_days = 10;
constexpr long long caea_report_days = 8;       // after the CAEA's fortnight, to report its vouchers
constexpr long long caea_request_days_ahead = 5; // a CAEA may be asked for from 5 days before its fortnight
const char no_data[] = "No existen datos en nuestros registros para los parametros ingresados.";
const char wsfev1_service_name[] = "wsfe";
// The reference records no text for a token AFIP never issued: the simulator's own words.
const char unknown_token_text[] = "ValidacionDeToken: No validaron las credenciales";

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
    reply.body = std::string(envelope_start) + "<soap:Header><FEHeaderInfo xmlns=\"" + wsfev1_namespace +
                 "\"><ambiente>HomologacionExterno - afip_simulator</ambiente>" +
                 element("fecha", format_argentina_time(now)) + "<id>1.0.0</id></FEHeaderInfo></soap:Header>"
                 "<soap:Body><" + operation + "Response xmlns=\"" + wsfev1_namespace + "\"><" + operation + "Result>" +
                 result + "</" + operation + "Result></" + operation + "Response></soap:Body></soap:Envelope>";
    reply.summary = operation + " " + summary;
    return reply;
}

// The announcements in the place each answer's schema gives them: before Errors in the two answers
// about vouchers, last in the others; FEDummy's answer has none.
std::string with_events(const std::string& operation, const std::string& result,
                        const std::vector<std::pair<int, std::string>>& events)
{
    if (events.empty() || operation == "FEDummy")
        return result;
    std::string list = "<Events>";
    for (const auto& [code, message] : events)
        list += "<Evt>" + element("Code", std::to_string(code)) + element("Msg", message) + "</Evt>";
    list += "</Events>";
    const size_t errors_at = result.find("<Errors>");
    if ((operation == "FECAESolicitar" || operation == "FECAEARegInformativo") && errors_at != std::string::npos)
        return result.substr(0, errors_at) + list + result.substr(errors_at);
    return result + list;
}

// What the log says of an answer: its first Err, else its Resultado and observations.
std::string outcome_of(const std::string& result)
{
    const auto value_after = [&](const std::string& mark, size_t from) {
        const size_t at = result.find(mark, from);
        return at == std::string::npos ? std::string() : result.substr(at + mark.size(), result.find('<', at + mark.size()) - at - mark.size());
    };
    if (const std::string code = value_after("<Errors><Err><Code>", 0); !code.empty())
        return "Err " + code;
    std::string outcome = result.find("<Resultado>") == std::string::npos ? "OK" : "Resultado " + value_after("<Resultado>", 0);
    for (size_t at = result.find("<Obs><Code>"); at != std::string::npos; at = result.find("<Obs><Code>", at + 1))
        outcome += " Obs " + value_after("<Obs><Code>", at);
    return outcome;
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

// A whole number within xs:int (or, with `wide`, xs:long), as the schema types the field.
std::optional<long long> whole_number(const std::string& text, bool wide = false)
{
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    if (!wide && (value > std::numeric_limits<std::int32_t>::max() || value < std::numeric_limits<std::int32_t>::min()))
        return std::nullopt;
    return value;
}

// What the service says of the Auth element: empty when it accepts it, else the Err 600 text.
std::string token_problem(const TicketRegistry& tickets, const pugi::xml_node& auth)
{
    const std::string cuit = text_by_local_name(auth, {"Cuit"});
    const TicketCheck check =
        tickets.check(text_by_local_name(auth, {"Token"}), text_by_local_name(auth, {"Sign"}), wsfev1_service_name, cuit);
    const auto stamp = [](WallClock::time_point when) {
        return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(when.time_since_epoch()).count()) + " (" +
               format_utc_clock(when) + ")";
    };
    switch (check.problem) {
    case TicketProblem::none:
        return {};
    case TicketProblem::empty:
        return "ValidacionDeToken: Parametro nulo o vacio";
    case TicketProblem::unknown_token:
        return unknown_token_text;
    case TicketProblem::wrong_sign:
        return "ValidacionDeToken: Error al verificar hash: VerificacionDeHash: No validó la firma digital.";
    case TicketProblem::other_service:
        return std::string("ValidacionDeToken: No valido Id Sistema: ") + wsfev1_service_name +
               "(Id Sistema de token es: " + check.ticket->service + ")";
    case TicketProblem::expired:
        return "ValidacionDeToken: No validaron las fechas del token GenTime, ExpTime, NowUTC: " + stamp(check.ticket->generated) +
               ", " + stamp(check.ticket->expires) + ", " + stamp(WallClock::now());
    case TicketProblem::unrelated_cuit:
        break;
    }
    return "ValidacionDeToken: No aparecio CUIT en lista de relaciones: " + cuit;
}

std::string refusal(const char* operation, int code)
{
    return errors(code, consultation_error(operation, code).text);
}

bool valid_point_of_sale(long long point_of_sale)
{
    return point_of_sale >= 1 && point_of_sale <= highest_point_of_sale;
}

// The number in an element of an answer's fields, 0 when absent.
long long text_between(const std::string& fields, const std::string& name)
{
    const size_t at = fields.find("<" + name + ">");
    return at == std::string::npos ? 0 : std::strtoll(fields.c_str() + at + name.size() + 2, nullptr, 10);
}

} // namespace

InvoicingService::InvoicingService(const TicketRegistry& tickets, const Padron& padron, InvoicingSettings settings,
                                   StateFile& state)
    : m_tickets(tickets), m_padron(padron), m_settings(std::move(settings)), m_state(state)
{
    const nlohmann::json saved = state.section("invoicing");
    if (saved.is_null())
        return;
    try {
        load(saved);
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(std::string("the state's vouchers cannot be read: ") + error.what());
    }
}

std::string InvoicingService::today() const
{
    return m_settings.today.empty() ? argentina_today(WallClock::now()) : m_settings.today;
}

std::string InvoicingService::processed_now() const
{
    return today() + format_argentina_date(WallClock::now(), true).substr(8);
}

bool InvoicingService::registered_for(long long point_of_sale, bool with_caea) const
{
    const std::set<long long>& cae = m_settings.points_of_sale;
    const std::set<long long>& caea = m_settings.caea_points_of_sale;
    if (!valid_point_of_sale(point_of_sale))
        return false;
    if (with_caea)
        return caea.empty() || caea.count(point_of_sale);
    return !caea.count(point_of_sale) && (cae.empty() || cae.count(point_of_sale));
}

bool InvoicingService::known_point_of_sale(long long point_of_sale) const
{
    return registered_for(point_of_sale, false) || registered_for(point_of_sale, true);
}

void InvoicingService::load(const nlohmann::json& saved)
{
    for (const nlohmann::json& entry : saved.at("series")) {
        const Series series{entry.at("cuit"), entry.at("point_of_sale"), entry.at("type")};
        m_last_number[series] = entry.at("last_number");
        m_last_date[series] = entry.at("last_date");
    }
    for (const nlohmann::json& entry : saved.at("vouchers"))
        m_vouchers[{{entry.at("cuit"), entry.at("point_of_sale"), entry.at("type")}, entry.at("number")}] =
            Voucher{entry.at("fields"), entry.at("observations"), entry.at("authorisation"), entry.at("emission"),
                    entry.at("expiry"), entry.at("processed")};
    for (const auto& [cuit, points] : saved.at("points_of_sale").items())
        m_points_of_sale[cuit] = points.get<std::set<long long>>();
    for (const nlohmann::json& entry : saved.at("caeas"))
        m_caeas[{entry.at("cuit"), entry.at("period"), entry.at("order")}] =
            Caea{entry.at("code"), entry.at("valid_from"), entry.at("valid_to"), entry.at("report_by"), entry.at("processed")};
    for (const nlohmann::json& entry : saved.at("no_movement"))
        m_no_movement.emplace_back(entry.at("cuit"), entry.at("caea"), entry.at("point_of_sale"), entry.at("processed"));
}

void InvoicingService::save()
{
    if (!m_state.persistent())
        return;
    nlohmann::json series = nlohmann::json::array(), vouchers = nlohmann::json::array(), caeas = nlohmann::json::array(),
                   no_movement = nlohmann::json::array();
    for (const auto& [key, number] : m_last_number)
        series.push_back({{"cuit", std::get<0>(key)}, {"point_of_sale", std::get<1>(key)}, {"type", std::get<2>(key)},
                          {"last_number", number}, {"last_date", m_last_date[key]}});
    for (const auto& [key, voucher] : m_vouchers)
        vouchers.push_back({{"cuit", std::get<0>(key.first)}, {"point_of_sale", std::get<1>(key.first)},
                            {"type", std::get<2>(key.first)}, {"number", key.second}, {"fields", voucher.fields},
                            {"observations", voucher.observations}, {"authorisation", voucher.authorisation},
                            {"emission", voucher.emission}, {"expiry", voucher.expiry}, {"processed", voucher.processed}});
    for (const auto& [key, caea] : m_caeas)
        caeas.push_back({{"cuit", std::get<0>(key)}, {"period", std::get<1>(key)}, {"order", std::get<2>(key)},
                         {"code", caea.code}, {"valid_from", caea.valid_from}, {"valid_to", caea.valid_to},
                         {"report_by", caea.report_by}, {"processed", caea.processed}});
    for (const auto& [cuit, caea, point, processed] : m_no_movement)
        no_movement.push_back({{"cuit", cuit}, {"caea", caea}, {"point_of_sale", point}, {"processed", processed}});
    m_state.save("invoicing", {{"series", series}, {"vouchers", vouchers}, {"points_of_sale", m_points_of_sale},
                               {"caeas", caeas}, {"no_movement", no_movement}});
}

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
        const std::string prefix = wsfev1_namespace;
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
            return unrecognised(wsfev1_namespace + name, name);
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
        {"FECAEASolicitar", &InvoicingService::request_caea},
        {"FECAEAConsultar", &InvoicingService::consult_caea},
        {"FECAEARegInformativo", &InvoicingService::inform_caea_vouchers},
        {"FECAEASinMovimientoInformar", &InvoicingService::inform_no_movement},
        {"FECAEASinMovimientoConsultar", &InvoicingService::consult_no_movement},
        {"FEParamGetPtosVenta", &InvoicingService::points_of_sale},
        {"FEParamGetCondicionIvaReceptor", &InvoicingService::receiver_conditions},
        {"FEParamGetCotizacion", &InvoicingService::quotation},
        {"FECompTotXRequest", &InvoicingService::records_per_request},
    };
    const auto& tables = parameter_tables();
    const auto table = std::find_if(tables.begin(), tables.end(), [&](const ParameterTable& t) { return name == t.operation; });
    const auto handler = handlers.find(name);
    if (table == tables.end() && handler == handlers.end())
        return fault("soap:Server", "afip_simulator no implementa la operacion " + name + " de WSFEv1.", name);

    const pugi::xml_node auth = child_by_local_name(operation, "Auth");
    const std::string cuit = text_by_local_name(auth, {"Cuit"});
    if (const std::string problem = token_problem(m_tickets, auth); !problem.empty()) {
        // Elements the schema requires come first, zero, as AFIP sends them.
        const std::string required = name == "FECompUltimoAutorizado" ? "<PtoVta>0</PtoVta><CbteTipo>0</CbteTipo><CbteNro>0</CbteNro>"
                                     : name == "FECompTotXRequest"    ? "<RegXReq>0</RegXReq>"
                                     : name == "FECAEASinMovimientoInformar" ? "<PtoVta>0</PtoVta>"
                                                                      : "";
        return operation_reply(name, with_events(name, required + errors(600, problem), m_settings.events),
                               "-> Err 600: " + problem);
    }

    std::string result;
    if (table != tables.end()) {
        for (const auto& row : table->rows) {
            result += "<" + std::string(table->element) + ">";
            for (size_t i = 0; i < table->columns.size(); ++i)
                result += element(table->columns[i], row[i]);
            if (table->valid_from)
                result += element("FchDesde", table->valid_from) + "<FchHasta>NULL</FchHasta>";
            result += "</" + std::string(table->element) + ">";
        }
        result = "<ResultGet>" + result + "</ResultGet>";
    } else {
        result = (this->*handler->second)(operation, cuit);
    }
    if (result.empty())
        return unreadable(name);
    return operation_reply(name, with_events(name, result, m_settings.events), "cuit=" + cuit + " -> " + outcome_of(result));
}

std::string InvoicingService::receiver_conditions(const pugi::xml_node& operation, const std::string&)
{
    const std::string voucher_class = text_by_local_name(operation, {"ClaseCmp"});
    static const char* const classes[] = {"A", "M", "B", "C", "49"};
    if (!voucher_class.empty() && std::find(std::begin(classes), std::end(classes), voucher_class) == std::end(classes))
        return refusal("FEParamGetCondicionIvaReceptor", 10244);
    std::string conditions;
    for (const ReceptorCondition& condition : receptor_conditions())
        if (voucher_class.empty() || condition_allows_class(condition.classes, voucher_class))
            conditions += "<CondicionIvaReceptor>" + element("Id", std::to_string(condition.id)) +
                          element("Desc", condition.description) + element("Cmp_Clase", condition.classes) +
                          "</CondicionIvaReceptor>";
    return "<ResultGet>" + conditions + "</ResultGet>";
}

std::string InvoicingService::quotation(const pugi::xml_node& operation, const std::string&)
{
    const std::string currency = text_by_local_name(operation, {"MonId"});
    const auto& table = quotations();
    const auto found = std::find_if(table.begin(), table.end(), [&](const auto& quotation) { return currency == quotation.first; });
    if (currency == "PES")
        return refusal("FEParamGetCotizacion", 602);
    if (found == table.end())
        return errors(602, no_data);
    return "<ResultGet>" + element("MonId", currency) + element("MonCotiz", found->second) + element("FchCotiz", today()) +
           "</ResultGet>";
}

std::string InvoicingService::records_per_request(const pugi::xml_node&, const std::string&)
{
    return element("RegXReq", std::to_string(most_vouchers_per_request));
}

std::string InvoicingService::points_of_sale(const pugi::xml_node&, const std::string& cuit)
{
    std::map<long long, const char*> points;
    if (m_settings.points_of_sale.empty()) {
        points[1] = "CAE";
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto used = m_points_of_sale.find(cuit);
        if (used != m_points_of_sale.end())
            for (const long long point : used->second)
                points[point] = "CAE";
    }
    for (const long long point : m_settings.points_of_sale)
        points[point] = "CAE";
    for (const long long point : m_settings.caea_points_of_sale)
        points[point] = "CAEA";
    std::string list;
    for (const auto& [point, emission] : points)
        list += "<PtoVenta>" + element("Nro", std::to_string(point)) + element("EmisionTipo", emission) +
                "<Bloqueado>N</Bloqueado><FchBaja>NULL</FchBaja></PtoVenta>";
    return "<ResultGet>" + list + "</ResultGet>";
}

std::string InvoicingService::last_authorised(const pugi::xml_node& operation, const std::string& cuit)
{
    const auto point_of_sale = whole_number(text_by_local_name(operation, {"PtoVta"}));
    const auto voucher_type = whole_number(text_by_local_name(operation, {"CbteTipo"}));
    if (!point_of_sale || !voucher_type)
        return {};
    const char* const operation_name = "FECompUltimoAutorizado";
    const int problem = !valid_point_of_sale(*point_of_sale)                                  ? 11000
                        : !parameter_exists("FEParamGetTiposCbte", std::to_string(*voucher_type)) ? 11001
                        : !known_point_of_sale(*point_of_sale)                                ? 11002
                                                                                               : 0;
    if (problem)
        return "<PtoVta>0</PtoVta><CbteTipo>0</CbteTipo><CbteNro>0</CbteNro>" + refusal(operation_name, problem);
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_last_number.find({cuit, *point_of_sale, *voucher_type});
    return element("PtoVta", std::to_string(*point_of_sale)) + element("CbteTipo", std::to_string(*voucher_type)) +
           element("CbteNro", std::to_string(found == m_last_number.end() ? 0 : found->second));
}

std::string InvoicingService::authorise(const pugi::xml_node& operation, const std::string& cuit)
{
    return judge(child_by_local_name(operation, "FeCAEReq"), cuit, false);
}

std::string InvoicingService::inform_caea_vouchers(const pugi::xml_node& operation, const std::string& cuit)
{
    return judge(child_by_local_name(operation, "FeCAEARegInfReq"), cuit, true);
}

// FECAESolicitar and FECAEARegInformativo: the Err rules refuse the whole request; otherwise the
// vouchers are judged in order and the first one rejected stops the batch, as at AFIP.
std::string InvoicingService::judge(const pugi::xml_node& request, const std::string& cuit, bool with_caea)
{
    const auto declared = whole_number(text_by_local_name(request, {"FeCabReq", "CantReg"}));
    const auto point_of_sale = whole_number(text_by_local_name(request, {"FeCabReq", "PtoVta"}));
    const auto voucher_type = whole_number(text_by_local_name(request, {"FeCabReq", "CbteTipo"}));
    if (!declared || !point_of_sale || !voucher_type)
        return {};
    const std::string today = this->today();
    const std::string processed = processed_now();
    std::vector<VoucherDetail> details;
    for (const pugi::xml_node& node : child_by_local_name(request, "FeDetReq").children()) {
        if (node.type() != pugi::node_element || local_name(node) != (with_caea ? "FECAEADetRequest" : "FECAEDetRequest"))
            continue;
        std::optional<VoucherDetail> detail = read_voucher_detail(node, today);
        if (!detail)
            return {};
        details.push_back(std::move(*detail));
    }

    std::lock_guard<std::mutex> lock(m_mutex);
    const Series series{cuit, *point_of_sale, *voucher_type};
    const auto last = m_last_number.find(series);
    const auto last_date = m_last_date.find(series);
    VoucherCheck check;
    check.declared_count = *declared;
    check.sent_count = details.size();
    check.voucher_type = *voucher_type;
    check.point_of_sale = *point_of_sale;
    check.point_of_sale_registered = registered_for(*point_of_sale, with_caea);
    check.issuer = cuit;
    check.today = today;
    check.receptor_condition_required_from = m_settings.receptor_condition_required_from;
    check.padron = &m_padron;
    check.authorised = [&](const std::string& owner, const VoucherDetail::Associated& voucher) {
        return m_vouchers.count({{owner, voucher.point_of_sale, voucher.type}, voucher.number}) > 0;
    };
    check.next_number = last == m_last_number.end() ? 1 : last->second + 1;
    check.last_date = last_date == m_last_date.end() ? "" : last_date->second;

    check.with_caea = with_caea;
    const auto use_detail = [&](const VoucherDetail& detail) {
        check.detail = detail;
        const Caea* caea = granted_caea(cuit, detail.caea);
        check.caea = caea ? std::optional(VoucherCheck::CaeaGrant{caea->valid_from, caea->valid_to, caea->report_by}) : std::nullopt;
    };

    std::optional<std::pair<int, std::string>> refusal;
    for (size_t i = 0; i < std::max<size_t>(details.size(), 1) && !refusal; ++i) {
        use_detail(details.empty() ? VoucherDetail{} : details[i]);
        for (const VoucherRule& rule : voucher_rules())
            if (rule.kind == RuleKind::error && rule.judges(check) && rule.applies(check)) {
                refusal = std::pair(rule.code, rule_message(rule, check));
                break;
            }
        // Unrefused, the number is at most 99999999: the next one cannot overflow.
        if (!refusal) {
            check.next_number = check.detail.last + 1;
            check.last_date = check.detail.date;
        }
    }

    std::string detail_results;
    size_t approved = 0;
    bool stopped = refusal.has_value();
    for (size_t i = 0; i < details.size(); ++i) {
        use_detail(details[i]);
        std::string observations;
        bool rejected = stopped;
        if (!stopped)
            for (const VoucherRule& rule : voucher_rules())
                if (rule.kind != RuleKind::error && rule.judges(check) && rule.applies(check)) {
                    observations += "<Obs>" + element("Code", std::to_string(rule.code)) +
                                    element("Msg", rule_message(rule, check)) + "</Obs>";
                    rejected = rejected || rule.kind == RuleKind::rejecting_observation;
                }
        if (!observations.empty())
            observations = "<Observaciones>" + observations + "</Observaciones>";
        const VoucherDetail& detail = details[i];
        Voucher voucher{detail.echo, observations, "", with_caea ? "CAEA" : "CAE", "", processed};
        if (!rejected) {
            const long long day = day_of_date(detail.date).value_or(*day_of_date(today));
            voucher.authorisation = with_caea ? detail.caea : random_digits(14);
            voucher.expiry = with_caea ? "" : date_of_day(day + cae_validity_days);
            m_vouchers[{series, detail.first}] = voucher;
            m_last_number[series] = detail.last;
            m_last_date[series] = detail.date;
            ++approved;
        }
        stopped = stopped || rejected;
        // The answer repeats the request's fields up to the date.
        const std::string head = detail.echo.substr(0, detail.echo.find("<ImpTotal>")) +
                                 element("Resultado", rejected ? "R" : "A") + observations;
        detail_results += with_caea ? "<FECAEADetResponse>" + head + element("CAEA", detail.caea) + "</FECAEADetResponse>"
                                    : "<FECAEDetResponse>" + head + element("CAE", voucher.authorisation) +
                                          element("CAEFchVto", voucher.expiry) + "</FECAEDetResponse>";
    }
    if (approved > 0) {
        m_points_of_sale[cuit].insert(*point_of_sale);
        save();
    }

    const char* outcome = approved == details.size() && approved > 0 ? "A" : approved == 0 ? "R" : "P";
    const std::string header = "<FeCabResp>" + element("Cuit", cuit) + element("PtoVta", std::to_string(*point_of_sale)) +
                               element("CbteTipo", std::to_string(*voucher_type)) + element("FchProceso", processed) +
                               element("CantReg", std::to_string(*declared)) + element("Resultado", outcome) +
                               "<Reproceso>N</Reproceso></FeCabResp>";
    return header + "<FeDetResp>" + detail_results + "</FeDetResp>" + (refusal ? errors(refusal->first, refusal->second) : "");
}

std::string InvoicingService::consult(const pugi::xml_node& operation, const std::string& cuit)
{
    const pugi::xml_node query = child_by_local_name(operation, "FeCompConsReq");
    const auto voucher_type = whole_number(text_by_local_name(query, {"CbteTipo"}));
    const auto number = whole_number(text_by_local_name(query, {"CbteNro"}), true);
    const auto point_of_sale = whole_number(text_by_local_name(query, {"PtoVta"}));
    if (!voucher_type || !number || !point_of_sale)
        return {};
    const char* const operation_name = "FECompConsultar";
    const int problem = !valid_point_of_sale(*point_of_sale)                                  ? 10200
                        : !parameter_exists("FEParamGetTiposCbte", std::to_string(*voucher_type)) ? 10201
                        : *number < 1 || *number > highest_voucher_number                     ? 10202
                        : !known_point_of_sale(*point_of_sale)                                ? 10104
                                                                                               : 0;
    if (problem)
        return refusal(operation_name, problem);
    std::lock_guard<std::mutex> lock(m_mutex);
    // Vouchers are kept by their first number; a range answers for every number in it.
    const Series series{cuit, *point_of_sale, *voucher_type};
    auto found = m_vouchers.upper_bound({series, *number});
    if (found == m_vouchers.begin() || std::prev(found)->first.first != series)
        return errors(602, no_data);
    const Voucher& voucher = std::prev(found)->second;
    if (text_between(voucher.fields, "CbteHasta") < *number)
        return errors(602, no_data);
    return "<ResultGet>" + voucher.fields + element("Resultado", "A") + element("CodAutorizacion", voucher.authorisation) +
           element("EmisionTipo", voucher.emission) + element("FchVto", voucher.expiry) +
           element("FchProceso", voucher.processed) + voucher.observations +
           element("PtoVta", std::to_string(*point_of_sale)) + element("CbteTipo", std::to_string(*voucher_type)) +
           "</ResultGet>";
}

std::string InvoicingService::request_caea(const pugi::xml_node& operation, const std::string& cuit)
{
    const auto period = whole_number(text_by_local_name(operation, {"Periodo"}));
    const auto order = whole_number(text_by_local_name(operation, {"Orden"}));
    if (!period || !order || *order < -32768 || *order > 32767)
        return {};
    const auto first_day = day_of_date(std::to_string(*period) + (*order == 2 ? "16" : "01"));
    if (!first_day || (*order != 1 && *order != 2))
        return refusal("FECAEASolicitar", 15007);
    // A fortnight: days 1 to 15, or 16 to the month's end.
    const long long last_day = *order == 1 ? *first_day + 14 : *day_of_date(date_of_day(*first_day + 16).substr(0, 6) + "01") - 1;
    const long long today = *day_of_date(this->today());
    if (today < *first_day - caea_request_days_ahead || today > last_day)
        return refusal("FECAEASolicitar", 15006);
    std::lock_guard<std::mutex> lock(m_mutex);
    Caea& caea = m_caeas[{cuit, *period, *order}];
    if (!caea.code.empty())
        return refusal("FECAEASolicitar", 15008);
    caea = {random_digits(14), date_of_day(*first_day), date_of_day(last_day), date_of_day(last_day + caea_report_days),
            processed_now()};
    save();
    return "<ResultGet>" + element("CAEA", caea.code) + element("Periodo", std::to_string(*period)) +
           element("Orden", std::to_string(*order)) + element("FchVigDesde", caea.valid_from) +
           element("FchVigHasta", caea.valid_to) + element("FchTopeInf", caea.report_by) +
           element("FchProceso", caea.processed) + "</ResultGet>";
}

const InvoicingService::Caea* InvoicingService::granted_caea(const std::string& cuit, const std::string& code) const
{
    const auto found = std::find_if(m_caeas.begin(), m_caeas.end(), [&](const auto& entry) {
        return std::get<0>(entry.first) == cuit && !code.empty() && entry.second.code == code;
    });
    return found == m_caeas.end() ? nullptr : &found->second;
}

std::string InvoicingService::consult_caea(const pugi::xml_node& operation, const std::string& cuit)
{
    const auto period = whole_number(text_by_local_name(operation, {"Periodo"}));
    const auto order = whole_number(text_by_local_name(operation, {"Orden"}));
    if (!period || !order || *order < -32768 || *order > 32767)
        return {};
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_caeas.find({cuit, *period, *order});
    if (found == m_caeas.end())
        return errors(602, no_data);
    const Caea& caea = found->second;
    return "<ResultGet>" + element("CAEA", caea.code) + element("Periodo", std::to_string(*period)) +
           element("Orden", std::to_string(*order)) + element("FchVigDesde", caea.valid_from) +
           element("FchVigHasta", caea.valid_to) + element("FchTopeInf", caea.report_by) +
           element("FchProceso", caea.processed) + "</ResultGet>";
}

std::string InvoicingService::inform_no_movement(const pugi::xml_node& operation, const std::string& cuit)
{
    const auto point_of_sale = whole_number(text_by_local_name(operation, {"PtoVta"}));
    const std::string code = text_by_local_name(operation, {"CAEA"});
    if (!point_of_sale)
        return {};
    const std::string processed = processed_now();
    std::lock_guard<std::mutex> lock(m_mutex);
    const Caea* caea = granted_caea(cuit, code);
    const auto informed_there = [&] {
        return std::any_of(m_vouchers.begin(), m_vouchers.end(), [&](const auto& entry) {
            return std::get<0>(entry.first.first) == cuit && std::get<1>(entry.first.first) == *point_of_sale &&
                   entry.second.emission == "CAEA" && entry.second.authorisation == code;
        });
    };
    const int problem = !caea                                         ? 602
                        : !registered_for(*point_of_sale, true)       ? 10005
                        : today() > caea->report_by                   ? 15009
                        : informed_there()                            ? 15010
                                                                      : 0;
    const bool declared = std::any_of(m_no_movement.begin(), m_no_movement.end(), [&](const auto& entry) {
        return std::get<0>(entry) == cuit && std::get<1>(entry) == code && std::get<2>(entry) == *point_of_sale;
    });
    if (!problem && !declared) {
        m_no_movement.emplace_back(cuit, code, *point_of_sale, processed);
        save();
    }
    return element("CAEA", code) + element("FchProceso", processed) + element("PtoVta", std::to_string(*point_of_sale)) +
           element("Resultado", problem ? "R" : "A") + (problem ? refusal("FECAEASinMovimientoInformar", problem) : "");
}

std::string InvoicingService::consult_no_movement(const pugi::xml_node& operation, const std::string& cuit)
{
    const auto point_of_sale = whole_number(text_by_local_name(operation, {"PtoVta"}));
    const std::string code = text_by_local_name(operation, {"CAEA"});
    if (!point_of_sale)
        return {};
    std::string list;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& [owner, caea, point, processed] : m_no_movement)
        if (owner == cuit && (code.empty() || caea == code) && (*point_of_sale == 0 || point == *point_of_sale))
            list += "<FECAEASinMov>" + element("CAEA", caea) + element("FchProceso", processed) +
                    element("PtoVta", std::to_string(point)) + "</FECAEASinMov>";
    return list.empty() ? errors(602, no_data) : "<ResultGet>" + list + "</ResultGet>";
}
