#include "bench_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <curl/curl.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace {

std::vector<char*> argv_of(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions;
};

pid_t spawn(const std::vector<std::string>& arguments, const std::string& output_path)
{
    SpawnActions actions;
    posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO,
                                     output_path.empty() ? "/dev/null" : output_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> copy = arguments;
    std::vector<char*> argv = argv_of(copy);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], actions.get(), nullptr, argv.data(), environ);
    if (error != 0)
        throw std::runtime_error("cannot start " + arguments[0] + ": " + std::strerror(error));
    return pid;
}

int wait_for(pid_t pid)
{
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Owns one file descriptor.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
    ~Descriptor()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};

std::string http_answer(const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: text/xml; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

size_t content_length_of(const std::string& head)
{
    std::string lower = head;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const size_t found = lower.find("\r\ncontent-length:");
    return found == std::string::npos ? 0 : std::strtoul(lower.c_str() + found + 17, nullptr, 10);
}

// Reads one request; returns its target ("" when the peer went away).
std::string read_request(int connection)
{
    std::string data;
    char chunk[65536];
    size_t head_end = std::string::npos;
    size_t wanted = 0;
    for (;;) {
        if (head_end == std::string::npos) {
            head_end = data.find("\r\n\r\n");
            if (head_end != std::string::npos)
                wanted = head_end + 4 + content_length_of(data.substr(0, head_end + 2));
        }
        if (head_end != std::string::npos && data.size() >= wanted)
            break;
        const ssize_t got = ::recv(connection, chunk, sizeof chunk, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return "";
        data.append(chunk, static_cast<size_t>(got));
    }
    const size_t start = data.find(' ');
    const size_t end = data.find(' ', start + 1);
    return data.substr(start + 1, end - start - 1);
}

void send_all(int connection, const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t sent = ::send(connection, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return;
        done += static_cast<size_t>(sent);
    }
}

[[noreturn]] void serve_forever(int listener, const std::string& small_answer, size_t large_bytes)
{
    const std::string small = http_answer(small_answer);
    const std::string records = http_answer(records_answer(large_bytes));
    const std::string text = http_answer(text_answer(large_bytes));
    for (;;) {
        const int connection = ::accept(listener, nullptr, nullptr);
        if (connection < 0)
            continue;
        const std::string target = read_request(connection);
        if (!target.empty())
            send_all(connection, target == "/records" ? records : target == "/text" ? text : small);
        ::shutdown(connection, SHUT_WR);
        ::close(connection);
    }
}

std::string envelope_head(const char* operation)
{
    return std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                       "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body><") +
           operation + " xmlns=\"http://ar.gov.afip.dif.FEV1/\">";
}

std::string envelope_tail(const char* operation)
{
    return std::string("</") + operation + "></soap:Body></soap:Envelope>";
}

} // namespace

TempDirectory::TempDirectory()
{
    char pattern[] = "/tmp/tarvo-bench.XXXXXX";
    if (::mkdtemp(pattern) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDirectory::~TempDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

int run_program(const std::vector<std::string>& arguments, const std::string& output_path)
{
    return wait_for(spawn(arguments, output_path));
}

BackgroundProgram::BackgroundProgram(const std::vector<std::string>& arguments, const std::string& output_path)
    : m_pid(spawn(arguments, output_path))
{
}

BackgroundProgram::~BackgroundProgram()
{
    ::kill(m_pid, SIGTERM);
    wait_for(m_pid);
}

Simulator::Simulator(const std::string& program, const std::string& directory, const std::string& services,
                     unsigned max_seconds, const std::vector<std::string>& options, const std::string& log_path)
    : m_process(
          [&] {
              std::vector<std::string> arguments{program,     "--port",           "0",
                                                 "--port-file", directory + "/simulator.port", "--services",
                                                 services,    "--ticket-seconds", "1",
                                                 "--max-seconds", std::to_string(max_seconds)};
              arguments.insert(arguments.end(), options.begin(), options.end());
              return arguments;
          }(),
          log_path)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string text = read_file(directory + "/simulator.port");
        if (!text.empty() && text.back() == '\n') {
            m_port = static_cast<uint16_t>(std::stoi(text));
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("the simulator did not start");
}

std::string Simulator::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

CannedServer::CannedServer(std::string small_answer, size_t large_answer_bytes, unsigned lifetime_seconds)
{
    Descriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener.get() < 0 || ::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 64) != 0 ||
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("cannot listen on loopback");
    m_port = ntohs(address.sin_port);

    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid < 0)
        throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        // Bounded even if the parent is killed before it can stop us.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(0);
        ::alarm(lifetime_seconds);
        serve_forever(listener.get(), small_answer, large_answer_bytes);
    }
}

