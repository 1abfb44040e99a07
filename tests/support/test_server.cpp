#include "support/test_server.h"
#include "support/openssl_owned.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

// Longest a connection may take to deliver its request, and to close after the answer.
constexpr std::chrono::seconds request_time_limit{15};
constexpr std::chrono::seconds closing_time_limit{2};
// Socket waits are sliced so that every blocked thread notices a stop quickly.
constexpr int poll_slice_ms = 50;
constexpr size_t max_head_bytes = 64 * 1024;


using ParamBuilder = Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>;
using Params = Owned<OSSL_PARAM, OSSL_PARAM_free>;
using PKeyContext = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using Ssl = Owned<SSL, SSL_free>;
using SslContext = Owned<SSL_CTX, SSL_CTX_free>;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    ~FileDescriptor() { reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const { return m_fd; }
    void reset()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};


bool equals_ignoring_case(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

const char* reason_phrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 407: return "Proxy Authentication Required";
    case 408: return "Request Timeout";
    case 500: return "Internal Server Error";
    case 501: return "Not Implemented";
    default: return "Status";
    }
}

int openssl_version(TlsVersion version)
{
    switch (version) {
    case TlsVersion::tls1_0: return TLS1_VERSION;
    case TlsVersion::tls1_1: return TLS1_1_VERSION;
    case TlsVersion::tls1_2: return TLS1_2_VERSION;
    case TlsVersion::tls1_3: return TLS1_3_VERSION;
    case TlsVersion::unset: break;
    }
    return 0; // OpenSSL's own bound
}

void ignore_sigpipe_once()
{
    // OpenSSL writes with write(2): a client that hung up must not kill the test process.
    static std::once_flag once;
    std::call_once(once, [] { std::signal(SIGPIPE, SIG_IGN); });
}

FileDescriptor listen_on_loopback(uint16_t& port)
{
    FileDescriptor socket_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket_fd.get() < 0)
        throw std::system_error(errno, std::generic_category(), "socket");
    const int on = 1;
    ::setsockopt(socket_fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    if (::bind(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), "bind 127.0.0.1:0");
    if (::listen(socket_fd.get(), 16) != 0)
        throw std::system_error(errno, std::generic_category(), "listen");
    socklen_t length = sizeof address;
    if (::getsockname(socket_fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::system_error(errno, std::generic_category(), "getsockname");
    port = ntohs(address.sin_port);
    return socket_fd;
}

// The 1024-bit MODP group of RFC 2409 (generator 2): weak on purpose, fixed so no generation is needed.
PrivateKey dh_1024_parameters()
{
    BigNumber prime(check(BN_get_rfc2409_prime_1024(nullptr), "BN_get_rfc2409_prime_1024"));
    BigNumber generator(check(BN_new(), "BN_new"));
    check(BN_set_word(generator.get(), 2), "BN_set_word");
    ParamBuilder builder(check(OSSL_PARAM_BLD_new(), "OSSL_PARAM_BLD_new"));
    check(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, prime.get()), "push p");
    check(OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, generator.get()), "push g");
    Params params(check(OSSL_PARAM_BLD_to_param(builder.get()), "OSSL_PARAM_BLD_to_param"));
    PKeyContext context(check(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr), "EVP_PKEY_CTX_new_from_name DH"));
    check(EVP_PKEY_fromdata_init(context.get()), "EVP_PKEY_fromdata_init");
    EVP_PKEY* parameters = nullptr;
    check(EVP_PKEY_fromdata(context.get(), &parameters, EVP_PKEY_KEY_PARAMETERS, params.get()), "EVP_PKEY_fromdata");
    return PrivateKey(parameters);
}

