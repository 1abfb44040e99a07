#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

#include "support/certificates.h"
#include "support/library_loader.h"
#include "support/proxy_process.h"
#include "support/scoped_chdir.h"
#include "support/test_server.h"
#include "support/wsaa_answers.h"

namespace {

const char answer_document[] = "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                               "<FEDummyResponse><FEDummyResult><AppServer>OK</AppServer></FEDummyResult>"
                               "</FEDummyResponse></soap:Body></soap:Envelope>";

const char indented_request[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                                "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\">\n"
                                "  <soapenv:Header/>\n"
                                "  <soapenv:Body>\n"
                                "    <ar:FECompUltimoAutorizado>\n"
                                "      <ar:Auth>\n"
                                "        <ar:Token></ar:Token>\n"
                                "        <ar:Sign>placeholder</ar:Sign>\n"
                                "        <ar:Cuit>20111111112</ar:Cuit>\n"
                                "      </ar:Auth>\n"
                                "    </ar:FECompUltimoAutorizado>\n"
                                "  </soapenv:Body>\n"
                                "</soapenv:Envelope>\n";

const char sent_request[] = "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
                            "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Header/><soapenv:Body>"
                            "<ar:FECompUltimoAutorizado><ar:Auth><ar:Token>TOKEN-1</ar:Token><ar:Sign>SIGN-1</ar:Sign>"
                            "<ar:Cuit>20111111112</ar:Cuit></ar:Auth></ar:FECompUltimoAutorizado></soapenv:Body>"
                            "</soapenv:Envelope>";

ServerReply reply(int status, const std::string& body)
{
    ServerReply answer;
    answer.status = status;
    answer.body = body;
    return answer;
}

std::string fresh_ticket_answer(const std::string& token, const std::string& sign)
{
    const std::time_t now = std::time(nullptr);
    return login_cms_response(login_ticket_response(token, sign, local_time_text(now, ".123-03:00"),
                                                    local_time_text(now + 43200, ".123-03:00")));
}

// The driver loaded as a host loads it, in a working directory of its own, with one loopback
// server standing in for both WSAA (/wsaa) and the business service (/ws).
class Pipeline : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_bundle = new std::string(make_pkcs12(make_self_signed_identity("pipeline-signer", 2048, 30), "pw"));
    }
    static void TearDownTestSuite() { delete s_bundle; }

    Pipeline() : m_inside(m_dir.path())
    {
        setenv("TZ", "<-03>3", 1);
        tzset();
        clear_proxy_environment();
        write_file("signer.p12", *s_bundle);
    }

    void start(TestServerOptions options = {})
    {
        if (!options.handler) {
            options.handler = [this](const RecordedRequest& request) {
                if (request.target == "/wsaa")
                    return m_wsaa_reply;
                return m_service_reply;
            };
        }
        m_server = std::make_unique<TestServer>(std::move(options));
        driver.SetWSAA(m_server->url("/wsaa").c_str());
        driver.SetWSAACredentials("signer.p12", "pw");
        driver.SetWSAAService("wsfe");
        driver.SetWSUrl(m_server->url("/ws").c_str());
    }

    void cache_young_ticket(const std::string& token, const std::string& sign)
    {
        write_file("credentials.json", "{\"wsfe\": {\"expired\": \"" + local_time_text(std::time(nullptr) - 60) +
                                           "\", \"sign\": \"" + sign + "\", \"token\": \"" + token + "\"}}");
    }

    std::vector<RecordedRequest> requests_to(const std::string& target) const
    {
        std::vector<RecordedRequest> matching;
        for (const RecordedRequest& request : m_server->requests())
            if (request.target == target)
                matching.push_back(request);
        return matching;
    }

    // The body the business service received on its last request.
    std::string last_service_body() const
    {
        const auto requests = requests_to("/ws");
        return requests.empty() ? std::string("<none>") : requests.back().body;
    }

    uint32_t stored_size(int32_t (*copy)(char*, uint32_t, uint32_t*)) const
    {
        uint32_t size = 0xDEADBEEF;
        EXPECT_EQ(copy(nullptr, 0, &size), 0);
        return size;
    }

