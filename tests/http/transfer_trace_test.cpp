#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "http/easy_http.h"
#include "http/trace_sections.h"
#include "support/test_server.h"

namespace {

const std::string empty_log =
    "=== Info:\n==> Request headers\n==> Request body\n\n==> Response headers\n==> Response body\n\n";

class TransferTrace : public ::testing::Test {
protected:
    void SetUp() override { clear_proxy_environment(); }
};

ServerReply reply_with(std::string body)
{
    ServerReply reply;
    reply.body = std::move(body);
    reply.headers.push_back("X-Answer: yes");
    return reply;
}

bool is_plain_text(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte >= 0x20 && byte < 0x7f) || c == '\r' || c == '\n' || c == '\t';
    });
}

TEST_F(TransferTrace, FreshObjectGivesTheEmptyLayout)
{
    EasyHTTP http("");
    EXPECT_EQ(http.get_log().size(), 88u);
    EXPECT_EQ(http.get_log(), empty_log);
}

TEST_F(TransferTrace, HoldsInfoTextHeadersAndBothBodies)
{
    TestServerOptions options;
    options.reply = reply_with("<answer>42</answer>");
    TestServer server(options);
    EasyHTTP http("");
    http.add_request_header("X-Mine: 1");
    ASSERT_EQ(http.send_post_request(server.url("/trace"), "<question/>"), 200);

    const auto sections = split_trace(http.get_log());
    ASSERT_TRUE(sections.has_value()) << http.get_log();
    const std::string port = std::to_string(server.port());
    EXPECT_NE(sections->info.find("127.0.0.1"), std::string::npos);
    EXPECT_NE(sections->info.find(port), std::string::npos);
    EXPECT_EQ(sections->info.back(), '\n');
    EXPECT_EQ(sections->request_headers.rfind("POST /trace HTTP/1.1\r\n", 0), 0u) << sections->request_headers;
    EXPECT_NE(sections->request_headers.find("Host: 127.0.0.1:" + port + "\r\n"), std::string::npos);
    EXPECT_NE(sections->request_headers.find("X-Mine: 1\r\n"), std::string::npos);
    EXPECT_EQ(sections->request_body, "<question/>");
    EXPECT_EQ(sections->response_headers.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << sections->response_headers;
    EXPECT_NE(sections->response_headers.find("X-Answer: yes\r\n"), std::string::npos);
    EXPECT_EQ(sections->response_body, "<answer>42</answer>");
}

TEST_F(TransferTrace, HttpsTraceHoldsNoTlsRecords)
{
    TestServerOptions options;
    options.tls = true;
    options.reply = reply_with("<plain>text</plain>");
    TestServer server(options);
    EasyHTTP http("");
    ASSERT_EQ(http.send_post_request(server.url("/secure"), "<clear/>"), 200);

    const std::string log = http.get_log();
    const auto sections = split_trace(log);
    ASSERT_TRUE(sections.has_value()) << log;
    EXPECT_NE(sections->info.find("SSL connection using"), std::string::npos) << sections->info;
    EXPECT_EQ(sections->request_body, "<clear/>");
    EXPECT_EQ(sections->response_body, "<plain>text</plain>");
    // Handshake and application records are binary; none of it may reach the log.
    EXPECT_TRUE(is_plain_text(log));
}

TEST_F(TransferTrace, ShowsOnlyTheLastRequest)
{
    TestServerOptions options;
    options.handler = [](const RecordedRequest& request) { return reply_with("answer-to-" + request.body); };
    TestServer server(options);
    EasyHTTP http("");
    ASSERT_EQ(http.send_post_request(server.url("/first-path"), "first-body"), 200);
    ASSERT_EQ(http.send_post_request(server.url("/second-path"), "second-body"), 200);

    const std::string log = http.get_log();
    EXPECT_EQ(log.find("first"), std::string::npos) << log;
    const auto sections = split_trace(log);
    ASSERT_TRUE(sections.has_value());
    EXPECT_EQ(sections->request_body, "second-body");
    EXPECT_EQ(sections->response_body, "answer-to-second-body");
    EXPECT_EQ(sections->request_headers.rfind("POST /second-path HTTP/1.1\r\n", 0), 0u);
}

TEST_F(TransferTrace, ResponseBodyWithNulBytesIsKeptWhole)
{
    const std::string binary("a\0b\0\0c", 6);
    TestServerOptions options;
    options.reply = reply_with(binary);
    TestServer server(options);
    EasyHTTP http("");
    ASSERT_EQ(http.send_post_request(server.url("/"), "x"), 200);

    EXPECT_EQ(http.get_response(), binary);
    const auto sections = split_trace(http.get_log());
    ASSERT_TRUE(sections.has_value());
    EXPECT_EQ(sections->response_body, binary);
}

TEST_F(TransferTrace, FailureBeforeConnectingLeavesOnlyInfoText)
{
    EasyHTTP http("");
    http.add_request_header("X-Unsent: 1");
    const std::string port = std::to_string(unused_loopback_port());
    ASSERT_EQ(http.send_post_request("http://127.0.0.1:" + port + "/", "unsent"), 522);

    const std::string log = http.get_log();
    const auto sections = split_trace(log);
    ASSERT_TRUE(sections.has_value()) << log;
    EXPECT_NE(sections->info.find(port), std::string::npos) << sections->info;
    EXPECT_EQ(log, "=== Info:\n" + sections->info + empty_log.substr(10));
}

} // namespace