SslContext make_tls_context(const TestServerOptions& options)
{
    const TestIdentity identity = options.identity
        ? *options.identity
        : make_self_signed_identity(options.certificate_common_name, 2048, options.certificate_valid_days);
    SslContext context(check(SSL_CTX_new(TLS_server_method()), "SSL_CTX_new"));
    SSL_CTX* ctx = context.get();

    Bio key_bio(check(BIO_new_mem_buf(identity.key_pem.data(), static_cast<int>(identity.key_pem.size())), "BIO"));
    PrivateKey key(check(PEM_read_bio_PrivateKey(key_bio.get(), nullptr, nullptr, nullptr), "server key"));
    Bio cert_bio(check(BIO_new_mem_buf(identity.cert_pem.data(), static_cast<int>(identity.cert_pem.size())), "BIO"));
    Certificate certificate(check(PEM_read_bio_X509(cert_bio.get(), nullptr, nullptr, nullptr), "server certificate"));

    if (options.dhe_1024_only) {
        // Level 1 lets the server itself use a 1024-bit group; DHE exists only up to TLS 1.2.
        SSL_CTX_set_security_level(ctx, 1);
        check(SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION), "max TLS 1.2");
        check(SSL_CTX_set_cipher_list(ctx, "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384"), "DHE cipher list");
        PrivateKey dh = dh_1024_parameters();
        check(SSL_CTX_set0_tmp_dh_pkey(ctx, dh.get()), "SSL_CTX_set0_tmp_dh_pkey");
        dh.release(); // owned by the context now
    }
    check(SSL_CTX_use_certificate(ctx, certificate.get()), "SSL_CTX_use_certificate");
    check(SSL_CTX_use_PrivateKey(ctx, key.get()), "SSL_CTX_use_PrivateKey");
    if (options.min_tls != TlsVersion::unset)
        check(SSL_CTX_set_min_proto_version(ctx, openssl_version(options.min_tls)), "min TLS version");
    if (options.max_tls != TlsVersion::unset)
        check(SSL_CTX_set_max_proto_version(ctx, openssl_version(options.max_tls)), "max TLS version");
    return context;
}

// Control bytes cannot occur in an HTTP head; a TLS ClientHello starts with them.
bool looks_like_http_head(const std::string& bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0x20 || c == '\r' || c == '\n' || c == '\t';
    });
}

std::optional<RecordedRequest> parse_head(const std::string& head)
{
    RecordedRequest request;
    size_t line_start = 0;
    bool first = true;
    while (line_start <= head.size()) {
        size_t line_end = head.find("\r\n", line_start);
        if (line_end == std::string::npos)
            line_end = head.size();
        const std::string line = head.substr(line_start, line_end - line_start);
        if (first) {
            const size_t space1 = line.find(' ');
            const size_t space2 = space1 == std::string::npos ? std::string::npos : line.find(' ', space1 + 1);
            if (space1 == 0 || space2 == std::string::npos || space2 == space1 + 1 || space2 + 1 >= line.size())
                return std::nullopt;
            request.method = line.substr(0, space1);
            request.target = line.substr(space1 + 1, space2 - space1 - 1);
            request.version = line.substr(space2 + 1);
            first = false;
        } else {
            request.header_lines.push_back(line);
        }
        line_start = line_end + 2;
    }
    return request;
}

std::optional<size_t> parse_content_length(const RecordedRequest& request)
{
    const std::vector<std::string> values = request.header_values("Content-Length");
    if (values.empty())
        return size_t{0};
    const std::string& text = values.front();
    if (text.empty() || text.size() > 12 || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    return static_cast<size_t>(std::stoull(text));
}

std::string response_head(const ServerReply& reply)
{
    std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " " + reason_phrase(reply.status) + "\r\n";
    head += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n";
    head += "Connection: close\r\n";
    for (const std::string& line : reply.headers)
        head += line + "\r\n";
    head += "\r\n";
    return head;
}

} // namespace

std::vector<std::string> RecordedRequest::header_values(const std::string& name) const
{
    std::vector<std::string> values;
    for (const std::string& line : header_lines) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos || !equals_ignoring_case(line.substr(0, colon), name))
            continue;
        const size_t value_start = line.find_first_not_of(" \t", colon + 1);
        values.push_back(value_start == std::string::npos ? std::string() : line.substr(value_start));
    }
    return values;
}

std::optional<std::string> RecordedRequest::header(const std::string& name) const
{
    std::vector<std::string> values = header_values(name);
    if (values.empty())
        return std::nullopt;
    return values.front();
}

struct TestServer::State {
    TestServerOptions options;
    SslContext tls;
    FileDescriptor listener;
    uint16_t port = 0;
    Clock::time_point deadline;
    std::atomic<bool> stop_requested{false};

    mutable std::mutex mutex; // guards everything below and the stop wake-up
    std::condition_variable wake;
    std::vector<RecordedRequest> requests;
    ServerReply reply;
    std::vector<std::thread> connections;
    std::thread acceptor;

    bool stopping() const { return stop_requested.load() || Clock::now() >= deadline; }

