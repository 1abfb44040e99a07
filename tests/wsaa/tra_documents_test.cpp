#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>

#include "driver/afip_driver_exception.h"
#include "http/easy_http.h"
#include "support/wsaa_answers.h"
#include "wsaa/tra.h"

namespace {

void use_time_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

TRA make_tra(const std::string& service)
{
    return TRA("http://127.0.0.1:1/ws/services/LoginCms", service, "missing.p12", "", std::make_shared<EasyHTTP>(""));
}

int32_t fault_code(TRA& tra, const std::string& answer)
{
    try {
        tra.get_tra_error(answer);
    } catch (const afip_driver_exception& error) {
        EXPECT_STREQ(error.what(), "");
        return error.get_error();
    }
    return 0;
}

std::string fault_answer(const std::string& text)
{
    return soap_fault(text);
}

// 2026-11-16T01:56:42Z, which is 2026-11-15 22:56:42 at UTC-3.
const std::chrono::system_clock::time_point fixed_now =
    std::chrono::system_clock::time_point(std::chrono::seconds(1794794202)) + std::chrono::milliseconds(999);

} // namespace

TEST(LoginTicketRequest, ExactTextForAFixedClockAndZone)
{
    use_time_zone("<-03>3");
    EXPECT_EQ(make_tra("ws_example").create_tra_xml(fixed_now),
              "<?xml version=\"1.0\" encoding=\"utf-8\"?><loginTicketRequest version=\"1.0\"><header><uniqueId>"
              "2261374686</uniqueId><generationTime>2026-11-15T21:56:42</generationTime><expirationTime>"
              "2026-11-16T10:56:42</expirationTime></header><service>ws_example</service></loginTicketRequest>");

    // The same instant written in another zone's wall clock, with no offset either way.
    use_time_zone("UTC0");
    const std::string utc = make_tra("ws_example").create_tra_xml(fixed_now);
    EXPECT_NE(utc.find("<generationTime>2026-11-16T00:56:42</generationTime>"), std::string::npos) << utc;
    EXPECT_NE(utc.find("<expirationTime>2026-11-16T13:56:42</expirationTime>"), std::string::npos) << utc;
}

TEST(LoginTicketRequest, EmptyServiceLeavesOutTheElement)
{
    use_time_zone("<-03>3");
    const std::string text = make_tra("").create_tra_xml(fixed_now);
    EXPECT_EQ(text.find("service"), std::string::npos);
    EXPECT_NE(text.find("</expirationTime></header></loginTicketRequest>"), std::string::npos) << text;
}

TEST(LoginTicketRequest, MarkupInTheServiceIsEscaped)
{
    const std::string text = make_tra("a&b<c>").create_tra_xml(fixed_now);
    EXPECT_NE(text.find("<service>a&amp;b&lt;c&gt;</service>"), std::string::npos) << text;
}

TEST(LoginTicketRequest, OneLineStableWithinASecond)
{
    TRA tra = make_tra("wsfe");
    const std::string first = tra.create_tra_xml(fixed_now);
    const std::string second = tra.create_tra_xml(fixed_now - std::chrono::milliseconds(900));
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.find_first_of("\r\n\t"), std::string::npos);
    EXPECT_EQ(first.rfind("<?xml ", 0), 0u);

    // The clock-reading form uses the current time.
    use_time_zone("UTC0");
    const std::time_t before = std::time(nullptr);
    const std::string now_text = tra.create_tra_xml();
    const std::time_t after = std::time(nullptr);
    bool matched = false;
    for (std::time_t second_ = before; second_ <= after; ++second_)
        matched = matched || now_text.find("<generationTime>" + TRA::time_t_2_format_date(second_ - 3600)) != std::string::npos;
    EXPECT_TRUE(matched) << now_text;
}