    static std::string* s_bundle;
    TempDir m_dir;
    ScopedChdir m_inside;
    DriverLibrary driver;
    std::unique_ptr<TestServer> m_server;
    ServerReply m_wsaa_reply = reply(200, fresh_ticket_answer("TOKEN-1", "SIGN-1"));
    ServerReply m_service_reply = reply(200, answer_document);
};

std::string* Pipeline::s_bundle = nullptr;

} // namespace

TEST_F(Pipeline, WorkedCallLogsInFillsAndPostsOneLine)
{
    start();
    driver.AddSOAPHeader("SOAPAction: \"http://ar.gov.afip.dif.FEV1/FECompUltimoAutorizado\"");
    driver.AddSOAPHeader("X-Twice: 1");
    driver.AddSOAPHeader("X-Twice: 1");
    driver.AddSOAPHeader("Content-Type: application/soap+xml");

    ASSERT_EQ(driver.SendSOAP(indented_request), 0);

    const auto requests = m_server->requests();
    ASSERT_EQ(requests.size(), 2u);
    const RecordedRequest& login = requests[0];
    EXPECT_EQ(login.method, "POST");
    EXPECT_EQ(login.target, "/wsaa");
    EXPECT_EQ(login.header_values("Content-Type"), std::vector<std::string>{"text/xml;charset=UTF-8"});
    EXPECT_NE(std::find(login.header_lines.begin(), login.header_lines.end(), "SOAPAction:urn:LoginCms"),
              login.header_lines.end());
    const std::string in0_start = "<wsaa:loginCms><wsaa:in0>";
    const size_t cms_at = login.body.find(in0_start);
    ASSERT_NE(cms_at, std::string::npos) << login.body.substr(0, 300);
    const std::string cms = login.body.substr(cms_at + in0_start.size(), login.body.find("</wsaa:in0>") - cms_at - in0_start.size());
    EXPECT_GT(cms.size(), 1000u);
    EXPECT_EQ(cms.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="), std::string::npos);
    EXPECT_EQ(login.body.find('\n'), std::string::npos);

    const RecordedRequest& service = requests[1];
    EXPECT_EQ(service.target, "/ws");
    EXPECT_EQ(service.body, sent_request);
    EXPECT_EQ(service.header_values("Content-Type"),
              (std::vector<std::string>{"text/xml;charset=UTF-8", "application/soap+xml"}));
    EXPECT_EQ(service.header_values("X-Twice"), (std::vector<std::string>{"1", "1"}));
    EXPECT_EQ(service.header_values("SOAPAction"),
              std::vector<std::string>{"\"http://ar.gov.afip.dif.FEV1/FECompUltimoAutorizado\""});
    EXPECT_TRUE(service.header_values("SOAPAction:urn:LoginCms").empty());
    // The fixed content type comes before the host's lines, which keep their order.
    std::vector<std::string> order;
    for (const std::string& line : service.header_lines)
        if (line.rfind("Content-Type", 0) == 0 || line.rfind("X-Twice", 0) == 0 || line.rfind("SOAPAction", 0) == 0)
            order.push_back(line);
    EXPECT_EQ(order, (std::vector<std::string>{"Content-Type: text/xml;charset=UTF-8",
                                               "SOAPAction: \"http://ar.gov.afip.dif.FEV1/FECompUltimoAutorizado\"",
                                               "X-Twice: 1", "X-Twice: 1", "Content-Type: application/soap+xml"}));

    EXPECT_EQ(driver.received_soap(), answer_document);
    const std::string log = driver.verbose_transfer();
    EXPECT_EQ(log.rfind("=== Info:\n", 0), 0u);
    EXPECT_NE(log.find("POST /ws HTTP/1.1"), std::string::npos);
    EXPECT_EQ(log.find("/wsaa"), std::string::npos) << "the WSAA exchange is never kept";
    EXPECT_NE(log.find(std::string("==> Request body\n") + sent_request + "\n"), std::string::npos);
    EXPECT_NE(log.find(std::string("==> Response body\n") + answer_document + "\n"), std::string::npos);

    std::ifstream cache("credentials.json");
    EXPECT_TRUE(cache.good());

    // The queue was emptied: a second call sends only the fixed line, and reuses the ticket.
    ASSERT_EQ(driver.SendSOAP(indented_request), 0);
    ASSERT_EQ(m_server->requests().size(), 3u);
    const RecordedRequest second = m_server->requests().back();
    EXPECT_EQ(second.target, "/ws");
    EXPECT_TRUE(second.header_values("X-Twice").empty());
    EXPECT_EQ(second.header_values("Content-Type"), std::vector<std::string>{"text/xml;charset=UTF-8"});
}

TEST_F(Pipeline, CachedTicketIsUsedWithoutLogin)
{
    start();
    cache_young_ticket("CACHED-T", "CACHED-S");
    ASSERT_EQ(driver.SendSOAP("<ar:Token/>"), 0);
    EXPECT_TRUE(requests_to("/wsaa").empty());
    EXPECT_EQ(last_service_body(), "<ar:Token>CACHED-T</ar:Token>");
}

TEST_F(Pipeline, WalkerMatchesWholeNamesExactly)
{
    start();
    cache_young_ticket("T", "S");
    const char request[] = "<root xmlns:ar=\"urn:a\" xmlns:x=\"urn:x\">"
                           "<ar:Token/><ar:Token>old</ar:Token><token>t</token><sign></sign><ar:Sign>old</ar:Sign>"
                           "<Token>keep</Token><ar:token>keep</ar:token><x:Token>keep</x:Token><ar:SIGN>keep</ar:SIGN>"
                           "<Sign>keep</Sign><x:sign>keep</x:sign>"
                           "<ar:Token><inner>elem</inner></ar:Token>"
                           "<deep><deeper><ar:Sign/></deeper></deep></root>";
    ASSERT_EQ(driver.SendSOAP(request), 0);
    EXPECT_EQ(last_service_body(),
              "<root xmlns:ar=\"urn:a\" xmlns:x=\"urn:x\">"
              "<ar:Token>T</ar:Token><ar:Token>T</ar:Token><token>T</token><sign>S</sign><ar:Sign>S</ar:Sign>"
              "<Token>keep</Token><ar:token>keep</ar:token><x:Token>keep</x:Token><ar:SIGN>keep</ar:SIGN>"
              "<Sign>keep</Sign><x:sign>keep</x:sign>"
              "<ar:Token><inner>elem</inner></ar:Token>"
              "<deep><deeper><ar:Sign>S</ar:Sign></deeper></deep></root>");
}

TEST_F(Pipeline, RequestWithoutAuthElementsIsOnlyReserialised)
{
    start();
    cache_young_ticket("T", "S");
    ASSERT_EQ(driver.SendSOAP("<?xml version=\"1.0\"?>\n<!-- note -->\n<a  x = 'v'>\n  <b>text &amp; more</b>\n"
                              "  <![CDATA[<raw>]]>\n</a>\n"),
              0);
    EXPECT_EQ(last_service_body(), "<a x=\"v\"><b>text &amp; more</b><![CDATA[<raw>]]></a>");
}

TEST_F(Pipeline, EarlyExitsKeepThePreviousAnswerAndTheQueue)
{
    start();
    cache_young_ticket("T", "S");
    ASSERT_EQ(driver.SendSOAP("<first/>"), 0);
    const std::string first_log = driver.verbose_transfer();

    driver.AddSOAPHeader("X-Kept: yes");
    driver.SetWSUrl("");
    EXPECT_EQ(driver.SendSOAP("<second/>"), 12);
    EXPECT_EQ(driver.SendSOAP("not xml"), 12);
    driver.SetWSUrl(m_server->url("/ws").c_str());
    EXPECT_EQ(driver.SendSOAP("not xml"), 13);
    EXPECT_EQ(driver.received_soap(), answer_document);
    EXPECT_EQ(driver.verbose_transfer(), first_log);
    EXPECT_EQ(m_server->requests().size(), 1u);

    ASSERT_EQ(driver.SendSOAP("<third/>"), 0);
    EXPECT_EQ(m_server->requests().back().header_values("X-Kept"), std::vector<std::string>{"yes"});
}

TEST_F(Pipeline, WsaaFaultLeavesBuffersEmptyAndTheQueueQueued)
{
    start();
    cache_young_ticket("T", "S");
    ASSERT_EQ(driver.SendSOAP("<first/>"), 0);
    std::remove("credentials.json");

    m_wsaa_reply = reply(500, soap_fault("El CEE ya posee un TA valido para el acceso al WSN solicitado"));
    driver.AddSOAPHeader("X-Queued: 1");
    EXPECT_EQ(driver.SendSOAP("<second/>"), 9);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
    EXPECT_EQ(stored_size(driver.GetVerboseTransfer), 0u);
    EXPECT_EQ(requests_to("/ws").size(), 1u);

    m_wsaa_reply = reply(500, fresh_ticket_answer("TOKEN-2", "SIGN-2"));
    ASSERT_EQ(driver.SendSOAP("<ar:Sign/>"), 0) << "a status 500 carrying a ticket is a ticket";
    EXPECT_EQ(last_service_body(), "<ar:Sign>SIGN-2</ar:Sign>");
    EXPECT_EQ(m_server->requests().back().header_values("X-Queued"), std::vector<std::string>{"1"});
}

TEST_F(Pipeline, WsaaFaultTextsMapToTheirCodes)
{
    start();
    const std::pair<std::string, int32_t> cases[] = {
        {"Computador no autorizado a acceder al servicio", 2},
        {"CERTIFICADO EXPIRADO", 3},
        {"otra cosa", 0},
    };
    for (const auto& [text, code] : cases) {
        m_wsaa_reply = reply(500, soap_fault(text));
        EXPECT_EQ(driver.SendSOAP("<ar:Token>x</ar:Token>"), code) << text;
    }
    // An unrecognised fault raises nothing: the request goes out with an empty token.
    EXPECT_EQ(last_service_body(), "<ar:Token></ar:Token>");
}

TEST_F(Pipeline, WsaaTransportFailuresMapTo16And17)
{
    start();
    m_wsaa_reply = reply(404, "not here");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 17);
    m_wsaa_reply = reply(200, fresh_ticket_answer("T", "S"));
    m_wsaa_reply.close_without_answer = true;
    EXPECT_EQ(driver.SendSOAP("<a/>"), 17);

    driver.SetWSAA(("http://127.0.0.1:" + std::to_string(unused_loopback_port()) + "/wsaa").c_str());
    EXPECT_EQ(driver.SendSOAP("<a/>"), 17);
    // TLS spoken to a plain HTTP port fails the handshake.
    driver.SetWSAA(("https://127.0.0.1:" + std::to_string(m_server->port()) + "/wsaa").c_str());
    EXPECT_EQ(driver.SendSOAP("<a/>"), 16);
    EXPECT_TRUE(requests_to("/ws").empty());
    EXPECT_FALSE(std::ifstream("credentials.json").good());
}

