#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "http/easy_http.h"
#include "http/trace_sections.h"
#include "support/proxy_process.h"
#include "support/test_server.h"

namespace {

const std::string proxy_user = "tarvo";
const std::string proxy_password = "s3cret";
// base64("tarvo:s3cret")
const std::string proxy_authorization = "Proxy-Authorization: Basic dGFydm86czNjcmV0\r\n";

class Proxy : public ::testing::Test {
protected:
    void SetUp() override
    {
        clear_proxy_environment();
        ASSERT_FALSE(find_tinyproxy().empty())
            << "tinyproxy is not installed; the proxy tests need Debian's tinyproxy (scripts/install-deps.sh)";
        m_proxy = std::make_unique<ProxyProcess>(proxy_user, proxy_password);
        TestServerOptions options;
        options.reply.body = "behind the proxy";
        m_server = std::make_unique<TestServer>(options);
    }

    std::unique_ptr<ProxyProcess> m_proxy;
    std::unique_ptr<TestServer> m_server;
};

TEST_F(Proxy, RequestWithCredentialsReachesTheServerThroughTheProxy)
{
    EasyHTTP http("");
    http.set_proxy(m_proxy->url(), proxy_user, proxy_password);

    ASSERT_EQ(http.send_post_request(m_server->url("/via"), "payload"), 200) << http.get_log();
    EXPECT_EQ(http.get_response(), "behind the proxy");
    const std::vector<RecordedRequest> requests = m_server->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].target, "/via");
    EXPECT_EQ(requests[0].body, "payload");
    EXPECT_NE(requests[0].header("Via").value_or("").find("tinyproxy"), std::string::npos);

    const auto sections = split_trace(http.get_log());
    ASSERT_TRUE(sections.has_value());
    EXPECT_NE(sections->info.find("port " + std::to_string(m_proxy->port())), std::string::npos) << sections->info;
    EXPECT_EQ(sections->request_headers.rfind("POST " + m_server->url("/via") + " HTTP/1.1\r\n", 0), 0u)
        << sections->request_headers;
    EXPECT_NE(sections->request_headers.find(proxy_authorization), std::string::npos) << sections->request_headers;
}

// Empty bodies: tinyproxy closes a rejected connection without reading the body, and the
// resulting reset would turn its answer into a transport failure (522).
TEST_F(Proxy, MissingOrWrongCredentialsGetTheProxysRejection)
{
    EasyHTTP anonymous("");
    anonymous.set_proxy(m_proxy->url(), "", "");
    EXPECT_EQ(anonymous.send_post_request(m_server->url("/"), ""), 407);
    EXPECT_NE(anonymous.get_log().find("Proxy-Authenticate: Basic"), std::string::npos) << anonymous.get_log();

    // tinyproxy 1.11 answers credentials it does not know with 401 rather than 407.
    EasyHTTP wrong_password("");
    wrong_password.set_proxy(m_proxy->url(), proxy_user, "wrong");
    const int32_t wrong_status = wrong_password.send_post_request(m_server->url("/"), "");
    EXPECT_TRUE(wrong_status == 407 || wrong_status == 401) << wrong_status;
    EXPECT_NE(wrong_password.get_log().find("Server: tinyproxy"), std::string::npos) << wrong_password.get_log();

    // The user name alone is handed over without a password.
    EasyHTTP no_password("");
    no_password.set_proxy(m_proxy->url(), proxy_user, "");
    const int32_t user_only_status = no_password.send_post_request(m_server->url("/"), "");
    EXPECT_TRUE(user_only_status == 407 || user_only_status == 401) << user_only_status;
    EXPECT_NE(no_password.get_log().find("Proxy-Authorization: Basic dGFydm86\r\n"), std::string::npos);

    EXPECT_TRUE(m_server->requests().empty());
}

TEST_F(Proxy, EmptyProxyUrlMeansADirectConnection)
{
    EasyHTTP http("");
    http.set_proxy("", proxy_user, proxy_password);

    ASSERT_EQ(http.send_post_request(m_server->url("/direct"), "x"), 200);
    const std::vector<RecordedRequest> requests = m_server->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_FALSE(requests[0].header("Via").has_value());
    const auto sections = split_trace(http.get_log());
    ASSERT_TRUE(sections.has_value());
    EXPECT_NE(sections->info.find("port " + std::to_string(m_server->port())), std::string::npos) << sections->info;
    EXPECT_EQ(sections->request_headers.find("Proxy-Authorization"), std::string::npos);
    EXPECT_EQ(sections->request_headers.rfind("POST /direct HTTP/1.1\r\n", 0), 0u);
}

} // namespace
