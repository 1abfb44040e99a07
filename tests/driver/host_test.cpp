// The twelve functions as a host uses them: the library loaded with dlopen, in a working directory
// of its own, against the simulator (real logins, or answers scripted per test).
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "support/support.h"
#include "tools/cli/driver_library.h"
#include "wsaa/tra.h"

namespace {

const char answer_document[] = "<r><AppServer>OK</AppServer></r>";
const char login_path[] = "/ws/services/LoginCms";

std::string local_time_ago(long seconds)
{
    return TRA::time_t_2_format_date(std::time(nullptr) - seconds);
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

class Host : public ::testing::Test {
protected:
    explicit Host(std::vector<std::string> simulator_options = {}) : simulator(std::move(simulator_options))
    {
        use_time_zone("<-03>3");
        driver.SetWSAA(simulator.url(login_path).c_str());
        driver.SetWSAACredentials(fixture("signer.p12").c_str(), "pw");
        driver.SetWSAAService("wsfe");
        driver.SetWSUrl(simulator.url("/ws").c_str());
    }

    void cache_young_ticket()
    {
        write_file("credentials.json", "{\"wsfe\": {\"expired\": \"" + local_time_ago(60) + "\", \"sign\": \"S\", \"token\": \"T\"}}");
    }

    // Sends `request` with the next service answer scripted; returns the result code.
    int32_t send(const std::string& request, const std::string& answer = answer_document, const std::string& parameters = "")
    {
        simulator.answer("/ws", answer, parameters);
        return driver.SendSOAP(request.c_str());
    }

    nlohmann::json last(const std::string& path) const { return simulator.requests(path).back(); }
    uint32_t stored_size(decltype(&ReceivedSOAP) copy) const
    {
        uint32_t size = 0xDEADBEEF;
        EXPECT_EQ(copy(nullptr, 0, &size), 0);
        return size;
    }

    Workspace workspace;
    Simulator simulator;
    LoadedDriver driver{TARVO_SHARED_LIBRARY_PATH};
};

class HostOverLegacyTls : public Host {
protected:
    HostOverLegacyTls() : Host({"--tls", "--legacy-tls"}) {}
};

} // namespace

TEST(Configuration, VersionChecksAndEmptyBuffers)
{
    LoadedDriver driver(TARVO_SHARED_LIBRARY_PATH);
    char version[8] = "xxxxxxx";
    driver.GetAFIPVersion(version);
    EXPECT_EQ(std::string(version, 7), std::string("1.0.0\0x", 7));
    for (auto copy : {driver.ReceivedSOAP, driver.GetVerboseTransfer}) {
        uint32_t size = 1234;
        char buffer[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(copy(nullptr, 0, &size) + size, 0u);
        size = 1234;
        EXPECT_EQ(copy(buffer, sizeof buffer, &size) + size, 0u);
        EXPECT_EQ(std::string(buffer, 4), "xxxx");
    }

    // Each setter reaches its own check; the first missing setting wins, an empty value unsets.
    const struct {
        void (*set)(LoadedDriver&);
        const char* request;
        int32_t result;
    } steps[] = {
        {[](LoadedDriver& d) { d.SetWSAAService("wsfe"); }, "not xml", 7},
        {[](LoadedDriver& d) { d.SetWSAA("http://127.0.0.1:1/"); }, "<a/>", 1},
        {[](LoadedDriver& d) { d.SetWSAACredentials("c.p12", ""); }, "<a/>", 12},
        {[](LoadedDriver& d) { d.SetWSUrl("http://127.0.0.1:1/"); }, "not xml", 13},
        {[](LoadedDriver& d) { d.SetWSUrl(""); }, "<open>", 12},
        {[](LoadedDriver& d) { d.SetWSUrl("v"); }, "", 13}, // an empty text has no root element
        {[](LoadedDriver& d) { d.SetWSAAService(""); }, "<a/>", 8},
        {[](LoadedDriver& d) { d.SetWSAACredentials("", "pw"); }, "<a/>", 1},
        {[](LoadedDriver& d) { d.SetWSAA(""); }, "<a/>", 7},
    };
    for (const auto& step : steps) {
        step.set(driver);
        EXPECT_EQ(driver.SendSOAP(step.request), step.result) << step.request;
    }
    try {
        driver.AddSOAPHeader(nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}

TEST_F(Host, WorkedCallLogsInFillsAndPostsOneLine)
{
    for (const char* line : {"SOAPAction: \"urn:x\"", "X-Twice: 1", "X-Twice: 1", "Content-Type: application/soap+xml"})
        driver.AddSOAPHeader(line);
    ASSERT_EQ(send("<?xml version=\"1.0\"?>\n<s:E xmlns:s=\"urn:s\" xmlns:ar=\"urn:a\">\n  <ar:Token></ar:Token>\n"
                   "  <ar:Sign>placeholder</ar:Sign>\n</s:E>\n"),
              0);

    const nlohmann::json login = last(login_path);
    EXPECT_EQ(header_values(login, "Content-Type"), std::vector<std::string>{"text/xml;charset=UTF-8"});
    EXPECT_EQ(header_values(login, "SOAPAction"), std::vector<std::string>{"urn:LoginCms"});
    EXPECT_EQ(login.at("body").get<std::string>().rfind(
                  "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:wsaa="
                  "\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><soapenv:Header/><soapenv:Body><wsaa:loginCms>"
                  "<wsaa:in0>MIAGCSqGSIb3DQEHAq", // CMS SignedData, on one line
                  0),
              0u);
    EXPECT_FALSE(contains(login.at("body"), "\n"));

    const nlohmann::json cached = nlohmann::json::parse(read_file("credentials.json")).at("wsfe");
    const std::string sent = "<s:E xmlns:s=\"urn:s\" xmlns:ar=\"urn:a\"><ar:Token>" + cached.at("token").get<std::string>() +
                             "</ar:Token><ar:Sign>" + cached.at("sign").get<std::string>() + "</ar:Sign></s:E>";
    EXPECT_EQ(last("/ws").at("body"), sent);
    EXPECT_EQ(driver.answer(), answer_document);
    // The fixed content type first, then the host's lines in their order, duplicates kept; only
    // the service request is logged.
    const std::string log = driver.transfer_log();
    EXPECT_EQ(log.rfind("=== Info:\n", 0), 0u);
    EXPECT_TRUE(contains(log, "POST /ws HTTP/1.1\r\n"));
    EXPECT_TRUE(contains(log, "Content-Type: text/xml;charset=UTF-8\r\nSOAPAction: \"urn:x\"\r\nX-Twice: 1\r\n"
                              "X-Twice: 1\r\nContent-Type: application/soap+xml\r\n"))
        << log;
    EXPECT_FALSE(contains(log, "LoginCms"));
    EXPECT_TRUE(contains(log, "==> Request body\n" + sent + "\n==> Response headers\n"));
    EXPECT_EQ(log.substr(log.size() - sizeof answer_document - 18), "==> Response body\n" + std::string(answer_document) + "\n");

    // The queue was emptied and the ticket is reused: one more service request, no login.
    ASSERT_EQ(send("<a/>"), 0);
    EXPECT_EQ(simulator.requests(login_path).size(), 1u);
    EXPECT_EQ(header_values(last("/ws"), "X-Twice").size() + header_values(last("/ws"), "Content-Type").size(), 1u);
}

TEST_F(Host, WalkerFillsExactNamesOnlyAndReserialises)
{
    cache_young_ticket();
    const std::pair<const char*, const char*> cases[] = {
        {"<root xmlns:ar=\"urn:a\" xmlns:x=\"urn:x\"><ar:Token/><ar:Token>old</ar:Token><token>t</token><sign></sign>"
         "<ar:Sign>old</ar:Sign><Token>k</Token><ar:token>k</ar:token><x:Token>k</x:Token><ar:SIGN>k</ar:SIGN>"
         "<Sign>k</Sign><x:sign>k</x:sign><ar:Token><inner>elem</inner></ar:Token><d><e><ar:Sign/></e></d></root>",
         "<root xmlns:ar=\"urn:a\" xmlns:x=\"urn:x\"><ar:Token>T</ar:Token><ar:Token>T</ar:Token><token>T</token>"
         "<sign>S</sign><ar:Sign>S</ar:Sign><Token>k</Token><ar:token>k</ar:token><x:Token>k</x:Token>"
         "<ar:SIGN>k</ar:SIGN><Sign>k</Sign><x:sign>k</x:sign><ar:Token><inner>elem</inner></ar:Token>"
         "<d><e><ar:Sign>S</ar:Sign></e></d></root>"},
        {"<!-- note -->\n<a  x = 'v'>\n  <b>text &amp; more</b>\n  <![CDATA[<raw>]]>\n</a>\n",
         "<a x=\"v\"><b>text &amp; more</b><![CDATA[<raw>]]></a>"},
    };
    for (const auto& [request, sent] : cases) {
        ASSERT_EQ(send(request), 0);
        EXPECT_EQ(last("/ws").at("body"), sent);
    }
    EXPECT_TRUE(simulator.requests(login_path).empty());
}

TEST_F(Host, EarlyExitsKeepThePreviousAnswerAndTheQueue)
{
    cache_young_ticket();
    ASSERT_EQ(send("<first/>"), 0);
    const std::string first_log = driver.transfer_log();
    driver.AddSOAPHeader("X-Kept: yes");
    driver.SetWSUrl("");
    EXPECT_EQ(driver.SendSOAP("not xml"), 12);
    driver.SetWSUrl(simulator.url("/ws").c_str());
    EXPECT_EQ(driver.SendSOAP("not xml"), 13);
    EXPECT_EQ(driver.answer() + driver.transfer_log(), answer_document + first_log);
    ASSERT_EQ(send("<third/>"), 0);
    EXPECT_EQ(header_values(last("/ws"), "X-Kept"), std::vector<std::string>{"yes"});
    EXPECT_EQ(simulator.requests("/ws").size(), 2u);
}

// What WSAA answers decides the result; a failure leaves answer and log empty and the queue queued.
TEST_F(Host, LoginOutcomesMapToTheirResultCodes)
{
    const std::string ticket = wsaa_ticket("T", "S", local_time_ago(0));
    const struct {
        std::string url;
        std::string answer;
        const char* parameters;
        int32_t result;
    } cases[] = {
        {"", soap_fault("El CEE ya posee un TA valido para el acceso al WSN solicitado"), "status=500", 9},
        {"", soap_fault("Computador no autorizado a acceder al servicio"), "status=500", 2},
        {"", soap_fault("CERTIFICADO EXPIRADO"), "status=500", 3},
        {"", "not here", "status=404", 17},
        {"", ticket, "cut_after=10", 17},
        {"", ticket, "delay_ms=2000", 17}, // slower than the time-out
        {"http://127.0.0.1:1/", "", "", 17},
        {"https://127.0.0.1:" + std::to_string(simulator.port()) + login_path, "", "", 16}, // TLS to a plain port
    };
    cache_young_ticket();
    ASSERT_EQ(send("<first/>"), 0) << "an answer the failures must not leave behind";
    std::remove("credentials.json");
    driver.SetTimeOut(400);
    for (const auto& test : cases) {
        driver.AddSOAPHeader("X-Queued: 1");
        if (!test.answer.empty())
            simulator.answer(login_path, test.answer, test.parameters);
        driver.SetWSAA((test.url.empty() ? simulator.url(login_path) : test.url).c_str());
        EXPECT_EQ(driver.SendSOAP("<a/>"), test.result) << test.answer << test.parameters << test.url;
        EXPECT_EQ(stored_size(driver.ReceivedSOAP) + stored_size(driver.GetVerboseTransfer), 0u);
    }
    EXPECT_EQ(simulator.requests("/ws").size(), 1u);
    EXPECT_FALSE(std::ifstream("credentials.json").good());

    // A status 500 carrying a ticket is a ticket; the queued lines go out with it, once each.
    driver.SetWSAA(simulator.url(login_path).c_str());
    simulator.answer(login_path, wsaa_ticket("TOKEN-2", "SIGN-2", local_time_ago(0)), "status=500");
    ASSERT_EQ(send("<ar:Sign/>"), 0);
    EXPECT_EQ(last("/ws").at("body"), "<ar:Sign>SIGN-2</ar:Sign>");
    EXPECT_EQ(header_values(last("/ws"), "X-Queued").size(), std::size(cases));

    // An unknown fault raises nothing: the request goes out with an empty token.
    std::remove("credentials.json");
    simulator.answer(login_path, soap_fault("otra cosa"), "status=500");
    ASSERT_EQ(send("<ar:Token>x</ar:Token>"), 0);
    EXPECT_EQ(last("/ws").at("body"), "<ar:Token></ar:Token>");
}

TEST_F(Host, ServiceOutcomesKeepAnswerAndLog)
{
    cache_young_ticket();
    const struct {
        std::string answer;
        const char* parameters;
        int32_t result;
    } cases[] = {{"plain text, not XML", "", 14},
                 {"", "status=204", 14},
                 {soap_fault("Server was unable to process request"), "status=500", 0},
                 {std::string("<r>a\0b</r>", 10), "", 14}};
    for (const auto& test : cases) {
        EXPECT_EQ(send("<a/>", test.answer, test.parameters), test.result) << test.answer;
        EXPECT_EQ(driver.answer(), test.answer);
        const std::string log = driver.transfer_log();
        EXPECT_EQ(log.substr(log.size() - test.answer.size() - 1), test.answer + "\n");
    }
    // No answer at all (refused, TLS to a plain port): 14, and the log tells why.
    for (const std::string& url : {std::string("http://127.0.0.1:1/ws"), "https://127.0.0.1:" + std::to_string(simulator.port()) + "/ws"}) {
        driver.SetWSUrl(url.c_str());
        EXPECT_EQ(driver.SendSOAP("<a/>"), 14) << url;
        EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
        const std::string log = driver.transfer_log();
        EXPECT_TRUE(contains(log, "127.0.0.1")) << log;
        EXPECT_TRUE(contains(log, "==> Request headers\n==> Request body\n\n==> Response headers\n==> Response body\n\n"));
    }
}

TEST_F(Host, TimeOutGives15WithNothingKept)
{
    cache_young_ticket();
    driver.SetTimeOut(300);
    driver.AddSOAPHeader("X-Gone: 1");
    EXPECT_EQ(send("<slow/>", answer_document, "delay_ms=2000"), 15);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP) + stored_size(driver.GetVerboseTransfer), 0u);
    // The queue went out before the time-out; 0 takes the library's time-out away again.
    driver.SetTimeOut(0);
    EXPECT_EQ(send("<patient/>", answer_document, "delay_ms=600"), 0);
    EXPECT_TRUE(header_values(last("/ws"), "X-Gone").empty());
}

TEST_F(Host, BufferProtocolCopiesExactlyTheStoredBytes)
{
    cache_young_ticket();
    const std::string hundred = "<r>" + std::string(93, 'x') + "</r>";
    ASSERT_EQ(send("<a/>", hundred), 0);
    for (const auto& [copy, stored] : {std::pair{driver.ReceivedSOAP, hundred}, std::pair{driver.GetVerboseTransfer, driver.transfer_log()}}) {
        std::vector<char> buffer(stored.size() + 16, '#');
        uint32_t size = 7;
        EXPECT_EQ(copy(buffer.data(), static_cast<uint32_t>(stored.size() - 1), &size), 10);
        EXPECT_EQ(size, 7u) << "too small: the size is not written";
        EXPECT_EQ(buffer[0], '#') << "too small: nothing is copied";
        // Lengths with the top bit set are large, not negative; only the stored bytes are written.
        for (const uint32_t length : {static_cast<uint32_t>(stored.size()), 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(copy(buffer.data(), length, &size), 0);
            EXPECT_EQ(std::string(buffer.data(), size), stored);
            EXPECT_EQ(std::string(buffer.data() + size, 16), std::string(16, '#')) << "no terminating NUL";
        }
    }
    // Several megabytes: exact sizes, the log holding the answer too.
    const std::string big = "<r>" + std::string(5 * 1024 * 1024 + 3, 'p') + "</r>";
    ASSERT_EQ(send("<a/>", big), 0);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), big.size());
    EXPECT_TRUE(driver.answer() == big);
    EXPECT_EQ(driver.transfer_log().size(), stored_size(driver.GetVerboseTransfer));
    EXPECT_GT(stored_size(driver.GetVerboseTransfer), big.size());
}

TEST_F(Host, CertificateAndCacheProblems)
{
    for (const auto& [certificate, password, result] :
         {std::tuple{"missing.p12", "pw", 1}, std::tuple{"signer.p12", "wrong", 5}, std::tuple{"garbage.p12", "pw", 5}}) {
        driver.SetWSAACredentials(fixture(certificate).c_str(), password);
        EXPECT_EQ(driver.SendSOAP("<a/>"), result) << certificate;
    }
    EXPECT_TRUE(simulator.requests(login_path).empty());

    // A cache that does not parse is a miss; one that parses but is no object makes the JSON
    // library's error leave SendSOAP, and stays as it was.
    driver.SetWSAACredentials(fixture("signer.p12").c_str(), "pw");
    write_file("credentials.json", "{\"wsfe\": {\"token\": ");
    ASSERT_EQ(send("<ar:Token/>"), 0);
    EXPECT_EQ(simulator.requests(login_path).size(), 1u);
    const std::string token = nlohmann::json::parse(read_file("credentials.json")).at("wsfe").at("token");
    EXPECT_EQ(last("/ws").at("body"), "<ar:Token>" + token + "</ar:Token>");

    write_file("credentials.json", "[\"not\", \"an object\"]");
    simulator.answer(login_path, wsaa_ticket("T", "S", local_time_ago(0)));
    EXPECT_THROW(driver.SendSOAP("<a/>"), std::exception);
    EXPECT_EQ(read_file("credentials.json"), "[\"not\", \"an object\"]");
}

// The proxy carries the login and the request, with user and password as given; an empty
// address switches it off whatever the rest says.
TEST_F(Host, ProxySettingsReachBothExchanges)
{
    const Tinyproxy proxy;
    const struct {
        std::string url;
        const char* password;
        int32_t result;
    } cases[] = {{"http://127.0.0.1:1", "s3cret", 17}, {proxy.url(), "wrong", 17}, {proxy.url(), "s3cret", 0}, {"", "wrong", 0}};
    for (const auto& test : cases) {
        driver.SetWebProxy(test.url.c_str(), "tarvo", test.password);
        EXPECT_EQ(send("<ar:Token/>"), test.result) << test.url << " " << test.password;
    }
    const nlohmann::json served = simulator.requests("/ws");
    ASSERT_EQ(served.size(), 2u);
    EXPECT_TRUE(contains(header_values(served[0], "Via").at(0), "tinyproxy"));
    EXPECT_EQ(header_values(last(login_path), "Via").size(), 1u);
    EXPECT_TRUE(header_values(served[1], "Via").empty());
    EXPECT_FALSE(contains(driver.transfer_log(), "Proxy-Authorization"));
}

TEST_F(HostOverLegacyTls, SecurityLevelsOutsideOneToFourMeanTheDefault)
{
    driver.SetSecurity(4);
    EXPECT_EQ(driver.SendSOAP("<a/>"), 16) << "TLS 1.3 only against a TLS 1.2 WSAA";
    cache_young_ticket();
    EXPECT_EQ(send("<a/>"), 14) << "and against a TLS 1.2 service";
    for (const int32_t level : {5, -1, 0, 3}) {
        driver.SetSecurity(level);
        EXPECT_EQ(send("<a/>"), 0) << level;
    }
    EXPECT_TRUE(contains(driver.transfer_log(), "TLSv1.2 / DHE-RSA")) << driver.transfer_log();
}