    void request_stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop_requested = true;
        }
        wake.notify_all();
    }

    // True when the whole duration passed; false when the server stopped meanwhile.
    bool sleep_for(std::chrono::milliseconds duration)
    {
        const Clock::time_point until = std::min(Clock::now() + duration, deadline);
        std::unique_lock<std::mutex> lock(mutex);
        const bool stopped = wake.wait_until(lock, until, [this] { return stop_requested.load(); });
        return !stopped && until < deadline;
    }

    void sleep_until_stopped() { sleep_for(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now())); }

    ServerReply record(const RecordedRequest& request)
    {
        std::function<ServerReply(const RecordedRequest&)> handler;
        {
            std::lock_guard<std::mutex> lock(mutex);
            requests.push_back(request);
            if (!options.handler)
                return reply;
            handler = options.handler;
        }
        try {
            return handler(request);
        } catch (const std::exception& error) {
            ServerReply failure;
            failure.status = 500;
            failure.body = std::string("test server handler failed: ") + error.what();
            return failure;
        }
    }

    void accept_loop();
};

namespace {

// One accepted connection: reads one request, records it, answers, closes.
class Connection {
public:
    Connection(TestServer::State& state, FileDescriptor socket)
        : m_state(state), m_socket(std::move(socket)), m_io_deadline(Clock::now() + request_time_limit)
    {
    }

    void serve()
    {
        set_socket_timeouts();
        if (m_state.tls && !handshake())
            return;
        std::string buffer;
        size_t head_end;
        while ((head_end = buffer.find("\r\n\r\n")) == std::string::npos) {
            if (!looks_like_http_head(buffer) || buffer.size() > max_head_bytes)
                return answer_error(400);
            if (!receive(buffer))
                return;
        }
        const std::string head = buffer.substr(0, head_end);
        std::optional<RecordedRequest> request = looks_like_http_head(head) ? parse_head(head) : std::nullopt;
        if (!request)
            return answer_error(400);
        if (!request->header_values("Transfer-Encoding").empty())
            return answer_error(501);
        const std::optional<size_t> length = parse_content_length(*request);
        if (!length)
            return answer_error(400);

        std::string body = buffer.substr(head_end + 4);
        const std::optional<std::string> expect = request->header("Expect");
        if (expect && equals_ignoring_case(*expect, "100-continue") && body.size() < *length
            && !send_all("HTTP/1.1 100 Continue\r\n\r\n"))
            return;
        while (body.size() < *length) {
            if (!receive(body))
                return;
        }
        body.resize(*length);
        request->body = std::move(body);

        const ServerReply reply = m_state.record(*request);
        if (reply.close_without_answer)
            return close_gracefully();
        if (reply.delay.count() > 0 && !m_state.sleep_for(reply.delay))
            return;
        if (reply.stall_after_body_bytes) {
            const size_t sent = std::min(*reply.stall_after_body_bytes, reply.body.size());
            if (send_all(response_head(reply) + reply.body.substr(0, sent)))
                m_state.sleep_until_stopped();
            return;
        }
        if (send_all(response_head(reply) + reply.body))
            close_gracefully();
    }

private:
    void set_socket_timeouts()
    {
        timeval slice{};
        slice.tv_usec = poll_slice_ms * 1000;
        ::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &slice, sizeof slice);
        ::setsockopt(m_socket.get(), SOL_SOCKET, SO_SNDTIMEO, &slice, sizeof slice);
    }

    bool may_continue() const { return !m_state.stopping() && Clock::now() < m_io_deadline; }

    // Socket time-outs surface as "want read/write": retried until a stop or the deadline.
    bool retryable_tls_error(int result)
    {
        const int error = SSL_get_error(m_ssl.get(), result);
        ERR_clear_error();
        return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    }

    static bool retryable_socket_error() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

    bool handshake()
    {
        m_ssl.reset(SSL_new(m_state.tls.get()));
        if (!m_ssl || SSL_set_fd(m_ssl.get(), m_socket.get()) != 1)
            return false;
        while (may_continue()) {
            const int result = SSL_accept(m_ssl.get());
            if (result == 1)
                return true;
            if (!retryable_tls_error(result))
                return false;
        }
        return false;
    }

