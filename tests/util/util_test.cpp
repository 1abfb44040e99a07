#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/support.h"
#include "util/b64.h"
#include "util/os_util.h"
#include "util/tools.h"

namespace {

using Fields = std::vector<std::string>;

template <typename Function>
void expect_logic_error_for_null(Function function)
{
    try {
        function();
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}

// An armed timer whose start lies `elapsed_ms` in the past.
t_timer_t timer_started_ago(uint32_t timeout_ms, int64_t elapsed_ms)
{
    t_timer_t timer{};
    timer_start(&timer, timeout_ms);
    const int64_t micros = int64_t{timer.start.tv_sec} * 1000000 + timer.start.tv_usec - elapsed_ms * 1000;
    timer.start.tv_sec = static_cast<int32_t>(micros / 1000000);
    timer.start.tv_usec = static_cast<int32_t>(micros % 1000000);
    return timer;
}

} // namespace

TEST(StringHelpers, ReplaceEraseAndCompare)
{
    const struct {
        const char* text;
        const char* pattern;
        const char* replacement;
        const char* replaced;
    } replacements[] = {
        {"a\nb\n", "\n", "", "ab"}, {"x", "x", "xx", "xx"},   {"xax", "x", "xx", "xxaxx"}, {"aaa", "aa", "b", "ba"},
        {"aaaa", "aa", "b", "bb"},  {"abc", "z", "y", "abc"}, {"", "z", "y", ""},
    };
    for (const auto& test : replacements) {
        std::string text = test.text;
        replace_all(text, test.pattern, test.replacement);
        EXPECT_EQ(text, test.replaced) << test.text;
    }

    std::string text = "abcabc";
    erase_sub_str(text, "bc");
    EXPECT_EQ(text, "aabc");
    erase_sub_str(text, "zz");
    erase_sub_str(text, "");
    EXPECT_EQ(text, "aabc");

    EXPECT_TRUE(ends_with("abc", "bc"));
    EXPECT_TRUE(ends_with("abc", ""));
    EXPECT_TRUE(ends_with("abc", "abc"));
    EXPECT_FALSE(ends_with("abc", "abcd"));
    EXPECT_FALSE(ends_with("abc", "Bc"));
    EXPECT_TRUE(ends_with(std::string("a\0b", 3), std::string("\0b", 2)));

    EXPECT_EQ(to_lower_case("Certificado EXPIRADO 12"), "certificado expirado 12");
    EXPECT_EQ(to_upper_case("abc-Xyz"), "ABC-XYZ");
    EXPECT_EQ(to_lower_case("\xC3\x89t\xE9"), "\xC3\x89t\xE9") << "bytes outside ASCII pass unchanged";
    EXPECT_EQ(to_upper_case("\xC3\x89t\xE9"), "\xC3\x89T\xE9");

    EXPECT_EQ(find_case_insensitive("Certificado Expirado", "EXPIRADO", 0), 12u);
    EXPECT_EQ(find_case_insensitive("Certificado Expirado", "EXPIRADO", 13), std::string::npos);
    EXPECT_EQ(find_case_insensitive("abc", "", 2), 2u);
    EXPECT_EQ(find_case_insensitive("abc", "", 4), std::string::npos);
    EXPECT_EQ(find_case_insensitive("", "a", 0), std::string::npos);
}

TEST(StringHelpers, TrimAndSplit)
{
    const std::pair<std::string, std::string> trims[] = {
        {" \t\r\n ", ""}, {"\va b\f", "a b"}, {"  in  ner \n", "in  ner"}, {"", ""},
        // NUL and other control bytes are not whitespace here.
        {std::string("\0a\0", 3), std::string("\0a\0", 3)}, {"\x1f" "a", "\x1f" "a"},
    };
    for (const auto& [text, trimmed] : trims)
        EXPECT_EQ(trim(text), trimmed) << text;

    const std::pair<const char*, Fields> splits[] = {
        {"a,,b", {"a", "", "b"}}, {",a", {"", "a"}}, {"a,b,", {"a", "b"}}, {"", {}}, {",", {""}},
    };
    for (const auto& [text, fields] : splits) {
        EXPECT_EQ(split_str(text, ','), fields) << text;
        EXPECT_EQ(split_str(std::string(text), ','), fields) << text;
    }
    std::stringstream source("x|y||");
    EXPECT_EQ(split_str_base(source, '|'), (Fields{"x", "y", ""}));
    expect_logic_error_for_null([] { split_str(static_cast<const char*>(nullptr), ','); });
}

TEST(Base64, EncodesPaddedDecodesUpToTheFirstForeignByte)
{
    const std::pair<std::string, std::string> encodings[] = {
        {"Man", "TWFu"}, {"Ma", "TWE="}, {"M", "TQ=="}, {"", ""}, {"\xFF\xFF\xFF", "////"},
        {std::string("\0\0", 2), "AAA="}, {"\xFB\xEF", "++8="},
    };
    for (const auto& [bytes, text] : encodings) {
        EXPECT_EQ(base64_encode(bytes), text);
        EXPECT_EQ(base64_decode(text), bytes);
    }
    const std::pair<std::string, std::string> decodings[] = {
        {"TWE", "Ma"}, {"TW Fu", "M"},   {"TWFu\nTWFu", "Man"}, {"=AAA", ""},      {"TW-_", "M"},
        {std::string("TW\0Fu", 5), "M"}, {"\xFFTWFu", ""},      {"T", ""},
    };
    for (const auto& [text, bytes] : decodings)
        EXPECT_EQ(base64_decode(text), bytes) << text;

    std::string all;
    for (int value = 0; value < 256; ++value)
        all.push_back(static_cast<char>(value));
    for (size_t cut = 0; cut < 3; ++cut)
        EXPECT_EQ(base64_decode(base64_encode(all.substr(cut))), all.substr(cut)) << cut;
    EXPECT_EQ(base64_encode(std::string(300, 'x')).size(), 400u) << "one line, however long";
}

TEST(SystemHelpers, Timer)
{
    t_timer_t unarmed{};
    unarmed.start.tv_sec = 12345;
    timer_start(&unarmed, 0);
    EXPECT_EQ(unarmed.timeout_ms, 0u);
    EXPECT_EQ(unarmed.start.tv_sec, 12345) << "a zero time-out must not read the clock";
    unarmed.start.tv_sec = 0;
    EXPECT_FALSE(timer_has_expired(&unarmed));

    t_timer_t fresh = timer_started_ago(100, 50);
    EXPECT_FALSE(timer_has_expired(&fresh));
    t_timer_t late = timer_started_ago(100, 101);
    EXPECT_TRUE(timer_has_expired(&late));
    t_timer_t ahead = timer_started_ago(60000, -10000);
    EXPECT_TRUE(timer_has_expired(&ahead)) << "a clock set back counts as expired";
    // A start later in its second than now needs a borrow: just under a second has passed.
    t_timer_t borrowing{};
    timer_start(&borrowing, 999);
    borrowing.start.tv_sec -= 1;
    borrowing.start.tv_usec = 999999;
    EXPECT_FALSE(timer_has_expired(&borrowing));
    // Exactly at the time-out is not expired: look for a run where the clock moved less than 1 ms.
    bool boundary_seen = false;
    for (int attempt = 0; attempt < 1000 && !boundary_seen; ++attempt) {
        t_timer_t exact = timer_started_ago(100, 100);
        const bool expired = timer_has_expired(&exact);
        t_timer_t after = exact;
        timer_start(&after, 1);
        if ((int64_t{after.start.tv_sec} - exact.start.tv_sec) * 1000000 + after.start.tv_usec - exact.start.tv_usec <
            100900) {
            EXPECT_FALSE(expired);
            boundary_seen = true;
        }
    }
    EXPECT_TRUE(boundary_seen);
}

TEST(SystemHelpers, HashTimeStampThreadsAndBytes)
{
    const std::pair<std::string, const char*> hashes[] = {
        {"", "00000000811C9DC5"}, {"a", "00000000050C5D7E"}, {"abc", "00000000439C2F4B"},
        {"\xE9", "00000000FAF3A2F6"}, {std::string(1, '\0'), "00000000050C5D1F"},
    };
    for (const auto& [text, hash] : hashes)
        EXPECT_EQ(str_to_hash(text), hash) << text;

    using namespace std::chrono;
    const time_point<system_clock, nanoseconds> when{seconds{1767604023} + milliseconds{7} + nanoseconds{999}};
    use_time_zone("UTC0");
    EXPECT_EQ(get_time_stamp(when), "05/01/2026 09:07:03.007");
    EXPECT_EQ(get_time_stamp(when + milliseconds{35}), "05/01/2026 09:07:03.042");
    use_time_zone("<-03>3");
    EXPECT_EQ(get_time_stamp(when), "05/01/2026 06:07:03.007");

    EXPECT_EQ(get_thread_id(), std::this_thread::get_id());
    std::thread::id other;
    std::thread([&other] { other = get_thread_id(); }).join();
    EXPECT_NE(get_thread_id(), other);
    EXPECT_EQ(swap_int(0x00FF), 0xFF00);
    EXPECT_EQ(swap_int(0x1234), 0x3412);
}

TEST(SystemHelpers, FilesCommandsAndFiscalIdentifiers)
{
    Workspace workspace;
    std::ofstream("regular") << "x";
    std::ofstream("program") << "x";
    chmod("program", 0755); // mode bits 0x01ed: no 0x4000 among them
    symlink("nowhere", "dangling");
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string("sock").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    // is_path_exist tests bit 0x4000 only: a socket (0xC000) answers as a directory does.
    const struct {
        const char* path;
        bool exists;
        bool path_exists;
    } paths[] = {{"regular", true, false},   {"program", true, false},  {".", true, true},
                 {"missing", false, false},  {"/dev/null", true, false}, {"dangling", false, false},
                 {"sock", true, true}};
    for (const auto& test : paths) {
        EXPECT_EQ(file_exists(test.path), test.exists) << test.path;
        EXPECT_EQ(is_path_exist(test.path), test.path_exists) << test.path;
    }
    close(fd);

    const std::pair<const char*, Fields> commands[] = {
        {"printf ' a \\n\\nb\\n'", {"a", "", "b"}},
        {"printf 'last'", {"last"}},
        {"echo out; echo err >&2; exit 3", {"out"}}, // standard error and exit status are not looked at
        {"true", {}},
        {"printf 'ab\\000cd\\n'", {"ab"}},
    };
    for (const auto& [command, lines] : commands)
        EXPECT_EQ(execute_cmd_line(command), lines) << command;

    for (const char* listed : {"TFP-100A", "TFP-220B", "TFP-340C"})
        EXPECT_TRUE(is_fiscal_id_string_present(listed)) << listed;
    for (const char* other : {"TFP-100a", "TFP-100", " TFP-100A", ""})
        EXPECT_FALSE(is_fiscal_id_string_present(other)) << other;
    expect_logic_error_for_null([] { is_fiscal_id_string_present(nullptr); });
}
