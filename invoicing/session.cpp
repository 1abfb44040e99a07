#include "invoicing/session.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>
#include <iterator>
#include <map>

#include "invoicing/authorisation.h"
#include "invoicing/caea.h"
#include "invoicing/lookup.h"
#include "invoicing/printout.h"
#include "invoicing/wsfev1_requests.h"
#include "invoicing/qr.h"
#include "invoicing/voucher.h"
#include "util/afip_environments.h"
#include "util/argentina_time.h"
#include "util/os_util.h"

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

std::string dump(const ordered_json& value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

json parse_object(const std::string& text, const char* what)
{
    json value;
    try {
        value = json::parse(text);
    } catch (const json::exception& error) {
        throw SettingsError(std::string(what) + " are not JSON: " + error.what());
    }
    if (!value.is_object())
        throw SettingsError(std::string(what) + " must be a JSON object");
    return value;
}

// The settings a handle takes: each key's reader, so that an unknown key is refused by name.
struct SettingsReader {
    json settings;
    SoapSettings soap;
    std::vector<std::string> headers;
    std::optional<std::string> env;

    std::string text(const std::string& key) const
    {
        if (!settings[key].is_string())
            throw SettingsError("setting " + key + " must be a string");
        return settings[key].get<std::string>();
    }

    std::int64_t whole(const std::string& key, std::int64_t lowest, std::int64_t highest) const
    {
        const json& value = settings[key];
        if (!value.is_number_integer() || (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(highest)) ||
            value.get<std::int64_t>() < lowest || value.get<std::int64_t>() > highest)
            throw SettingsError("setting " + key + " must be a whole number from " + std::to_string(lowest) + " to " +
                                std::to_string(highest));
        return value.get<std::int64_t>();
    }
};

ordered_json messages_json(const ServiceMessages& messages)
{
    ordered_json list = ordered_json::array();
    for (const ServiceMessage& message : messages)
        list.push_back({{"Code", message.code}, {"Msg", message.text}});
    return list;
}

ordered_json outcome_json(const SaleOutcome& outcome)
{
    ordered_json out;
    out["sale_id"] = outcome.sale_id;
    out["Resultado"] = outcome.result;
    out["PtoVta"] = outcome.point_of_sale;
    out["CbteTipo"] = outcome.voucher_type;
    out["CbteNro"] = outcome.number;
    out["CbteFch"] = outcome.date;
    if (outcome.emission == "CAEA") {
        out["CAEA"] = outcome.cae;
        out["informed"] = outcome.informed;
    } else {
        out["CAE"] = outcome.cae;
        out["CAEFchVto"] = outcome.cae_expiry;
    }
    out["Observaciones"] = messages_json(outcome.observations);
    out["Errors"] = messages_json(outcome.errors);
    out["Events"] = messages_json(outcome.events);
    out["recovered"] = outcome.recovered;
    out["from_ledger"] = outcome.from_ledger;
    out["qr_url"] = outcome.qr_url.empty() ? ordered_json() : ordered_json(outcome.qr_url);
    out["status"] = outcome.status;
    out["message"] = outcome.message;
    return out;
}

// Whether an outcome goes to the host with its code: the voucher's fate, or the exchange's failure.
bool has_outcome(int status)
{
    return status == status::approved || status == status::rejected || status == status::outcome_unknown ||
           status == status::caea_issued || (status >= 1 && status <= 17);
}

ordered_json sale_summary(const SaleRecord& sale)
{
    const json voucher = json::parse(sale.voucher, nullptr, false);
    const auto field = [&](const char* name) { return voucher.is_object() && voucher.contains(name) ? voucher[name] : json(); };
    ordered_json out;
    out["sale_id"] = sale.sale_id;
    out["state"] = sale_state_name(sale.state);
    out["PtoVta"] = sale.series.point_of_sale;
    out["CbteTipo"] = sale.series.voucher_type;
    out["CbteNro"] = sale.number ? ordered_json(*sale.number) : ordered_json();
    out["CbteFch"] = sale.date;
    out["DocTipo"] = field("DocTipo");
    out["DocNro"] = field("DocNro");
    out["ImpTotal"] = field("ImpTotal");
    out["CAE"] = sale.cae;
    out["CAEFchVto"] = sale.cae_expiry;
    out["created_at"] = sale.created_at;
    out["updated_at"] = sale.updated_at;
    return out;
}

} // namespace

