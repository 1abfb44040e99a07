#ifndef TARVO_SIMULATOR_INVOICING_SERVICE_H
#define TARVO_SIMULATOR_INVOICING_SERVICE_H

#include <pugixml.hpp>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "padron.h"
#include "soap.h"
#include "state_file.h"
#include "ticket_registry.h"

// How the invoicing service judges vouchers and what it announces.
struct InvoicingSettings {
    std::string receptor_condition_required_from = "20261201"; // yyyymmdd: from then a missing condition rejects
    std::vector<std::pair<int, std::string>> events;            // Events/Evt added to every answer that has room
    std::string today;                   // yyyymmdd standing for Argentina's date; empty: the real one
    std::set<long long> points_of_sale;  // registered for CAE; empty: any that is no CAEA one
    std::set<long long> caea_points_of_sale; // registered for CAEA; empty: any
};

// The electronic invoicing service (WSFEv1) as an ASMX service answers it: the operation named by
// SOAPAction (or, without that header, by the body), credentials checked against the tickets the
// login endpoint issued, vouchers judged by AFIP's rules and kept per (CUIT, point of sale, type).
class InvoicingService {
public:
    // The padrón is shared with the registry's endpoints; `state` keeps what the service records.
    InvoicingService(const TicketRegistry& tickets, const Padron& padron, InvoicingSettings settings, StateFile& state);

    // `soap_action` is the header's value, nullopt when the request has none.
    Reply handle(const std::string& request_body, const std::optional<std::string>& soap_action);

private:
    using Series = std::tuple<std::string, long long, long long>; // CUIT, point of sale, voucher type
    struct Voucher {
        std::string fields; // the request's detail, in the answer's form
        std::string observations;
        std::string authorisation; // CAE or CAEA
        std::string emission;      // "CAE" or "CAEA"
        std::string expiry;
        std::string processed;
    };
    struct Caea {
        std::string code;
        std::string valid_from, valid_to, report_by, processed;
    };

    Reply operate(const std::string& name, const pugi::xml_node& operation);
    std::string today() const;
    std::string processed_now() const; // FchProceso: today's date and the real time of day
    bool registered_for(long long point_of_sale, bool with_caea) const;
    bool known_point_of_sale(long long point_of_sale) const;
    void load(const nlohmann::json& saved);
    void save(); // with m_mutex held
    // Each operation's result from its request element and the Auth's CUIT; empty when the request
    // lacks a number the operation needs.
    std::string last_authorised(const pugi::xml_node& operation, const std::string& cuit);
    std::string authorise(const pugi::xml_node& operation, const std::string& cuit);
    std::string inform_caea_vouchers(const pugi::xml_node& operation, const std::string& cuit);
    std::string judge(const pugi::xml_node& request, const std::string& cuit, bool with_caea);
    std::string consult(const pugi::xml_node& operation, const std::string& cuit);
    std::string request_caea(const pugi::xml_node& operation, const std::string& cuit);
    std::string consult_caea(const pugi::xml_node& operation, const std::string& cuit);
    // The CAEA of that code granted to the CUIT, with m_mutex held; nullptr when none was.
    const Caea* granted_caea(const std::string& cuit, const std::string& code) const;
    std::string inform_no_movement(const pugi::xml_node& operation, const std::string& cuit);
    std::string consult_no_movement(const pugi::xml_node& operation, const std::string& cuit);
    std::string points_of_sale(const pugi::xml_node& operation, const std::string& cuit);
    std::string receiver_conditions(const pugi::xml_node& operation, const std::string& cuit);
    std::string quotation(const pugi::xml_node& operation, const std::string& cuit);
    std::string records_per_request(const pugi::xml_node& operation, const std::string& cuit);

    const TicketRegistry& m_tickets;
    const Padron& m_padron;
    const InvoicingSettings m_settings;
    StateFile& m_state;
    std::mutex m_mutex;
    std::map<Series, long long> m_last_number;
    std::map<Series, std::string> m_last_date;
    std::map<std::pair<Series, long long>, Voucher> m_vouchers;
    std::map<std::string, std::set<long long>> m_points_of_sale;
    std::map<std::tuple<std::string, long long, long long>, Caea> m_caeas; // CUIT, period, order
    std::vector<std::tuple<std::string, std::string, long long, std::string>> m_no_movement; // CUIT, CAEA, point of sale, processed
};

#endif