TEST_F(Pipeline, SlowWsaaIsA17AndNotATimeOut)
{
    start();
    m_wsaa_reply.delay = std::chrono::milliseconds(3000);
    driver.SetTimeOut(300);
    EXPECT_EQ(driver.SendSOAP("<a/>"), 17);
    EXPECT_TRUE(requests_to("/ws").empty());
}

TEST_F(Pipeline, CorruptCacheLeadsToANewLogin)
{
    start();
    write_file("credentials.json", "{\"wsfe\": {\"token\": ");
    ASSERT_EQ(driver.SendSOAP("<ar:Token/>"), 0);
    EXPECT_EQ(requests_to("/wsaa").size(), 1u);
    EXPECT_EQ(last_service_body(), "<ar:Token>TOKEN-1</ar:Token>");
    EXPECT_NE(read_file("credentials.json").find("TOKEN-1"), std::string::npos);
}

TEST_F(Pipeline, CacheThatIsNotAnObjectRaisesTheJsonErrorAndStays)
{
    start();
    write_file("credentials.json", "[\"not\", \"an object\"]");
    EXPECT_THROW(driver.SendSOAP("<a/>"), std::exception);
    EXPECT_EQ(read_file("credentials.json"), "[\"not\", \"an object\"]");
    EXPECT_TRUE(requests_to("/ws").empty());
}

