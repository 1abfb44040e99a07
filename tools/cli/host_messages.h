#ifndef TARVO_TOOLS_CLI_HOST_MESSAGES_H
#define TARVO_TOOLS_CLI_HOST_MESSAGES_H

#include <cstdint>
#include <ctime>
#include <string>

// One line saying what a non-zero result code means and what to do about it.
std::string explain_result(int32_t result);

// The process's offset from UTC at `when`, in seconds east (Argentina: -10800).
long utc_offset_seconds(std::time_t when);

// "+HH:MM" / "-HH:MM".
std::string format_utc_offset(long seconds);

// A warning when the offset is not Argentina's, empty otherwise.
std::string time_zone_warning(long offset_seconds);

// A warning when the ticket cannot be kept in `cache_file` inside `directory`, empty otherwise.
std::string ticket_cache_warning(const std::string& directory, const std::string& cache_file);

struct CliOptions;

// --log and --log-file: `log` on standard error and into a file only its owner may read (it holds
// the live token and sign); false when the file cannot be written.
bool report_transfer_log(const std::string& log, const CliOptions& options);

#endif
