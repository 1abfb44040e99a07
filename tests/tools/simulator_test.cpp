// The simulator as users run it: a child process over HTTPS on loopback, fed by the
// library's own login ticket request, signing and envelope code.
#include <gtest/gtest.h>
#include <pugixml.hpp>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <thread>

#include "crypto/cms.h"
#include "driver/afip_driver_exception.h"
#include "http/easy_http.h"
#include "support/certificates.h"
#include "support/child_process.h"
#include "util/b64.h"
#include "wsaa/tra.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

const std::string simulator_program = std::string(TARVO_BINARY_DIR) + "/tools/simulator/afip_simulator";
const char certificate_password[] = "secreto";
const char argentina_zone[] = "<-03>3";

void use_time_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

// "%FT%T" of an instant in Argentina's time, computed without the process's zone.
std::string argentina_text(Clock::time_point when)
{
    const std::time_t shifted = Clock::to_time_t(when) - 3 * 3600;
    std::tm broken{};
    gmtime_r(&shifted, &broken);
    char text[32];
    std::strftime(text, sizeof text, "%FT%T", &broken);
    return text;
}

// The instant of "YYYY-MM-DDTHH:MM:SS.mmm-03:00".
Clock::time_point parse_answer_time(const std::string& text)
{
    std::tm broken{};
    int millis = 0;
    EXPECT_EQ(std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%d", &broken.tm_year, &broken.tm_mon, &broken.tm_mday,
                          &broken.tm_hour, &broken.tm_min, &broken.tm_sec, &millis),
              7)
        << text;
    broken.tm_year -= 1900;
    broken.tm_mon -= 1;
    return Clock::from_time_t(timegm(&broken) + 3 * 3600) + std::chrono::milliseconds(millis);
}

struct HttpAnswer {
    int status = 0;
    std::string body;
};

HttpAnswer post(const std::string& url, const std::string& body)
{
    EasyHTTP http("");
    http.set_time_out(30000);
    http.add_request_header("Content-Type: text/xml;charset=UTF-8");
    HttpAnswer answer;
    answer.status = http.send_post_request(url, body);
    answer.body = http.get_response();
    return answer;
}

// The simulator started with --tls on an ephemeral port. Stopped with its test by SIGTERM,
// which must end it cleanly: a sanitizer report or a crash in the simulator fails the test.
class Simulator {
public:
    Simulator(const TempDir& directory, std::vector<std::string> options)
    {
        const std::string port_file = directory.file("port-" + std::to_string(++s_started));
        ChildSpec spec;
        spec.arguments = {simulator_program, "--tls", "--port-file", port_file, "--max-seconds", "120"};
        spec.arguments.insert(spec.arguments.end(), options.begin(), options.end());
        m_process = std::make_unique<ChildProcess>(spec);

        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (std::chrono::steady_clock::now() < deadline && m_process->running()) {
            std::ifstream file(port_file);
            if (file >> m_port)
                return;
            std::this_thread::sleep_for(20ms);
        }
        ADD_FAILURE() << "the simulator did not start: " << m_process->standard_error();
    }
    ~Simulator()
    {
        const ChildResult result = m_process->stop(30s);
        EXPECT_EQ(result.exit_code, 0) << result.standard_error;
        EXPECT_EQ(result.standard_error, "");
    }
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    std::string url(const std::string& path) const { return "https://127.0.0.1:" + std::to_string(m_port) + path; }
    int port() const { return m_port; }
    ChildProcess& process() { return *m_process; }
    std::string log() const { return m_process->standard_output(); }

private:
    static inline int s_started = 0;
    std::unique_ptr<ChildProcess> m_process;
    int m_port = 0;
};

// The login ticket request as the library builds it, in the process's time zone.
std::string library_ticket_request(const std::string& service)
{
    return TRA("", service, "", "", nullptr).create_tra_xml();
}

std::string ticket_request(const std::string& service, Clock::time_point generation, Clock::time_point expiration)
{
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?><loginTicketRequest version=\"1.0\"><header><uniqueId>"
           "2261374686</uniqueId><generationTime>" +
           argentina_text(generation) + "</generationTime><expirationTime>" + argentina_text(expiration) +
           "</expirationTime></header><service>" + service + "</service></loginTicketRequest>";
}