TEST_F(Pipeline, BusinessTlsFailureIsA14WithTheLog)
{
    start();
    cache_young_ticket("T", "S");
    driver.SetWSUrl(("https://127.0.0.1:" + std::to_string(m_server->port()) + "/ws").c_str());
    EXPECT_EQ(driver.SendSOAP("<a/>"), 14);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
    EXPECT_NE(driver.verbose_transfer().find("=== Info:\n"), std::string::npos);
}

TEST_F(Pipeline, RefusingProxiesStopTheLogin)
{
    start();
    driver.SetWebProxy(("http://127.0.0.1:" + std::to_string(unused_loopback_port())).c_str(), "", "");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 17);

    ProxyProcess proxy("agent", "right");
    driver.SetWebProxy(proxy.url().c_str(), "agent", "wrong");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 17);
    EXPECT_TRUE(m_server->requests().empty());

    driver.SetWebProxy(proxy.url().c_str(), "agent", "right");
    EXPECT_EQ(driver.SendSOAP("<ar:Token/>"), 0);
    EXPECT_EQ(last_service_body(), "<ar:Token>TOKEN-1</ar:Token>");
    EXPECT_NE(driver.verbose_transfer().find("Proxy-Authorization: Basic"), std::string::npos);

    // An empty address switches the proxy off again, whatever user and password say.
    driver.SetWebProxy("", "agent", "wrong");
    EXPECT_EQ(driver.SendSOAP("<ar:Token/>"), 0);
    EXPECT_EQ(driver.verbose_transfer().find("Proxy-Authorization"), std::string::npos);
}

