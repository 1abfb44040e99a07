// The command-line host and the example hosts, run as child processes: first on their own,
// then against the AFIP simulator over HTTPS.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "support/certificates.h"
#include "support/child_process.h"

namespace {

using namespace std::chrono_literals;

const std::string binary_dir = TARVO_BINARY_DIR;
const std::string source_dir = TARVO_SOURCE_DIR;
const std::string cli_program = binary_dir + "/tools/cli/tarvoafip_cli";
const std::string simulator_program = binary_dir + "/tools/simulator/afip_simulator";
const std::string c_example = binary_dir + "/examples/minimal_host";
const std::string python_example = source_dir + "/examples/python/minimal_host.py";
const std::string samples_dir = source_dir + "/tools/cli/samples";
const std::string argentina_time_zone = "TZ=<-03>3";
const std::string certificate_password = "test-password";
const auto child_limit = 30s;

const std::string fault_request = "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                                  "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Body>"
                                  "<ar:FENoSuchOperation/></soapenv:Body></soapenv:Envelope>";

void require_program(const std::string& path)
{
    ASSERT_TRUE(std::filesystem::exists(path)) << path << " was not built";
}

ChildResult run_cli(std::vector<std::string> arguments, const std::string& input = "",
                    std::vector<std::string> environment = {argentina_time_zone}, const std::string& directory = "")
{
    arguments.insert(arguments.begin(), cli_program);
    return run_child({arguments, environment, directory, input}, child_limit);
}

std::string describe(const ChildResult& result)
{
    std::ostringstream text;
    text << "exit " << result.exit_code << ", signal " << result.signal << (result.timed_out ? ", timed out" : "")
         << "\n--- stdout ---\n"
         << result.standard_output << "\n--- stderr ---\n"
         << result.standard_error;
    return text.str();
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

size_t count_lines_containing(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (const std::string& line : lines_of(text))
        if (line.find(part) != std::string::npos)
            ++count;
    return count;
}

// An instrumented library can only be loaded into python3 with the sanitizer runtime preloaded.
std::vector<std::string> python_environment()
{
    std::vector<std::string> environment{argentina_time_zone};
#if defined(__SANITIZE_ADDRESS__)
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const size_t path = line.find('/');
        if (path != std::string::npos && line.find("libasan.so", path) != std::string::npos) {
            environment.push_back("LD_PRELOAD=" + line.substr(path));
            environment.push_back("ASAN_OPTIONS=detect_leaks=0"); // the interpreter's own leaks are not ours
            break;
        }
    }
#endif
    return environment;
}

// ---------------------------------------------------------------------------------------------
// The command-line host on its own: options, exit statuses, messages. No network.

class CliAlone : public ::testing::Test {
protected:
    void SetUp() override { require_program(cli_program); }
};

TEST_F(CliAlone, ReportsBadUsageWithStatus64)
{
    const std::vector<std::vector<std::string>> bad = {
        {"--no-such-option"},         {"--url"},     {"--tls-level", "three"},      {"--timeout-ms", "-1"},
        {"--timeout-ms", "4294967296"}, {"--log=yes"}, {"--tls-level", "2147483648"}, {"--timeout-ms", " 5"}};
    for (const auto& arguments : bad) {
        const ChildResult result = run_cli(arguments);
        EXPECT_EQ(result.exit_code, 64) << arguments[0] << "\n" << describe(result);
        EXPECT_NE(result.standard_error.find("tarvoafip_cli: "), std::string::npos) << describe(result);
        EXPECT_EQ(result.standard_output, "");
    }
}

TEST_F(CliAlone, LoadsTheLibraryBesideItselfOrTheOneGiven)
{
    const ChildResult found = run_cli({"--version"});
    EXPECT_EQ(found.exit_code, 0) << describe(found);
    EXPECT_EQ(found.standard_output, "libtarvoafipdriver 1.0.0\n");

    const ChildResult missing = run_cli({"--library", "/nonexistent/libtarvoafipdriver.so", "--version"});
    EXPECT_EQ(missing.exit_code, 69) << describe(missing);
    EXPECT_NE(missing.standard_error.find("/nonexistent/libtarvoafipdriver.so"), std::string::npos);
}

// Each option must reach its own setter: the library's check order then names the one missing.
TEST_F(CliAlone, OptionsReachTheirSettersInTheCheckOrder)
{
    const std::string request = "<a/>";
    struct Case {
        std::vector<std::string> arguments;
        int result;
        const char* explanation;
    };
    const std::vector<Case> cases = {
        {{}, 7, "result 7: no WSAA address: give --wsaa-url"},
        {{"--wsaa-url", "https://127.0.0.1:1/"}, 1, "result 1: "},
        {{"--wsaa-url=https://127.0.0.1:1/", "--password", "p"}, 1, "result 1: "},
        {{"--wsaa-url", "https://127.0.0.1:1/", "--certificate", "c.p12"}, 8, "result 8: no WSAA service name"},
        {{"--wsaa-url", "u", "--certificate", "c.p12", "--service", "wsfe"}, 12, "result 12: no web-service address"},
    };
    for (const Case& test : cases) {
        const ChildResult result = run_cli(test.arguments, request);
        EXPECT_EQ(result.exit_code, test.result) << describe(result);
        EXPECT_NE(result.standard_error.find(std::string("tarvoafip_cli: ") + test.explanation), std::string::npos)
            << describe(result);
    }
}

TEST_F(CliAlone, RequestComesFromStandardInputOrAFile)
{
    TempDir directory;
    const std::vector<std::string> settings = {"--wsaa-url", "u", "--certificate", "c", "--service", "s",
                                               "--url", "v"};
    auto with = [&](std::vector<std::string> extra) {
        std::vector<std::string> arguments = settings;
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return arguments;
    };

    ChildResult result = run_cli(settings, "not XML");
    EXPECT_EQ(result.exit_code, 13) << describe(result);
    EXPECT_NE(result.standard_error.find("result 13: the request is not well-formed XML"), std::string::npos);

    result = run_cli(with({"--request", "-"}), "still not XML");
    EXPECT_EQ(result.exit_code, 13) << describe(result);

    write_file(directory.file("bad.xml"), "<unclosed>");
    result = run_cli(with({"--request", directory.file("bad.xml")}), "<fine/>");
    EXPECT_EQ(result.exit_code, 13) << "the file, not standard input, must be sent\n" << describe(result);

    result = run_cli(with({"--request", directory.file("missing.xml")}));
    EXPECT_EQ(result.exit_code, 66) << describe(result);
    EXPECT_NE(result.standard_error.find("missing.xml"), std::string::npos);
}

TEST_F(CliAlone, WarnsWhenTheTimeZoneIsNotArgentinas)
{
    const ChildResult utc = run_cli({}, "<a/>", {"TZ=UTC"});
    EXPECT_EQ(utc.exit_code, 7);
    EXPECT_NE(utc.standard_error.find("tarvoafip_cli: warning: this process runs at UTC+00:00"), std::string::npos)
        << describe(utc);

    const ChildResult east = run_cli({}, "<a/>", {"TZ=<+0530>-5:30"});
    EXPECT_NE(east.standard_error.find("runs at UTC+05:30"), std::string::npos) << describe(east);

    const ChildResult argentina = run_cli({}, "<a/>", {argentina_time_zone});
    EXPECT_EQ(argentina.exit_code, 7);
    EXPECT_EQ(argentina.standard_error.find("warning"), std::string::npos) << describe(argentina);
    EXPECT_EQ(lines_of(argentina.standard_error).size(), 1u) << describe(argentina);
}

// ---------------------------------------------------------------------------------------------
// Against the simulator over HTTPS; each test in a working directory of its own.

int closed_loopback_port()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(listener);
    return ntohs(address.sin_port);
}

