#ifndef TARVO_UTIL_ARGENTINA_TIME_H
#define TARVO_UTIL_ARGENTINA_TIME_H

#include <chrono>
#include <optional>
#include <string>

// Argentina keeps UTC-3 all year; a fixed offset needs no time-zone database.
constexpr std::chrono::seconds argentina_utc_offset{-3 * 3600};

using WallClock = std::chrono::system_clock;

// Reads "YYYY-MM-DDTHH:MM:SS" with optional fraction and optional "Z" or "+HH:MM"/"-HH:MM".
// Without an offset the text is Argentina's local time, as the tax agency reads it.
std::optional<WallClock::time_point> parse_argentina_time(const std::string& text);

// "2026-11-21T10:15:30.123-03:00": milliseconds and the fixed offset.
std::string format_argentina_time(WallClock::time_point when);

// "20261121" in Argentina's calendar, the date format of the invoicing service; with_time adds
// the wall-clock time, "20261121101530", as in FchProceso.
std::string format_argentina_date(WallClock::time_point when, bool with_time = false);

// The date in Argentina at `now`, yyyymmdd.
std::string argentina_today(WallClock::time_point now);

// Days since 1970-01-01 of a calendar date written yyyymmdd; nullopt when it is no such date.
std::optional<long long> day_of_date(const std::string& yyyymmdd);

// The yyyymmdd date of a day counted from 1970-01-01.
std::string date_of_day(long long day);

// "11/21/2026 1:15:30 PM" in UTC, as the invoicing service writes a token's dates.
std::string format_utc_clock(WallClock::time_point when);

#endif
