#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "util/os_util.h"

namespace {

// Starts an armed timer and moves its start back so that `elapsed_ms` have passed.
t_timer_t timer_started_ago(uint32_t timeout_ms, int64_t elapsed_ms)
{
    t_timer_t timer{};
    timer_start(&timer, timeout_ms);
    int64_t micros = static_cast<int64_t>(timer.start.tv_sec) * 1000000 + timer.start.tv_usec - elapsed_ms * 1000;
    timer.start.tv_sec = static_cast<int32_t>(micros / 1000000);
    timer.start.tv_usec = static_cast<int32_t>(micros % 1000000);
    return timer;
}

class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/tarvo-os-XXXXXX";
        m_path = mkdtemp(pattern);
    }
    ~ScratchDir() { std::filesystem::remove_all(m_path); }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

} // namespace

TEST(Timer, UnarmedTimerNeverExpires)
{
    t_timer_t timer{};
    timer.start.tv_sec = 12345;
    timer_start(&timer, 0);
    EXPECT_EQ(timer.timeout_ms, 0u);
    EXPECT_EQ(timer.start.tv_sec, 12345) << "a zero time-out must not read the clock";
    timer.start.tv_sec = 0; // decades ago
    EXPECT_FALSE(timer_has_expired(&timer));
}

TEST(Timer, ExpiresStrictlyAfterTheTimeOut)
{
    // The clock keeps running between the two calls, so allow for a few milliseconds of it.
    t_timer_t fresh = timer_started_ago(100, 50);
    EXPECT_FALSE(timer_has_expired(&fresh));
    t_timer_t late = timer_started_ago(100, 101);
    EXPECT_TRUE(timer_has_expired(&late));

    // Exactly at the boundary: elapsed == timeout is not expired; search for a run where the
    // clock did not move a whole millisecond between start and check.
    bool boundary_seen = false;
    for (int attempt = 0; attempt < 50 && !boundary_seen; ++attempt) {
        t_timer_t exact = timer_started_ago(100, 100);
        timeval before{};
        gettimeofday(&before, nullptr);
        const bool expired = timer_has_expired(&exact);
        const int64_t moved_us = (static_cast<int64_t>(before.tv_sec) - exact.start.tv_sec) * 1000000 +
                                 (before.tv_usec - exact.start.tv_usec) - 100000;
        if (moved_us < 900) {
            EXPECT_FALSE(expired);
            boundary_seen = true;
        }
    }
    EXPECT_TRUE(boundary_seen);
}

TEST(Timer, ClockSetBackCountsAsExpired)
{
    t_timer_t timer{};
    timer_start(&timer, 60000);
    timer.start.tv_sec += 10; // start lies in the future: the unsigned difference is huge
    EXPECT_TRUE(timer_has_expired(&timer));
}

TEST(SwapInt, ExchangesTheTwoBytes)
{
    EXPECT_EQ(swap_int(0x00FF), 0xFF00);
    EXPECT_EQ(swap_int(0x1234), 0x3412);
    EXPECT_EQ(swap_int(0), 0);
}

TEST(ThreadId, IdentifiesTheCallingThread)
{
    const std::thread::id mine = get_thread_id();
    EXPECT_EQ(mine, std::this_thread::get_id());
    std::thread::id other;
    std::thread([&other] { other = get_thread_id(); }).join();
    EXPECT_NE(mine, other);
}

TEST(StrToHash, UsesFnv1WithSignedBytes)
{
    EXPECT_EQ(str_to_hash(""), "00000000811C9DC5");
    EXPECT_EQ(str_to_hash("a"), "00000000050C5D7E");
    EXPECT_EQ(str_to_hash("abc"), "00000000439C2F4B");
    // A byte of 0x80 or more is sign-extended before the exclusive-or.
    EXPECT_EQ(str_to_hash("\xE9"), "00000000FAF3A2F6");
    EXPECT_EQ(str_to_hash(std::string(1, '\0')), "00000000050C5D1F");
}

TEST(TimeStamp, FormatsLocalTimeWithMilliseconds)
{
    setenv("TZ", "UTC0", 1);
    tzset();
    using namespace std::chrono;
    // 2026-01-05 09:07:03 UTC plus 7 ms.
    const time_point<system_clock, nanoseconds> when{seconds{1767604023} + milliseconds{7} + nanoseconds{999}};
    EXPECT_EQ(get_time_stamp(when), "05/01/2026 09:07:03.007");
    EXPECT_EQ(get_time_stamp(time_point<system_clock, nanoseconds>{seconds{1767604023} + milliseconds{42}}),
              "05/01/2026 09:07:03.042");

    setenv("TZ", "<-03>3", 1);
    tzset();
    EXPECT_EQ(get_time_stamp(when), "05/01/2026 06:07:03.007");
}

TEST(FileTests, FileExistsAndIsPathExistDiffer)
{
    ScratchDir dir;
    const std::string regular = dir.file("regular");
    std::ofstream(regular) << "x";

    EXPECT_TRUE(file_exists(regular));
    EXPECT_TRUE(file_exists(dir.path()));
    EXPECT_FALSE(file_exists(dir.file("missing")));
    EXPECT_TRUE(file_exists("/dev/null"));

    EXPECT_FALSE(is_path_exist(regular));
    EXPECT_TRUE(is_path_exist(dir.path()));
    EXPECT_FALSE(is_path_exist(dir.file("missing")));
    EXPECT_FALSE(is_path_exist("/dev/null")); // character device: 0x2000

    // Dangling symbolic link: both follow it and find nothing.
    const std::string dangling = dir.file("dangling");
    ASSERT_EQ(symlink(dir.file("nowhere").c_str(), dangling.c_str()), 0);
    EXPECT_FALSE(file_exists(dangling));
    EXPECT_FALSE(is_path_exist(dangling));

    // Only bit 0x4000 is tested: a socket (0xC000) answers true as a directory does.
    const std::string socket_path = dir.file("sock");
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_TRUE(is_path_exist(socket_path));
    EXPECT_TRUE(file_exists(socket_path));
    close(fd);
}

TEST(ExecuteCmdLine, TrimsEachLineAndKeepsBlankOnes)
{
    EXPECT_EQ(execute_cmd_line("printf ' a \\n\\nb\\n'"), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(execute_cmd_line("printf 'last'"), (std::vector<std::string>{"last"}));
    // Standard error is not captured and the exit status is not looked at.
    EXPECT_EQ(execute_cmd_line("echo out; echo err >&2; exit 3"), (std::vector<std::string>{"out"}));
    EXPECT_TRUE(execute_cmd_line("true").empty());
    // A line is cut at its first NUL byte.
    EXPECT_EQ(execute_cmd_line("printf 'ab\\000cd\\n'"), (std::vector<std::string>{"ab"}));
}

TEST(FiscalIdentifier, MatchesWholeTextCaseSensitively)
{
    EXPECT_TRUE(is_fiscal_id_string_present("TFP-100A"));
    EXPECT_TRUE(is_fiscal_id_string_present("TFP-220B"));
    EXPECT_TRUE(is_fiscal_id_string_present("TFP-340C"));
    EXPECT_FALSE(is_fiscal_id_string_present("TFP-100a"));
    EXPECT_FALSE(is_fiscal_id_string_present("TFP-100"));
    EXPECT_FALSE(is_fiscal_id_string_present(" TFP-100A"));
    EXPECT_FALSE(is_fiscal_id_string_present(""));
    try {
        is_fiscal_id_string_present(nullptr);
        FAIL() << "no exception";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
    }
}
