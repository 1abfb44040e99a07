#include "util/os_util.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <unordered_map>

#include "util/tools.h"

void timer_start(t_timer_t* timer, unsigned int timeout_ms)
{
    timer->timeout_ms = timeout_ms;
    if (timeout_ms == 0)
        return;
    timeval now{};
    gettimeofday(&now, nullptr);
    timer->start.tv_sec = static_cast<int32_t>(now.tv_sec);
    timer->start.tv_usec = static_cast<int32_t>(now.tv_usec);
}

bool timer_has_expired(const t_timer_t* timer)
{
    if (timer->timeout_ms == 0)
        return false;
    timeval now{};
    gettimeofday(&now, nullptr);
    int32_t seconds = static_cast<int32_t>(now.tv_sec) - timer->start.tv_sec;
    int32_t micros = static_cast<int32_t>(now.tv_usec) - timer->start.tv_usec;
    if (micros < 0) {
        seconds -= 1;
        micros += 1000000;
    }
    // Unsigned on purpose: a clock set back behind start reads as a huge elapsed time.
    const uint32_t elapsed_ms = static_cast<uint32_t>(seconds) * 1000u + static_cast<uint32_t>(micros) / 1000u;
    return elapsed_ms > timer->timeout_ms;
}

std::thread::id get_thread_id()
{
    return std::this_thread::get_id();
}

unsigned short swap_int(unsigned short value)
{
    return static_cast<unsigned short>((value << 8) | (value >> 8));
}

bool file_exists(const std::string& path)
{
    // As the filesystem library's throwing status query: failures other than "not found" reach
    // the caller, as its error.
    struct stat info;
    if (stat(path.c_str(), &info) == 0 || errno == EOVERFLOW)
        return true;
    if (errno == ENOENT || errno == ENOTDIR)
        return false;
    throw std::filesystem::filesystem_error("status", path, std::error_code(errno, std::generic_category()));
}

bool is_path_exist(const std::string& path)
{
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        return false;
    // A single-bit test, not the file type: block devices and sockets answer true as well.
    return (info.st_mode & 0x4000) != 0;
}

std::vector<std::string> execute_cmd_line(std::string command)
{
    std::vector<std::string> lines;
    FILE* pipe = popen(command.c_str(), "r");
    char* line = nullptr;
    size_t capacity = 0;
    while (pipe != nullptr && getline(&line, &capacity, pipe) != -1)
        lines.push_back(trim(std::string(line)));
    if (pipe != nullptr)
        pclose(pipe);
    free(line);
    return lines;
}

std::string str_to_hash(std::string text)
{
    uint32_t hash = 2166136261u;
    for (const char c : text) {
        hash *= 16777619u;
        // Signed widening on purpose: bytes of 0x80 and above flip the upper 24 bits too.
        hash ^= static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
    }
    std::ostringstream out;
    out << std::uppercase << std::hex << std::setw(16) << std::setfill('0') << hash;
    return out.str();
}

std::string get_time_stamp(std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds> when)
{
    const int64_t count = when.time_since_epoch().count();
    const int64_t millis = (count / 1000000) % 1000;
    const std::time_t seconds = static_cast<std::time_t>(count / 1000000000);
    const std::tm* local = std::localtime(&seconds);
    char text[64] = {0};
    if (local != nullptr)
        std::strftime(text, sizeof text, "%d/%m/%Y %H:%M:%S", local);
    std::ostringstream out;
    out << text << '.' << std::setw(3) << std::setfill('0') << millis;
    return out.str();
}

namespace {
std::chrono::nanoseconds read_clock(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return std::chrono::seconds(int64_t{now.tv_sec}) + std::chrono::nanoseconds(now.tv_nsec);
}
} // namespace

std::chrono::system_clock::time_point wall_clock_now()
{
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(read_clock(CLOCK_REALTIME)));
}

std::chrono::nanoseconds monotonic_clock_now()
{
    return read_clock(CLOCK_MONOTONIC);
}

bool is_fiscal_id_string_present(const char* identifier)
{
    const std::unordered_map<std::string, int> models = {
        {"TFP-100A", 1},
        {"TFP-220B", 2},
        {"TFP-340C", 3},
    };
    return models.count(make_string(identifier)) != 0;
}
