#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>

#include "driver/afip_driver_exception.h"
#include "http/easy_http.h"
#include "support/certificates.h"
#include "support/scoped_chdir.h"
#include "support/wsaa_answers.h"
#include "wsaa/tra.h"

namespace {

// A TRA whose renewal can never succeed: its certificate does not exist, so any attempt to
// request a new ticket ends in result code 1 before anything is sent.
TRA offline_tra(const std::string& service)
{
    return TRA("http://127.0.0.1:1/ws/services/LoginCms", service, "missing.p12", "", std::make_shared<EasyHTTP>(""));
}

int32_t code_of(const std::function<void()>& action)
{
    try {
        action();
    } catch (const afip_driver_exception& error) {
        return error.get_error();
    }
    return 0;
}

std::string cache_entry(const std::string& service, const std::string& token, const std::string& sign,
                        const std::string& generated)
{
    return "{\"" + service + "\": {\"expired\": \"" + generated + "\", \"sign\": \"" + sign + "\", \"token\": \"" +
           token + "\"}}";
}

mode_t file_mode(const std::string& path)
{
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
}

class CredentialsCache : public ::testing::Test {
protected:
    CredentialsCache() : m_inside(m_dir.path())
    {
        setenv("TZ", "<-03>3", 1);
        tzset();
        umask(022);
    }

    std::string minutes_ago(int minutes) const { return local_time_text(std::time(nullptr) - minutes * 60); }

    TempDir m_dir;
    ScopedChdir m_inside;
};

} // namespace

TEST_F(CredentialsCache, YoungTicketIsReusedWithoutRenewal)
{
    write_file("credentials.json", cache_entry("wsfe", "T-cached", "S-cached", minutes_ago(59)));
    TRA tra = offline_tra("wsfe");
    const auto credentials = tra.get_credentials();
    EXPECT_EQ(credentials.first, "T-cached");
    EXPECT_EQ(credentials.second, "S-cached");
}

TEST_F(CredentialsCache, StaleOrIncompleteEntriesLeadToRenewal)
{
    const std::string cases[] = {
        cache_entry("wsfe", "T", "S", minutes_ago(61)),
        "{\"wsfe\": {\"expired\": \"" + minutes_ago(1) + "\", \"token\": \"T\"}}",
        "{\"wsfe\": {\"expired\": \"" + minutes_ago(1) + "\", \"sign\": \"S\"}}",
        "{\"wsfe\": {\"sign\": \"S\", \"token\": \"T\"}}",
        "{\"wsfe\": {\"expired\": \"" + minutes_ago(1) + "\", \"sign\": 7, \"token\": \"T\"}}",
        cache_entry("wsfex", "T", "S", minutes_ago(1)),
        cache_entry("wsfe", "T", "S", "not a time"),
        cache_entry("wsfe", "T", "S", ""),
        "{\"wsfe\": ",
        "[1, 2]",
        "",
    };
    for (const std::string& content : cases) {
        write_file("credentials.json", content);
        TRA tra = offline_tra("wsfe");
        EXPECT_EQ(code_of([&] { tra.get_credentials(); }), 1) << content;
    }
    std::remove("credentials.json");
    TRA without_file = offline_tra("wsfe");
    EXPECT_EQ(code_of([&] { without_file.get_credentials(); }), 1);
}

TEST_F(CredentialsCache, AgeCheckIgnoresFractionAndOffset)
{
    TRA tra = offline_tra("wsfe");
    const std::time_t now = std::time(nullptr);
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(local_time_text(now - 3599, "")); }), 0);
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(local_time_text(now - 3605, "")); }), 11);
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(local_time_text(now - 1800, ".999+05:00")); }), 0);
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(local_time_text(now - 7200, ".000-03:00")); }), 11);
    // A time in the future counts as fresh.
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(local_time_text(now + 86400, "")); }), 0);
    // Unparsable texts count as very old.
    for (const char* text : {"", "garbage", "T10:00:00", "1899-12-31T00:00:00", "0000-00-00T00:00:00"})
        EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(text); }), 11) << text;
}

TEST_F(CredentialsCache, AgeIsReadInTheProcessTimeZone)
{
    TRA tra = offline_tra("wsfe");
    const std::string thirty_minutes_ago_here = local_time_text(std::time(nullptr) - 1800, "");
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(thirty_minutes_ago_here); }), 0);
    // The same digits read three hours further west lie in the future; three hours east, too old.
    setenv("TZ", "<-06>6", 1);
    tzset();
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(thirty_minutes_ago_here); }), 0);
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(code_of([&] { tra.check_tra_is_expired(thirty_minutes_ago_here); }), 11);
}

