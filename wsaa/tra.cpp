#include "wsaa/tra.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ctime>
#include <sstream>

#include "crypto/cms.h"
#include "driver/afip_driver_exception.h"
#include "http/easy_http.h"
#include "util/atomic_file.h"
#include "util/os_util.h"
#include "util/tools.h"

namespace {

const char cache_file_name[] = "credentials.json";
const char soap_envelope_ns[] = "http://schemas.xmlsoap.org/soap/envelope/";
const char wsaa_ns[] = "http://wsaa.view.sua.dvadac.desein.afip.gov";

// A ticket is trusted for one hour after its generation, though WSAA grants twelve.
constexpr double ticket_max_age_hours = 1.0;

// How long a process waits for another's login when it has no time-out of its own.
constexpr std::chrono::seconds default_lock_wait{60};

struct FaultRule {
    const char* text;
    int32_t code;
};

// First match wins. The fourth rule repeats the third and can never match; kept as it is.
const FaultRule fault_rules[] = {
    {"El CEE ya posee un TA valido para el acceso al WSN solicitado", AFIP_TICKET_ALREADY_VALID},
    {"Computador no autorizado a acceder al servicio", AFIP_NOT_AUTHORIZED},
    {"Certificado expirado", AFIP_CERTIFICATE_EXPIRED},
    {"Certificado expirado", AFIP_CERTIFICATE_EXPIRED_2},
};

std::string save_document(const pugi::xml_document& document, unsigned int flags)
{
    std::ostringstream out;
    document.save(out, "\t", flags, pugi::encoding_auto);
    return out.str();
}

// Value of the first child of the element at the end of the path; empty when any step is missing.
std::string first_child_value(const pugi::xml_node& root, std::initializer_list<const char*> path)
{
    pugi::xml_node node = root;
    for (const char* name : path)
        node = node.child(name);
    return node.first_child().value();
}

// The whole cache file; parsing from memory is several times faster than from a stream.
bool read_cache_file(std::string& text)
{
    std::ifstream file(cache_file_name, std::ios::binary);
    if (!file)
        return false;
    std::ostringstream content;
    content << file.rdbuf();
    text = content.str();
    return !file.bad();
}

// An advisory lock on the working directory itself, so that no lock file appears beside the
// cache. Processes sharing the directory serialise on it; a process that dies lets go of it.
// Taken within the wait limit or not at all: a host is never held longer, and where the file
// system refuses locks the caller goes on as without one.
class DirectoryLock {
public:
    DirectoryLock(int operation, std::chrono::milliseconds wait_limit)
        : m_fd(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        const auto deadline = monotonic_clock_now() + wait_limit;
        std::chrono::milliseconds pause{1};
        while (m_fd >= 0 && ::flock(m_fd, operation | LOCK_NB) != 0) {
            if ((errno != EWOULDBLOCK && errno != EINTR) || monotonic_clock_now() >= deadline) {
                ::close(m_fd);
                m_fd = -1;
                break;
            }
            const timespec pause_time{0, static_cast<long>(std::chrono::nanoseconds(pause).count())};
            ::nanosleep(&pause_time, nullptr);
            pause = std::min(pause * 2, std::chrono::milliseconds(50));
        }
    }
    ~DirectoryLock()
    {
        if (m_fd >= 0)
            ::close(m_fd); // closing the only descriptor releases the lock
    }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    int m_fd;
};

} // namespace

TRA::TRA(std::string url, std::string service, std::string certificate_path, std::string certificate_pass,
         std::shared_ptr<EasyHTTP> http)
    : m_url(std::move(url)),
      m_certificate_path(std::move(certificate_path)),
      m_certificate_pass(std::move(certificate_pass)),
      m_http(std::move(http)),
      m_service(std::move(service))
{
}

std::pair<std::string, std::string> TRA::get_credentials()
{
    if (!m_ticket_token.empty() && !m_ticket_sign.empty())
        return {m_ticket_token, m_ticket_sign};
    // A login can last as long as the time-out; without one, a fixed bound.
    const uint32_t time_out = m_http->get_timeout();
    const std::chrono::milliseconds wait_limit = time_out != 0 ? std::chrono::milliseconds(time_out) : default_lock_wait;
    {
        // Readers share the directory; a writer holds it alone, so no reader sees a half-written file.
        const DirectoryLock reading(LOCK_SH, wait_limit);
        if (read_cached_ticket())
            return {m_ticket_token, m_ticket_sign};
    }
    // One login at a time per directory: whoever waited here may find the ticket another just wrote.
    const DirectoryLock renewing(LOCK_EX, wait_limit);
    if (!read_cached_ticket())
        request_ticket();
    return {m_ticket_token, m_ticket_sign};
}

bool TRA::read_cached_ticket()
{
    // Any failure here is just a cache miss.
    try {
        std::string text;
        if (!read_cache_file(text))
            return false;
        const nlohmann::json cache = nlohmann::json::parse(text);
        const nlohmann::json& entry = cache.at(m_service);
        m_ticket_token = entry.at("token").get<std::string>();
        m_ticket_sign = entry.at("sign").get<std::string>();
        const std::string generated = entry.at("expired").get<std::string>();
        check_tra_is_expired(generated);
        return true;
    } catch (...) {
        return false;
    }
}

