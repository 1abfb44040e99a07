#include <gtest/gtest.h>

#include <curl/curl.h>

#include <memory>
#include <string>

#include "http/easy_http.h"
#include "support/test_server.h"

namespace {

// A libcurl handle as a stock client would have it, freed with its owner.
class BareCurl {
public:
    BareCurl() : m_curl(curl_easy_init()) {}
    ~BareCurl()
    {
        if (m_curl != nullptr)
            curl_easy_cleanup(m_curl);
    }
    BareCurl(const BareCurl&) = delete;
    BareCurl& operator=(const BareCurl&) = delete;
    CURL* get() const { return m_curl; }

private:
    CURL* m_curl;
};

size_t discard(char*, size_t size, size_t count, void*)
{
    return size * count;
}

class WeakDh : public ::testing::Test {
protected:
    void SetUp() override { clear_proxy_environment(); }

    static TestServerOptions dhe_1024_server()
    {
        TestServerOptions options;
        options.tls = true;
        options.dhe_1024_only = true;
        options.reply.body = "reached";
        return options;
    }
};

TEST_F(WeakDh, EasyHttpReachesAServerWithOnly1024BitDh)
{
    TestServer server(dhe_1024_server());
    EasyHTTP http("");

    EXPECT_EQ(http.send_post_request(server.url("/"), "x"), 200) << http.get_log();
    EXPECT_EQ(http.get_response(), "reached");
    EXPECT_NE(http.get_log().find("DHE-RSA-AES"), std::string::npos) << http.get_log();
}

// Proves the server above really needs the cipher setting: without it OpenSSL refuses the group.
TEST_F(WeakDh, HandleWithoutTheCipherSettingIsRefused)
{
    TestServer server(dhe_1024_server());
    BareCurl curl;
    ASSERT_NE(curl.get(), nullptr);
    char error[CURL_ERROR_SIZE] = {};
    const std::string url = server.url("/");
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, "x");
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, error);

    EXPECT_EQ(curl_easy_perform(curl.get()), CURLE_SSL_CONNECT_ERROR);
    EXPECT_NE(std::string(error).find("dh key too small"), std::string::npos) << error;
    EXPECT_TRUE(server.requests().empty());
}

} // namespace