InvoicingSession::InvoicingSession(const std::string& settings_json)
{
    SettingsReader reader{parse_object(settings_json, "the settings"), {}, {}, {}};
    reader.soap.service = "wsfe";
    reader.soap.verify_with = tls_verification_from_environment();
    bool verify = reader.soap.verify_with.has_value();
    std::optional<std::string> ca_file;
    const std::map<std::string, std::function<void(const std::string&)>> keys = {
        {"cuit", [&](const std::string& key) { m_cuit = reader.whole(key, 1, 99999999999LL); }},
        {"env", [&](const std::string& key) { reader.env = reader.text(key); }},
        {"wsaa_url", [&](const std::string& key) { reader.soap.wsaa_url = reader.text(key); }},
        {"url", [&](const std::string& key) { reader.soap.ws_url = reader.text(key); }},
        {"certificate", [&](const std::string& key) { reader.soap.certificate_path = reader.text(key); }},
        {"password", [&](const std::string& key) { reader.soap.certificate_password = reader.text(key); }},
        {"service", [&](const std::string& key) { reader.soap.service = reader.text(key); }},
        {"ledger", [&](const std::string& key) { m_ledger_path = reader.text(key); }},
        {"proxy", [&](const std::string& key) { reader.soap.proxy_url = reader.text(key); }},
        {"proxy_user", [&](const std::string& key) { reader.soap.proxy_username = reader.text(key); }},
        {"proxy_password", [&](const std::string& key) { reader.soap.proxy_password = reader.text(key); }},
        {"tls_level", [&](const std::string& key) { reader.soap.security_level = static_cast<int32_t>(reader.whole(key, 0, 4)); }},
        {"timeout_ms",
         [&](const std::string& key) { reader.soap.time_out = static_cast<uint32_t>(reader.whole(key, 0, 4294967295LL)); }},
        {"series_wait_ms",
         [&](const std::string& key) { m_series_wait = std::chrono::milliseconds(reader.whole(key, 0, 86400000)); }},
        {"ca_file", [&](const std::string& key) { ca_file = reader.text(key); }},
        {"registry_url", [&](const std::string& key) { m_registry_urls[0] = reader.text(key); }},
        {"contingency",
         [&](const std::string& key) {
             if (!reader.settings[key].is_boolean())
                 throw SettingsError("setting contingency must be true or false");
             m_contingency = reader.settings[key].get<bool>();
         }},
        {"caea_point_of_sale",
         [&](const std::string& key) { m_caea_point_of_sale = static_cast<int>(reader.whole(key, 1, 99998)); }},
        {"registry_a13_url", [&](const std::string& key) { m_registry_urls[1] = reader.text(key); }},
        {"tls_verify",
         [&](const std::string& key) {
             if (!reader.settings[key].is_boolean())
                 throw SettingsError("setting tls_verify must be true or false");
             verify = reader.settings[key].get<bool>();
         }},
        {"headers",
         [&](const std::string& key) {
             const json& lines = reader.settings[key];
             for (size_t i = 0; lines.is_array() && i < lines.size() && lines[i].is_string(); ++i)
                 reader.headers.push_back(lines[i].get<std::string>());
             if (!lines.is_array() || reader.headers.size() != lines.size())
                 throw SettingsError("setting headers must be a list of texts");
         }},
    };
    for (const auto& [key, value] : reader.settings.items()) {
        const auto found = keys.find(key);
        if (found == keys.end())
            throw SettingsError("unknown setting '" + key + "'");
        if (!value.is_null())
            found->second(key);
    }
    if (reader.env) {
        const AfipEnvironment* environment = find_afip_environment(reader.env->c_str());
        if (environment == nullptr)
            throw SettingsError("setting env takes homologation or production, not '" + *reader.env + "'");
        if (!reader.settings.contains("wsaa_url"))
            reader.soap.wsaa_url = environment->wsaa_url;
        if (!reader.settings.contains("url"))
            reader.soap.ws_url = environment->wsfev1_url;
        if (!reader.settings.contains("registry_url"))
            m_registry_urls[0] = environment->constancia_url;
        if (!reader.settings.contains("registry_a13_url"))
            m_registry_urls[1] = environment->padron_a13_url;
    }
    // A trust file named means verification wanted, as the command line has it.
    if (ca_file || verify)
        reader.soap.verify_with = ca_file.value_or(reader.soap.verify_with.value_or(""));
    if (reader.settings.contains("tls_verify") && !verify)
        reader.soap.verify_with.reset();
    m_soap = reader.soap;
    m_headers = reader.headers;
    m_channel = std::make_unique<LibraryChannel>(reader.soap, reader.headers, m_last_log);
}

