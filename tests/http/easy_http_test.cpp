// EasyHTTP against the simulator's scripted answers: statuses, failures, time-outs, headers,
// bodies, the transfer trace and TLS levels. The proxy is proved through the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "http/easy_http.h"
#include "support/support.h"

namespace {

using namespace std::chrono_literals;

const std::string empty_log =
    "=== Info:\n==> Request headers\n==> Request body\n\n==> Response headers\n==> Response body\n\n";

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// Every byte value, in a pattern that does not repeat at power-of-two strides.
std::string binary_body(size_t size)
{
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i)
        body[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    return body;
}

class EasyHttp : public ::testing::Test {
protected:
    explicit EasyHttp(std::vector<std::string> options = {}) : simulator(std::move(options)) {}

    // Posts to `path` after scripting its answer.
    int32_t post(const std::string& path, const std::string& answer, const std::string& parameters = "",
                 const std::string& body = "x")
    {
        simulator.answer(path, answer, parameters);
        return http.send_post_request(simulator.url(path), body);
    }

    Simulator simulator;
    EasyHTTP http{""};
};

class EasyHttpOverLegacyTls : public EasyHttp {
protected:
    EasyHttpOverLegacyTls() : EasyHttp({"--tls", "--legacy-tls", "--tls-name", "elsewhere.example"}) {}
};

} // namespace