std::string login_envelope_for_cms(const std::string& cms)
{
    return TRA("", "", "", "", nullptr).create_login_cms_soap(cms);
}

struct LoginAnswer {
    int status = 0;
    std::string body;
    std::string token, sign, generation, expiration, destination, source;
    std::string fault_code, fault;
};

// Read along the library's own, prefix-exact paths.
LoginAnswer read_login_answer(const HttpAnswer& http)
{
    LoginAnswer answer;
    answer.status = http.status;
    answer.body = http.body;
    pugi::xml_document envelope;
    envelope.load_string(http.body.c_str());
    const pugi::xml_node body = envelope.child("soapenv:Envelope").child("soapenv:Body");
    const pugi::xml_node fault = body.child("soapenv:Fault");
    answer.fault_code = fault.child_value("faultcode");
    answer.fault = fault.child_value("faultstring");

    pugi::xml_document ticket;
    ticket.load_string(body.child("loginCmsResponse").child_value("loginCmsReturn"));
    const pugi::xml_node response = ticket.child("loginTicketResponse");
    answer.token = response.child("credentials").child_value("token");
    answer.sign = response.child("credentials").child_value("sign");
    answer.generation = response.child("header").child_value("generationTime");
    answer.expiration = response.child("header").child_value("expirationTime");
    answer.destination = response.child("header").child_value("destination");
    answer.source = response.child("header").child_value("source");
    return answer;
}

// The result code the library draws from a fault answer; 0 when it recognises none.
int library_fault_code(const std::string& answer)
{
    try {
        TRA("", "", "", "", nullptr).get_tra_error(answer);
    } catch (const afip_driver_exception& error) {
        return error.get_error();
    }
    return 0;
}

std::string invoicing_request(const std::string& operation, const std::string& token, const std::string& sign,
                              const std::string& content)
{
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:ar=\"http://ar.gov.afip.dif.FEV1/\"><soapenv:Header/><soapenv:Body><ar:" +
           operation + "><ar:Auth><ar:Token>" + token + "</ar:Token><ar:Sign>" + sign +
           "</ar:Sign><ar:Cuit>20111111112</ar:Cuit></ar:Auth>" + content + "</ar:" + operation +
           "></soapenv:Body></soapenv:Envelope>";
}

std::string last_authorised_request(const std::string& token, const std::string& sign, int point_of_sale = 1)
{
    return invoicing_request("FECompUltimoAutorizado", token, sign,
                             "<ar:PtoVta>" + std::to_string(point_of_sale) + "</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>");
}

std::string authorise_request(const std::string& token, const std::string& sign, int number)
{
    const std::string n = std::to_string(number);
    return invoicing_request(
        "FECAESolicitar", token, sign,
        "<ar:FeCAEReq><ar:FeCabReq><ar:CantReg>1</ar:CantReg><ar:PtoVta>1</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>"
        "</ar:FeCabReq><ar:FeDetReq><ar:FECAEDetRequest><ar:Concepto>1</ar:Concepto><ar:DocTipo>99</ar:DocTipo>"
        "<ar:DocNro>0</ar:DocNro><ar:CbteDesde>" +
            n + "</ar:CbteDesde><ar:CbteHasta>" + n +
            "</ar:CbteHasta><ar:ImpTotal>121</ar:ImpTotal></ar:FECAEDetRequest></ar:FeDetReq></ar:FeCAEReq>");
}

// The Result element of an invoicing answer: soap:Envelope/soap:Body/<op>Response/<op>Result.
pugi::xml_node invoicing_result(const pugi::xml_document& document, const std::string& operation)
{
    return document.child("soap:Envelope")
        .child("soap:Body")
        .child((operation + "Response").c_str())
        .child((operation + "Result").c_str());
}

class SimulatorTest : public ::testing::Test {
protected:
    void SetUp() override { use_time_zone(argentina_zone); }

