#include <gtest/gtest.h>

#include "http/easy_http.h"
#include "support/test_server.h"

namespace {

std::string patterned_body(size_t size)
{
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i)
        body[i] = static_cast<char>('a' + i % 23);
    return body;
}

} // namespace

// Taking the answer and the log moves them out; they must equal what the copying getters give.
TEST(LargeAnswer, TakenLogAndResponseEqualTheCopies)
{
    clear_proxy_environment();
    for (const size_t size : {size_t(0), size_t(1), size_t(5) * 1024 * 1024 + 7}) {
        TestServerOptions options;
        options.reply.body = patterned_body(size);
        TestServer server(options);
        EasyHTTP http("");
        http.add_request_header("X-Size: " + std::to_string(size));
        ASSERT_EQ(http.send_post_request(server.url("/big"), "request body"), 200);

        const std::string copied_log = http.get_log();
        const std::string copied_response = http.get_response();
        EXPECT_EQ(copied_response.size(), size);
        EXPECT_EQ(http.take_log(), copied_log) << size;
        EXPECT_EQ(http.take_response(), copied_response) << size;
        EXPECT_NE(copied_log.find("==> Request body\nrequest body\n==> Response headers\n"), std::string::npos);
        EXPECT_EQ(copied_log.substr(copied_log.size() - size - 1), options.reply.body + "\n");
    }
}
