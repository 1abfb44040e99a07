// The simulator's WSFEv1 request handling: any body, with or without a SOAPAction, gets an answer
// or a SOAP fault. A ticket is issued first so that bodies carrying its token reach the voucher
// rules (the seeds do); the first byte chooses the SOAPAction, if any.
#include <cstdint>
#include <string>

#include "invoicing_service.h"
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

InvoicingService& service()
{
    static const Padron padron;
    static InvoicingService invoicing(tickets(), padron, InvoicingSettings{}, memory_only());
    return invoicing;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tickets().issue("fuzz", "wsfe", [](WallClock::time_point generated, WallClock::time_point expires) {
        return Ticket{"T", "S", "wsfe", generated, expires, {"20111111112"}};
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
    const Reply reply = service().handle(std::string(reinterpret_cast<const char*>(data) + 1, size - 1), action);
    if ((reply.status != 200 && reply.status != 500) || reply.body.rfind("<?xml", 0) != 0)
        __builtin_trap();
    return 0;
}