TEST_F(CredentialsCache, NewFileHoldsOnlyThisServiceOwnerOnly)
{
    TRA tra = offline_tra("wsfe");
    tra.get_token_and_sign(login_cms_response(
        login_ticket_response("T1", "S1", "2026-11-21T10:15:30.123-03:00", "2026-11-21T22:15:30.123-03:00")));

    EXPECT_EQ(read_file("credentials.json"), "{\n"
                                             "    \"wsfe\": {\n"
                                             "        \"expired\": \"2026-11-21T10:15:30.123-03:00\",\n"
                                             "        \"sign\": \"S1\",\n"
                                             "        \"token\": \"T1\"\n"
                                             "    }\n"
                                             "}\n");
    EXPECT_EQ(file_mode("credentials.json"), 0600u);
}

TEST_F(CredentialsCache, RewriteReplacesOneEntryAndKeepsTheRest)
{
    const std::string before = "{\"wsfex\": {\"expired\": \"x\", \"sign\": \"SB\", \"token\": \"TB\", \"extra\": [1, 2.5]},"
                               " \"wsfe\": {\"expired\": \"old\", \"sign\": \"old\", \"token\": \"old\", \"note\": 1},"
                               " \"aaa\": \"top-level member\"}";
    write_file("credentials.json", before);
    chmod("credentials.json", 0640);

    TRA tra = offline_tra("wsfe");
    tra.get_token_and_sign(login_cms_response(login_ticket_response("T\xC3\xA9", "S2", "G2", "E2")));

    const nlohmann::json written = nlohmann::json::parse(read_file("credentials.json"));
    const nlohmann::json original = nlohmann::json::parse(before);
    EXPECT_EQ(written["wsfex"], original["wsfex"]);
    EXPECT_EQ(written["aaa"], original["aaa"]);
    EXPECT_EQ(written["wsfe"], (nlohmann::json{{"expired", "G2"}, {"sign", "S2"}, {"token", "T\xC3\xA9"}}))
        << "the entry is replaced whole";
    const std::string text = read_file("credentials.json");
    EXPECT_NE(text.find("\"token\": \"T\xC3\xA9\""), std::string::npos) << "non-ASCII is written unescaped";
    EXPECT_LT(text.find("\"aaa\""), text.find("\"wsfe\""));
    EXPECT_EQ(text.back(), '\n');
    EXPECT_NE(text[text.size() - 2], '\n');
    EXPECT_EQ(file_mode("credentials.json"), 0640u) << "an existing file keeps its mode";
}

TEST_F(CredentialsCache, UnparsableFileIsReplaced)
{
    write_file("credentials.json", "{ broken");
    TRA tra = offline_tra("wsfe");
    tra.get_token_and_sign(login_cms_response(login_ticket_response("T", "S", "G", "E")));
    EXPECT_EQ(nlohmann::json::parse(read_file("credentials.json")),
              (nlohmann::json{{"wsfe", {{"expired", "G"}, {"sign", "S"}, {"token", "T"}}}}));
}

TEST_F(CredentialsCache, NonObjectFileMakesTheTypeErrorPropagate)
{
    write_file("credentials.json", "[1, 2, 3]");
    TRA tra = offline_tra("wsfe");
    EXPECT_THROW(tra.get_token_and_sign(login_cms_response(login_ticket_response("T", "S", "G", "E"))),
                 nlohmann::json::type_error);
    EXPECT_EQ(read_file("credentials.json"), "[1, 2, 3]");
}

TEST_F(CredentialsCache, IncompleteTicketWritesNothing)
{
    TRA tra = offline_tra("wsfe");
    tra.get_token_and_sign(login_cms_response(login_ticket_response("T", "S", "", "E")));
    EXPECT_FALSE(std::ifstream("credentials.json").good());

    // Token and sign were still taken: a second call returns them without looking further.
    const auto credentials = tra.get_credentials();
    EXPECT_EQ(credentials.first, "T");
    EXPECT_EQ(credentials.second, "S");
}

TEST_F(CredentialsCache, AnswersWithoutATicketLeaveEverythingEmpty)
{
    TRA tra = offline_tra("wsfe");
    for (const std::string& answer :
         {soap_fault("Certificado expirado"), std::string("not xml"), std::string(""),
          std::string("<soapenv:Envelope><soapenv:Body><ns:loginCmsResponse><ns:loginCmsReturn>x</ns:loginCmsReturn>"
                      "</ns:loginCmsResponse></soapenv:Body></soapenv:Envelope>"),
          login_cms_response("not a document")}) {
        tra.get_token_and_sign(answer);
        EXPECT_FALSE(std::ifstream("credentials.json").good()) << answer;
    }
}
