#ifndef TARVO_SIMULATOR_INVOICING_SERVICE_H
#define TARVO_SIMULATOR_INVOICING_SERVICE_H

#include <pugixml.hpp>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "soap.h"
#include "ticket_registry.h"

// The electronic invoicing service (WSFEv1) as an ASMX service answers it: the operation named by
// SOAPAction (or, without that header, by the body), credentials checked against the tickets the
// login endpoint issued, and the last authorised number kept per (CUIT, point of sale, type).
class InvoicingService {
public:
    explicit InvoicingService(const TicketRegistry& tickets);

    // `soap_action` is the header's value, nullopt when the request has none.
    Reply handle(const std::string& request_body, const std::optional<std::string>& soap_action);

private:
    using Series = std::tuple<std::string, long long, long long>; // CUIT, point of sale, voucher type
    struct Voucher {
        std::string fields; // the request's detail, in the answer's form
        std::string cae;
        std::string cae_expiry;
        std::string processed;
    };

    Reply operate(const std::string& name, const pugi::xml_node& operation);
    // Each operation's result from its request element and the Auth's CUIT; empty when the request
    // lacks a number the operation needs.
    std::string last_authorised(const pugi::xml_node& operation, const std::string& cuit);
    std::string authorise(const pugi::xml_node& operation, const std::string& cuit);
    std::string consult(const pugi::xml_node& operation, const std::string& cuit);
    std::string points_of_sale(const pugi::xml_node& operation, const std::string& cuit);
    std::string receiver_conditions(const pugi::xml_node& operation, const std::string& cuit);
    std::string quotation(const pugi::xml_node& operation, const std::string& cuit);
    std::string records_per_request(const pugi::xml_node& operation, const std::string& cuit);

    const TicketRegistry& m_tickets;
    std::mutex m_mutex;
    std::map<Series, long long> m_last_number;
    std::map<std::pair<Series, long long>, Voucher> m_vouchers;
    std::map<std::string, std::set<long long>> m_points_of_sale;
};

#endif