    // Appends whatever arrives next; false on end of stream, error, stop or deadline.
    bool receive(std::string& buffer)
    {
        char chunk[16384];
        while (may_continue()) {
            if (m_ssl) {
                const int count = SSL_read(m_ssl.get(), chunk, sizeof chunk);
                if (count > 0) {
                    buffer.append(chunk, static_cast<size_t>(count));
                    return true;
                }
                if (!retryable_tls_error(count))
                    return false;
            } else {
                const ssize_t count = ::recv(m_socket.get(), chunk, sizeof chunk, 0);
                if (count > 0) {
                    buffer.append(chunk, static_cast<size_t>(count));
                    return true;
                }
                if (count == 0 || !retryable_socket_error())
                    return false;
            }
        }
        return false;
    }

    bool send_all(const std::string& bytes)
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            if (m_state.stopping())
                return false;
            if (m_ssl) {
                const int count = SSL_write(m_ssl.get(), bytes.data() + sent, static_cast<int>(bytes.size() - sent));
                if (count > 0)
                    sent += static_cast<size_t>(count);
                else if (!retryable_tls_error(count))
                    return false;
            } else {
                const ssize_t count = ::send(m_socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
                if (count > 0)
                    sent += static_cast<size_t>(count);
                else if (count == 0 || !retryable_socket_error())
                    return false;
            }
        }
        return true;
    }

    void answer_error(int status)
    {
        ServerReply reply;
        reply.status = status;
        if (send_all(response_head(reply)))
            close_gracefully();
    }

    // Half-close, then drain until the client closes: closing with unread input would reset the
    // connection and could destroy the answer before the client read it.
    void close_gracefully()
    {
        if (m_ssl)
            SSL_shutdown(m_ssl.get());
        ERR_clear_error();
        ::shutdown(m_socket.get(), SHUT_WR);
        const Clock::time_point until = Clock::now() + closing_time_limit;
        char sink[4096];
        while (!m_state.stopping() && Clock::now() < until) {
            const ssize_t count = ::recv(m_socket.get(), sink, sizeof sink, 0);
            if (count == 0 || (count < 0 && !retryable_socket_error()))
                break;
        }
    }

    TestServer::State& m_state;
    FileDescriptor m_socket;
    Ssl m_ssl;
    Clock::time_point m_io_deadline;
};

} // namespace

void TestServer::State::accept_loop()
{
    while (!stopping()) {
        pollfd waiting{listener.get(), POLLIN, 0};
        if (::poll(&waiting, 1, poll_slice_ms) <= 0)
            continue;
        const int accepted = ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted < 0)
            continue;
        FileDescriptor socket_fd(accepted);
        std::lock_guard<std::mutex> lock(mutex);
        connections.emplace_back([this, connection_socket = std::move(socket_fd)]() mutable {
            Connection(*this, std::move(connection_socket)).serve();
            ERR_clear_error();
        });
    }
    // The lifetime may have run out: refuse new connections and wake whatever still waits.
    listener.reset();
    request_stop();
}

TestServer::TestServer(TestServerOptions options) : m_state(std::make_unique<State>())
{
    ignore_sigpipe_once();
    State& state = *m_state;
    state.options = std::move(options);
    state.reply = state.options.reply;
    if (state.options.tls)
        state.tls = make_tls_context(state.options);
    state.listener = listen_on_loopback(state.port);
    state.deadline = Clock::now() + state.options.lifetime;
    state.acceptor = std::thread([&state] { state.accept_loop(); });
}

TestServer::~TestServer()
{
    stop();
}

void TestServer::stop()
{
    m_state->request_stop();
    if (m_state->acceptor.joinable())
        m_state->acceptor.join();
    m_state->listener.reset();
    std::vector<std::thread> connections;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        connections.swap(m_state->connections);
    }
    for (std::thread& connection : connections)
        connection.join();
}

uint16_t TestServer::port() const
{
    return m_state->port;
}

std::string TestServer::url(const std::string& path) const
{
    const std::string scheme = m_state->tls ? "https" : "http";
    const std::string slash = (!path.empty() && path.front() == '/') ? "" : "/";
    return scheme + "://127.0.0.1:" + std::to_string(m_state->port) + slash + path;
}

std::vector<RecordedRequest> TestServer::requests() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->requests;
}

void TestServer::set_reply(ServerReply reply)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->reply = std::move(reply);
}

uint16_t unused_loopback_port()
{
    uint16_t port = 0;
    listen_on_loopback(port); // closed again at once
    return port;
}

void clear_proxy_environment()
{
    for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
                             "no_proxy", "NO_PROXY"})
        ::unsetenv(name);
}