    // A client certificate written by the simulator's own certificate maker.
    std::string make_certificate(const std::string& name, bool expired = false)
    {
        const std::string path = m_directory.file(name + ".p12");
        ChildSpec spec;
        spec.arguments = {simulator_program, "--make-certificate", path, "--password", certificate_password,
                          "--cn", name};
        if (expired)
            spec.arguments.push_back("--expired");
        const ChildResult made = run_child(spec, 60s);
        EXPECT_EQ(made.exit_code, 0) << made.standard_error;
        return path;
    }

    LoginAnswer login(const Simulator& simulator, const std::string& certificate, const std::string& request)
    {
        const std::string envelope = login_envelope_for_cms(sign_cms(request, certificate, certificate_password));
        return read_login_answer(post(simulator.url("/ws/services/LoginCms"), envelope));
    }

    TempDir m_directory;
};

using SimulatorLogin = SimulatorTest;
using SimulatorInvoicing = SimulatorTest;

TEST_F(SimulatorLogin, SignedRequestGetsATicketTheLibraryCanRead)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {});

    const LoginAnswer answer = login(simulator, certificate, library_ticket_request("wsfe"));

    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_GT(answer.token.size(), 300u);
    EXPECT_GT(answer.sign.size(), 100u);
    EXPECT_EQ(answer.destination, "CN=tester");
    EXPECT_EQ(answer.source, "CN=wsaahomo, O=AFIP, C=AR, SERIALNUMBER=CUIT 33693450239");
    const std::regex argentina_time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}-03:00)");
    EXPECT_TRUE(std::regex_match(answer.generation, argentina_time)) << answer.generation;
    EXPECT_TRUE(std::regex_match(answer.expiration, argentina_time)) << answer.expiration;
    const Clock::time_point generated = parse_answer_time(answer.generation);
    EXPECT_LT(std::chrono::abs(generated - Clock::now()), 60s);
    EXPECT_EQ(parse_answer_time(answer.expiration) - generated, 43200s);
    EXPECT_EQ(library_fault_code(answer.body), 0);
    EXPECT_NE(simulator.log().find("POST /ws/services/LoginCms 200 loginCms service=wsfe -> ticket issued"),
              std::string::npos)
        << simulator.log();
}

TEST_F(SimulatorLogin, AValidTicketBlocksAnotherForTheSameCertificateAndServiceOnly)
{
    const std::string first = make_certificate("first");
    const std::string second = make_certificate("second");
    Simulator simulator(m_directory, {"--services", "wsfe,wsfex"});

    ASSERT_EQ(login(simulator, first, library_ticket_request("wsfe")).status, 200);
    const LoginAnswer again = login(simulator, first, library_ticket_request("wsfe"));
    EXPECT_EQ(again.status, 500);
    EXPECT_EQ(again.fault, "El CEE ya posee un TA valido para el acceso al WSN solicitado");
    EXPECT_EQ(again.fault_code, "ns1:coe.alreadyAuthenticated");
    EXPECT_TRUE(again.token.empty());
    EXPECT_EQ(library_fault_code(again.body), AFIP_TICKET_ALREADY_VALID);

    EXPECT_EQ(login(simulator, first, library_ticket_request("wsfex")).status, 200);
    EXPECT_EQ(login(simulator, second, library_ticket_request("wsfe")).status, 200);
}

TEST_F(SimulatorLogin, TicketLifetimeEndsBothTheBlockAndTheCredentials)
{
    const std::string certificate = make_certificate("short");
    Simulator simulator(m_directory, {"--ticket-seconds", "1"});
    const LoginAnswer ticket = login(simulator, certificate, library_ticket_request("wsfe"));
    ASSERT_EQ(ticket.status, 200) << ticket.body;
    EXPECT_EQ(parse_answer_time(ticket.expiration) - parse_answer_time(ticket.generation), 1s);

    std::this_thread::sleep_for(1500ms);
    const HttpAnswer stale = post(simulator.url("/wsfev1/service.asmx"), last_authorised_request(ticket.token, ticket.sign));
    pugi::xml_document document;
    document.load_string(stale.body.c_str());
    EXPECT_EQ(stale.status, 200);
    EXPECT_STREQ(invoicing_result(document, "FECompUltimoAutorizado").child("Errors").child("Err").child_value("Code"),
                 "600");
    EXPECT_EQ(login(simulator, certificate, library_ticket_request("wsfe")).status, 200);
}