TEST_F(EasyHttp, StatusesAndBodiesPassThroughAndTheTraceHoldsTheLastExchange)
{
    EXPECT_EQ(http.get_log(), empty_log);
    const std::string fault = "<soap:Envelope><soap:Body><soap:Fault>boom</soap:Fault></soap:Body></soap:Envelope>";
    EXPECT_EQ(post("/missing", "no such path", "status=404"), 404);
    EXPECT_EQ(http.get_response(), "no such path");
    EXPECT_EQ(post("/fault", fault, "status=500"), 500);
    EXPECT_EQ(http.get_response(), fault);
    EXPECT_EQ(http.take_response(), fault);

    // The driver's tests read the request side of the trace; here the answer's side.
    ASSERT_EQ(post("/trace", "<answer>42</answer>", "header=X-Answer:%20yes", "<question/>"), 200);
    const std::string log = http.get_log();
    EXPECT_TRUE(contains(log, "\r\n\r\n==> Request body\n<question/>\n==> Response headers\nHTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(contains(log, "X-Answer: yes\r\n"));
    EXPECT_EQ(log.substr(log.size() - 42), "\r\n\r\n==> Response body\n<answer>42</answer>\n");
    EXPECT_FALSE(contains(log, "fault")) << "only the last request is traced";
}

TEST_F(EasyHttp, FailuresGive408_522_525AndNoAnswer)
{
    const struct {
        const char* what;
        std::string url;
        std::string parameters;
        uint32_t time_out;
        int32_t status;
    } cases[] = {
        {"refused", "http://127.0.0.1:1/", "", 0, 522},
        {"cut off", simulator.url("/cut"), "cut_after=0", 0, 522},
        {"TLS to a plain port", "https://127.0.0.1:" + std::to_string(simulator.port()) + "/", "", 0, 525},
        {"slow", simulator.url("/slow"), "delay_ms=3000", 300, 408},
        // A zero time-out leaves the earlier one in force.
        {"slow again", simulator.url("/slow"), "delay_ms=3000", 0, 408},
        {"stalled mid-body", simulator.url("/stall"), "cut_after=13&hang_ms=3000", 300, 408},
    };
    ASSERT_EQ(post("/earlier", "an earlier answer"), 200);
    for (const auto& test : cases) {
        if (!test.parameters.empty())
            simulator.answer(test.url.substr(test.url.rfind('/')), "PARTIAL-BODY-and the rest", test.parameters);
        http.set_time_out(test.time_out);
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(http.send_post_request(test.url, "x"), test.status) << test.what;
        EXPECT_LT(std::chrono::steady_clock::now() - started, 2500ms) << test.what;
        EXPECT_EQ(http.get_response(), "") << test.what << ": nothing of an earlier answer either";
        EXPECT_EQ(http.get_timeout(), test.time_out);
    }
    // The part that did arrive stays visible in the trace.
    EXPECT_EQ(http.get_log().substr(http.get_log().size() - 32), "==> Response body\nPARTIAL-BODY-\n");

    // Time-outs with the top bit set are long ones, not refused values that keep a short one.
    http.set_time_out(150);
    ASSERT_EQ(post("/short", "x", "delay_ms=600"), 408);
    for (const uint32_t time_out : {0x80000000u, 0xFFFFFFFFu}) {
        http.set_time_out(time_out);
        EXPECT_EQ(post("/long", "x", "delay_ms=600"), 200) << time_out;
    }
}

TEST_F(EasyHttp, HeadersGoInOrderForOneRequestOnly)
{
    http.add_request_header("X-Trace: one");
    http.add_request_header("Content-Type: text/xml;charset=UTF-8");
    http.add_request_header("X-Trace: two");
    ASSERT_EQ(post("/1", "a"), 200);
    // Our content type replaces libcurl's own instead of adding a second one.
    EXPECT_TRUE(contains(http.get_log(), "\r\nX-Trace: one\r\nContent-Type: text/xml;charset=UTF-8\r\nX-Trace: two\r\n"));

    http.add_request_header("X-Lost: yes");
    ASSERT_EQ(http.send_post_request("http://127.0.0.1:1/", "b"), 522);
    ASSERT_EQ(post("/2", "b"), 200);
    http.add_request_header("X-Cleared: yes");
    http.clear_request_headers();
    ASSERT_EQ(post("/3", "c"), 200);

    EXPECT_EQ(header_values(simulator.requests("/1").at(0), "X-Trace"), (std::vector<std::string>{"one", "two"}));
    for (const char* path : {"/2", "/3"}) {
        // None of ours: libcurl's own POST headers.
        const nlohmann::json later = simulator.requests(path).at(0);
        EXPECT_EQ(header_values(later, "X-Trace").size() + header_values(later, "X-Lost").size() +
                      header_values(later, "X-Cleared").size(), 0u) << path;
        EXPECT_EQ(header_values(later, "Content-Type"), std::vector<std::string>{"application/x-www-form-urlencoded"});
    }
}

TEST_F(EasyHttp, BodiesTargetsAndRedirects)
{
    ASSERT_EQ(post("/nul", "", "", std::string("abc\0def", 7)), 200);
    EXPECT_EQ(simulator.requests("/nul").at(0).at("body"), "abc") << "sent up to the first NUL";

    // The base address is put in front without a separator.
    simulator.answer("/servicev1", "");
    EasyHTTP with_base(simulator.url("/service"));
    EXPECT_EQ(with_base.send_post_request("v1", "a"), 200);

    simulator.answer("/old", "", "status=302&header=Location:%20/new");
    simulator.answer("/new", "moved here");
    EXPECT_EQ(http.send_post_request(simulator.url("/old"), "a"), 200);
    EXPECT_EQ(http.get_response(), "moved here");
    EXPECT_TRUE(contains(http.get_log(), "POST /old HTTP/1.1\r\n"));
    EXPECT_TRUE(contains(http.get_log(), " /new HTTP/1.1\r\n")) << "the trace covers both legs";
}

// The answer and the log, taken or copied, hold every byte; a large log is built in one piece.
TEST_F(EasyHttp, AnswersOfEverySizeArriveWhole)
{
    for (const size_t size : {size_t(0), size_t(1), size_t(6) * 1024 * 1024 + 5}) {
        const std::string body = binary_body(size);
        ASSERT_EQ(post("/big", body, "", "request body"), 200);
        const std::string copied_log = http.get_log();
        ASSERT_EQ(http.get_response().size(), size);
        EXPECT_TRUE(http.get_response() == body);
        EXPECT_TRUE(contains(copied_log, "==> Request body\nrequest body\n==> Response headers\n"));
        EXPECT_TRUE(copied_log.substr(copied_log.size() - size - 1) == body + "\n");
        EXPECT_TRUE(http.take_log() == copied_log) << size;
        EXPECT_TRUE(http.take_response() == body) << size;
    }
}

// Certificates and host names are never checked; level 4 asks for TLS 1.3 at least, which this
// server lacks; anything outside 1 to 4 is the default.
TEST_F(EasyHttpOverLegacyTls, TlsLevels)
{
    const struct {
        int level;
        int32_t status;
    } cases[] = {{3, 200}, {4, 525}, {0, 200}, {5, 200}, {-1, 200}};
    for (const auto& test : cases) {
        // A fresh handle each time (a reused connection keeps its TLS version); after level 4, an
        // out-of-range level must reset what it pinned.
        EasyHTTP fresh("");
        fresh.set_security(tls_1_3);
        fresh.set_security(static_cast<tls_security_level_t>(test.level));
        simulator.answer("/", "served");
        EXPECT_EQ(fresh.send_post_request(simulator.url("/"), "x"), test.status) << test.level;
        const std::string log = fresh.get_log();
        if (test.status == 200) {
            EXPECT_TRUE(contains(log, "SSL connection using TLSv1.2 / DHE-RSA")) << log;
            EXPECT_TRUE(std::all_of(log.begin(), log.end(), [](char c) { return c >= 0x20 || c == '\r' || c == '\n'; }))
                << "no TLS records in the trace";
        }
    }
}
