#ifndef TARVO_SIMULATOR_LOGIN_SERVICE_H
#define TARVO_SIMULATOR_LOGIN_SERVICE_H

#include <string>
#include <vector>

#include "soap.h"
#include "ticket_registry.h"

// The authentication service's loginCms operation: verifies the signed login ticket
// request and issues access tickets, refusing like the real service does.
class LoginService {
public:
    // `relations`: CUITs every certificate may represent besides the one in its own subject.
    LoginService(std::vector<std::string> authorised_services, std::vector<std::string> relations,
                 TicketRegistry& tickets);

    Reply login_cms(const std::string& request_body);

private:
    std::vector<std::string> m_authorised_services;
    std::vector<std::string> m_relations;
    TicketRegistry& m_tickets;
};

#endif