AfipChannel* InvoicingSession::registry_channel(RegistryService service, std::string& message)
{
    const size_t index = service == RegistryService::constancia ? 0 : 1;
    if (m_registry_urls[index].empty()) {
        message = std::string("no address of AFIP's registry (") + registry_service_name(service) +
                  "): give the setting " + (index == 0 ? "registry_url" : "registry_a13_url") + ", or env";
        return nullptr;
    }
    if (!m_registry_channels[index]) {
        SoapSettings settings = m_soap;
        settings.service = registry_service_name(service);
        settings.ws_url = m_registry_urls[index];
        m_registry_channels[index] = std::make_unique<LibraryChannel>(settings, m_headers, m_last_log);
    }
    return m_registry_channels[index].get();
}

std::vector<int> InvoicingSession::conditions_for(const std::string& voucher_class)
{
    const auto known = m_conditions_by_class.find(voucher_class);
    if (known != m_conditions_by_class.end())
        return known->second;
    const ServiceExchange asked =
        m_channel->send("FEParamGetCondicionIvaReceptor", receptor_conditions_request(*m_cuit, voucher_class));
    const auto listed = asked.result == 0 ? read_receptor_conditions(asked.answer) : std::nullopt;
    if (listed)
        m_conditions_by_class[voucher_class] = *listed;
    return listed.value_or(std::vector<int>{});
}

int InvoicingSession::complete_voucher(Voucher& voucher, std::string& message)
{
    AfipChannel* channel = registry_channel(RegistryService::constancia, message);
    if (channel == nullptr)
        return status::registry_refused;
    RegistryLookup lookup(*channel, RegistryService::constancia, *m_cuit, &ledger());
    const LookupOutcome found = lookup.look_up(voucher.document_number);
    if (found.status != status::approved) {
        message = "the receptor's VAT condition: " + found.message;
        return found.status;
    }
    const int condition = receptor_condition(*found.person).value_or(5);
    // FEParamGetCondicionIvaReceptor's word when it answers, else the table AFIP publishes.
    const std::string voucher_class = condition_class_of(voucher.voucher_type);
    const std::vector<int> allowed = conditions_for(voucher_class);
    const bool fits = allowed.empty() ? condition_fits_class(condition, voucher_class)
                                      : std::find(allowed.begin(), allowed.end(), condition) != allowed.end();
    if (!fits) {
        message = "CUIT " + std::to_string(voucher.document_number) + " is " + receptor_condition_description(condition) +
                  " (" + std::to_string(condition) + ") in AFIP's registry, which a voucher of type " +
                  std::to_string(voucher.voucher_type) + " (class " + voucher_class + ") may not go to";
        return status::condition_unfit;
    }
    voucher.receiver_vat_condition = condition;
    return status::approved;
}

CoreResult InvoicingSession::lookup(const std::string& query_json)
{
    const json query = json::parse(query_json, nullptr, false);
    if (!query.is_object() || !query.contains("cuit") || !query["cuit"].is_number_unsigned())
        return {status::bad_input, "the query must be a JSON object with \"cuit\", a whole number", std::nullopt};
    for (const auto& [key, value] : query.items())
        if (key != "cuit" && key != "service" && key != "reuse")
            return {status::bad_input, "unknown query key '" + key + "'", std::nullopt};
    const std::optional<RegistryService> service = registry_service_of(query.value("service", "ws_sr_constancia_inscripcion"));
    if (!service)
        return {status::bad_input,
                "service must be ws_sr_constancia_inscripcion or ws_sr_padron_a13, not " + query["service"].dump(),
                std::nullopt};
    if (!m_cuit)
        return {status::bad_input, "the settings name no represented issuer: give \"cuit\"", std::nullopt};
    std::string message;
    AfipChannel* channel = registry_channel(*service, message);
    if (channel == nullptr)
        return {status::registry_refused, message, std::nullopt};
    RegistryLookup registry(*channel, *service, *m_cuit, &ledger());
    const LookupOutcome found = registry.look_up(query["cuit"].get<std::int64_t>(), query.value("reuse", false));
    return {found.status, found.message,
            found.person ? std::optional<std::string>(person_json(*found.person, *service, found.from_cache)) : std::nullopt};
}

