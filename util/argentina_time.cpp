#include "util/argentina_time.h"

#include <cctype>
#include <cstdio>
#include <ctime>

namespace {

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
long long days_from_civil(long long year, unsigned month, unsigned day)
{
    year -= month <= 2;
    const long long era = (year >= 0 ? year : year - 399) / 400;
    const unsigned year_of_era = static_cast<unsigned>(year - era * 400);
    const unsigned day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + static_cast<long long>(day_of_era) - 719468;
}

bool leap_year(long long year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned days_in_month(long long year, unsigned month)
{
    static const unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && leap_year(year) ? 29 : days[month - 1];
}

// Reads exactly `count` digits at `position`, advancing it.
bool read_digits(const std::string& text, size_t& position, size_t count, int& value)
{
    if (position + count > text.size())
        return false;
    value = 0;
    for (size_t i = 0; i < count; ++i) {
        const char c = text[position + i];
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
        value = value * 10 + (c - '0');
    }
    position += count;
    return true;
}

bool expect(const std::string& text, size_t& position, char wanted)
{
    if (position >= text.size() || text[position] != wanted)
        return false;
    ++position;
    return true;
}

// Broken-down Argentina time, read with gmtime_r after shifting by the fixed offset.
std::tm argentina_broken_down(WallClock::time_point when, int& millis)
{
    using namespace std::chrono;
    const auto local = time_point_cast<milliseconds>(when) + argentina_utc_offset;
    // floor, not truncation: instants before 1970 keep a non-negative millisecond part.
    const auto whole = floor<seconds>(local);
    millis = static_cast<int>(duration_cast<milliseconds>(local - whole).count());
    const std::time_t shifted = WallClock::to_time_t(whole);
    std::tm broken{};
    gmtime_r(&shifted, &broken);
    return broken;
}

} // namespace

std::optional<WallClock::time_point> parse_argentina_time(const std::string& text)
{
    size_t at = 0;
    int year, month, day, hour, minute, second;
    if (!read_digits(text, at, 4, year) || !expect(text, at, '-') || !read_digits(text, at, 2, month) ||
        !expect(text, at, '-') || !read_digits(text, at, 2, day) || !expect(text, at, 'T') ||
        !read_digits(text, at, 2, hour) || !expect(text, at, ':') || !read_digits(text, at, 2, minute) ||
        !expect(text, at, ':') || !read_digits(text, at, 2, second))
        return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || static_cast<unsigned>(day) > days_in_month(year, month) || hour > 23 ||
        minute > 59 || second > 59)
        return std::nullopt;

    long long fraction_ns = 0;
    if (at < text.size() && text[at] == '.') {
        ++at;
        long long scale = 100000000;
        const size_t first = at;
        while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at]))) {
            fraction_ns += (text[at] - '0') * scale;
            scale /= 10;
            ++at;
        }
        if (at == first)
            return std::nullopt;
    }

    long long offset_seconds = argentina_utc_offset.count();
    if (at < text.size()) {
        if (text[at] == 'Z') {
            offset_seconds = 0;
            ++at;
        } else if (text[at] == '+' || text[at] == '-') {
            const int sign = text[at] == '-' ? -1 : 1;
            ++at;
            int offset_hours, offset_minutes;
            if (!read_digits(text, at, 2, offset_hours) || !expect(text, at, ':') ||
                !read_digits(text, at, 2, offset_minutes) || offset_hours > 14 || offset_minutes > 59)
                return std::nullopt;
            offset_seconds = sign * (offset_hours * 3600LL + offset_minutes * 60LL);
        }
    }
    if (at != text.size())
        return std::nullopt;

    const long long local_seconds = days_from_civil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
                                    hour * 3600LL + minute * 60LL + second;
    return WallClock::time_point(std::chrono::duration_cast<WallClock::duration>(
        std::chrono::seconds(local_seconds - offset_seconds) + std::chrono::nanoseconds(fraction_ns)));
}

std::string format_argentina_time(WallClock::time_point when)
{
    int millis = 0;
    const std::tm local = argentina_broken_down(when, millis);
    char text[128];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d-03:00", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis);
    return text;
}

std::string format_argentina_date(WallClock::time_point when, bool with_time)
{
    int millis = 0;
    const std::tm local = argentina_broken_down(when, millis);
    char text[64];
    std::snprintf(text, sizeof text, "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    if (with_time)
        std::snprintf(text + 8, sizeof text - 8, "%02d%02d%02d", local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

std::optional<long long> day_of_date(const std::string& yyyymmdd)
{
    size_t at = 0;
    int year, month, day;
    if (yyyymmdd.size() != 8 || !read_digits(yyyymmdd, at, 4, year) || !read_digits(yyyymmdd, at, 2, month) ||
        !read_digits(yyyymmdd, at, 2, day) || month < 1 || month > 12 || day < 1 ||
        static_cast<unsigned>(day) > days_in_month(year, month))
        return std::nullopt;
    return days_from_civil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
}

std::string date_of_day(long long day)
{
    // The inverse of days_from_civil (H. Hinnant's algorithm).
    day += 719468;
    const long long era = (day >= 0 ? day : day - 146096) / 146097;
    const unsigned day_of_era = static_cast<unsigned>(day - era * 146097);
    const unsigned year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const unsigned shifted_month = (5 * day_of_year + 2) / 153;
    const unsigned month_day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    const unsigned month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    const long long year = static_cast<long long>(year_of_era) + era * 400 + (month <= 2);
    char text[32];
    std::snprintf(text, sizeof text, "%04lld%02u%02u", year, month, month_day);
    return text;
}

std::string format_utc_clock(WallClock::time_point when)
{
    const std::time_t seconds = WallClock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%d/%d/%04d %d:%02d:%02d %s", utc.tm_mon + 1, utc.tm_mday, utc.tm_year + 1900,
                  (utc.tm_hour + 11) % 12 + 1, utc.tm_min, utc.tm_sec, utc.tm_hour < 12 ? "AM" : "PM");
    return text;
}

std::string argentina_today(WallClock::time_point now)
{
    return format_argentina_date(now);
}
