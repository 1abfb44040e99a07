#include "invoicing/lookup.h"

#include <chrono>
#include <nlohmann/json.hpp>

#include "invoicing/authorisation.h"
#include "tarvoafipdriver.h"
#include "util/os_util.h"

namespace {

using nlohmann::ordered_json;

constexpr std::int64_t answers_kept_seconds = 24 * 3600;

std::int64_t now_seconds()
{
    return std::chrono::duration_cast<std::chrono::seconds>(wall_clock_now().time_since_epoch()).count();
}

// A person found, or the reason it is no use for a voucher.
LookupOutcome judged(RegistryPerson person, bool from_cache)
{
    LookupOutcome outcome;
    outcome.from_cache = from_cache;
    if (person.key_state == "INACTIVO") {
        outcome.status = status::inactive_key;
        outcome.message = "CUIT " + std::to_string(person.cuit) + " has an inactive key in AFIP's registry";
    }
    outcome.person = std::move(person);
    return outcome;
}

} // namespace

RegistryLookup::RegistryLookup(AfipChannel& channel, RegistryService service, std::int64_t represented_cuit, Ledger* cache)
    : m_channel(channel), m_service(service), m_represented(represented_cuit), m_cache(cache)
{
}

LookupOutcome RegistryLookup::look_up(std::int64_t cuit, bool reuse)
{
    const std::string service = registry_service_name(m_service);
    if (reuse && m_cache)
        if (const auto kept = m_cache->registry_answer(cuit, service, now_seconds() - answers_kept_seconds))
            return judged(person_from_json(*kept), true);
    const ServiceExchange asked = m_channel.send("", registry_request(m_service, m_represented, cuit));
    LookupOutcome outcome;
    if (asked.result != AFIP_OK && asked.result != AFIP_RESPONSE_NOT_XML) {
        outcome.status = asked.result;
        outcome.message = "AFIP's registry (" + service + ") could not be asked";
        return outcome;
    }
    const std::optional<RegistryAnswer> answer =
        asked.result == AFIP_OK ? read_registry_answer(m_service, asked.answer) : std::nullopt;
    if (!answer) {
        outcome.status = AFIP_RESPONSE_NOT_XML;
        outcome.message = "AFIP's registry (" + service + ") gave no answer that can be read";
        return outcome;
    }
    if (!answer->person) {
        outcome.status = is_unknown_person_fault(answer->fault) ? status::unknown_person : status::registry_refused;
        outcome.message = (outcome.status == status::unknown_person ? "CUIT " + std::to_string(cuit) + " is unknown to"
                                                                     : std::string("refused by")) +
                          " AFIP's registry (" + service + "): " + answer->fault;
        if (!asked.ticket)
            outcome.message += " (WSAA gave no ticket for " + service + ": its refusal is in the transfer log)";
        return outcome;
    }
    RegistryPerson person = *answer->person;
    if (!person.cuit)
        person.cuit = cuit;
    if (m_cache)
        m_cache->keep_registry_answer(cuit, service, person_json(person, m_service, false), now_seconds());
    return judged(std::move(person), false);
}

std::string person_json(const RegistryPerson& person, RegistryService service, bool from_cache)
{
    ordered_json out;
    out["cuit"] = person.cuit;
    out["name"] = person.name;
    out["person_type"] = person.person_type;
    out["key_state"] = person.key_state;
    ordered_json address{{"street", person.address.street},
                         {"locality", person.address.locality},
                         {"postal_code", person.address.postal_code},
                         {"province", person.address.province}};
    address["province_id"] = person.address.province_id >= 0 ? ordered_json(person.address.province_id) : ordered_json();
    out["address"] = address;
    ordered_json taxes = ordered_json::array();
    for (const RegistryTax& tax : person.taxes)
        taxes.push_back({{"id", tax.id}, {"description", tax.description}, {"period", tax.period}});
    out["taxes"] = person.has_tax_data ? taxes : ordered_json();
    out["monotributo_category"] = person.monotributo_category.empty() ? ordered_json() : ordered_json(person.monotributo_category);
    const std::optional<int> condition = receptor_condition(person);
    out["CondicionIVAReceptorId"] = condition ? ordered_json(*condition) : ordered_json();
    out["condition_description"] = condition ? receptor_condition_description(*condition) : "";
    out["errors"] = person.errors;
    out["service"] = registry_service_name(service);
    out["from_cache"] = from_cache;
    return out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

RegistryPerson person_from_json(const std::string& text)
{
    const nlohmann::json in = nlohmann::json::parse(text);
    RegistryPerson person;
    person.cuit = in.at("cuit").get<std::int64_t>();
    person.name = in.value("name", "");
    person.person_type = in.value("person_type", "");
    person.key_state = in.value("key_state", "");
    const nlohmann::json& address = in.at("address");
    person.address = {address.value("street", ""), address.value("locality", ""), address.value("postal_code", ""),
                      address.value("province", ""),
                      address["province_id"].is_number() ? address["province_id"].get<int>() : -1};
    person.has_tax_data = in["taxes"].is_array();
    if (person.has_tax_data)
        for (const nlohmann::json& tax : in["taxes"])
            person.taxes.push_back({tax.value("id", 0), tax.value("description", ""), tax.value("period", 0)});
    if (in["monotributo_category"].is_string())
        person.monotributo_category = in["monotributo_category"].get<std::string>();
    person.errors = in.value("errors", std::vector<std::string>{});
    return person;
}
