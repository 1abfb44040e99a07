// A local stand-in for the tax agency's login and invoicing web services.
#include <arpa/inet.h>
#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "identity.h"
#include "invoicing_service.h"
#include "login_service.h"
#include "registry_service.h"
#include "options.h"
#include "scripted_answers.h"
#include "service_descriptions.h"
#include "state_file.h"
#include "ticket_registry.h"
#include "voucher_rules.h"

namespace {

using namespace std::chrono_literals;

const char constancia_path[] = "/sr-padron/webservices/personaServiceA5";
const char a13_path[] = "/sr-padron/webservices/personaServiceA13";

// Room for the large answers a host's test may queue.
constexpr size_t largest_request_bytes = 64 * 1024 * 1024;

// One line per event on standard output, flushed at once so a watching test or user sees it.
class RequestLog {
public:
    void write(const std::string& line)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }

private:
    std::mutex m_mutex;
};

// Raised once the server is stopping, so a deliberately slow answer does not hold up the exit.
class StopFlag {
public:
    void raise()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_raised = true;
        m_changed.notify_all();
    }
    void wait_for(std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, limit, [this] { return m_raised; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_raised = false;
};

bool is_ip_address(const std::string& host)
{
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(AF_INET, host.c_str(), address) == 1 || inet_pton(AF_INET6, host.c_str(), address) == 1;
}

std::string host_in_url(const std::string& host)
{
    return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

std::string alt_name(const std::string& name)
{
    return (is_ip_address(name) ? "IP:" : "DNS:") + name;
}

// The names the generated server certificate answers to: the one asked for, or the listening address.
std::string server_alt_names(const Options& options)
{
    if (!options.tls_name.empty())
        return alt_name(options.tls_name);
    std::string names = "DNS:localhost,IP:127.0.0.1";
    if (options.host != "localhost" && options.host != "127.0.0.1" && !options.host.empty())
        names += "," + alt_name(options.host);
    return names;
}

// Written whole under another name first, so a reader never sees half of it.
void write_whole_file(const std::string& path, const std::string& content)
{
    const std::string partial = path + ".partial";
    {
        std::ofstream file(partial, std::ios::trunc);
        file << content;
        if (!file.flush())
            throw std::runtime_error("cannot write " + partial);
    }
    if (std::rename(partial.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot rename " + partial + " to " + path);
}

std::unique_ptr<httplib::Server> make_server(const Options& options, std::optional<Identity>& identity)
{
    if (!options.tls)
        return std::make_unique<httplib::Server>();
    const std::string name = !options.tls_name.empty() ? options.tls_name : options.host.empty() ? "localhost" : options.host;
    // RSA only where the legacy key exchange (DHE-RSA) needs it: generating it takes seconds on a
    // slow machine, and far longer under emulation.
    identity = make_self_signed_identity(name, -1h, std::chrono::hours(24 * 365), server_alt_names(options), "",
                                         options.legacy_tls ? KeyKind::rsa : KeyKind::elliptic_curve);
    auto server = std::make_unique<httplib::SSLServer>(identity->certificate.get(), identity->key.get());
    if (options.legacy_tls && server->is_valid())
        limit_to_legacy_tls(server->ssl_context());
    if (!options.tls_certificate_output.empty())
        write_whole_file(options.tls_certificate_output, certificate_pem(identity->certificate.get()));
    return server;
}

int make_certificate_file(const Options& options)
{
    constexpr std::chrono::hours day{24};
    const std::string serial_number = "CUIT " + options.certificate_cuit;
    const Identity identity =
        options.certificate_expired
            ? make_self_signed_identity(options.certificate_common_name, -366 * day, -1 * day, "", serial_number)
            : make_self_signed_identity(options.certificate_common_name, -1 * day, 730 * day, "", serial_number);
    write_pkcs12_file(identity, options.certificate_password, options.certificate_output);
    std::cout << "wrote " << options.certificate_output << ": " << certificate_subject(identity.certificate.get())
              << ", valid from " << asn1_time_text(X509_get0_notBefore(identity.certificate.get())) << " to "
              << asn1_time_text(X509_get0_notAfter(identity.certificate.get())) << std::endl;
    return 0;
}

// Blocks until SIGINT, SIGTERM or the time limit; empty when the server ended on its own first.
std::string wait_for_stop_reason(const Options& options, const std::atomic<bool>& server_finished)
{
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.max_seconds);

    while (!server_finished) {
        std::chrono::nanoseconds slice = 100ms;
        if (options.max_seconds > 0) {
            const auto remaining = deadline - std::chrono::steady_clock::now();
            if (remaining <= 0ns)
                return std::to_string(options.max_seconds) + " s elapsed (--max-seconds)";
            slice = std::min<std::chrono::nanoseconds>(slice, remaining);
        }
        const timespec wait{0, static_cast<long>(slice.count())};
        const int received = sigtimedwait(&stop_signals, nullptr, &wait);
        if (received == SIGINT)
            return "SIGINT received";
        if (received == SIGTERM)
            return "SIGTERM received";
    }
    return {};
}

// A queued answer as it was asked for, cut short and held up where the script says so; a processed
// one sends the service's own reply unless the script replaces its parts.
void send_scripted(const ScriptedAnswer& answer, const Reply* processed, httplib::Response& response, StopFlag& stopping)
{
    stopping.wait_for(std::chrono::milliseconds(answer.delay_ms));
    response.status = answer.status.value_or(processed ? processed->status : 200);
    for (const auto& [name, value] : answer.headers)
        response.set_header(name, value);
    const std::string& body = processed && answer.body.empty() ? processed->body : answer.body;
    const std::string content_type = answer.content_type.value_or(processed ? processed->content_type : "text/xml; charset=utf-8");
    if (!answer.cut_after) {
        response.set_content(body, content_type);
        return;
    }
    // Announces the whole body but sends only part of it, then closes the connection.
    const size_t sent = std::min(*answer.cut_after, body.size());
    response.set_content_provider(
        body.size(), content_type,
        [body, sent, hang = answer.hang_ms, &stopping](size_t offset, size_t, httplib::DataSink& sink) {
            if (offset < sent)
                return sink.write(body.data() + offset, sent - offset);
            stopping.wait_for(std::chrono::milliseconds(hang));
            return false;
        });
}

std::string scripted_summary(const ScriptedAnswer& answer, size_t bytes)
{
    return std::to_string(bytes) + " bytes" + (answer.cut_after ? ", cut after " + std::to_string(*answer.cut_after) : "") +
           (answer.status ? ", status " + std::to_string(*answer.status) : "") +
           (answer.delay_ms > 0 ? ", delayed " + std::to_string(answer.delay_ms) + " ms" : "");
}

// What every endpoint shares: the log, the scripted answers and the stop flag.
class Routes {
public:
    Routes(RequestLog& log, ScriptedAnswers& scripted, StopFlag& stopping)
        : m_log(log), m_scripted(scripted), m_stopping(stopping)
    {
    }

    // Wraps an endpoint: the request is recorded, a queued answer wins (or spoils the endpoint's own
    // when it asks for the request to be processed), and every request gets an answer and a log
    // line, even when the endpoint throws. The simulator's controls are not recorded.
    httplib::Server::Handler operator()(std::function<Reply(const httplib::Request&)> answer, bool control = false)
    {
        return [this, answer = std::move(answer), control](const httplib::Request& request, httplib::Response& response) {
            std::optional<ScriptedAnswer> queued;
            if (!control) {
                m_scripted.record(request);
                queued = m_scripted.take(request.path, [&] { return requested_operation(request); });
            }
            if (queued && !queued->process) {
                send_scripted(*queued, nullptr, response, m_stopping);
                write_log(request, response.status, "-> scripted answer, " + scripted_summary(*queued, queued->body.size()));
                return;
            }
            Reply reply;
            try {
                reply = answer(request);
            } catch (const std::exception& error) {
                reply.status = 500;
                reply.content_type = "text/plain; charset=utf-8";
                reply.body = std::string("internal simulator error: ") + error.what() + "\n";
                reply.summary = std::string("-> internal error: ") + error.what();
            }
            if (queued) {
                send_scripted(*queued, &reply, response, m_stopping);
                write_log(request, response.status,
                          reply.summary + ", answer lost: " +
                              scripted_summary(*queued, queued->body.empty() ? reply.body.size() : queued->body.size()));
                return;
            }
            response.status = reply.status;
            response.set_content(reply.body, reply.content_type);
            write_log(request, reply.status, reply.summary);
        };
    }

private:
    void write_log(const httplib::Request& request, int status, const std::string& summary)
    {
        m_log.write(request.method + " " + request.path + " " + std::to_string(status) + " " + summary);
    }

    RequestLog& m_log;
    ScriptedAnswers& m_scripted;
    StopFlag& m_stopping;
};

Reply text_reply(int status, const std::string& text, const std::string& summary)
{
    Reply reply;
    reply.status = status;
    reply.content_type = "text/plain; charset=utf-8";
    reply.body = text + "\n";
    reply.summary = summary;
    return reply;
}

int run_server(const Options& options)
{
    RequestLog log;
    StopFlag stopping;
    StateFile state(options.state_file);
    TicketRegistry tickets(std::chrono::seconds(options.ticket_seconds), std::chrono::seconds(options.refuse_relogin_seconds),
                           state);
    LoginService login(options.services, options.relations, tickets);
    // A padrón given now replaces the one the state kept; without either, the built-in one.
    const nlohmann::json kept_padron = state.section("padron");
    const Padron padron = !options.padron_file.empty() ? Padron::from_file(options.padron_file)
                          : kept_padron.is_null()      ? Padron()
                                                       : Padron::from_json(kept_padron, options.state_file);
    state.save("padron", padron.to_json());
    InvoicingSettings settings{options.receptor_condition_required_from, options.events, options.today,
                               options.points_of_sale, options.caea_points_of_sale};
    InvoicingService invoicing(tickets, padron, std::move(settings), state);
    ScriptedAnswers scripted;
    Routes route(log, scripted, stopping);

    std::optional<Identity> server_identity;
    const std::unique_ptr<httplib::Server> server = make_server(options, server_identity);
    if (!server->is_valid()) {
        std::cerr << "afip_simulator: cannot set up the server" << (options.tls ? " (TLS context)" : "") << std::endl;
        return 1;
    }
    // Short keep-alive and read limits keep the stop quick when clients hold connections open.
    server->set_keep_alive_timeout(1);
    server->set_read_timeout(5);
    // Answers go out as head and body writes: without this the body waits for a delayed ACK.
    server->set_tcp_nodelay(true);
    server->set_payload_max_length(largest_request_bytes);

    server->Post("/simulator/answers", route(
                                           [&](const httplib::Request& request) {
                                               try {
                                                   auto [path, answer] = scripted_answer_from(request);
                                                   const std::string what =
                                                       "queued for " + path +
                                                       (answer.operation.empty() ? "" : " " + answer.operation) +
                                                       (answer.process ? ", processed then lost" : "");
                                                   scripted.queue(path, std::move(answer));
                                                   return text_reply(200, what, "-> " + what);
                                               } catch (const std::invalid_argument& error) {
                                                   return text_reply(400, error.what(), std::string("-> ") + error.what());
                                               }
                                           },
                                           true));
    const auto recorded = route(
        [&](const httplib::Request& request) {
            Reply reply;
            reply.content_type = "application/json";
            reply.body = scripted.recorded_json(request.get_param_value("path"));
            reply.summary = "-> recorded requests";
            return reply;
        },
        true);
    server->Get("/simulator/requests", recorded);
    server->Post("/simulator/requests", recorded);

    server->Post("/ws/services/LoginCms", route([&](const httplib::Request& request) { return login.login_cms(request.body); }));
    server->Post("/wsfev1/service.asmx", route([&](const httplib::Request& request) {
                     if (options.service_delay_ms > 0)
                         stopping.wait_for(std::chrono::milliseconds(options.service_delay_ms));
                     if (options.non_xml_answer)
                         return text_reply(200, "Servicio no disponible: respuesta de texto plano del simulador (--non-xml-answer)",
                                           "-> plain-text answer (--non-xml-answer)");
                     const std::optional<std::string> soap_action =
                         request.has_header("SOAPAction") ? std::optional(request.get_header_value("SOAPAction")) : std::nullopt;
                     return invoicing.handle(request.body, soap_action);
                 }));
    const RegistryService constancia(RegistryService::Kind::constancia, tickets, padron);
    const RegistryService a13(RegistryService::Kind::a13, tickets, padron);
    for (const auto& [path, registry] : {std::pair{constancia_path, &constancia}, std::pair{a13_path, &a13}})
        server->Post(path, route([registry = registry](const httplib::Request& request) { return registry->handle(request.body); }));
    for (const auto& [path, description] : {std::pair{"/ws/services/LoginCms", wsaa_description},
                                            std::pair{"/wsfev1/service.asmx", wsfev1_description},
                                            std::pair{constancia_path, registry_a5_description},
                                            std::pair{a13_path, registry_a13_description}})
        server->Get(path, route([&, path = std::string(path), description = description](const httplib::Request& request) {
                        if (!request.has_param("wsdl") && !request.has_param("WSDL"))
                            return text_reply(404, "not found: add ?wsdl for the service description", "-> not found");
                        Reply reply;
                        reply.body = description;
                        const std::string address = std::string(options.tls ? "https://" : "http://") +
                                                    request.get_header_value("Host") + path;
                        reply.body.replace(reply.body.find("{address}"), 9, address);
                        reply.summary = "-> service description";
                        return reply;
                    }));
    const auto not_found = route([](const httplib::Request&) { return text_reply(404, "not found", "-> not found"); });
    server->Get(".*", not_found);
    server->Post(".*", not_found);
    server->Put(".*", not_found);
    server->Patch(".*", not_found);
    server->Delete(".*", not_found);
    server->Options(".*", not_found);

    const int port = options.port == 0 ? server->bind_to_any_port(options.host)
                                       : (server->bind_to_port(options.host, options.port) ? options.port : -1);
    if (port <= 0) {
        std::cerr << "afip_simulator: cannot listen on " << options.host << " port " << options.port << std::endl;
        return 1;
    }
    log.write(std::string("listening on ") + (options.tls ? "https://" : "http://") + host_in_url(options.host) + ":" +
              std::to_string(port));
    if (!options.port_file.empty())
        write_whole_file(options.port_file, std::to_string(port) + "\n");

    std::atomic<bool> server_finished{false};
    std::string stop_reason;
    std::thread watcher([&] {
        stop_reason = wait_for_stop_reason(options, server_finished);
        if (stop_reason.empty())
            return;
        stopping.raise();
        // stop() has no effect before the accept loop runs, so wait for it.
        while (!server->is_running() && !server_finished)
            std::this_thread::sleep_for(5ms);
        if (!server_finished)
            server->stop();
    });
    const bool served = server->listen_after_bind();
    server_finished = true;
    watcher.join();

    if (stop_reason.empty() || !served) {
        std::cerr << "afip_simulator: the server stopped unexpectedly" << std::endl;
        return 1;
    }
    log.write("stopped: " + stop_reason);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        options = parse_options(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::cerr << "afip_simulator: " << error.what() << "\nTry 'afip_simulator --help'." << std::endl;
        return 2;
    }
    if (options.help) {
        std::cout << usage_text();
        return 0;
    }
    if (options.rules) {
        std::cout << voucher_rules_table();
        return 0;
    }

    // A client that hangs up mid-answer must not end the process.
    signal(SIGPIPE, SIG_IGN);
    // Blocked before any thread exists, so every thread inherits it and only the watcher takes them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    try {
        if (!options.certificate_output.empty())
            return make_certificate_file(options);
        return run_server(options);
    } catch (const std::exception& error) {
        std::cerr << "afip_simulator: " << error.what() << std::endl;
        return 1;
    }
}