TEST(LoginTicketRequest, TimeFormatIsLocalWithoutOffset)
{
    use_time_zone("UTC0");
    EXPECT_EQ(TRA::time_t_2_format_date(0), "1970-01-01T00:00:00");
    EXPECT_EQ(TRA::time_t_2_format_date(1794794202), "2026-11-16T01:56:42");
    use_time_zone("<-03>3");
    EXPECT_EQ(TRA::time_t_2_format_date(1794794202), "2026-11-15T22:56:42");
}

TEST(LoginEnvelope, ExactTextWithCarriageReturnsKept)
{
    TRA tra = make_tra("wsfe");
    EXPECT_EQ(tra.create_login_cms_soap("\nMIAG\r\nCSqG\n"),
              "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
              "xmlns:wsaa=\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><soapenv:Header/>"
              "<soapenv:Body><wsaa:loginCms><wsaa:in0>MIAG\rCSqG</wsaa:in0></wsaa:loginCms></soapenv:Body>"
              "</soapenv:Envelope>");
}

TEST(LoginEnvelope, EmptyTextLeavesOutIn0)
{
    TRA tra = make_tra("wsfe");
    EXPECT_EQ(tra.create_login_cms_soap("\n\n"),
              "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
              "xmlns:wsaa=\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><soapenv:Header/>"
              "<soapenv:Body><wsaa:loginCms/></soapenv:Body></soapenv:Envelope>");
}

TEST(SetNodeValue, EmptyValueAddsNothing)
{
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("root");
    TRA::set_node_value(root, "empty", "");
    TRA::set_node_value(root, "full", "x<y");
    EXPECT_FALSE(root.child("empty"));
    EXPECT_STREQ(root.child("full").first_child().value(), "x<y");
    EXPECT_EQ(root.child("full").first_child().type(), pugi::node_pcdata);
}

TEST(FaultClassification, MatchesCaseInsensitivelyInsideLongerTexts)
{
    TRA tra = make_tra("wsfe");
    EXPECT_EQ(fault_code(tra, fault_answer("El CEE ya posee un TA valido para el acceso al WSN solicitado")), 9);
    EXPECT_EQ(fault_code(tra, fault_answer("computador NO AUTORIZADO a acceder al servicio")), 2);
    EXPECT_EQ(fault_code(tra, fault_answer("cms.cert.expired: CERTIFICADO EXPIRADO el 2026-01-01")), 3);
    EXPECT_EQ(fault_code(tra, fault_answer("certificado expirado")), 3) << "never 6";
}

TEST(FaultClassification, CombinedTextsFollowPriority)
{
    TRA tra = make_tra("wsfe");
    EXPECT_EQ(fault_code(tra, fault_answer("Computador no autorizado a acceder al servicio; El CEE ya posee un TA "
                                           "valido para el acceso al WSN solicitado")),
              9);
    EXPECT_EQ(fault_code(tra, fault_answer("Certificado expirado y Computador no autorizado a acceder al servicio")), 2);
}

TEST(FaultClassification, UnknownOrMissingFaultsRaiseNothing)
{
    TRA tra = make_tra("wsfe");
    EXPECT_EQ(fault_code(tra, fault_answer("generationTime posee formato incorrecto")), 0);
    EXPECT_EQ(fault_code(tra, fault_answer("")), 0);
    EXPECT_EQ(fault_code(tra, ""), 0);
    EXPECT_EQ(fault_code(tra, "Certificado expirado"), 0) << "plain text is no fault document";
    // A prefixed faultstring is not recognised.
    EXPECT_EQ(fault_code(tra, "<soapenv:Envelope><soapenv:Body><soapenv:Fault><x:faultstring>Certificado expirado"
                              "</x:faultstring></soapenv:Fault></soapenv:Body></soapenv:Envelope>"),
              0);
    // Entities are decoded before matching.
    EXPECT_EQ(fault_code(tra, "<soapenv:Envelope><soapenv:Body><soapenv:Fault><faultstring>Certificado&#32;"
                              "expirado</faultstring></soapenv:Fault></soapenv:Body></soapenv:Envelope>"),
              3);
}
