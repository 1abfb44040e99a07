#ifndef TARVO_SIMULATOR_REGISTRY_SERVICE_H
#define TARVO_SIMULATOR_REGISTRY_SERVICE_H

#include <string>

#include "padron.h"
#include "soap.h"
#include "ticket_registry.h"

// AFIP's taxpayer registry as its two SOAP services answer it from the padrón: the constancia de
// inscripción (`ws_sr_constancia_inscripcion`, personaServiceA5: name, address, taxes) and A13
// (`ws_sr_padron_a13`, personaServiceA13: name and addresses). Document/literal, soapAction "",
// the operation named by the Body's element; token and sign are checked against the tickets the
// login endpoint issued for that service, cuitRepresentada against the ticket's relations.
class RegistryService {
public:
    enum class Kind { constancia, a13 };

    RegistryService(Kind kind, const TicketRegistry& tickets, const Padron& padron);

    Reply handle(const std::string& request_body) const;

    // The WSAA service name whose tickets the endpoint takes.
    const char* service_name() const;

private:
    std::string persona_return(const Person& person) const;
    std::string a13_persona(const Person& person) const;

    Kind m_kind;
    const TicketRegistry& m_tickets;
    const Padron& m_padron;
};

#endif
