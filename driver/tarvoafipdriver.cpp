#include "tarvoafipdriver.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "driver/afip_driver_exception.h"
#include "driver/main.h"
#include "driver/request_xml.h"
#include "http/easy_http.h"
#include "util/tools.h"
#include "wsaa/tra.h"

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

const char content_type_header[] = "Content-Type: text/xml;charset=UTF-8";

// Verification is the host's choice, made through the environment so that the twelve functions
// stay as they are: TARVO_TLS_VERIFY set and not "0" turns it on, TARVO_CA_FILE names the trust.
// Read on every call, so a host may change its mind between calls.
void apply_tls_verification(EasyHTTP& http)
{
    const char* verify = std::getenv("TARVO_TLS_VERIFY");
    if (verify == nullptr || *verify == '\0' || std::strcmp(verify, "0") == 0)
        return;
    const char* ca_file = std::getenv("TARVO_CA_FILE");
    http.verify_peer(ca_file != nullptr ? ca_file : "");
}

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

// Writes the original bytes back over a region that an in-place parse scribbled on.
class RegionRestorer {
public:
    RegionRestorer(char* region, const char* original, size_t length)
        : m_region(region), m_original(original), m_length(length)
    {
    }
    ~RegionRestorer() { std::memcpy(m_region, m_original, m_length); }
    RegionRestorer(const RegionRestorer&) = delete;
    RegionRestorer& operator=(const RegionRestorer&) = delete;

private:
    char* m_region;
    const char* m_original;
    size_t m_length;
};

void fill_text(pugi::xml_node& node, const std::string& value)
{
    pugi::xml_node child = node.first_child();
    if (!child)
        child = node.append_child(pugi::node_pcdata);
    // On an element child this does nothing, and the element stays as it was.
    child.set_value(value.c_str());
}

} // namespace

std::string serialise_request(const pugi::xml_document& document)
{
    std::ostringstream out;
    document.save(out, "\t", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_auto);
    return out.str();
}

bool is_well_formed_answer(const std::string& answer)
{
    pugi::xml_document document;
    return document.load_string(answer.c_str(), pugi::parse_default);
}

bool is_well_formed_answer_in_log(const std::string& answer, std::string& log)
{
    if (log.size() < answer.size() + 1)
        return is_well_formed_answer(answer);
    const size_t offset = log.size() - 1 - answer.size();
    if (log.compare(offset, answer.size(), answer) != 0)
        return is_well_formed_answer(answer);
    // load_string stops at the first NUL: so does this.
    const size_t length = std::strlen(answer.c_str());
    if (length == 0)
        return is_well_formed_answer(answer);
    char* region = &log[offset];
    const RegionRestorer restore(region, answer.data(), length);
    pugi::xml_document document;
    return document.load_buffer_inplace(region, length, pugi::parse_default, pugi::encoding_utf8);
}

bool walker::for_each(pugi::xml_node& node)
{
    const char* name = node.name();
    if (std::strcmp(name, "ar:Token") == 0 || std::strcmp(name, "token") == 0)
        fill_text(node, m_token);
    if (std::strcmp(name, "ar:Sign") == 0 || std::strcmp(name, "sign") == 0)
        fill_text(node, m_sign);
    return true;
}

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

    // One client per call, shared with the ticket code so both exchanges use the same settings.
    auto http = std::make_shared<EasyHTTP>("");
    if (m_security_level != 0)
        http->set_security(static_cast<tls_security_level_t>(m_security_level));
    if (!m_proxy_url.empty())
        http->set_proxy(m_proxy_url, m_proxy_username, m_proxy_password);
    if (m_time_out != 0)
        http->set_time_out(m_time_out);
    apply_tls_verification(*http);

    // Released, not just cleared: a large earlier answer must not linger through this call.
    std::string().swap(curl_log);
    std::string().swap(curl_response);

    TRA tra(m_wsaa_url, m_wsaa_service, m_wsaa_certifcate_path, m_wsaa_certificate_pass, http);

    try {
        std::pair<std::string, std::string> credentials = tra.get_credentials();
        m_token = std::move(credentials.first);
        m_sign = std::move(credentials.second);

        http->clear_request_headers();
        http->add_request_header(content_type_header);
        for (std::string& header : m_soap_headers)
            http->add_request_header(std::move(header));
        m_soap_headers.clear();

        walker fill;
        document.traverse(fill);

        const uint16_t status = static_cast<uint16_t>(http->send_post_request(m_ws_url, serialise_request(document)));
        if (status == 408)
            return AFIP_TIMEOUT;

        // Taken, not copied: the host needs each once, through the buffer protocol.
        curl_log = http->take_log();
        curl_response = http->take_response();
        return is_well_formed_answer_in_log(curl_response, curl_log) ? AFIP_OK : AFIP_RESPONSE_NOT_XML;
    } catch (const afip_driver_exception& error) {
        return error.get_error();
    }
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