TEST_F(Pipeline, CertificateProblemsMapTo1And5)
{
    start();
    driver.SetWSAACredentials("missing.p12", "pw");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 1);
    driver.SetWSAACredentials("signer.p12", "wrong");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 5);
    write_file("garbage.p12", "not a certificate");
    driver.SetWSAACredentials("garbage.p12", "pw");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 5);
    EXPECT_TRUE(m_server->requests().empty());
}

TEST_F(Pipeline, TimeOutGives15WithEmptyBuffers)
{
    start();
    cache_young_ticket("T", "S");
    ASSERT_EQ(driver.SendSOAP("<first/>"), 0);
    m_service_reply.delay = std::chrono::milliseconds(3000);
    driver.SetTimeOut(300);
    driver.AddSOAPHeader("X-Gone: 1");
    EXPECT_EQ(driver.SendSOAP("<slow/>"), 15);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
    EXPECT_EQ(stored_size(driver.GetVerboseTransfer), 0u);

    // The queue was handed over before the time-out, and 0 removes the library's time-out.
    m_service_reply.delay = std::chrono::milliseconds(600);
    driver.SetTimeOut(0);
    EXPECT_EQ(driver.SendSOAP("<patient/>"), 0);
    EXPECT_TRUE(m_server->requests().back().header_values("X-Gone").empty());
}

TEST_F(Pipeline, MalformedOrMissingAnswersGive14WithBuffersReadable)
{
    start();
    cache_young_ticket("T", "S");
    m_service_reply = reply(200, "plain text, not XML");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 14);
    EXPECT_EQ(driver.received_soap(), "plain text, not XML");
    EXPECT_NE(driver.verbose_transfer().find("plain text, not XML"), std::string::npos);

    m_service_reply = reply(204, "");
    EXPECT_EQ(driver.SendSOAP("<a/>"), 14);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);

    driver.SetWSUrl(("http://127.0.0.1:" + std::to_string(unused_loopback_port()) + "/ws").c_str());
    EXPECT_EQ(driver.SendSOAP("<a/>"), 14);
    EXPECT_EQ(stored_size(driver.ReceivedSOAP), 0u);
    const std::string log = driver.verbose_transfer();
    EXPECT_NE(log.find("127.0.0.1"), std::string::npos) << log;
    EXPECT_NE(log.find("==> Request headers\n==> Request body\n\n==> Response headers\n==> Response body\n\n"),
              std::string::npos);
}

