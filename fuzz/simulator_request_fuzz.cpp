// The simulator's WSFEv1 and registry request handling: any body, with or without a SOAPAction,
// gets an answer or a SOAP fault. Tickets are issued first so that bodies carrying their tokens reach
// the voucher rules and the padrón (the seeds do); the first byte chooses the SOAPAction, if any, or
// one of the registry's two endpoints.
#include <cstdint>
#include <string>

#include "invoicing_service.h"
#include "registry_service.h"
#include "ticket_registry.h"
#include "util/wsfev1.h"

namespace {

StateFile& memory_only()
{
    static StateFile state;
    return state;
}

TicketRegistry& tickets()
{
    static TicketRegistry registry(std::chrono::hours(24 * 365), std::chrono::seconds(0), memory_only());
    return registry;
}

const Padron& padron()
{
    static const Padron built_in;
    return built_in;
}

InvoicingService& service()
{
    static InvoicingService invoicing(tickets(), padron(), InvoicingSettings{}, memory_only());
    return invoicing;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    for (const char* service : {"wsfe", "ws_sr_constancia_inscripcion", "ws_sr_padron_a13"})
        tickets().issue("fuzz", service, [service](WallClock::time_point generated, WallClock::time_point expires) {
            // wsfe's token is "T"; the registry's are named after their services.
            const std::string token = std::string(service) == "wsfe" ? "T" : service;
            return Ticket{token, "S", service, generated, expires, {"20111111112"}};
        });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    constexpr size_t operation_count = std::size(wsfev1_operations);
    std::optional<std::string> action;
    if (data[0] < operation_count)
        action = std::string("http://ar.gov.afip.dif.FEV1/") + wsfev1_operations[data[0]];
    else if (data[0] == operation_count)
        action = "\"\"";
    const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
    static const RegistryService constancia(RegistryService::Kind::constancia, tickets(), padron());
    static const RegistryService a13(RegistryService::Kind::a13, tickets(), padron());
    const Reply reply = data[0] == operation_count + 1   ? constancia.handle(body)
                        : data[0] == operation_count + 2 ? a13.handle(body)
                                                         : service().handle(body, action);
    if ((reply.status != 200 && reply.status != 500) || reply.body.rfind("<?xml", 0) != 0)
        __builtin_trap();
    return 0;
}
