// The twelve functions as a host uses them: the library loaded with dlopen, in a working directory
// of its own, against the simulator (real logins, or answers scripted per test).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <ctime>
#include <fstream>

#include "support/support.h"
#include "tools/cli/driver_library.h"

namespace {

const char indented_request[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                                "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\">\n"
                                "  <soapenv:Body>\n"
                                "    <ar:FEDummy><ar:Auth>\n"
                                "        <ar:Token></ar:Token>\n"
                                "        <ar:Sign>placeholder</ar:Sign>\n"
                                "    </ar:Auth></ar:FEDummy>\n"
                                "  </soapenv:Body>\n"
                                "</soapenv:Envelope>\n";
const char answer_document[] = "<r><AppServer>OK</AppServer></r>";
const char login_path[] = "/ws/services/LoginCms";

std::string local_time_ago(long seconds)
{
    const std::time_t when = std::time(nullptr) - seconds;
    std::tm fields{};
    localtime_r(&when, &fields);
    char text[32];
    std::strftime(text, sizeof text, "%FT%T", &fields);
    return text;
}

std::string ticket_answer(const std::string& token, const std::string& sign)
{
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\"><soapenv:Body>"
           "<loginCmsResponse><loginCmsReturn>&lt;loginTicketResponse&gt;&lt;header&gt;&lt;generationTime&gt;" +
           local_time_ago(0) + "&lt;/generationTime&gt;&lt;/header&gt;&lt;credentials&gt;&lt;token&gt;" + token +
           "&lt;/token&gt;&lt;sign&gt;" + sign +
           "&lt;/sign&gt;&lt;/credentials&gt;&lt;/loginTicketResponse&gt;</loginCmsReturn></loginCmsResponse>"
           "</soapenv:Body></soapenv:Envelope>";
}

std::string fault_answer(const std::string& text)
{
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\"><soapenv:Body>"
           "<soapenv:Fault><faultcode>ns1:x</faultcode><faultstring>" +
           text + "</faultstring></soapenv:Fault></soapenv:Body></soapenv:Envelope>";
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

    void cache_young_ticket(const std::string& token, const std::string& sign)
    {
        write_file("credentials.json", "{\"wsfe\": {\"expired\": \"" + local_time_ago(60) + "\", \"sign\": \"" +
                                           sign + "\", \"token\": \"" + token + "\"}}");
    }

    // Sends `request` with the next service answer scripted; returns the result code.
    int32_t send(const std::string& request, const std::string& answer = answer_document,
                 const std::string& parameters = "")
    {
        simulator.answer("/ws", answer, parameters);
        return driver.SendSOAP(request.c_str());
    }

    std::string last_service_body() const
    {
        const nlohmann::json requests = simulator.requests("/ws");
        return requests.empty() ? "<none>" : requests.back().at("body").get<std::string>();
    }

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
    char version[8];
    std::memset(version, 'x', sizeof version);
    driver.GetAFIPVersion(version);
    EXPECT_EQ(std::string(version, 7), std::string("1.0.0\0x", 7));

    for (auto copy : {driver.ReceivedSOAP, driver.GetVerboseTransfer}) {
        uint32_t size = 1234;
        char buffer[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(copy(nullptr, 0, &size), 0);
        EXPECT_EQ(size, 0u);
        size = 1234;
        EXPECT_EQ(copy(buffer, sizeof buffer, &size), 0);
        EXPECT_EQ(size, 0u);
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
        {[](LoadedDriver& d) { d.SetWSAAService(""); }, "<a/>", 8},
        {[](LoadedDriver& d) { d.SetWSAACredentials("", "pw"); }, "<a/>", 1},
        {[](LoadedDriver& d) { d.SetWSAA(""); }, "", 7},
    };
    for (const auto& step : steps) {
        step.set(driver);
        EXPECT_EQ(driver.SendSOAP(step.request), step.result) << step.request;
    }
    driver.SetWSAA("u");
    driver.SetWSAACredentials("c", "");
    driver.SetWSAAService("s");
    driver.SetWSUrl("v");
    EXPECT_EQ(driver.SendSOAP(""), 13) << "an empty text has no root element";

    try {
        driver.AddSOAPHeader(nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}

TEST_F(Host, WorkedCallLogsInFillsAndPostsOneLine)
{
    driver.AddSOAPHeader("SOAPAction: \"http://ar.gov.afip.dif.FEV1/FEDummy\"");
    driver.AddSOAPHeader("X-Twice: 1");
    driver.AddSOAPHeader("X-Twice: 1");
    driver.AddSOAPHeader("Content-Type: application/soap+xml");
    ASSERT_EQ(send(indented_request), 0) << simulator.log();

    const nlohmann::json logins = simulator.requests(login_path);
    ASSERT_EQ(logins.size(), 1u);
    EXPECT_EQ(header_values(logins[0], "Content-Type"), std::vector<std::string>{"text/xml;charset=UTF-8"});
    EXPECT_EQ(header_values(logins[0], "SOAPAction"), std::vector<std::string>{"urn:LoginCms"});
    const std::string login = logins[0].at("body");
    EXPECT_EQ(login.find('\n'), std::string::npos);
    EXPECT_EQ(login.rfind("<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:wsaa="
                          "\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><soapenv:Header/><soapenv:Body>"
                          "<wsaa:loginCms><wsaa:in0>MIAGCSqGSIb3DQEHAq", // CMS SignedData
                          0),
              0u)
        << login;

    const nlohmann::json cache = nlohmann::json::parse(read_file("credentials.json"));
    const std::string token = cache.at("wsfe").at("token");
    const std::string sign = cache.at("wsfe").at("sign");
    struct stat status {};
    ASSERT_EQ(stat("credentials.json", &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    const std::string sent = "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                             "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Body><ar:FEDummy><ar:Auth><ar:Token>" +
                             token + "</ar:Token><ar:Sign>" + sign + "</ar:Sign></ar:Auth></ar:FEDummy>"
                                                                     "</soapenv:Body></soapenv:Envelope>";
    EXPECT_EQ(last_service_body(), sent);

    // The fixed content type first, then the host's lines in their order, duplicates kept.
    EXPECT_EQ(driver.answer(), answer_document);
    const std::string log = driver.transfer_log();
    EXPECT_EQ(log.rfind("=== Info:\n", 0), 0u);
    EXPECT_NE(log.find("POST /ws HTTP/1.1\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Content-Type: text/xml;charset=UTF-8\r\nSOAPAction: \"http://ar.gov.afip.dif.FEV1/FEDummy\"\r\n"
                       "X-Twice: 1\r\nX-Twice: 1\r\nContent-Type: application/soap+xml\r\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("LoginCms"), std::string::npos) << "the WSAA exchange is never kept";
    EXPECT_NE(log.find("==> Request body\n" + sent + "\n==> Response headers\n"), std::string::npos);
    EXPECT_EQ(log.substr(log.size() - sizeof answer_document - 18), std::string("==> Response body\n") + answer_document + "\n");

    // The queue was emptied and the ticket is reused: one more service request, no login.
    ASSERT_EQ(send(indented_request), 0);
    EXPECT_EQ(simulator.requests(login_path).size(), 1u);
    EXPECT_EQ(header_values(simulator.requests("/ws").back(), "X-Twice"), std::vector<std::string>{});
    EXPECT_EQ(header_values(simulator.requests("/ws").back(), "Content-Type"),
              std::vector<std::string>{"text/xml;charset=UTF-8"});
}

TEST_F(Host, WalkerFillsExactNamesOnlyAndReserialises)
{
    cache_young_ticket("T", "S");
    const struct {
        const char* request;
        const char* sent;
    } cases[] = {
        {"<root xmlns:ar=\"urn:a\" xmlns:x=\"urn:x\"><ar:Token/><ar:Token>old</ar:Token><token>t</token><sign></sign>"
         "<ar:Sign>old</ar:Sign><Token>keep</Token><ar:token>keep</ar:token><x:Token>keep</x:Token><ar:SIGN>k</ar:SIGN>"
         "<Sign>keep</Sign><x:sign>keep</x:sign><ar:Token><inner>elem</inner></ar:Token><d><e><ar:Sign/></e></d></root>",
         "<root xmlns:ar=\"urn:a\" xmlns:x=\"urn:x\"><ar:Token>T</ar:Token><ar:Token>T</ar:Token><token>T</token>"
         "<sign>S</sign><ar:Sign>S</ar:Sign><Token>keep</Token><ar:token>keep</ar:token><x:Token>keep</x:Token>"
         "<ar:SIGN>k</ar:SIGN><Sign>keep</Sign><x:sign>keep</x:sign><ar:Token><inner>elem</inner></ar:Token>"
         "<d><e><ar:Sign>S</ar:Sign></e></d></root>"},
        {"<?xml version=\"1.0\"?>\n<!-- note -->\n<a  x = 'v'>\n  <b>text &amp; more</b>\n  <![CDATA[<raw>]]>\n</a>\n",
         "<a x=\"v\"><b>text &amp; more</b><![CDATA[<raw>]]></a>"},
    };
    for (const auto& test : cases) {
        ASSERT_EQ(send(test.request), 0);
        EXPECT_EQ(last_service_body(), test.sent);
    }
    EXPECT_TRUE(simulator.requests(login_path).empty());
}

TEST_F(Host, EarlyExitsKeepThePreviousAnswerAndTheQueue)
{
    cache_young_ticket("T", "S");
    ASSERT_EQ(send("<first/>"), 0);
    const std::string first_log = driver.transfer_log();

    driver.AddSOAPHeader("X-Kept: yes");
    driver.SetWSUrl("");
    EXPECT_EQ(driver.SendSOAP("not xml"), 12);
    driver.SetWSUrl(simulator.url("/ws").c_str());
    EXPECT_EQ(driver.SendSOAP("not xml"), 13);
    EXPECT_EQ(driver.answer(), answer_document);
    EXPECT_EQ(driver.transfer_log(), first_log);
    EXPECT_EQ(simulator.requests("/ws").size(), 1u);

    ASSERT_EQ(send("<third/>"), 0);
    EXPECT_EQ(header_values(simulator.requests("/ws").back(), "X-Kept"), std::vector<std::string>{"yes"});
}

// What WSAA answers decides the result; a failure leaves answer and log empty and the queue queued.
TEST_F(Host, LoginOutcomesMapToTheirResultCodes)
{
    const std::string refused = "http://127.0.0.1:1/";
    const std::string tls_to_plain = "https://127.0.0.1:" + std::to_string(simulator.port()) + login_path;
    const struct {
        const char* what;
        std::string url;
        std::string answer;
        std::string parameters;
        int32_t result;
    } cases[] = {
        {"ticket refused", "", fault_answer("El CEE ya posee un TA valido para el acceso al WSN solicitado"),
         "status=500", 9},
        {"not authorised", "", fault_answer("Computador no autorizado a acceder al servicio"), "status=500", 2},
        {"expired, capitals", "", fault_answer("CERTIFICADO EXPIRADO"), "status=500", 3},
        {"not found", "", "not here", "status=404", 17},
        {"cut off", "", ticket_answer("T", "S"), "cut_after=10", 17},
        {"slower than the time-out", "", ticket_answer("T", "S"), "delay_ms=2000", 17},
        {"refused connection", refused, "", "", 17},
        {"TLS to a plain port", tls_to_plain, "", "", 16},
    };
    driver.SetTimeOut(400);
    for (const auto& test : cases) {
        driver.AddSOAPHeader("X-Queued: 1");
        if (!test.answer.empty())
            simulator.answer(login_path, test.answer, test.parameters);
        driver.SetWSAA((test.url.empty() ? simulator.url(login_path) : test.url).c_str());
        EXPECT_EQ(driver.SendSOAP("<a/>"), test.result) << test.what;
        EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u) << test.what;
        EXPECT_EQ(stored_size(driver.GetVerboseTransfer), 0u) << test.what;
    }
    EXPECT_TRUE(simulator.requests("/ws").empty());
    EXPECT_FALSE(std::ifstream("credentials.json").good());

    // A status 500 carrying a ticket is a ticket; the queued lines go out with it, once each.
    driver.SetWSAA(simulator.url(login_path).c_str());
    simulator.answer(login_path, ticket_answer("TOKEN-2", "SIGN-2"), "status=500");
    ASSERT_EQ(send("<ar:Sign/>"), 0);
    EXPECT_EQ(last_service_body(), "<ar:Sign>SIGN-2</ar:Sign>");
    EXPECT_EQ(header_values(simulator.requests("/ws").back(), "X-Queued").size(), std::size(cases));

    // An unknown fault raises nothing: the request goes out with an empty token.
    std::remove("credentials.json");
    simulator.answer(login_path, fault_answer("otra cosa"), "status=500");
    ASSERT_EQ(send("<ar:Token>x</ar:Token>"), 0);
    EXPECT_EQ(last_service_body(), "<ar:Token></ar:Token>");
}

TEST_F(Host, ServiceOutcomesKeepAnswerAndLog)
{
    cache_young_ticket("T", "S");
    const std::string with_nul("<r>a\0b</r>", 10);
    const struct {
        std::string answer;
        std::string parameters;
        int32_t result;
    } cases[] = {
        {"plain text, not XML", "", 14},
        {"", "status=204", 14},
        {fault_answer("Server was unable to process request"), "status=500", 0},
        {with_nul, "", 14},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(send("<a/>", test.answer, test.parameters), test.result) << test.answer;
        EXPECT_EQ(driver.answer(), test.answer);
        const std::string log = driver.transfer_log();
        EXPECT_EQ(log.substr(log.size() - test.answer.size() - 1), test.answer + "\n");
    }

    // No answer at all: 14, and the log tells why.
    for (const std::string& url : {std::string("http://127.0.0.1:1/ws"), "https://127.0.0.1:" + std::to_string(simulator.port()) + "/ws"}) {
        driver.SetWSUrl(url.c_str());
        EXPECT_EQ(driver.SendSOAP("<a/>"), 14) << url;
        EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
        const std::string log = driver.transfer_log();
        EXPECT_NE(log.find("127.0.0.1"), std::string::npos) << log;
        EXPECT_NE(log.find("==> Request headers\n==> Request body\n\n==> Response headers\n==> Response body\n\n"),
                  std::string::npos);
    }
}

TEST_F(Host, TimeOutGives15WithNothingKept)
{
    cache_young_ticket("T", "S");
    driver.SetTimeOut(300);
    driver.AddSOAPHeader("X-Gone: 1");
    EXPECT_EQ(send("<slow/>", answer_document, "delay_ms=2000"), 15);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
    EXPECT_EQ(stored_size(driver.GetVerboseTransfer), 0u);

    // The queue went out before the time-out; 0 takes the library's time-out away again.
    driver.SetTimeOut(0);
    EXPECT_EQ(send("<patient/>", answer_document, "delay_ms=600"), 0);
    EXPECT_TRUE(header_values(simulator.requests("/ws").back(), "X-Gone").empty());
}

TEST_F(Host, BufferProtocolCopiesExactlyTheStoredBytes)
{
    cache_young_ticket("T", "S");
    const std::string hundred = "<r>" + std::string(93, 'x') + "</r>";
    ASSERT_EQ(send("<a/>", hundred), 0);
    const std::string log = driver.transfer_log();

    for (const auto& [copy, stored] : {std::pair{driver.ReceivedSOAP, hundred}, std::pair{driver.GetVerboseTransfer, log}}) {
        std::vector<char> buffer(stored.size() + 16, '#');
        uint32_t size = 7;
        EXPECT_EQ(copy(buffer.data(), static_cast<uint32_t>(stored.size() - 1), &size), 10);
        EXPECT_EQ(size, 7u) << "too small: the size is not written";
        EXPECT_EQ(buffer[0], '#') << "too small: nothing is copied";
        // Lengths with the top bit set are large, not negative; only the stored bytes are written.
        for (const uint32_t length : {static_cast<uint32_t>(stored.size()), 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(copy(buffer.data(), length, &size), 0);
            EXPECT_EQ(size, stored.size());
            EXPECT_EQ(std::string(buffer.data(), size), stored);
            EXPECT_EQ(std::string(buffer.data() + size, 16), std::string(16, '#')) << "no terminating NUL";
        }
    }

    // Several megabytes: exact sizes, the log holding the answer too.
    std::string big(5 * 1024 * 1024 + 3, 'p');
    for (size_t i = 0; i < big.size(); i += 1000)
        big[i] = static_cast<char>('a' + i / 1000 % 26);
    ASSERT_EQ(send("<a/>", "<r>" + big + "</r>"), 0);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), big.size() + 7);
    EXPECT_TRUE(driver.answer() == "<r>" + big + "</r>");
    EXPECT_EQ(driver.transfer_log().size(), stored_size(driver.GetVerboseTransfer));
    EXPECT_GT(stored_size(driver.GetVerboseTransfer), big.size());
}

TEST_F(Host, CertificateAndCacheProblems)
{
    const struct {
        const char* certificate;
        const char* password;
        int32_t result;
    } certificates[] = {{"missing.p12", "pw", 1}, {"signer.p12", "wrong", 5}, {"garbage.p12", "pw", 5}};
    for (const auto& test : certificates) {
        driver.SetWSAACredentials(fixture(test.certificate).c_str(), test.password);
        EXPECT_EQ(driver.SendSOAP("<a/>"), test.result) << test.certificate;
    }
    EXPECT_TRUE(simulator.requests(login_path).empty());

    // A cache that does not parse is a miss; one that parses but is no object makes the JSON
    // library's error leave SendSOAP, and stays as it was.
    driver.SetWSAACredentials(fixture("signer.p12").c_str(), "pw");
    write_file("credentials.json", "{\"wsfe\": {\"token\": ");
    ASSERT_EQ(send("<ar:Token/>"), 0);
    EXPECT_EQ(simulator.requests(login_path).size(), 1u);
    const std::string token = nlohmann::json::parse(read_file("credentials.json")).at("wsfe").at("token");
    EXPECT_EQ(last_service_body(), "<ar:Token>" + token + "</ar:Token>");

    write_file("credentials.json", "[\"not\", \"an object\"]");
    simulator.answer(login_path, ticket_answer("T", "S"));
    EXPECT_THROW(driver.SendSOAP("<a/>"), std::exception);
    EXPECT_EQ(read_file("credentials.json"), "[\"not\", \"an object\"]");
}

TEST_F(HostOverLegacyTls, SecurityLevelsOutsideOneToFourMeanTheDefault)
{
    driver.SetWSUrl(simulator.url("/ws").c_str());
    driver.SetSecurity(4);
    EXPECT_EQ(driver.SendSOAP("<a/>"), 16) << "TLS 1.3 only against a TLS 1.2 WSAA";
    cache_young_ticket("T", "S");
    EXPECT_EQ(send("<a/>"), 14) << "and against a TLS 1.2 service";
    for (const int32_t level : {5, -1, 0, 3}) {
        driver.SetSecurity(level);
        EXPECT_EQ(send("<a/>"), 0) << level;
    }
    EXPECT_NE(driver.transfer_log().find("TLSv1.2 / DHE-RSA"), std::string::npos) << driver.transfer_log();
}
