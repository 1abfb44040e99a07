#include "support/support.h"

#include "driver/afip_driver_exception.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace {

using namespace std::chrono_literals;

std::string make_temporary_directory()
{
    char pattern[] = "/tmp/tarvo-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    return pattern;
}

size_t collect(char* data, size_t size, size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

// Connects to (probe) or binds (pick) a loopback port; for binding, port 0 picks a free one.
int loopback_socket(int port, bool probe)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t length = sizeof address;
    const auto* generic = reinterpret_cast<sockaddr*>(&address);
    const bool done = probe ? connect(fd, generic, length) == 0
                            : bind(fd, generic, length) == 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    close(fd);
    return done ? ntohs(address.sin_port) : -1;
}

} // namespace

Workspace::Workspace() : m_path(make_temporary_directory())
{
    char previous[PATH_MAX];
    if (getcwd(previous, sizeof previous) == nullptr || chdir(m_path.c_str()) != 0)
        throw std::runtime_error("cannot enter " + m_path);
    m_previous = previous;
}

Workspace::~Workspace()
{
    if (chdir(m_previous.c_str()) != 0)
        ADD_FAILURE() << "cannot go back to " << m_previous;
    std::filesystem::remove_all(m_path);
}

int32_t code_of(const std::function<void()>& action)
{
    try {
        action();
    } catch (const afip_driver_exception& error) {
        EXPECT_STREQ(error.what(), "");
        return error.get_error();
    }
    return 0;
}

std::string fixture(const std::string& name)
{
    return std::string(TARVO_FIXTURES_DIR) + "/" + name;
}

void use_time_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

long http_post(const std::string& url, const std::string& body, std::string* answer)
{
    std::string ignored;
    long status = 0;
    CURL* curl = curl_easy_init();
    // Not libcurl's default form type, which the simulator's server library limits to 8 KiB.
    curl_slist* content_type = curl_slist_append(nullptr, "Content-Type: application/octet-stream");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, content_type);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_CIPHER_LIST, "DEFAULT@SECLEVEL=1"); // a --legacy-tls simulator too
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, answer != nullptr ? answer : &ignored);
    if (curl_easy_perform(curl) == CURLE_OK)
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(content_type);
    return status;
}

ServerProcess::ServerProcess(std::vector<std::string> arguments)
    : m_directory(make_temporary_directory()), m_port(loopback_socket(0, false))
{
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        if (const size_t at = argument.find("{port}"); at != std::string::npos)
            argument.replace(at, 6, std::to_string(m_port));
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, m_directory.c_str());
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "out", O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, "err", O_WRONLY | O_CREAT, 0600);
    const int failed = posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    // Generous: under emulation a server's start-up key generation alone can take many seconds.
    for (auto deadline = std::chrono::steady_clock::now() + 120s; !failed && running() && loopback_socket(m_port, true) < 0;) {
        if (std::chrono::steady_clock::now() > deadline)
            stop();
        std::this_thread::sleep_for(10ms);
    }
    if (failed || !running()) {
        const std::string why = arguments[0] + " did not start: " + errors();
        std::filesystem::remove_all(m_directory);
        throw std::runtime_error(why);
    }
}

ServerProcess::~ServerProcess()
{
    stop();
    std::filesystem::remove_all(m_directory);
}

bool ServerProcess::running()
{
    if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid)
        m_pid = -1;
    return m_pid > 0;
}

int ServerProcess::stop()
{
    if (running())
        kill(m_pid, SIGTERM);
    for (int waited = 0; running(); ++waited) {
        if (waited == 1000)
            kill(m_pid, SIGKILL);
        std::this_thread::sleep_for(10ms);
    }
    return m_status;
}

Tinyproxy::Tinyproxy()
    : ServerProcess({"timeout", "120", "sh", "-c",
                     "printf 'Listen 127.0.0.1\\nPort {port}\\nTimeout 30\\nAllow 127.0.0.1\\nBasicAuth tarvo s3cret\\n'"
                     " >tinyproxy.conf && exec tinyproxy -d -c tinyproxy.conf"})
{
}

// libcurl falls back to the proxy variables when a handle has no proxy of its own: cleared first.
Simulator::Simulator(std::vector<std::string> options)
    : ServerProcess([&] {
          for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
              unsetenv(name);
          std::vector<std::string> arguments{TARVO_SIMULATOR_PATH, "--port", "{port}", "--max-seconds", "300"};
          arguments.insert(arguments.end(), options.begin(), options.end());
          return arguments;
      }()),
      m_scheme(std::find(options.begin(), options.end(), "--tls") != options.end() ? "https" : "http")
{
}

Simulator::~Simulator()
{
    // A crash or a sanitizer report in the simulator fails the test that ran it.
    const int status = stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "simulator status " << status;
    EXPECT_EQ(errors(), "");
}

std::string Simulator::url(const std::string& path) const
{
    return m_scheme + "://127.0.0.1:" + std::to_string(port()) + path;
}

void Simulator::answer(const std::string& path, const std::string& body, const std::string& parameters)
{
    std::string refusal;
    if (http_post(url("/simulator/answers?path=" + path + (parameters.empty() ? "" : "&" + parameters)), body, &refusal) != 200)
        throw std::runtime_error("the simulator refused the answer: " + refusal);
}

nlohmann::json Simulator::requests(const std::string& path) const
{
    std::string list;
    http_post(url("/simulator/requests?path=" + path), "", &list);
    return nlohmann::json::parse(list);
}

std::vector<std::string> header_values(const nlohmann::json& request, const std::string& name)
{
    std::vector<std::string> values;
    for (const auto& header : request.at("headers"))
        if (strcasecmp(header[0].get<std::string>().c_str(), name.c_str()) == 0)
            values.push_back(header[1]);
    return values;
}