void TRA::request_ticket()
{
    m_http->add_request_header("Content-Type: text/xml;charset=UTF-8");
    m_http->add_request_header("SOAPAction:urn:LoginCms");

    const std::string request = create_tra_xml();
    const std::string cms = sign_cms(request, m_certificate_path, m_certificate_pass);
    const std::string envelope = create_login_cms_soap(cms);

    const uint16_t status = static_cast<uint16_t>(m_http->send_post_request(m_url, envelope));
    if (status == 525)
        throw afip_driver_exception("", AFIP_WSAA_TLS_FAILURE);
    if (status != 200 && status != 500)
        throw afip_driver_exception("", AFIP_WSAA_HTTP_FAILURE);

    const std::string answer = m_http->get_response();
    get_token_and_sign(answer);
    if (m_ticket_token.empty() || m_ticket_sign.empty())
        get_tra_error(answer);
}

void TRA::check_tra_is_expired(std::string generation_time)
{
    check_tra_is_expired(std::move(generation_time), std::time(nullptr));
}

void TRA::check_tra_is_expired(std::string generation_time, std::time_t now)
{
    std::tm parsed{};
    std::istringstream text(generation_time);
    // Anything behind the seconds (fraction, offset) is ignored: the digits are local time.
    text >> std::get_time(&parsed, "%Y-%m-%dT%H:%M:%S");
    // An unparsable text keeps zero fields, long before now (mktime may even give -1).
    const std::time_t generated = std::mktime(&parsed);
    const double hours = std::difftime(now, generated) / 3600.0;
    if (hours > ticket_max_age_hours)
        throw afip_driver_exception("", AFIP_TICKET_TOO_OLD);
}

std::string TRA::time_t_2_format_date(std::time_t when)
{
    std::tm local{};
    localtime_r(&when, &local);
    char text[64] = {0};
    std::strftime(text, sizeof text, "%FT%T", &local);
    return text;
}

void TRA::set_node_value(pugi::xml_node parent, std::string name, std::string value)
{
    if (value.empty())
        return;
    pugi::xml_node element = parent.append_child(name.c_str());
    element.append_child(pugi::node_pcdata).set_value(value.c_str());
}

std::string TRA::create_tra_xml() const
{
    return create_tra_xml(wall_clock_now());
}

std::string TRA::create_tra_xml(std::chrono::system_clock::time_point now) const
{
    using namespace std::chrono;
    const int64_t now_ns = duration_cast<nanoseconds>(now.time_since_epoch()).count();
    // Backdated an hour on purpose, valid for twelve hours ahead.
    const std::time_t generation = static_cast<std::time_t>((now_ns - 3600000000000LL) / 1000000000LL);
    const std::time_t expiration = static_cast<std::time_t>((now_ns + 43200000000000LL) / 1000000000LL);
    const std::string generation_text = time_t_2_format_date(generation);
    const std::string expiration_text = time_t_2_format_date(expiration);

    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "utf-8";
    pugi::xml_node root = document.append_child("loginTicketRequest");
    root.append_attribute("version") = "1.0";
    pugi::xml_node header = root.append_child("header");
    // The same uniqueId on every request: a fixed literal, not a counter.
    set_node_value(header, "uniqueId", "2261374686");
    set_node_value(header, "generationTime", generation_text);
    set_node_value(header, "expirationTime", expiration_text);
    set_node_value(root, "service", m_service);
    return save_document(document, pugi::format_raw);
}

std::string TRA::create_login_cms_soap(std::string cms)
{
    replace_all(cms, "\n", "");

    pugi::xml_document document;
    pugi::xml_node envelope = document.append_child("soapenv:Envelope");
    envelope.append_attribute("xmlns:soapenv") = soap_envelope_ns;
    envelope.append_attribute("xmlns:wsaa") = wsaa_ns;
    envelope.append_child("soapenv:Header");
    pugi::xml_node login = envelope.append_child("soapenv:Body").append_child("wsaa:loginCms");
    set_node_value(login, "wsaa:in0", cms);
    return save_document(document, pugi::format_raw | pugi::format_no_declaration);
}

void TRA::get_token_and_sign(std::string answer)
{
    pugi::xml_document envelope;
    envelope.load_string(answer.c_str(), pugi::parse_default);
    const std::string ticket_text =
        first_child_value(envelope, {"soapenv:Envelope", "soapenv:Body", "loginCmsResponse", "loginCmsReturn"});

    pugi::xml_document ticket;
    ticket.load_string(ticket_text.c_str(), pugi::parse_default);
    m_ticket_token = first_child_value(ticket, {"loginTicketResponse", "credentials", "token"});
    m_ticket_sign = first_child_value(ticket, {"loginTicketResponse", "credentials", "sign"});
    m_generation_time = first_child_value(ticket, {"loginTicketResponse", "header", "generationTime"});

    if (!m_ticket_token.empty() && !m_ticket_sign.empty() && !m_generation_time.empty())
        write_cache();
}

void TRA::write_cache()
{
    nlohmann::json cache;
    try {
        std::string text;
        if (read_cache_file(text))
            cache = nlohmann::json::parse(text);
    } catch (...) {
        cache = nullptr;
    }

    nlohmann::json entry;
    entry[m_service] = {{"sign", m_ticket_sign}, {"token", m_ticket_token}, {"expired", m_generation_time}};
    // Not an object (an array, say): the library's type error leaves here and the file stays.
    cache.update(entry);

    // Written beside and renamed over the old file: a failure leaves the old one whole, and the
    // call goes on with its ticket all the same.
    replace_file_atomically(cache_file_name, cache.dump(4) + "\n");
}

void TRA::get_tra_error(std::string answer)
{
    pugi::xml_document envelope;
    envelope.load_string(answer.c_str(), pugi::parse_default);
    const std::string fault = first_child_value(envelope, {"soapenv:Envelope", "soapenv:Body", "soapenv:Fault", "faultstring"});
    for (const FaultRule& rule : fault_rules)
        if (find_case_insensitive(fault, rule.text, 0) != std::string::npos)
            throw afip_driver_exception("", rule.code);
}