Ledger& InvoicingSession::ledger()
{
    if (!m_ledger)
        m_ledger = std::make_unique<Ledger>(m_ledger_path);
    return *m_ledger;
}

const std::string& InvoicingSession::transfer_log() const
{
    return *m_last_log;
}

CoreResult InvoicingSession::authorise(const std::string& voucher_json)
{
    json voucher = json::parse(voucher_json, nullptr, false);
    if (voucher.is_discarded())
        return {status::bad_input, "the voucher is not JSON; nothing was sent", std::nullopt};
    return authorise_parsed(json::array({std::move(voucher)}), false);
}

CoreResult InvoicingSession::authorise_batch(const std::string& vouchers_json)
{
    json list = json::parse(vouchers_json, nullptr, false);
    if (!list.is_array())
        return {status::bad_input, "the vouchers must be a JSON list", std::nullopt};
    return authorise_parsed(std::move(list), true);
}

CoreResult InvoicingSession::authorise_parsed(json given, bool batch)
{
    std::vector<Voucher> vouchers;
    std::vector<std::optional<SaleOutcome>> refused(given.size());
    std::vector<size_t> positions; // of each voucher among the given
    for (size_t i = 0; i < given.size(); ++i) {
        try {
            vouchers.push_back(read_voucher(given[i]));
            if (const std::string problem = items_problem(vouchers.back()); !problem.empty()) {
                vouchers.pop_back();
                throw VoucherError("items: " + problem);
            }
            if (vouchers.back().sale_id.empty())
                vouchers.back().sale_id = generated_sale_id();
            positions.push_back(i);
        } catch (const VoucherError& error) {
            if (!batch)
                return {status::bad_input, std::string(error.what()) + "; nothing was sent", std::nullopt};
            SaleOutcome outcome;
            outcome.status = status::bad_input;
            outcome.message = std::string(error.what()) + "; nothing was sent";
            if (given[i].is_object() && given[i].contains("sale_id") && given[i]["sale_id"].is_string())
                outcome.sale_id = given[i]["sale_id"].get<std::string>();
            refused[i] = outcome;
        }
    }
    given = json(); // the vouchers are read: the text's tree goes before AFIP is asked
    std::vector<SaleOutcome> outcomes;
    if (!vouchers.empty()) {
        if (!m_cuit)
            return {status::bad_input, "the settings name no issuer: give \"cuit\"", std::nullopt};
        try {
            AuthorisationSettings settings(*m_cuit);
            settings.series_wait = m_series_wait;
            settings.complete_voucher = [this](Voucher& voucher, std::string& message) {
                return complete_voucher(voucher, message);
            };
            settings.contingency = m_contingency;
            settings.caea_point_of_sale = m_caea_point_of_sale;
            Authoriser authoriser(ledger(), *m_channel, settings);
            outcomes = authoriser.authorise(vouchers);
        } catch (const LedgerError& error) {
            return {status::ledger_unusable, std::string(error.what()) + "; nothing was sent", std::nullopt};
        }
    }
    // CAEA vouchers near their deadline to inform are told with every invoice.
    const std::vector<std::string> warnings = m_ledger ? caea_deadline_warnings(*m_ledger, *m_cuit, argentina_today(wall_clock_now()))
                                                       : std::vector<std::string>{};
    if (!batch) {
        const SaleOutcome& outcome = outcomes.front();
        ordered_json out = outcome_json(outcome);
        out["warnings"] = warnings;
        return {outcome.status, outcome.message,
                has_outcome(outcome.status) ? std::optional<std::string>(dump(out)) : std::nullopt};
    }
    for (size_t i = 0; i < outcomes.size(); ++i)
        refused[positions[i]] = std::move(outcomes[i]);
    outcomes.clear();
    // One outcome a line, written as it goes: the list is never held twice.
    CoreResult result{status::approved, "", std::string("[")};
    for (size_t i = 0; i < refused.size(); ++i) {
        const SaleOutcome& outcome = *refused[i];
        *result.output += (i == 0 ? "\n" : ",\n") + dump(outcome_json(outcome));
        if (result.status == status::approved && outcome.status != status::approved) {
            result.status = outcome.status;
            result.message = "sale " + outcome.sale_id + ": " + outcome.message;
        }
        refused[i].reset();
    }
    *result.output += "\n]";
    return result;
}

