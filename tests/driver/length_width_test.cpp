// The buffer protocol's lengths are unsigned 32-bit on every target: lengths with the top bit
// set are large, not negative, and sizes are exact for answers of several megabytes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "support/certificates.h"
#include "support/library_loader.h"
#include "support/scoped_chdir.h"
#include "support/test_server.h"
#include "support/wsaa_answers.h"

namespace {

using CopyOut = int32_t (*)(char*, uint32_t, uint32_t*);

constexpr char guard = '#';

// The library loaded as a host loads it, with a young cached ticket so no login is needed.
class LengthWidth : public ::testing::Test {
protected:
    LengthWidth() : m_inside(m_dir.path())
    {
        setenv("TZ", "UTC0", 1);
        tzset();
        clear_proxy_environment();
        write_file("credentials.json", "{\"wsfe\": {\"expired\": \"" + local_time_text(std::time(nullptr) - 60, "") +
                                           "\", \"sign\": \"S\", \"token\": \"T\"}}");
    }

    // Runs one SendSOAP whose answer is `body`.
    void answer_with(const std::string& body)
    {
        TestServerOptions options;
        options.reply.body = body;
        m_server = std::make_unique<TestServer>(std::move(options));
        driver.SetWSAA(m_server->url("/wsaa").c_str());
        driver.SetWSAACredentials("never-read.p12", "");
        driver.SetWSAAService("wsfe");
        driver.SetWSUrl(m_server->url("/ws").c_str());
        ASSERT_EQ(driver.SendSOAP("<a/>"), 0);
        ASSERT_EQ(m_server->requests().size(), 1u) << "the cached ticket must spare the login";
    }

    static uint32_t stored_size(CopyOut copy)
    {
        uint32_t size = 0xDEADBEEF;
        EXPECT_EQ(copy(nullptr, 0, &size), 0);
        return size;
    }

    // A claimed length far beyond the real buffer: only the stored bytes may be written.
    static void expect_exact_copy_with_claimed_length(CopyOut copy, const std::string& expected, uint32_t claimed)
    {
        std::vector<char> buffer(expected.size() + 16, guard);
        uint32_t size = 0;
        EXPECT_EQ(copy(buffer.data(), claimed, &size), 0) << claimed;
        EXPECT_EQ(size, expected.size()) << claimed;
        EXPECT_EQ(std::string(buffer.data(), expected.size()), expected) << claimed;
        EXPECT_EQ(std::string(buffer.data() + expected.size(), 16), std::string(16, guard)) << claimed;
    }

    TempDir m_dir;
    ScopedChdir m_inside;
    DriverLibrary driver;
    std::unique_ptr<TestServer> m_server;
};

} // namespace

TEST_F(LengthWidth, TopBitLengthsAreLargeNotNegative)
{
    const std::string answer = "<r>" + std::string(93, 'x') + "</r>";
    answer_with(answer);
    const std::string log = driver.verbose_transfer();
    ASSERT_GT(log.size(), answer.size());

    for (const uint32_t claimed : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        expect_exact_copy_with_claimed_length(driver.ReceivedSOAP, answer, claimed);
        expect_exact_copy_with_claimed_length(driver.GetVerboseTransfer, log, claimed);
    }
}

TEST_F(LengthWidth, MultiMegabyteAnswerHasAnExactSize)
{
    // Past 2^22 bytes, with a tail that is not a multiple of any buffer size libcurl uses.
    std::string payload(5 * 1024 * 1024 + 3, 'p');
    for (size_t i = 0; i < payload.size(); i += 1000)
        payload[i] = static_cast<char>('a' + (i / 1000) % 26);
    const std::string answer = "<r>" + payload + "</r>";
    answer_with(answer);

    const uint32_t size = stored_size(driver.ReceivedSOAP);
    ASSERT_EQ(size, answer.size());

    std::vector<char> buffer(size + 1, guard);
    uint32_t written = 7;
    EXPECT_EQ(driver.ReceivedSOAP(buffer.data(), size - 1, &written), 10);
    EXPECT_EQ(written, 7u);
    EXPECT_EQ(buffer[0], guard);
    EXPECT_EQ(driver.ReceivedSOAP(buffer.data(), size, &written), 0);
    EXPECT_EQ(written, size);
    EXPECT_TRUE(std::string(buffer.data(), size) == answer);
    EXPECT_EQ(buffer[size], guard);

    // The log holds the whole answer too, so its size is at least as large.
    const uint32_t log_size = stored_size(driver.GetVerboseTransfer);
    EXPECT_GT(log_size, size);
    EXPECT_EQ(driver.verbose_transfer().size(), log_size);
}
