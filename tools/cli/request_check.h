#ifndef TARVO_TOOLS_CLI_REQUEST_CHECK_H
#define TARVO_TOOLS_CLI_REQUEST_CHECK_H

#include <string>

// A warning, before sending, when the library will find nowhere to write the ticket: it fills only
// elements named exactly "ar:Token" or "token" and "ar:Sign" or "sign". Empty when the request has
// such elements, is no XML (the library refuses it), or has no credentials at all (like FEDummy).
std::string ticket_element_warning(const std::string& request);

#endif