// An Argentina wall-clock time (UTC-03:00) `seconds_ago` before now, in WSAA's form.
std::string argentina_time_ago(long seconds_ago)
{
    const std::time_t when = std::time(nullptr) - seconds_ago - 3 * 3600;
    std::tm fields{};
    gmtime_r(&when, &fields);
    char text[64];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S.000-03:00", &fields);
    return text;
}

class AgainstSimulator : public ::testing::Test {
protected:
    void SetUp() override
    {
        require_program(cli_program);
        require_program(simulator_program);
        const ChildResult made = run_child({{simulator_program, "--make-certificate", m_certificate,
                                             "--password", certificate_password}, {}, "", ""},
                                           child_limit);
        ASSERT_EQ(made.exit_code, 0) << describe(made);
    }

    void TearDown() override
    {
        if (m_simulator) {
            const ChildResult stopped = m_simulator->stop(5s);
            if (HasFailure())
                std::cerr << "simulator output:\n" << stopped.standard_output << stopped.standard_error;
        }
    }

    void start_simulator(const std::vector<std::string>& extra = {})
    {
        const std::string port_file = m_keys.file("port");
        std::vector<std::string> arguments = {simulator_program, "--tls", "--host", "127.0.0.1", "--port", "0",
                                              "--port-file", port_file, "--max-seconds", "60"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        m_simulator = std::make_unique<ChildProcess>(ChildSpec{arguments, {argentina_time_zone}, m_keys.path(), ""});

        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (std::chrono::steady_clock::now() < deadline) {
            std::ifstream file(port_file);
            std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            if (!text.empty() && text.back() == '\n') {
                m_port = std::stoi(text);
                return;
            }
            ASSERT_TRUE(m_simulator->running()) << "simulator ended early:\n" << m_simulator->standard_error();
            std::this_thread::sleep_for(20ms);
        }
        FAIL() << "simulator wrote no port file:\n" << m_simulator->standard_error();
    }

    std::string base_url() const { return "https://127.0.0.1:" + std::to_string(m_port); }
    std::string wsaa_url() const { return base_url() + "/ws/services/LoginCms"; }
    std::string service_url() const { return base_url() + "/wsfev1/service.asmx"; }

    std::vector<std::string> settings() const
    {
        return {"--wsaa-url", wsaa_url(),    "--certificate", m_certificate, "--password",
                certificate_password, "--service", "wsfe", "--url", service_url()};
    }

    ChildResult cli(std::vector<std::string> extra, const std::string& request)
    {
        std::vector<std::string> arguments = settings();
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return run_cli(arguments, request, {argentina_time_zone}, m_work.path());
    }

    ChildResult cli_with_sample(const std::string& sample, std::vector<std::string> extra = {})
    {
        extra.push_back("--request");
        extra.push_back(samples_dir + "/" + sample);
        return cli(extra, "");
    }

    std::string simulator_output() const { return m_simulator->standard_output(); }
    size_t login_requests() const { return count_lines_containing(simulator_output(), "LoginCms"); }
    size_t service_requests() const { return count_lines_containing(simulator_output(), "service.asmx"); }
    std::string cache_path() const { return m_work.file("credentials.json"); }
    nlohmann::json cache() const { return nlohmann::json::parse(read_file(cache_path())); }

    TempDir m_keys; // the certificate and the port file, outside the working directory
    TempDir m_work; // the hosts' working directory: credentials.json appears here
    const std::string m_certificate = m_keys.file("client.p12");
    std::unique_ptr<ChildProcess> m_simulator;
    int m_port = 0;
};

void expect_last_voucher_answer(const ChildResult& result)
{
    EXPECT_EQ(result.exit_code, 0) << describe(result);
    EXPECT_NE(result.standard_output.find("FECompUltimoAutorizadoResponse"), std::string::npos) << describe(result);
    EXPECT_NE(result.standard_output.find("CbteNro>"), std::string::npos) << describe(result);
    EXPECT_EQ(result.standard_output.find("<Errors>"), std::string::npos) << "token or sign refused\n"
                                                                           << describe(result);
}

TEST_F(AgainstSimulator, FirstCallLogsInWritesThePrivateCacheAndSendsHeadersInOrder)
{
    start_simulator();
    const ChildResult result = cli_with_sample(
        "fe_comp_ultimo_autorizado.xml",
        {"--header", "X-Tarvo-First: 1", "--header", "X-Tarvo-Second: 2", "--log-file", m_keys.file("log")});
    expect_last_voucher_answer(result);
    EXPECT_EQ(login_requests(), 1u) << simulator_output();
    EXPECT_EQ(service_requests(), 1u) << simulator_output();

    struct stat status {};
    ASSERT_EQ(::stat(cache_path().c_str(), &status), 0) << "no credentials.json in the working directory";
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    const nlohmann::json entry = cache().at("wsfe");
    for (const char* member : {"token", "sign", "expired"})
        EXPECT_FALSE(entry.at(member).get<std::string>().empty()) << member;

    const std::string log = read_file(m_keys.file("log"));
    const size_t content_type = log.find("Content-Type: text/xml;charset=UTF-8");
    const size_t first = log.find("X-Tarvo-First: 1");
    const size_t second = log.find("X-Tarvo-Second: 2");
    ASSERT_NE(second, std::string::npos) << log;
    EXPECT_LT(content_type, first);
    EXPECT_LT(first, second);
}

TEST_F(AgainstSimulator, SecondCallReusesTheCachedTicket)
{
    start_simulator();
    expect_last_voucher_answer(cli_with_sample("fe_comp_ultimo_autorizado.xml"));
    const std::string cached = read_file(cache_path());

    expect_last_voucher_answer(cli_with_sample("fe_comp_ultimo_autorizado.xml"));
    EXPECT_EQ(login_requests(), 1u) << simulator_output();
    EXPECT_EQ(service_requests(), 2u) << simulator_output();
    EXPECT_EQ(read_file(cache_path()), cached);
}

TEST_F(AgainstSimulator, StaleCacheLogsInAgain)
{
    start_simulator({"--ticket-seconds", "1"});
    expect_last_voucher_answer(cli_with_sample("fe_comp_ultimo_autorizado.xml"));

    nlohmann::json stale = cache();
    const std::string stale_time = argentina_time_ago(2 * 3600);
    stale["wsfe"]["expired"] = stale_time;
    write_file(cache_path(), stale.dump(4) + "\n");
    std::this_thread::sleep_for(2s); // past the simulator's own ticket lifetime, so it issues a new one

    expect_last_voucher_answer(cli_with_sample("fe_comp_ultimo_autorizado.xml"));
    EXPECT_EQ(login_requests(), 2u) << simulator_output();
    EXPECT_NE(cache().at("wsfe").at("expired").get<std::string>(), stale_time);
}

TEST_F(AgainstSimulator, DeletedCacheWhileWsaaHoldsAValidTicketGives9)
{
    start_simulator();
    expect_last_voucher_answer(cli_with_sample("fe_comp_ultimo_autorizado.xml"));
    ASSERT_TRUE(std::filesystem::remove(cache_path()));

    const ChildResult result = cli_with_sample("fe_comp_ultimo_autorizado.xml");
    EXPECT_EQ(result.exit_code, 9) << describe(result);
    EXPECT_NE(result.standard_error.find("tarvoafip_cli: result 9: WSAA already holds a valid ticket for this "
                                         "certificate and service; wait until it expires or restore "
                                         "credentials.json"),
              std::string::npos)
        << describe(result);
    EXPECT_EQ(result.standard_output, "");
    EXPECT_EQ(login_requests(), 2u) << simulator_output();
    EXPECT_EQ(service_requests(), 1u) << simulator_output();
}

TEST_F(AgainstSimulator, SlowServiceTimesOutWith15AndNothingKept)
{
    start_simulator({"--service-delay-ms", "3000"});
    const auto started = std::chrono::steady_clock::now();
    const ChildResult result =
        cli_with_sample("fe_dummy.xml", {"--timeout-ms", "500", "--log", "--log-file", m_keys.file("log")});
    const auto elapsed = std::chrono::steady_clock::now() - started;

    EXPECT_EQ(result.exit_code, 15) << describe(result);
    EXPECT_EQ(result.standard_output, "");
    EXPECT_EQ(read_file(m_keys.file("log")), "");
    // --log printed nothing: the only line is the explanation.
    EXPECT_EQ(lines_of(result.standard_error), std::vector<std::string>{"tarvoafip_cli: result 15: the service did "
                                                                         "not answer within the time-out; nothing "
                                                                         "was kept"});
    EXPECT_LT(elapsed, 2500ms);
}

TEST_F(AgainstSimulator, NonXmlAnswerGives14WithAnswerAndLogReadable)
{
    start_simulator({"--non-xml-answer"});
    const ChildResult result = cli_with_sample("fe_dummy.xml", {"--log", "--log-file", m_keys.file("log")});
    EXPECT_EQ(result.exit_code, 14) << describe(result);
    EXPECT_FALSE(result.standard_output.empty()) << describe(result);
    const std::string log = read_file(m_keys.file("log"));
    EXPECT_NE(log.find("POST /wsfev1/service.asmx"), std::string::npos) << log;
    EXPECT_NE(log.find(result.standard_output), std::string::npos) << "the log holds the answer body too";
    // --log: the same log on standard error, then the explanation.
    EXPECT_EQ(result.standard_error, log + "tarvoafip_cli: result 14: the service's answer is not well-formed XML, "
                                           "or there was none (see --log)\n");
}

TEST_F(AgainstSimulator, SoapFaultWithStatus500Gives0)
{
    start_simulator();
    const ChildResult result = cli({"--log-file", m_keys.file("log")}, fault_request);
    EXPECT_EQ(result.exit_code, 0) << describe(result);
    EXPECT_NE(result.standard_output.find("Fault"), std::string::npos) << describe(result);
    EXPECT_NE(result.standard_output.find("faultstring"), std::string::npos) << describe(result);
    EXPECT_NE(read_file(m_keys.file("log")).find("HTTP/1.1 500"), std::string::npos);
}

TEST_F(AgainstSimulator, ProxyOptionIsApplied)
{
    start_simulator();
    const std::string proxy = "http://127.0.0.1:" + std::to_string(closed_loopback_port());
    const ChildResult result = cli_with_sample("fe_dummy.xml", {"--proxy", proxy, "--proxy-user", "u"});
    EXPECT_EQ(result.exit_code, 17) << "WSAA must be tried through the dead proxy\n" << describe(result);
    EXPECT_EQ(login_requests(), 0u) << simulator_output();
}

// ---------------------------------------------------------------------------------------------
// The example hosts against the simulator.

class ExampleHosts : public AgainstSimulator {
protected:
    std::vector<std::string> positional_settings(const std::string& sample) const
    {
        return {wsaa_url(), m_certificate, certificate_password, "wsfe", service_url(), samples_dir + "/" + sample};
    }
};

TEST_F(ExampleHosts, CHostCompletesBothOperations)
{
    require_program(c_example);
    start_simulator();
    std::vector<std::string> arguments = positional_settings("fe_dummy.xml");
    arguments.insert(arguments.begin(), c_example);
    ChildResult result = run_child({arguments, {argentina_time_zone}, m_work.path(), ""}, child_limit);
    EXPECT_EQ(result.exit_code, 0) << describe(result);
    EXPECT_NE(result.standard_output.find("FEDummyResponse"), std::string::npos) << describe(result);

    // This time every setting from the environment.
    const std::vector<std::string> values = positional_settings("fe_comp_ultimo_autorizado.xml");
    const char* names[] = {"TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD",
                           "TARVO_SERVICE",  "TARVO_SERVICE_URL", "TARVO_REQUEST"};
    std::vector<std::string> environment = {argentina_time_zone};
    for (size_t index = 0; index < values.size(); ++index)
        environment.push_back(std::string(names[index]) + "=" + values[index]);
    result = run_child({{c_example}, environment, m_work.path(), ""}, child_limit);
    expect_last_voucher_answer(result);
    EXPECT_EQ(login_requests(), 1u) << simulator_output();
}

TEST_F(ExampleHosts, PythonHostCompletesBothOperations)
{
    start_simulator();
    for (const char* sample : {"fe_dummy.xml", "fe_comp_ultimo_autorizado.xml"}) {
        const bool first = std::string(sample) == "fe_dummy.xml";
        // The library's path once as an option, once from the environment.
        std::vector<std::string> environment = python_environment();
        std::vector<std::string> arguments = positional_settings(sample);
        arguments.insert(arguments.begin(), {"python3", python_example});
        if (first)
            arguments.insert(arguments.begin() + 2, {"--library", TARVO_SHARED_LIBRARY_PATH});
        else
            environment.push_back("TARVO_LIBRARY=" TARVO_SHARED_LIBRARY_PATH);
        const ChildResult result = run_child({arguments, environment, m_work.path(), ""}, child_limit);
        EXPECT_EQ(result.exit_code, 0) << describe(result);
        if (first)
            EXPECT_NE(result.standard_output.find("FEDummyResponse"), std::string::npos) << describe(result);
        else
            expect_last_voucher_answer(result);
    }
    EXPECT_EQ(login_requests(), 1u) << simulator_output();
}

} // namespace
