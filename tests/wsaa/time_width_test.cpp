// Ticket times at the edges of a 32-bit time_t (i386 builds): both ends of its range,
// the -1 that mktime returns on failure, and times that only a 64-bit time_t could hold.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>
#include <string>

#include "driver/afip_driver_exception.h"
#include "http/easy_http.h"
#include "wsaa/tra.h"

namespace {

constexpr std::int64_t int32_max = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t int32_min = std::numeric_limits<std::int32_t>::min();
constexpr bool narrow_time_t = sizeof(std::time_t) == 4;

void use_time_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    tzset();
}

TRA offline_tra()
{
    return TRA("http://127.0.0.1:1/", "wsfe", "missing.p12", "", std::make_shared<EasyHTTP>(""));
}

// 0 when the text counts as fresh, otherwise the result code raised.
int32_t age_code(const std::string& text)
{
    TRA tra = offline_tra();
    try {
        tra.check_tra_is_expired(text);
    } catch (const afip_driver_exception& error) {
        return error.get_error();
    }
    return 0;
}

std::time_t mktime_of(int year, int month, int day, int hour, int minute, int second)
{
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    return std::mktime(&fields);
}

std::chrono::system_clock::time_point at_seconds(std::int64_t seconds, std::int64_t extra_ms = 0)
{
    return std::chrono::system_clock::time_point(std::chrono::duration_cast<std::chrono::system_clock::duration>(
        std::chrono::seconds(seconds) + std::chrono::milliseconds(extra_ms)));
}

std::string element(const std::string& xml, const std::string& name)
{
    const std::string open = "<" + name + ">";
    const auto start = xml.find(open);
    const auto end = xml.find("</" + name + ">");
    if (start == std::string::npos || end == std::string::npos)
        return "<missing " + name + ">";
    return xml.substr(start + open.size(), end - start - open.size());
}

class TimeWidth : public ::testing::Test {
protected:
    TimeWidth() { use_time_zone("UTC0"); }
};

} // namespace

TEST_F(TimeWidth, MktimeFailsWhereTheAgeCheckReliesOnIt)
{
    // The zero-field time of an unparsable text is 1899-12-31: out of range for 32 bits only.
    const std::time_t zero_fields = mktime_of(1900, 1, 0, 0, 0, 0);
    if (narrow_time_t)
        EXPECT_EQ(zero_fields, static_cast<std::time_t>(-1));
    else
        EXPECT_LT(static_cast<std::int64_t>(zero_fields), int32_min);
    // One second before 1970 is -1 on every width: indistinguishable from a failure.
    EXPECT_EQ(mktime_of(1969, 12, 31, 23, 59, 59), static_cast<std::time_t>(-1));
}

TEST_F(TimeWidth, FailedOrAmbiguousMktimeCountsAsVeryOld)
{
    // Unparsable, before the 32-bit range, its first second, and the one second that reads as -1.
    for (const char* text : {"", "garbage", "1900-01-01T00:00:00", "1901-12-13T20:45:51", "1901-12-13T20:45:52",
                             "1969-12-31T23:59:59"})
        EXPECT_EQ(age_code(text), AFIP_TICKET_TOO_OLD) << text;

    // In a zone west of UTC the failure value lies at a different wall-clock time.
    use_time_zone("<-03>3");
    for (const char* text : {"", "1969-12-31T20:59:59", "1901-12-13T17:45:51"})
        EXPECT_EQ(age_code(text), AFIP_TICKET_TOO_OLD) << text;
}

TEST_F(TimeWidth, LastRepresentableSecondIsAFutureTimeNotAFailure)
{
    EXPECT_EQ(static_cast<std::int64_t>(mktime_of(2038, 1, 19, 3, 14, 7)), int32_max);
    EXPECT_EQ(age_code("2038-01-19T03:14:07"), 0);
    use_time_zone("<-03>3");
    EXPECT_EQ(age_code("2038-01-19T00:14:07"), 0);
}

TEST_F(TimeWidth, FormatsBothEndsOfTheRange)
{
    EXPECT_EQ(TRA::time_t_2_format_date(static_cast<std::time_t>(int32_max)), "2038-01-19T03:14:07");
    EXPECT_EQ(TRA::time_t_2_format_date(static_cast<std::time_t>(int32_min)), "1901-12-13T20:45:52");
    EXPECT_EQ(TRA::time_t_2_format_date(-1), "1969-12-31T23:59:59");
    use_time_zone("<-03>3");
    EXPECT_EQ(TRA::time_t_2_format_date(static_cast<std::time_t>(int32_max)), "2038-01-19T00:14:07");
    EXPECT_EQ(TRA::time_t_2_format_date(static_cast<std::time_t>(int32_min)), "1901-12-13T17:45:52");
}

TEST_F(TimeWidth, RequestTimesReachTheLastRepresentableSecond)
{
    // Nanoseconds since 1970 overflow 32 bits within seconds; the offsets must not.
    const std::string latest = offline_tra().create_tra_xml(at_seconds(int32_max - 43200, 999));
    EXPECT_EQ(element(latest, "generationTime"), "2038-01-18T14:14:07");
    EXPECT_EQ(element(latest, "expirationTime"), "2038-01-19T03:14:07");

    const std::string earliest = offline_tra().create_tra_xml(at_seconds(int32_min + 3600));
    EXPECT_EQ(element(earliest, "generationTime"), "1901-12-13T20:45:52");
    EXPECT_EQ(element(earliest, "expirationTime"), "1901-12-14T09:45:52");
}

TEST_F(TimeWidth, RequestTimesTruncateTowardZeroBeforeTheEpoch)
{
    // -1.5 s: generation -3601.5 s and expiration 43198.5 s both drop their half second toward zero.
    const std::string text = offline_tra().create_tra_xml(at_seconds(-1, -500));
    EXPECT_EQ(element(text, "generationTime"), "1969-12-31T22:59:59");
    EXPECT_EQ(element(text, "expirationTime"), "1970-01-01T11:59:58");
}

TEST_F(TimeWidth, RequestTimesForTheCurrentClockAreThirteenHoursApart)
{
    const std::time_t before = std::time(nullptr);
    const std::string text = offline_tra().create_tra_xml();
    const std::time_t after = std::time(nullptr);
    std::tm generation{};
    std::tm expiration{};
    ASSERT_NE(strptime(element(text, "generationTime").c_str(), "%Y-%m-%dT%H:%M:%S", &generation), nullptr) << text;
    ASSERT_NE(strptime(element(text, "expirationTime").c_str(), "%Y-%m-%dT%H:%M:%S", &expiration), nullptr) << text;
    const std::time_t generated = timegm(&generation);
    const std::time_t expires = timegm(&expiration);
    EXPECT_GE(generated, before - 3600);
    EXPECT_LE(generated, after - 3600);
    EXPECT_EQ(static_cast<std::int64_t>(expires) - static_cast<std::int64_t>(generated), 46800);
}
