#include "http/easy_http.h"

#include <cstdint>

namespace {

CURLStartUp startup;

const long ssl_versions[] = {
    CURL_SSLVERSION_TLSv1_0,
    CURL_SSLVERSION_TLSv1_1,
    CURL_SSLVERSION_TLSv1_2,
    CURL_SSLVERSION_TLSv1_3,
};

// Collects one answer body. Sized once from Content-Length when the server sends it, so a large
// answer is not copied again and again while it grows.
struct ResponseCollector {
    CURL* handle;
    std::string body;
};

// Room reserved for a buffer about to receive a body of the announced length; 0 when unknown.
size_t announced_length(CURL* handle)
{
    curl_off_t length = -1;
    if (curl_easy_getinfo(handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK || length <= 0)
        return 0;
    return static_cast<uint64_t>(length) < static_cast<uint64_t>(SIZE_MAX / 2) ? static_cast<size_t>(length) : 0;
}

size_t write_data(void* ptr, size_t size, size_t nmemb, void* userdata)
{
    const size_t count = size * nmemb;
    auto* collector = static_cast<ResponseCollector*>(userdata);
    if (collector->body.empty())
        collector->body.reserve(announced_length(collector->handle));
    collector->body.append(static_cast<const char*>(ptr), count);
    return count;
}

// A copy of libcurl's string list, freed with its owner.
class HeaderList {
public:
    explicit HeaderList(const std::vector<std::string>& lines)
    {
        for (const std::string& line : lines) {
            curl_slist* grown = curl_slist_append(m_list, line.c_str());
            if (grown != nullptr)
                m_list = grown;
        }
    }
    ~HeaderList() { curl_slist_free_all(m_list); }
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;
    curl_slist* get() const { return m_list; }

private:
    curl_slist* m_list = nullptr;
};

} // namespace

CURLStartUp::CURLStartUp()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    curl_global_init(CURL_GLOBAL_ALL);
}

EasyHTTP::EasyHTTP(std::string url)
    : m_base_url(std::move(url)), m_curl(curl_easy_init()), m_timeout_ms(0)
{
    if (m_curl == nullptr)
        return;
    curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(m_curl, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, write_data);
    curl_easy_setopt(m_curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(m_curl, CURLOPT_DEBUGFUNCTION, &EasyHTTP::trace_static_func);
    curl_easy_setopt(m_curl, CURLOPT_DEBUGDATA, this);
    curl_easy_setopt(m_curl, CURLOPT_VERBOSE, 1L);
    // AFIP's hosts still offer DH parameters below OpenSSL 3's default security level; the
    // level only concerns key sizes and is independent of verify_peer.
    curl_easy_setopt(m_curl, CURLOPT_SSL_CIPHER_LIST, "DEFAULT@SECLEVEL=1");
}

EasyHTTP::~EasyHTTP()
{
    if (m_curl != nullptr)
        curl_easy_cleanup(m_curl);
    // Paired with every handle: libcurl re-initialises itself for the next one.
    curl_global_cleanup();
}

void EasyHTTP::add_request_header(std::string header)
{
    m_request_headers.push_back(std::move(header));
}

void EasyHTTP::clear_request_headers()
{
    m_request_headers.clear();
}

void EasyHTTP::set_time_out(uint32_t time_out)
{
    m_timeout_ms = time_out;
}

uint32_t EasyHTTP::get_timeout() const
{
    return m_timeout_ms;
}

void EasyHTTP::set_security(tls_security_level_t level)
{
    if (m_curl == nullptr)
        return;
    const int index = static_cast<int>(level) - 1;
    const long version = (index >= 0 && index < 4) ? ssl_versions[index] : static_cast<long>(CURL_SSLVERSION_DEFAULT);
    curl_easy_setopt(m_curl, CURLOPT_SSLVERSION, version);
}

void EasyHTTP::set_proxy(std::string proxy_url, std::string proxy_username, std::string proxy_password)
{
    if (m_curl == nullptr)
        return;
    if (!proxy_url.empty())
        curl_easy_setopt(m_curl, CURLOPT_PROXY, proxy_url.c_str());
    if (!proxy_username.empty())
        curl_easy_setopt(m_curl, CURLOPT_PROXYUSERNAME, proxy_username.c_str());
    if (!proxy_password.empty())
        curl_easy_setopt(m_curl, CURLOPT_PROXYPASSWORD, proxy_password.c_str());
}

void EasyHTTP::verify_peer(const std::string& ca_file)
{
    if (m_curl == nullptr)
        return;
    curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(m_curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!ca_file.empty())
        curl_easy_setopt(m_curl, CURLOPT_CAINFO, ca_file.c_str());
}

bool EasyHTTP::request_sent() const
{
    long size = 0;
    return m_curl != nullptr && curl_easy_getinfo(m_curl, CURLINFO_REQUEST_SIZE, &size) == CURLE_OK && size > 0;
}

int32_t EasyHTTP::send_post_request(std::string url, std::string body)
{
    m_log_response_headers.clear();
    m_log_request_headers.clear();
    m_log_text.clear();
    m_log_request_body.clear();
    m_log_response_body.clear();

    if (m_timeout_ms != 0)
        curl_easy_setopt(m_curl, CURLOPT_TIMEOUT_MS, static_cast<long>(m_timeout_ms));

    HeaderList headers(m_request_headers);
    curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, headers.get());
    // No size is given: libcurl sends the bytes up to the first NUL.
    curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(m_curl, CURLOPT_POST, 1L);
    const std::string target = m_base_url + url;
    curl_easy_setopt(m_curl, CURLOPT_URL, target.c_str());

    std::string().swap(m_response);
    ResponseCollector stream{m_curl, std::string()};
    curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, &stream);

    int32_t status;
    const CURLcode result = curl_easy_perform(m_curl);
    switch (result) {
    case CURLE_OK: {
        long code = 0;
        curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &code);
        status = static_cast<int32_t>(code);
        m_response = std::move(stream.body);
        break;
    }
    case CURLE_OPERATION_TIMEDOUT:
        status = 408;
        break;
    case CURLE_SSL_CONNECT_ERROR:
        status = 525;
        break;
    default:
        status = 522;
        break;
    }

    m_request_headers.clear();
    return status;
}

