#ifndef TARVO_TESTS_SUPPORT_TEST_SERVER_H
#define TARVO_TESTS_SUPPORT_TEST_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/certificates.h"

// One request as it arrived on the wire.
struct RecordedRequest {
    std::string method;
    std::string target;
    std::string version;
    // Raw header lines without their CRLF, in arrival order, duplicates kept.
    std::vector<std::string> header_lines;
    std::string body;

    // Values (leading blanks dropped) of every header with that name, compared case-insensitively.
    std::vector<std::string> header_values(const std::string& name) const;
    // The first such value, or nullopt.
    std::optional<std::string> header(const std::string& name) const;
};

// What the server answers; always with Content-Length and "Connection: close".
struct ServerReply {
    int status = 200;
    std::string body;
    // Further raw header lines, e.g. "Content-Type: text/xml".
    std::vector<std::string> headers;
    // Waited after the request was read and recorded, before anything is sent.
    std::chrono::milliseconds delay{0};
    // Sends the head and this many body bytes, then stalls without closing until the server stops.
    std::optional<size_t> stall_after_body_bytes;
    // Closes the connection after reading the request, sending nothing.
    bool close_without_answer = false;
};

enum class TlsVersion { unset, tls1_0, tls1_1, tls1_2, tls1_3 };

struct TestServerOptions {
    bool tls = false;
    // Certificate made for the HTTPS server when no identity is given.
    std::string certificate_common_name = "localhost";
    long certificate_valid_days = 365;
    std::optional<TestIdentity> identity;
    TlsVersion min_tls = TlsVersion::unset;
    TlsVersion max_tls = TlsVersion::unset;
    // TLS 1.2 only, DHE-RSA ciphers only, 1024-bit DH group, security level 1.
    bool dhe_1024_only = false;
    // The server stops by itself after this long, even if nobody stops it.
    std::chrono::seconds lifetime{60};
    // Chooses the answer per request; when empty the current fixed reply is used.
    std::function<ServerReply(const RecordedRequest&)> handler;
    ServerReply reply;
};

// A loopback HTTP/1.1 server (plain or TLS) in background threads, one thread per connection.
// It keeps every request exactly as received, which a parsing server library would not.
class TestServer {
public:
    explicit TestServer(TestServerOptions options = {});
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    uint16_t port() const;
    // "http://127.0.0.1:PORT/path" or "https://..."; a missing leading "/" is added.
    std::string url(const std::string& path = "/") const;
    std::vector<RecordedRequest> requests() const;
    // Replaces the fixed reply for the following requests.
    void set_reply(ServerReply reply);
    // Stops accepting, wakes every waiting connection and joins all threads; idempotent.
    void stop();

    struct State; // implementation detail, shared with the connection threads

private:
    std::unique_ptr<State> m_state;
};

// A loopback port that was free a moment ago and on which nobody listens: connections are refused.
uint16_t unused_loopback_port();

// Removes proxy settings from the environment: libcurl falls back to them when the handle has none.
void clear_proxy_environment();

#endif
