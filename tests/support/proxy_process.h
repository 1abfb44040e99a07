#ifndef TARVO_TESTS_SUPPORT_PROXY_PROCESS_H
#define TARVO_TESTS_SUPPORT_PROXY_PROCESS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>

#include "support/certificates.h"

// Path of the tinyproxy binary, or empty when it is not installed.
std::string find_tinyproxy();

// A real HTTP proxy (tinyproxy, foreground) on a free loopback port with basic authentication,
// running as a child process. It is killed by the destructor, by SIGKILL when this process dies,
// and by SIGALRM once its lifetime has passed, so it never outlives the test by much.
// Throws std::runtime_error when the binary is missing or the proxy does not come up.
class ProxyProcess {
public:
    ProxyProcess(const std::string& user, const std::string& password,
                 std::chrono::seconds lifetime = std::chrono::seconds(60));
    ~ProxyProcess();
    ProxyProcess(const ProxyProcess&) = delete;
    ProxyProcess& operator=(const ProxyProcess&) = delete;

    uint16_t port() const { return m_port; }
    // "http://127.0.0.1:PORT"
    std::string url() const;
    // What the proxy printed so far (its log goes to stderr in foreground mode).
    std::string output() const;

private:
    void wait_until_listening();

    TempDir m_directory;
    uint16_t m_port = 0;
    pid_t m_pid = -1;
};

#endif
