#include "driver/soap_exchange.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "driver/afip_driver_exception.h"
#include "driver/request_xml.h"
#include "http/easy_http.h"
#include "tarvoafipdriver.h"
#include "wsaa/tra.h"

namespace {

const char content_type_header[] = "Content-Type: text/xml;charset=UTF-8";

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

// Verification is the host's choice, made through the environment so that the twelve functions
// stay as they are: TARVO_TLS_VERIFY set and not "0" turns it on, TARVO_CA_FILE names the trust.
// Read on every call, so a host may change its mind between calls.
std::optional<std::string> tls_verification_from_environment()
{
    const char* verify = std::getenv("TARVO_TLS_VERIFY");
    if (verify == nullptr || *verify == '\0' || std::strcmp(verify, "0") == 0)
        return std::nullopt;
    const char* ca_file = std::getenv("TARVO_CA_FILE");
    return std::string(ca_file != nullptr ? ca_file : "");
}

int32_t exchange_soap(const SoapSettings& settings, pugi::xml_document& request, std::vector<std::string>& headers,
                      SoapExchange& exchange)
{
    // One client per exchange, shared with the ticket code so both use the same settings.
    auto http = std::make_shared<EasyHTTP>("");
    if (settings.security_level != 0)
        http->set_security(static_cast<tls_security_level_t>(settings.security_level));
    if (!settings.proxy_url.empty())
        http->set_proxy(settings.proxy_url, settings.proxy_username, settings.proxy_password);
    if (settings.time_out != 0)
        http->set_time_out(settings.time_out);
    if (settings.verify_with)
        http->verify_peer(*settings.verify_with);

    TRA tra(settings.wsaa_url, settings.service, settings.certificate_path, settings.certificate_password, http);

    try {
        std::pair<std::string, std::string> credentials = tra.get_credentials();
        exchange.token = std::move(credentials.first);
        exchange.sign = std::move(credentials.second);

        http->clear_request_headers();
        http->add_request_header(content_type_header);
        for (std::string& header : headers)
            http->add_request_header(std::move(header));
        headers.clear();

        walker fill(exchange.token, exchange.sign);
        request.traverse(fill);

        const uint16_t status = static_cast<uint16_t>(http->send_post_request(settings.ws_url, serialise_request(request)));
        exchange.request_sent = http->request_sent();
        if (status == 408)
            return AFIP_TIMEOUT;

        exchange.log = http->take_log();
        exchange.answer = http->take_response();
        return is_well_formed_answer_in_log(exchange.answer, exchange.log) ? AFIP_OK : AFIP_RESPONSE_NOT_XML;
    } catch (const afip_driver_exception& error) {
        return error.get_error();
    }
}

int32_t send_soap(const SoapSettings& settings, const std::string& request, std::vector<std::string> headers,
                  SoapExchange& exchange)
{
    if (settings.wsaa_url.empty())
        return AFIP_WSAA_URL_NOT_SET;
    if (settings.certificate_path.empty())
        return AFIP_CERTIFICATE_ERROR;
    if (settings.service.empty())
        return AFIP_WSAA_SERVICE_NOT_SET;
    if (settings.ws_url.empty())
        return AFIP_WS_URL_NOT_SET;
    pugi::xml_document document;
    if (!document.load_string(request.c_str(), pugi::parse_default))
        return AFIP_REQUEST_NOT_XML;
    return exchange_soap(settings, document, headers, exchange);
}
