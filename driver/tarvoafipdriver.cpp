#include "tarvoafipdriver.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "driver/afip_driver_exception.h"
#include "driver/main.h"
#include "driver/soap_exchange.h"
#include "util/tools.h"

namespace {

// Library-wide configuration and results; the host serialises every call.
std::string m_wsaa_url;
std::string m_wsaa_certifcate_path;
std::string m_wsaa_certificate_pass;
std::string m_wsaa_service;
std::string m_ws_url;
std::string m_proxy_url;
std::string m_proxy_username;
std::string m_proxy_password;
std::vector<std::string> m_soap_headers;
std::string m_token;
std::string m_sign;
std::string curl_log;
std::string curl_response;
int32_t m_security_level;
uint32_t m_time_out;

int32_t copy_out(const std::string& stored, char* buffer, uint32_t buffer_length, uint32_t* data_size)
{
    const uint32_t size = static_cast<uint32_t>(stored.size());
    if (buffer_length == 0) {
        *data_size = size;
        return AFIP_OK;
    }
    if (buffer_length < size)
        return AFIP_BUFFER_TOO_SMALL;
    *data_size = size;
    if (size != 0)
        std::memcpy(buffer, stored.data(), size);
    return AFIP_OK;
}

} // namespace

extern "C" {

void GetAFIPVersion(char* version)
{
    std::memcpy(version, library_version, sizeof library_version);
}

void SetWSAA(const char* url)
{
    m_wsaa_url = url;
}

void SetWSAACredentials(const char* certificate_path, const char* certificate_pass)
{
    m_wsaa_certifcate_path = certificate_path;
    m_wsaa_certificate_pass = certificate_pass;
}

void SetWSAAService(const char* service)
{
    m_wsaa_service = service;
}

void SetWSUrl(const char* url)
{
    m_ws_url = url;
}

void SetSecurity(int32_t level)
{
    m_security_level = (level >= 1 && level <= 4) ? level : 0;
}

void SetWebProxy(const char* proxy_url, const char* proxy_username, const char* proxy_password)
{
    m_proxy_url = proxy_url;
    m_proxy_username = proxy_username;
    m_proxy_password = proxy_password;
}

void SetTimeOut(uint32_t time_out)
{
    m_time_out = time_out;
}

void AddSOAPHeader(const char* header)
{
    m_soap_headers.push_back(make_string(header));
}

int32_t SendSOAP(const char* request)
{
    if (m_wsaa_url.empty())
        return AFIP_WSAA_URL_NOT_SET;
    if (m_wsaa_certifcate_path.empty())
        return AFIP_CERTIFICATE_ERROR;
    if (m_wsaa_service.empty())
        return AFIP_WSAA_SERVICE_NOT_SET;
    if (m_ws_url.empty())
        return AFIP_WS_URL_NOT_SET;

    pugi::xml_document document;
    if (!document.load_string(request, pugi::parse_default))
        return AFIP_REQUEST_NOT_XML;

    // Released, not just cleared: a large earlier answer must not linger through this call.
    std::string().swap(curl_log);
    std::string().swap(curl_response);

    const SoapSettings settings{m_wsaa_url,  m_wsaa_certifcate_path, m_wsaa_certificate_pass,
                                m_wsaa_service, m_ws_url,          m_proxy_url,
                                m_proxy_username, m_proxy_password, m_security_level,
                                m_time_out,   tls_verification_from_environment()};
    SoapExchange exchange;
    const int32_t result = exchange_soap(settings, document, m_soap_headers, exchange);
    // Taken, not copied: the host needs each once, through the buffer protocol.
    curl_log = std::move(exchange.log);
    curl_response = std::move(exchange.answer);
    if (!exchange.token.empty() || !exchange.sign.empty()) {
        m_token = std::move(exchange.token);
        m_sign = std::move(exchange.sign);
    }
    return result;
}

int32_t ReceivedSOAP(char* buffer, uint32_t buffer_length, uint32_t* data_size)
{
    return copy_out(curl_response, buffer, buffer_length, data_size);
}

int32_t GetVerboseTransfer(char* buffer, uint32_t buffer_length, uint32_t* data_size)
{
    return copy_out(curl_log, buffer, buffer_length, data_size);
}

} // extern "C"
