#ifndef TARVO_TESTS_SUPPORT_WSAA_ANSWERS_H
#define TARVO_TESTS_SUPPORT_WSAA_ANSWERS_H

#include <ctime>
#include <string>

// Answers shaped like WSAA's, for loopback servers and parser tests.

// "%FT%T" of `when` in the process's local time, followed by `suffix` (e.g. ".123-03:00").
std::string local_time_text(std::time_t when, const std::string& suffix = ".000-03:00");

// The loginTicketResponse document that loginCmsReturn carries.
std::string login_ticket_response(const std::string& token, const std::string& sign,
                                  const std::string& generation_time, const std::string& expiration_time);

// A loginCmsResponse envelope whose loginCmsReturn holds `ticket_document`, XML-escaped.
std::string login_cms_response(const std::string& ticket_document);

// A SOAP 1.1 fault envelope with the given faultstring (escaped).
std::string soap_fault(const std::string& fault_text);

// Escapes &, <, > and " for element text.
std::string xml_escape(const std::string& text);

#endif
