#ifndef TARVO_HTTP_EASY_HTTP_H
#define TARVO_HTTP_EASY_HTTP_H

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

enum tls_security_level_t : int32_t {
    tls_default = 0,
    tls_1_0 = 1,
    tls_1_1 = 2,
    tls_1_2 = 3,
    tls_1_3 = 4,
};

// Global libcurl initialisation, done once when the library is loaded.
class CURLStartUp {
public:
    CURLStartUp();

private:
    std::mutex m_mutex;
};

// One libcurl easy handle doing synchronous POSTs, with a trace of the last transfer.
// Never copied: lives inside a shared pointer for one SendSOAP.
class EasyHTTP {
public:
    explicit EasyHTTP(std::string url);
    ~EasyHTTP();
    EasyHTTP(const EasyHTTP&) = delete;
    EasyHTTP& operator=(const EasyHTTP&) = delete;

    void add_request_header(std::string header);
    void clear_request_headers();
    void set_time_out(uint32_t time_out);
    uint32_t get_timeout() const;
    // Whether the last transfer put any request bytes on the wire: a connection that failed
    // before it (refused, unreachable, the TLS handshake) sent nothing.
    bool request_sent() const;
    void set_security(tls_security_level_t level);
    void set_proxy(std::string proxy_url, std::string proxy_username, std::string proxy_password);
    // Checks the server's certificate chain and host name from now on, against the PEM
    // certificates in ca_file, or the system's store when it is empty.
    void verify_peer(const std::string& ca_file);

    // Returns the server's status, or 408 (time-out), 525 (TLS handshake), 522 (other failure).
    int32_t send_post_request(std::string url, std::string body);
    std::string get_response() const;
    // Moves the answer out; for callers that need it only once.
    std::string take_response();
    std::string get_log() const;
    // The same text, built in the response body's buffer: for callers that need it only once.
    std::string take_log();

    static int trace_static_func(CURL* handle, curl_infotype type, char* data, size_t size, void* userp);

private:
    void trace_no_static_func(curl_infotype type, const char* data, size_t size);
    std::string log_head() const;
    size_t log_head_size() const;

    std::string m_base_url;
    std::vector<std::string> m_request_headers;
    std::string m_response;
    CURL* m_curl;
    uint32_t m_timeout_ms;
    std::vector<std::string> m_log_response_headers;
    std::vector<std::string> m_log_request_headers;
    std::vector<std::string> m_log_text;
    std::string m_log_request_body;
    std::string m_log_response_body;
};

#endif