CoreResult InvoicingSession::ledger_list(const std::string& filter_json)
{
    LedgerFilter filter;
    if (!filter_json.empty()) {
        const json given = json::parse(filter_json, nullptr, false);
        if (!given.is_object())
            return {status::bad_input, "the filter must be a JSON object", std::nullopt};
        for (const auto& [key, value] : given.items()) {
            const bool date = key == "from" || key == "to";
            if (date && value.is_string() && value.get<std::string>().size() == 8 &&
                value.get<std::string>().find_first_not_of("0123456789") == std::string::npos)
                (key == "from" ? filter.from_date : filter.to_date) = value.get<std::string>();
            else if (key == "point_of_sale" && value.is_number_integer() && value.get<std::int64_t>() > 0 &&
                     value.get<std::int64_t>() <= 99999)
                filter.point_of_sale = value.get<int>();
            else
                return {status::bad_input,
                        date ? "filter " + key + " must be a date written yyyymmdd"
                        : key == "point_of_sale" ? "filter point_of_sale must be a number from 1 to 99999"
                                                 : "unknown filter '" + key + "'",
                        std::nullopt};
        }
    }
    ordered_json list = ordered_json::array();
    for (const SaleRecord& sale : ledger().list(filter))
        list.push_back(sale_summary(sale));
    return {status::approved, "", dump(list)};
}

CoreResult InvoicingSession::ledger_show(const std::string& sale_id)
{
    const std::optional<SaleRecord> sale = ledger().sale(sale_id);
    if (!sale)
        return {status::not_found, "the ledger " + m_ledger_path + " has no sale '" + sale_id + "'", std::nullopt};
    ordered_json out = sale_summary(*sale);
    out["voucher"] = ordered_json::parse(sale->voucher, nullptr, false);
    const SaleOutcome outcome = outcome_of_record(*sale);
    out["Resultado"] = sale->result;
    out["Observaciones"] = messages_json(outcome.observations);
    out["Errors"] = messages_json(outcome.errors);
    out["Events"] = messages_json(outcome.events);
    out["recovered"] = sale->recovered;
    out["message"] = sale->message;
    out["qr_url"] = outcome.qr_url.empty() ? ordered_json() : ordered_json(outcome.qr_url);
    ordered_json attempts = ordered_json::array();
    for (const SaleAttempt& attempt : ledger().attempts(sale_id))
        attempts.push_back({{"CbteNro", attempt.number},
                            {"CbteFch", attempt.date},
                            {"started_at", attempt.started_at},
                            {"finished_at", attempt.finished_at},
                            {"outcome", attempt.outcome.empty() ? "pending" : attempt.outcome}});
    out["attempts"] = attempts;
    return {status::approved, "", dump(out)};
}

CoreResult qr_png_file(const std::string& text, const std::string& path)
{
    std::string problem;
    if (!write_qr_png(text, path, problem))
        return {73, problem, std::nullopt};
    return {status::approved, "", std::nullopt};
}