CannedServer::~CannedServer()
{
    ::kill(m_pid, SIGTERM);
    wait_for(m_pid);
}

std::string CannedServer::url(const std::string& path) const
{
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

std::string records_answer(size_t bytes)
{
    const char* operation = "FEParamGetTiposCbteResponse";
    const std::string head = envelope_head(operation) + "<FEParamGetTiposCbteResult><ResultGet>";
    const std::string tail = "</ResultGet></FEParamGetTiposCbteResult>" + envelope_tail(operation);
    std::string answer = head;
    answer.reserve(bytes);
    for (uint64_t id = 1;; ++id) {
        const std::string number = std::to_string(id);
        const std::string record = "<CbteTipo><Id>" + number + "</Id><Desc>Comprobante tipo " + number +
                                   "</Desc><FchDesde>20100917</FchDesde><FchHasta>NULL</FchHasta></CbteTipo>";
        if (answer.size() + record.size() + tail.size() > bytes)
            break;
        answer += record;
    }
    // Whitespace between elements keeps the size exact and the document well-formed.
    answer.append(bytes - answer.size() - tail.size(), ' ');
    answer += tail;
    return answer;
}

std::string text_answer(size_t bytes)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* operation = "ConsultarArchivoResponse";
    const std::string head = envelope_head(operation) + "<Archivo>";
    const std::string tail = "</Archivo>" + envelope_tail(operation);
    std::string answer = head;
    answer.reserve(bytes);
    for (size_t i = 0; answer.size() + tail.size() < bytes; ++i)
        answer += alphabet[(i * 7 + i / 64) % 64];
    answer += tail;
    return answer;
}

std::string read_file(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const std::string& path, const std::string& data)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << data;
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

void write_young_credentials(const std::string& directory, const std::string& service)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char generated[64];
    std::strftime(generated, sizeof generated, "%FT%T.000-03:00", &local);
    // Sizes of real credentials: about 500 characters of token, 172 of sign.
    const std::string token(512, 'T');
    const std::string sign(172, 'S');
    write_file(directory + "/credentials.json", "{\n    \"" + service + "\": {\n        \"expired\": \"" + generated +
                                                    "\",\n        \"sign\": \"" + sign + "\",\n        \"token\": \"" +
                                                    token + "\"\n    }\n}\n");
}

namespace {

struct BareCollector {
    CURL* handle;
    std::string* body;
};

size_t bare_write(void* data, size_t size, size_t count, void* user)
{
    auto* collector = static_cast<BareCollector*>(user);
    if (collector->body->empty()) {
        curl_off_t length = -1;
        if (curl_easy_getinfo(collector->handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK &&
            length > 0)
            collector->body->reserve(static_cast<size_t>(length));
    }
    collector->body->append(static_cast<const char*>(data), size * count);
    return size * count;
}

// Owns one easy handle and its header list.
class BareHandle {
public:
    BareHandle() : m_curl(curl_easy_init()) {}
    ~BareHandle()
    {
        curl_slist_free_all(m_headers);
        if (m_curl != nullptr)
            curl_easy_cleanup(m_curl);
    }
    BareHandle(const BareHandle&) = delete;
    BareHandle& operator=(const BareHandle&) = delete;
    CURL* get() const { return m_curl; }
    void add_header(const char* line) { m_headers = curl_slist_append(m_headers, line); }
    curl_slist* headers() const { return m_headers; }

private:
    CURL* m_curl;
    curl_slist* m_headers = nullptr;
};

} // namespace

long bare_curl_post(const std::string& url, const std::string& body, std::string& answer)
{
    BareHandle handle;
    if (handle.get() == nullptr)
        return -1;
    answer.clear();
    BareCollector collector{handle.get(), &answer};
    handle.add_header("Content-Type: text/xml;charset=UTF-8");
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, handle.headers());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, bare_write);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &collector);
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    if (curl_easy_perform(handle.get()) != CURLE_OK)
        return -1;
    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    return status;
}
