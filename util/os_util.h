#ifndef TARVO_UTIL_OS_UTIL_H
#define TARVO_UTIL_OS_UTIL_H

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// A wall-clock millisecond timer; timeout_ms == 0 means not armed.
struct t_timer_t {
    struct {
        int32_t tv_sec;
        int32_t tv_usec;
    } start;
    uint32_t timeout_ms;
};

void timer_start(t_timer_t* timer, unsigned int timeout_ms);
bool timer_has_expired(const t_timer_t* timer);
std::thread::id get_thread_id();
unsigned short swap_int(unsigned short value);
bool file_exists(const std::string& path);
bool is_path_exist(const std::string& path);
std::vector<std::string> execute_cmd_line(std::string command);
std::string str_to_hash(std::string text);
std::string get_time_stamp(std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds> when);
// The clocks read through the C library, which a 32-bit build compiles with a 64-bit time_t:
// libstdc++'s own clocks and file queries use the 32-bit interfaces there and fail after 2038.
std::chrono::system_clock::time_point wall_clock_now();
std::chrono::nanoseconds monotonic_clock_now();
bool is_fiscal_id_string_present(const char* identifier);

#endif
