#include "support/proxy_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/test_server.h"

namespace {

constexpr std::chrono::seconds start_time_limit{10};

bool accepts_connections(uint16_t port)
{
    const int socket_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_fd < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool connected = ::connect(socket_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(socket_fd);
    return connected;
}

} // namespace

std::string find_tinyproxy()
{
    std::vector<std::string> directories;
    if (const char* path = std::getenv("PATH")) {
        std::istringstream entries(path);
        for (std::string entry; std::getline(entries, entry, ':');)
            if (!entry.empty())
                directories.push_back(entry);
    }
    directories.insert(directories.end(), {"/usr/bin", "/usr/sbin", "/usr/local/bin"});
    for (const std::string& directory : directories) {
        const std::string candidate = directory + "/tinyproxy";
        if (::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return {};
}

ProxyProcess::ProxyProcess(const std::string& user, const std::string& password, std::chrono::seconds lifetime)
{
    const std::string binary = find_tinyproxy();
    if (binary.empty())
        throw std::runtime_error("tinyproxy is not installed: the proxy tests need Debian's tinyproxy package "
                                 "(scripts/install-deps.sh installs it)");
    m_port = unused_loopback_port();
    const std::string config_path = m_directory.file("tinyproxy.conf");
    write_file(config_path, "Listen 127.0.0.1\n"
                            "Port " + std::to_string(m_port) + "\n"
                            "Timeout 30\n"
                            "MaxClients 16\n"
                            "Allow 127.0.0.1\n"
                            "BasicAuth " + user + " " + password + "\n"
                            "LogLevel Info\n");

    // Everything the child needs is prepared here: between fork and exec only async-signal-safe calls.
    const std::string output_path = m_directory.file("tinyproxy.out");
    const int output_fd = ::open(output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int null_fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (output_fd < 0 || null_fd < 0)
        throw std::runtime_error("cannot open the proxy's output files");
    std::vector<char*> arguments{const_cast<char*>(binary.c_str()), const_cast<char*>("-d"),
                                 const_cast<char*>("-c"), const_cast<char*>(config_path.c_str()), nullptr};
    const pid_t parent = ::getpid();
    const unsigned int alarm_seconds = static_cast<unsigned int>(lifetime.count());

    m_pid = ::fork();
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(126);
        // Survives exec: ends the proxy after its lifetime whatever happens to the test.
        std::signal(SIGALRM, SIG_DFL);
        ::alarm(alarm_seconds);
        ::dup2(null_fd, STDIN_FILENO);
        ::dup2(output_fd, STDOUT_FILENO);
        ::dup2(output_fd, STDERR_FILENO);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    ::close(output_fd);
    ::close(null_fd);
    if (m_pid < 0)
        throw std::runtime_error("fork failed for tinyproxy");
    wait_until_listening();
}

ProxyProcess::~ProxyProcess()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

void ProxyProcess::wait_until_listening()
{
    const auto until = std::chrono::steady_clock::now() + start_time_limit;
    std::string problem;
    while (problem.empty()) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            problem = "tinyproxy exited at start-up";
        } else if (accepts_connections(m_port)) {
            return;
        } else if (std::chrono::steady_clock::now() >= until) {
            problem = "tinyproxy did not listen on port " + std::to_string(m_port) + " in time";
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    // The destructor will not run for a constructor that throws.
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    throw std::runtime_error(problem + "; its output:\n" + output());
}

std::string ProxyProcess::url() const
{
    return "http://127.0.0.1:" + std::to_string(m_port);
}

std::string ProxyProcess::output() const
{
    try {
        return read_file(m_directory.file("tinyproxy.out"));
    } catch (const std::exception&) {
        return {};
    }
}