TEST_F(SimulatorLogin, RefusesAServiceOutsideItsList)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {"--services", "wsfe"});
    const LoginAnswer answer = login(simulator, certificate, library_ticket_request("ws_sr_padron_a4"));
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(answer.fault, "Computador no autorizado a acceder al servicio");
    EXPECT_EQ(library_fault_code(answer.body), AFIP_NOT_AUTHORIZED);
}

TEST_F(SimulatorLogin, RefusesAnExpiredCertificate)
{
    const std::string certificate = make_certificate("old", true);
    Simulator simulator(m_directory, {});
    const LoginAnswer answer = login(simulator, certificate, library_ticket_request("wsfe"));
    EXPECT_EQ(answer.status, 500);
    EXPECT_EQ(answer.fault, "Certificado expirado");
    EXPECT_EQ(library_fault_code(answer.body), AFIP_CERTIFICATE_EXPIRED);
}

TEST_F(SimulatorLogin, ReadsTheRequestTimesAsArgentinaTime)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {});

    // A host two hours east of Argentina writes times that read as an hour in the future.
    use_time_zone("<-01>1");
    const LoginAnswer wrong_zone = login(simulator, certificate, library_ticket_request("wsfe"));
    EXPECT_EQ(wrong_zone.status, 500);
    EXPECT_NE(wrong_zone.fault.find("generationTime"), std::string::npos) << wrong_zone.fault;
    EXPECT_EQ(library_fault_code(wrong_zone.body), 0);

    use_time_zone(argentina_zone);
    EXPECT_EQ(login(simulator, certificate, library_ticket_request("wsfe")).status, 200);
}

TEST_F(SimulatorLogin, RefusesTimesOutsideTheWindowAndToleratesSmallSkew)
{
    struct Case {
        const char* what;
        std::chrono::seconds generation;
        std::chrono::seconds expiration;
        int status;
    };
    const Case cases[] = {
        {"generated 25 h ago", -25h, 1h, 500},
        {"generated 10 min ahead", 10min, 12h, 500},
        {"expiring at its generation", -1h, -1h, 500},
        {"expiring before its generation", -1h, -2h, 500},
        {"already expired", -3h, -1h, 500},
        {"generated 4 min ahead (clock skew)", 4min, 12h, 200},
        {"generated 23 h ago", -23h, 1h, 200},
    };
    const std::string certificate = make_certificate("tester");
    // One service per case, so that an accepted case does not block the next.
    std::string services = "s0";
    for (size_t i = 1; i < std::size(cases); ++i)
        services += ",s" + std::to_string(i);
    Simulator simulator(m_directory, {"--services", services});

    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case& c = cases[i];
        const LoginAnswer answer = login(
            simulator, certificate, ticket_request("s" + std::to_string(i), now + c.generation, now + c.expiration));
        EXPECT_EQ(answer.status, c.status) << c.what << ": " << answer.body;
        if (c.status == 500) {
            EXPECT_NE(answer.fault.find("Time"), std::string::npos) << c.what << ": " << answer.fault;
            EXPECT_EQ(library_fault_code(answer.body), 0) << c.what;
        }
    }
}

