// size_t and long are 32 bits wide on i386: a multi-megabyte answer made of every byte value
// must come through the write callback and the trace whole, and unsigned 32-bit time-outs
// must reach libcurl's long option intact.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "http/easy_http.h"
#include "support/test_server.h"

namespace {

// Every byte value, NUL included, in a pattern that does not repeat at power-of-two strides.
std::string binary_body(size_t size)
{
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i)
        body[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    return body;
}

class HttpWidth : public ::testing::Test {
protected:
    void SetUp() override { clear_proxy_environment(); }
};

} // namespace

TEST_F(HttpWidth, MultiMegabyteBinaryAnswerArrivesWhole)
{
    const std::string body = binary_body(6 * 1024 * 1024 + 5);
    TestServerOptions options;
    options.reply.body = body;
    TestServer server(std::move(options));
    EasyHTTP http("");

    ASSERT_EQ(http.send_post_request(server.url("/big"), "<a/>"), 200);
    const std::string response = http.get_response();
    ASSERT_EQ(response.size(), body.size());
    EXPECT_TRUE(response == body);

    // The trace holds the same bytes as the answer, in one piece.
    const std::string log = http.get_log();
    EXPECT_GT(log.size(), body.size());
    EXPECT_NE(log.find(body), std::string::npos);

    // Taking the answer moves exactly those bytes out.
    EXPECT_TRUE(http.take_response() == body);
}

// libcurl takes the time-out as a long, which is 32 bits on i386: time-outs with the top bit
// set must still replace a shorter one rather than be refused and leave it in force.
TEST_F(HttpWidth, TopBitTimeOutsReplaceAShorterOne)
{
    TestServerOptions options;
    options.reply.delay = std::chrono::milliseconds(600);
    TestServer server(std::move(options));
    EasyHTTP http("");

    http.set_time_out(150);
    ASSERT_EQ(http.send_post_request(server.url("/short"), "<a/>"), 408);
    for (const uint32_t time_out : {0x80000000u, 0xFFFFFFFFu}) {
        http.set_time_out(time_out);
        EXPECT_EQ(http.send_post_request(server.url("/long"), "<a/>"), 200) << time_out;
    }
}
