#ifndef TARVO_DRIVER_SOAP_EXCHANGE_H
#define TARVO_DRIVER_SOAP_EXCHANGE_H

#include <pugixml.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Everything one exchange with an AFIP service needs to know: the login, the service, transport.
struct SoapSettings {
    std::string wsaa_url;
    std::string certificate_path;
    std::string certificate_password;
    std::string service;
    std::string ws_url;
    std::string proxy_url;
    std::string proxy_username;
    std::string proxy_password;
    int32_t security_level = 0; // 0 libcurl's default, 1-4 TLS 1.0-1.3
    uint32_t time_out = 0;      // milliseconds; 0 none
    std::optional<std::string> verify_with; // nullopt: peers unverified; "" the system's store; else a PEM file
};

// What an exchange leaves behind for its caller.
struct SoapExchange {
    std::string token;
    std::string sign;
    std::string answer;
    std::string log;
    bool request_sent = false; // the request reached the wire (it may have been processed)
};

// TARVO_TLS_VERIFY and TARVO_CA_FILE as the host's process has them now.
std::optional<std::string> tls_verification_from_environment();

// The request pipeline after the configuration checks: a ticket from the cache or WSAA, written
// into the request's ticket elements; the request posted with Content-Type and `headers`, which
// are consumed once the ticket is there; the answer and transfer log kept in `exchange`. Returns
// a result code of tarvoafipdriver.h.
int32_t exchange_soap(const SoapSettings& settings, pugi::xml_document& request, std::vector<std::string>& headers,
                      SoapExchange& exchange);

// The same for a request given as text, checked in the library's order first: the settings,
// then the XML. What the invoicing core sends through.
int32_t send_soap(const SoapSettings& settings, const std::string& request, std::vector<std::string> headers,
                  SoapExchange& exchange);

#endif