CoreResult read_answer_json(const std::string& answer_xml)
{
    const std::optional<AuthorisationAnswer> answer = read_authorisation_answer(answer_xml);
    if (!answer)
        return {status::bad_input, "the text holds no FECAESolicitarResult", std::nullopt};
    SaleOutcome outcome;
    outcome.status = status::approved;
    outcome.result = answer->result;
    outcome.errors = answer->errors;
    outcome.events = answer->events;
    if (!answer->details.empty()) {
        const DetailAnswer& detail = answer->details.front();
        outcome.result = detail.result.empty() ? answer->result : detail.result;
        outcome.number = detail.number;
        outcome.date = detail.date;
        outcome.cae = detail.cae;
        outcome.cae_expiry = detail.cae_expiry;
        outcome.observations = detail.observations;
    }
    if (outcome.result != "A")
        outcome.status = status::rejected;
    ordered_json out = outcome_json(outcome);
    const std::optional<AnswerHeader> header = read_answer_header(answer_xml);
    out["PtoVta"] = header ? header->point_of_sale : 0;
    out["CbteTipo"] = header ? header->voucher_type : 0;
    return {status::approved, "", dump(out)};
}

CoreResult qr_url_json(const std::string& voucher_json)
{
    const json given = json::parse(voucher_json, nullptr, false);
    if (!given.is_object())
        return {status::bad_input, "the voucher of a QR code must be a JSON object", std::nullopt};
    // Each key: whether it is a whole number (else text), and whether it may be left out.
    struct Key {
        const char* name;
        bool whole;
        bool optional;
    };
    static const Key keys[] = {{"fecha", false, false},  {"cuit", true, false},     {"ptoVta", true, false},
                               {"tipoCmp", true, false}, {"nroCmp", true, false},   {"importe", false, false},
                               {"moneda", false, true},  {"ctz", false, true},      {"tipoDocRec", true, false},
                               {"nroDocRec", true, false}, {"tipoCodAut", false, true}, {"codAut", false, false}};
    for (const auto& [name, value] : given.items())
        if (std::none_of(std::begin(keys), std::end(keys), [&](const Key& key) { return name == key.name; }))
            return {status::bad_input, "unknown key '" + name + "' of a QR code", std::nullopt};
    for (const Key& key : keys) {
        const bool present = given.contains(key.name) && !given[key.name].is_null();
        const bool fits = !present || (key.whole ? given[key.name].is_number_unsigned()
                                                 : given[key.name].is_string() || given[key.name].is_number());
        if ((!present && !key.optional) || !fits)
            return {status::bad_input,
                    std::string("QR key ") + key.name + (key.whole ? " must be a whole number" : " must be given"),
                    std::nullopt};
    }
    const auto text = [&](const char* name, const std::string& fallback) {
        if (!given.contains(name) || given[name].is_null())
            return fallback;
        return given[name].is_string() ? given[name].get<std::string>() : given[name].dump();
    };
    std::string date = text("fecha", "");
    date.erase(std::remove(date.begin(), date.end(), '-'), date.end());
    const std::optional<Money> total = Money::parse(text("importe", ""));
    const std::string kind = text("tipoCodAut", "E");
    const std::string rate = text("ctz", "1");
    if (date.size() != 8 || date.find_first_not_of("0123456789") != std::string::npos || !total ||
        (kind != "E" && kind != "A") || !Money::parse(rate))
        return {status::bad_input, "QR keys fecha, importe, ctz or tipoCodAut are not a date, amounts and E or A",
                std::nullopt};
    QrVoucher voucher{date,
                      given["cuit"].get<std::int64_t>(),
                      given["ptoVta"].get<int>(),
                      given["tipoCmp"].get<int>(),
                      given["nroCmp"].get<std::int64_t>(),
                      *total,
                      text("moneda", "PES"),
                      decimal_text(std::stod(rate)),
                      given["tipoDocRec"].get<int>(),
                      given["nroDocRec"].get<std::int64_t>(),
                      text("codAut", ""),
                      kind == "A"};
    return {status::approved, "", qr_url(voucher)};
}

