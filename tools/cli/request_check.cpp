#include "request_check.h"

#include <pugixml.hpp>
#include <strings.h>

#include <cstring>

namespace {

// Finds the elements the library fills and those that look like credentials but are named otherwise.
class TicketElements : public pugi::xml_tree_walker {
public:
    bool for_each(pugi::xml_node& node) override
    {
        const char* name = node.name();
        const char* colon = std::strchr(name, ':');
        const char* local = colon != nullptr ? colon + 1 : name;
        if (!std::strcmp(name, "ar:Token") || !std::strcmp(name, "token") || !std::strcmp(name, "ar:Sign") ||
            !std::strcmp(name, "sign"))
            filled = true;
        else if (!strcasecmp(local, "token") || !strcasecmp(local, "sign"))
            misnamed += (misnamed.empty() ? "" : ", ") + std::string(name);
        else if (!std::strcmp(local, "Auth"))
            has_auth = true;
        return true;
    }

    bool filled = false;
    bool has_auth = false;
    std::string misnamed;
};

} // namespace

std::string ticket_element_warning(const std::string& request)
{
    pugi::xml_document document;
    if (!document.load_buffer(request.data(), request.size()))
        return {};
    TicketElements elements;
    document.traverse(elements);
    if (elements.misnamed.empty() && (elements.filled || !elements.has_auth))
        return {};
    return "warning: the library writes the ticket only into elements named exactly ar:Token or token and "
           "ar:Sign or sign; " +
           (elements.misnamed.empty() ? std::string("this request has none")
                                      : "this request has " + elements.misnamed + " instead") +
           ", so it goes out without a ticket. Name them ar:Token and ar:Sign, with "
           "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\".";
}