TEST_F(SimulatorLogin, RefusesDamagedMessagesWithFaultsOfTheirOwn)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {});
    std::string cms = sign_cms(library_ticket_request("wsfe"), certificate, certificate_password);
    cms.erase(std::remove(cms.begin(), cms.end(), '\n'), cms.end());

    // The signed service name changed after signing: the signature no longer matches.
    std::string der = base64_decode(cms);
    const std::string::size_type service = der.find("<service>wsfe");
    ASSERT_NE(service, std::string::npos) << "the content is not embedded in the CMS";
    der[service + 12] = 'x';
    const std::string tampered = base64_encode(der);

    const std::pair<const char*, std::string> cases[] = {
        {"not XML", "this is not XML"},
        {"no loginCms", "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body/></s:Envelope>"},
        {"not Base64", login_envelope_for_cms("@@@@")},
        {"not a CMS", login_envelope_for_cms(base64_encode("definitely not DER"))},
        {"tampered content", login_envelope_for_cms(tampered)},
        {"truncated CMS", login_envelope_for_cms(base64_encode(der.substr(0, der.size() / 2)))},
    };
    for (const auto& [what, body] : cases) {
        const LoginAnswer answer = read_login_answer(post(simulator.url("/ws/services/LoginCms"), body));
        EXPECT_EQ(answer.status, 500) << what;
        EXPECT_FALSE(answer.fault.empty()) << what << ": " << answer.body;
        EXPECT_EQ(answer.fault_code.rfind("ns1:", 0), 0u) << what << ": " << answer.fault_code;
        EXPECT_EQ(library_fault_code(answer.body), 0) << what << ": " << answer.fault;
    }
    // The untouched message is still good: the refusals came from the damage.
    EXPECT_EQ(read_login_answer(post(simulator.url("/ws/services/LoginCms"), login_envelope_for_cms(cms))).status, 200);
}

TEST_F(SimulatorLogin, MatchesElementsByLocalName)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {});
    std::string cms = sign_cms(library_ticket_request("wsfe"), certificate, certificate_password);
    const std::string envelope = "<S:Envelope xmlns:S=\"http://schemas.xmlsoap.org/soap/envelope/\"><S:Body>"
                                 "<loginCms xmlns=\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><in0>" +
                                 cms + "</in0></loginCms></S:Body></S:Envelope>";
    EXPECT_EQ(read_login_answer(post(simulator.url("/ws/services/LoginCms"), envelope)).status, 200);
}

TEST_F(SimulatorInvoicing, DummyAnswersOkWithoutCredentials)
{
    Simulator simulator(m_directory, {});
    const HttpAnswer answer = post(simulator.url("/wsfev1/service.asmx"),
                                   "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                                   "<FEDummy xmlns=\"http://ar.gov.afip.dif.FEV1/\"/></soap:Body></soap:Envelope>");
    pugi::xml_document document;
    document.load_string(answer.body.c_str());
    const pugi::xml_node result = invoicing_result(document, "FEDummy");
    EXPECT_EQ(answer.status, 200);
    EXPECT_STREQ(result.child_value("AppServer"), "OK");
    EXPECT_STREQ(result.child_value("DbServer"), "OK");
    EXPECT_STREQ(result.child_value("AuthServer"), "OK");
}

TEST_F(SimulatorInvoicing, LastAuthorisedNeedsCredentialsItIssued)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {});
    const LoginAnswer ticket = login(simulator, certificate, library_ticket_request("wsfe"));
    ASSERT_EQ(ticket.status, 200);

    const auto ask = [&](const std::string& token, const std::string& sign) {
        const HttpAnswer answer = post(simulator.url("/wsfev1/service.asmx"), last_authorised_request(token, sign));
        EXPECT_EQ(answer.status, 200) << answer.body;
        auto document = std::make_shared<pugi::xml_document>();
        document->load_string(answer.body.c_str());
        return document;
    };

    const auto accepted = ask(ticket.token, ticket.sign);
    const pugi::xml_node result = invoicing_result(*accepted, "FECompUltimoAutorizado");
    EXPECT_STREQ(result.child_value("PtoVta"), "1");
    EXPECT_STREQ(result.child_value("CbteTipo"), "6");
    EXPECT_STREQ(result.child_value("CbteNro"), "0");
    EXPECT_FALSE(result.child("Errors"));

    const std::string forged_token = base64_encode(std::string(384, 'x'));
    for (const auto& [token, sign] : {std::pair{forged_token, ticket.sign}, std::pair{ticket.token, forged_token}}) {
        const auto refused = ask(token, sign);
        const pugi::xml_node err = invoicing_result(*refused, "FECompUltimoAutorizado").child("Errors").child("Err");
        EXPECT_STREQ(err.child_value("Code"), "600");
        EXPECT_NE(std::string(err.child_value("Msg")).find("ValidacionDeToken"), std::string::npos);
    }
    EXPECT_NE(simulator.log().find("POST /wsfev1/service.asmx 200 FECompUltimoAutorizado -> Err 600"),
              std::string::npos)
        << simulator.log();
}