TEST_F(Pipeline, SoapFaultWithStatus500IsSuccess)
{
    start();
    cache_young_ticket("T", "S");
    m_service_reply = reply(500, soap_fault("Server was unable to process request"));
    EXPECT_EQ(driver.SendSOAP("<a/>"), 0);
    EXPECT_NE(driver.received_soap().find("unable to process"), std::string::npos);
}

TEST_F(Pipeline, BufferProtocolCopiesExactlyTheStoredBytes)
{
    start();
    cache_young_ticket("T", "S");
    const std::string hundred = "<r>" + std::string(93, 'x') + "</r>";
    ASSERT_EQ(hundred.size(), 100u);
    m_service_reply = reply(200, hundred);
    ASSERT_EQ(driver.SendSOAP("<a/>"), 0);

    uint32_t size = 0;
    EXPECT_EQ(driver.ReceivedSOAP(nullptr, 0, &size), 0);
    EXPECT_EQ(size, 100u);

    char buffer[128];
    std::memset(buffer, '#', sizeof buffer);
    size = 7;
    EXPECT_EQ(driver.ReceivedSOAP(buffer, 99, &size), 10);
    EXPECT_EQ(size, 7u) << "too small: the size is not written";
    EXPECT_EQ(buffer[0], '#') << "too small: nothing is copied";

    EXPECT_EQ(driver.ReceivedSOAP(buffer, 100, &size), 0);
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(std::string(buffer, 100), hundred);
    EXPECT_EQ(buffer[100], '#') << "no terminating NUL";

    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(driver.ReceivedSOAP(buffer, sizeof buffer, &size), 0);
    EXPECT_EQ(size, 100u);
    EXPECT_EQ(buffer[100], '#');
    // Reading does not consume.
    EXPECT_EQ(driver.received_soap(), hundred);

    uint32_t log_size = 0;
    EXPECT_EQ(driver.GetVerboseTransfer(nullptr, 0, &log_size), 0);
    std::vector<char> log(log_size);
    EXPECT_EQ(driver.GetVerboseTransfer(log.data(), log_size - 1, &size), 10);
    EXPECT_EQ(driver.GetVerboseTransfer(log.data(), log_size, &size), 0);
    EXPECT_EQ(size, log_size);
}

TEST_F(Pipeline, AnswersWithNulBytesAreKeptWhole)
{
    start();
    cache_young_ticket("T", "S");
    const std::string answer("<r>a\0b</r>", 10);
    m_service_reply = reply(200, answer);
    driver.SendSOAP("<a/>");
    EXPECT_EQ(driver.received_soap(), answer);
    EXPECT_NE(driver.verbose_transfer().find(answer), std::string::npos);
}

TEST_F(Pipeline, SecurityLevelsOutsideOneToFourMeanTheDefault)
{
    TestServerOptions options;
    options.tls = true;
    options.min_tls = TlsVersion::tls1_2;
    options.max_tls = TlsVersion::tls1_2;
    start(options);
    cache_young_ticket("T", "S");

    driver.SetSecurity(4);
    EXPECT_EQ(driver.SendSOAP("<a/>"), 14) << "TLS 1.3 only against a TLS 1.2 server";
    for (int32_t level : {5, -1, 0, 3}) {
        driver.SetSecurity(level);
        EXPECT_EQ(driver.SendSOAP("<a/>"), 0) << level;
    }
    EXPECT_NE(driver.verbose_transfer().find("TLSv1.2"), std::string::npos);
}