CoreResult InvoicingSession::receipt(const std::string& request_json)
{
    const json request = json::parse(request_json, nullptr, false);
    if (!request.is_object() || !request.contains("sale_id") || !request["sale_id"].is_string())
        return {status::bad_input, "the request must be a JSON object with \"sale_id\"", std::nullopt};
    for (const auto& [key, value] : request.items())
        if (key != "sale_id" && key != "issuer" && key != "issuer_file" && key != "format")
            return {status::bad_input, "unknown request key '" + key + "'", std::nullopt};
    const std::optional<ReceiptFormat> format = receipt_format_named(request.value("format", "pdf-a4"));
    if (!format)
        return {status::bad_input, "format must be pdf-a4, pdf-80mm or escpos", std::nullopt};
    std::string profile_text, base_directory;
    if (request.contains("issuer_file") && request["issuer_file"].is_string()) {
        const std::string path = request["issuer_file"].get<std::string>();
        std::ifstream file(path, std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        if (!file)
            return {status::bad_input, "cannot read the issuer profile " + path, std::nullopt};
        profile_text = content.str();
        base_directory = path.find('/') == std::string::npos ? "." : path.substr(0, path.rfind('/'));
    } else if (request.contains("issuer") && request["issuer"].is_object()) {
        profile_text = request["issuer"].dump();
    } else {
        return {status::bad_input, "give the issuer's profile: \"issuer\" (an object) or \"issuer_file\"", std::nullopt};
    }
    const std::string sale_id = request["sale_id"].get<std::string>();
    const std::optional<SaleRecord> sale = ledger().sale(sale_id);
    if (!sale)
        return {status::not_found, "the ledger " + m_ledger_path + " has no sale '" + sale_id + "'", std::nullopt};
    if (sale->state != SaleState::approved)
        return {status::bad_input,
                "sale " + sale_id + " is " + sale_state_name(sale->state) + ", not authorised: it has nothing to print",
                std::nullopt};
    try {
        const IssuerProfile issuer = read_issuer_profile(profile_text, base_directory);
        const Voucher voucher = read_voucher(sale->voucher);
        const std::optional<std::string> person =
            voucher.document_type == 80 ? ledger().registry_answer(voucher.document_number, "ws_sr_constancia_inscripcion", 0)
                                        : std::nullopt;
        std::optional<CaeaGrant> caea;
        for (const CaeaGrant& grant : ledger().caeas(sale->series.cuit))
            if (sale->emission == "CAEA" && grant.code == sale->cae)
                caea = grant;
        return {status::approved, "", render_receipt(receipt_of(*sale, issuer, person, caea), *format)};
    } catch (const ReceiptError& error) {
        return {status::bad_input, error.what(), std::nullopt};
    }
}

CoreResult InvoicingSession::caea(const std::string& command_json)
{
    const json command = json::parse(command_json, nullptr, false);
    if (!command.is_object() || !command.contains("action") || !command["action"].is_string())
        return {status::bad_input, "the command must be a JSON object with \"action\"", std::nullopt};
    if (!m_cuit)
        return {status::bad_input, "the settings name no issuer: give \"cuit\"", std::nullopt};
    const std::string action = command["action"].get<std::string>();
    const auto whole = [&](const char* key) -> std::optional<int> {
        if (!command.contains(key) || !command[key].is_number_unsigned() || command[key].get<std::uint64_t>() > 999999)
            return std::nullopt;
        return command[key].get<int>();
    };
    // The period and order given, else the fortnight of today.
    const auto fortnight = [&]() -> std::optional<std::pair<int, int>> {
        if (!command.contains("period") && !command.contains("order"))
            return fortnight_of(argentina_today(wall_clock_now()));
        if (!whole("period") || !whole("order"))
            return std::nullopt;
        return std::pair(*whole("period"), *whole("order"));
    };
    CaeaDesk desk(ledger(), *m_channel, *m_cuit);
    if (action == "request" || action == "no_movement") {
        const auto chosen = fortnight();
        if (!chosen)
            return {status::bad_input, "period must be yyyymm and order 1 or 2", std::nullopt};
        if (action == "request")
            return desk.request(chosen->first, chosen->second);
        if (!whole("point_of_sale"))
            return {status::bad_input, "no_movement needs \"point_of_sale\"", std::nullopt};
        return desk.declare_no_movement(*whole("point_of_sale"), chosen->first, chosen->second);
    }
    if (action == "show")
        return desk.show();
    if (action == "inform")
        return desk.inform();
    if (action == "status")
        return desk.status();
    return {status::bad_input, "action must be request, show, inform, no_movement or status, not " + action, std::nullopt};
}
