// What the C++ tests share: a scratch working directory, the certificates made for the run, a
// plain HTTP client, WSAA's answers, and servers (the simulator, a proxy) as child processes.
#ifndef TARVO_TESTS_SUPPORT_SUPPORT_H
#define TARVO_TESTS_SUPPORT_SUPPORT_H

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <functional>
#include <string>
#include <vector>

#include "support/wsaa_answers.h"

// A fresh directory that is the working directory for one scope, removed afterwards.
class Workspace {
public:
    Workspace();
    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    std::string m_previous;
};

// The result code the action raised as afip_driver_exception (whose message must be empty), or 0.
int32_t code_of(const std::function<void()>& action);

// A certificate file made for this run by make-fixtures.sh; all but nopass.p12 use password "pw".
std::string fixture(const std::string& name);
void use_time_zone(const char* zone);
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// A POST with bare libcurl, body sent whole (NUL bytes too); status 0 when nothing came back.
long http_post(const std::string& url, const std::string& body, std::string* answer = nullptr);

// A server program in a scratch directory of its own, "{port}" in its arguments replaced by a free
// loopback port; ready once it listens there (20 s at most, or the constructor throws), ended by
// SIGTERM (SIGKILL after 10 s) with its owner.
class ServerProcess {
public:
    explicit ServerProcess(std::vector<std::string> arguments);
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    int port() const { return m_port; }
    // Stops the program (once) and returns its wait status.
    int stop();
    std::string errors() const { return read_file(m_directory + "/err"); }

private:
    bool running();

    std::string m_directory;
    int m_port;
    pid_t m_pid = -1;
    int m_status = 0;
};

// Debian's tinyproxy, taking the basic credentials tarvo:s3cret.
class Tinyproxy : public ServerProcess {
public:
    Tinyproxy();
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port()); }
};

// The simulator; it must end cleanly, without a word on standard error, when the test lets it go.
class Simulator : public ServerProcess {
public:
    explicit Simulator(std::vector<std::string> options = {});
    ~Simulator();
    std::string url(const std::string& path) const;
    // Queues the next answer for `path`; `parameters` are further query parameters, e.g. "status=500".
    void answer(const std::string& path, const std::string& body, const std::string& parameters = "");
    // What the simulator received on `path`, oldest first: {method, path, headers, body} each.
    nlohmann::json requests(const std::string& path) const;

private:
    std::string m_scheme;
};

// A header's values in a recorded request, in arrival order (names compared without case).
std::vector<std::string> header_values(const nlohmann::json& request, const std::string& name);

#endif