std::string EasyHTTP::get_response() const
{
    return m_response;
}

std::string EasyHTTP::take_response()
{
    return std::move(m_response);
}

size_t EasyHTTP::log_head_size() const
{
    // The five headings and the line feed after the request body.
    size_t size = 87 + m_log_request_body.size();
    for (const auto* list : {&m_log_text, &m_log_request_headers, &m_log_response_headers})
        for (const std::string& entry : *list)
            size += entry.size();
    return size;
}

std::string EasyHTTP::log_head() const
{
    std::string head;
    head.reserve(log_head_size());
    head += "=== Info:\n";
    for (const std::string& entry : m_log_text)
        head += entry;
    head += "==> Request headers\n";
    for (const std::string& entry : m_log_request_headers)
        head += entry;
    head += "==> Request body\n";
    head += m_log_request_body;
    head += "\n";
    head += "==> Response headers\n";
    for (const std::string& entry : m_log_response_headers)
        head += entry;
    head += "==> Response body\n";
    return head;
}

std::string EasyHTTP::get_log() const
{
    std::string log = log_head();
    log.reserve(log.size() + m_log_response_body.size() + 1);
    log += m_log_response_body;
    log += "\n";
    return log;
}

std::string EasyHTTP::take_log()
{
    const std::string head = log_head();
    std::string log = std::move(m_log_response_body);
    m_log_response_body.clear();
    // The body buffer was sized with room for the head: no second copy of a large answer.
    log.reserve(head.size() + log.size() + 1);
    log.insert(0, head);
    log += "\n";
    return log;
}

int EasyHTTP::trace_static_func(CURL* /*handle*/, curl_infotype type, char* data, size_t size, void* userp)
{
    static_cast<EasyHTTP*>(userp)->trace_no_static_func(type, data, size);
    return 0;
}

void EasyHTTP::trace_no_static_func(curl_infotype type, const char* data, size_t size)
{
    switch (type) {
    case CURLINFO_TEXT:
        m_log_text.emplace_back(data, size);
        break;
    case CURLINFO_HEADER_IN:
        m_log_response_headers.emplace_back(data, size);
        break;
    case CURLINFO_HEADER_OUT:
        m_log_request_headers.emplace_back(data, size);
        break;
    case CURLINFO_DATA_IN:
        if (m_log_response_body.empty()) {
            const size_t announced = announced_length(m_curl);
            // Slack for the head, including info text still to come after the body.
            if (announced != 0)
                m_log_response_body.reserve(announced + log_head_size() + 4096);
        }
        m_log_response_body.append(data, size);
        break;
    case CURLINFO_DATA_OUT:
        m_log_request_body.append(data, size);
        break;
    default:
        // TLS records and anything newer stay out of the log.
        break;
    }
}