TEST_F(SimulatorInvoicing, AuthorisingAdvancesOnlyItsOwnSeries)
{
    const std::string certificate = make_certificate("tester");
    Simulator simulator(m_directory, {});
    const LoginAnswer ticket = login(simulator, certificate, library_ticket_request("wsfe"));
    ASSERT_EQ(ticket.status, 200);
    const std::string url = simulator.url("/wsfev1/service.asmx");

    pugi::xml_document approved;
    approved.load_string(post(url, authorise_request(ticket.token, ticket.sign, 1)).body.c_str());
    const pugi::xml_node result = invoicing_result(approved, "FECAESolicitar");
    EXPECT_STREQ(result.child("FeCabResp").child_value("Resultado"), "A");
    const pugi::xml_node detail = result.child("FeDetResp").child("FECAEDetResponse");
    EXPECT_STREQ(detail.child_value("Resultado"), "A");
    EXPECT_TRUE(std::regex_match(detail.child_value("CAE"), std::regex(R"(\d{14})"))) << detail.child_value("CAE");
    EXPECT_TRUE(std::regex_match(detail.child_value("CAEFchVto"), std::regex(R"(\d{8})")));

    pugi::xml_document last;
    last.load_string(post(url, last_authorised_request(ticket.token, ticket.sign)).body.c_str());
    EXPECT_STREQ(invoicing_result(last, "FECompUltimoAutorizado").child_value("CbteNro"), "1");
    pugi::xml_document other_series;
    other_series.load_string(post(url, last_authorised_request(ticket.token, ticket.sign, 2)).body.c_str());
    EXPECT_STREQ(invoicing_result(other_series, "FECompUltimoAutorizado").child_value("CbteNro"), "0");

    pugi::xml_document repeated;
    repeated.load_string(post(url, authorise_request(ticket.token, ticket.sign, 1)).body.c_str());
    const pugi::xml_node rejected = invoicing_result(repeated, "FECAESolicitar").child("FeDetResp").child("FECAEDetResponse");
    EXPECT_STREQ(rejected.child_value("Resultado"), "R");
    EXPECT_STREQ(rejected.child("Observaciones").child("Obs").child_value("Code"), "10016");
}

TEST_F(SimulatorInvoicing, UnknownOperationsUnreadableRequestsAndPathsAreRefused)
{
    Simulator simulator(m_directory, {});
    const std::pair<const char*, std::string> faults[] = {
        {"unknown operation", invoicing_request("FENoSuchThing", "t", "s", "")},
        {"not XML", "hello"},
    };
    for (const auto& [what, body] : faults) {
        const HttpAnswer answer = post(simulator.url("/wsfev1/service.asmx"), body);
        pugi::xml_document document;
        document.load_string(answer.body.c_str());
        const pugi::xml_node fault = document.child("soap:Envelope").child("soap:Body").child("soap:Fault");
        EXPECT_EQ(answer.status, 500) << what;
        EXPECT_STREQ(fault.child_value("faultcode"), "soap:Client") << what << ": " << answer.body;
        EXPECT_NE(std::string(fault.child_value("faultstring")), "") << what;
    }
    EXPECT_EQ(post(simulator.url("/wsfev1/other.asmx"), "<x/>").status, 404);
    EXPECT_EQ(post(simulator.url("/"), "<x/>").status, 404);
}

