#include <gtest/gtest.h>

#include <string>

#include "http/easy_http.h"
#include "support/test_server.h"

namespace {

class TlsLevels : public ::testing::Test {
protected:
    void SetUp() override { clear_proxy_environment(); }

    static TestServerOptions limited_to_tls_1_2()
    {
        TestServerOptions options;
        options.tls = true;
        options.max_tls = TlsVersion::tls1_2;
        options.reply.body = "served";
        return options;
    }

    static bool log_mentions(const EasyHTTP& http, const std::string& text)
    {
        return http.get_log().find(text) != std::string::npos;
    }
};

TEST_F(TlsLevels, Level3ReachesATls12ServerOverTls12)
{
    TestServer server(limited_to_tls_1_2());
    EasyHTTP http("");
    http.set_security(tls_1_2);

    EXPECT_EQ(http.send_post_request(server.url("/"), "x"), 200);
    EXPECT_EQ(http.get_response(), "served");
    EXPECT_TRUE(log_mentions(http, "SSL connection using TLSv1.2")) << http.get_log();
}

TEST_F(TlsLevels, Level4FailsAgainstATls12ServerWith525)
{
    TestServer server(limited_to_tls_1_2());
    EasyHTTP http("");
    http.set_security(tls_1_3);

    EXPECT_EQ(http.send_post_request(server.url("/"), "x"), 525);
    EXPECT_EQ(http.get_response(), "");
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(TlsLevels, Levels0And5AndMinus1BehaveAsTheDefault)
{
    TestServer limited(limited_to_tls_1_2());
    TestServerOptions open_options;
    open_options.tls = true;
    TestServer open(open_options);

    for (const int level : {0, 5, -1}) {
        SCOPED_TRACE("level " + std::to_string(level));
        EasyHTTP http("");
        http.set_security(static_cast<tls_security_level_t>(level));
        EXPECT_EQ(http.send_post_request(limited.url("/"), "x"), 200);
        EXPECT_TRUE(log_mentions(http, "SSL connection using TLSv1.2"));
        EXPECT_EQ(http.send_post_request(open.url("/"), "x"), 200);
        EXPECT_TRUE(log_mentions(http, "SSL connection using TLSv1.3")) << http.get_log();
    }
}

TEST_F(TlsLevels, OutOfRangeLevelResetsAnEarlierOne)
{
    TestServer server(limited_to_tls_1_2());
    for (const int level : {0, 5, -1}) {
        SCOPED_TRACE("level " + std::to_string(level));
        EasyHTTP http("");
        http.set_security(tls_1_3);
        ASSERT_EQ(http.send_post_request(server.url("/"), "x"), 525);
        http.set_security(static_cast<tls_security_level_t>(level));
        EXPECT_EQ(http.send_post_request(server.url("/"), "x"), 200);
    }
}

} // namespace
