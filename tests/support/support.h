// What the C++ tests share: a scratch working directory, the certificates made for the run, a
// plain HTTP client, and the simulator as a child process with its scripted answers.
#ifndef TARVO_TESTS_SUPPORT_SUPPORT_H
#define TARVO_TESTS_SUPPORT_SUPPORT_H

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <memory>
#include <string>
#include <vector>

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

// A certificate file made for this run by make-fixtures.sh; all but nopass.p12 use password "pw".
std::string fixture(const std::string& name);

void use_time_zone(const char* zone);
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

struct HttpAnswer {
    long status = 0;
    std::string body;
};

// A POST with bare libcurl, body sent whole (NUL bytes too); status 0 when nothing came back.
HttpAnswer http_post(const std::string& url, const std::string& body);

// A program started with its output in files, ended by SIGTERM (SIGKILL after 10 s) with its owner.
class ChildProcess {
public:
    explicit ChildProcess(std::vector<std::string> arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool running();
    // Stops the program (once) and returns its wait status.
    int stop();
    std::string output() const { return read_file(m_directory + "/out"); }
    std::string errors() const { return read_file(m_directory + "/err"); }
    std::string file(const std::string& name) const { return m_directory + "/" + name; }

private:
    std::string m_directory;
    pid_t m_pid = -1;
    int m_status = 0;
};

// A loopback port nobody listened on a moment ago.
int free_loopback_port();
// Waits up to 20 s for a listener on the loopback port.
bool wait_for_listener(int port, ChildProcess& process);

// The simulator on a free loopback port, stopped (and checked for a clean exit) with its owner.
class Simulator {
public:
    explicit Simulator(std::vector<std::string> options = {});
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    int port() const { return m_port; }
    std::string url(const std::string& path) const;
    // Queues the next answer for `path`; `parameters` are further query parameters, e.g. "status=500".
    void answer(const std::string& path, const std::string& body, const std::string& parameters = "");
    // What the simulator received on `path`, oldest first: {method, path, headers, body} each.
    nlohmann::json requests(const std::string& path) const;
    std::string log() const { return m_process->output(); }

private:
    int m_port;
    std::string m_scheme;
    std::unique_ptr<ChildProcess> m_process;
};

// A header's values in a recorded request, in arrival order (names compared without case).
std::vector<std::string> header_values(const nlohmann::json& request, const std::string& name);

#endif