TEST_F(SimulatorInvoicing, DelayAndPlainTextAnswerOptions)
{
    const std::string dummy = "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                              "<FEDummy xmlns=\"http://ar.gov.afip.dif.FEV1/\"/></soap:Body></soap:Envelope>";
    Simulator slow(m_directory, {"--service-delay-ms", "800"});
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(post(slow.url("/wsfev1/service.asmx"), dummy).status, 200);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 800ms);

    Simulator plain(m_directory, {"--non-xml-answer"});
    const HttpAnswer answer = post(plain.url("/wsfev1/service.asmx"), dummy);
    EXPECT_EQ(answer.status, 200);
    EXPECT_FALSE(answer.body.empty());
    pugi::xml_document document;
    EXPECT_FALSE(document.load_string(answer.body.c_str())) << answer.body;
}

TEST(SimulatorProcess, MaxSecondsStopsIt)
{
    TempDir directory;
    Simulator simulator(directory, {"--max-seconds", "1"});
    const auto started = std::chrono::steady_clock::now();
    const ChildResult result = simulator.process().wait(30s);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.exit_code, 0) << result.standard_error;
    EXPECT_LT(std::chrono::steady_clock::now() - started, 10s);
    EXPECT_NE(result.standard_output.find("stopped: 1 s elapsed"), std::string::npos) << result.standard_output;
}

TEST(SimulatorProcess, SigtermAndSigintStopItCleanly)
{
    TempDir directory;
    for (const int signal_number : {SIGTERM, SIGINT}) {
        Simulator simulator(directory, {});
        const std::string listening = "listening on https://127.0.0.1:" + std::to_string(simulator.port()) + "\n";
        EXPECT_EQ(simulator.log().rfind(listening, 0), 0u) << simulator.log();

        ASSERT_EQ(kill(simulator.process().pid(), signal_number), 0);
        const ChildResult result = simulator.process().wait(30s);
        EXPECT_FALSE(result.timed_out) << signal_number;
        EXPECT_EQ(result.exit_code, 0) << signal_number << ": " << result.standard_error;
        EXPECT_NE(result.standard_output.find(signal_number == SIGTERM ? "stopped: SIGTERM" : "stopped: SIGINT"),
                  std::string::npos)
            << result.standard_output;
    }
}

TEST(SimulatorProcess, CommandLine)
{
    TempDir directory;
    const ChildResult help = run_child({{simulator_program, "--help"}, {}, "", ""}, 30s);
    EXPECT_EQ(help.exit_code, 0);
    for (const char* option : {"--tls", "--port-file", "--services", "--ticket-seconds", "--service-delay-ms",
                               "--non-xml-answer", "--max-seconds", "--make-certificate", "--expired"})
        EXPECT_NE(help.standard_output.find(option), std::string::npos) << option;

    const ChildResult unknown = run_child({{simulator_program, "--no-such-option"}, {}, "", ""}, 30s);
    EXPECT_EQ(unknown.exit_code, 2);
    const ChildResult bad_port = run_child({{simulator_program, "--port", "70000"}, {}, "", ""}, 30s);
    EXPECT_EQ(bad_port.exit_code, 2);
    const ChildResult no_password =
        run_child({{simulator_program, "--make-certificate", directory.file("x.p12")}, {}, "", ""}, 30s);
    EXPECT_EQ(no_password.exit_code, 2);

    // Plain HTTP when --tls is absent.
    ChildSpec spec;
    spec.arguments = {simulator_program, "--port-file", directory.file("http-port"), "--max-seconds", "60"};
    ChildProcess plain(spec);
    int port = 0;
    for (int i = 0; i < 3000 && port == 0 && plain.running(); ++i) {
        std::ifstream file(directory.file("http-port"));
        if (!(file >> port))
            std::this_thread::sleep_for(20ms);
    }
    ASSERT_NE(port, 0) << plain.standard_error();
    EXPECT_EQ(plain.standard_output().rfind("listening on http://127.0.0.1:" + std::to_string(port), 0), 0u);
    EXPECT_EQ(post("http://127.0.0.1:" + std::to_string(port) + "/wsfev1/service.asmx",
                   "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                   "<FEDummy/></soap:Body></soap:Envelope>")
                  .status,
              200);
    EXPECT_EQ(plain.stop(30s).exit_code, 0);
}

} // namespace
