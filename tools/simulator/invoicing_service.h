#ifndef TARVO_SIMULATOR_INVOICING_SERVICE_H
#define TARVO_SIMULATOR_INVOICING_SERVICE_H

#include <pugixml.hpp>

#include <map>
#include <mutex>
#include <string>
#include <tuple>

#include "soap.h"
#include "ticket_registry.h"

// A business endpoint modelled on the electronic invoicing service: it accepts only
// credentials the login endpoint issued and keeps the last authorised number per
// (CUIT, point of sale, voucher type).
class InvoicingService {
public:
    explicit InvoicingService(const TicketRegistry& tickets);

    Reply handle(const std::string& request_body);

private:
    using VoucherSeries = std::tuple<std::string, long, long>;

    Reply dummy() const;
    Reply last_authorised(const pugi::xml_node& operation);
    Reply authorise(const pugi::xml_node& operation);

    const TicketRegistry& m_tickets;
    std::mutex m_mutex;
    std::map<VoucherSeries, long> m_last_number;
};

#endif
