// The status window's texts: uptime, whole units, date patterns, and the values made from
// one reading of the status endpoint.
#include <gtest/gtest.h>

#include "core/date_pattern.h"
#include "core/status_view.h"
#include "core/uptime_text.h"
#include "host/status_endpoint.h"

namespace kalvo::tray {
namespace {

const DayWords kGerman{"Tag", "Tage"};
const DayWords kEnglish{"day", "days"};

TEST(WholeUnits, ExactlyOneUnitCountsAndLessIsZero) {
  for (char separator : {'.', ','}) {
    EXPECT_EQ(WholeUnits(3600, 'h', separator), 1) << "exactly 1.0";
    EXPECT_EQ(WholeUnits(86400, 'd', separator), 1);
    EXPECT_EQ(WholeUnits(60, 'm', separator), 1);
    EXPECT_EQ(WholeUnits(3599, 'h', separator), 0) << "below 1 is 0, not rounded";
    EXPECT_EQ(WholeUnits(0, 'd', separator), 0);
    EXPECT_EQ(WholeUnits(-7200, 'h', separator), 0) << "not above 1";
    EXPECT_EQ(WholeUnits(12345, 's', separator), 12345) << "other units pass the number on";
  }
}

TEST(WholeUnits, CommaSeparatorTruncatesOthersRoundHalfToEven) {
  const struct {
    int64_t seconds;
    char unit;
    int64_t comma, point;
    const char* why;
  } cases[] = {
      {5400, 'h', 1, 2, "1.5 h: integer part / rounded up"},
      {9000, 'h', 2, 2, "2.5 h: half to even gives 2"},
      {12600, 'h', 3, 4, "3.5 h: half to even gives 4"},
      {7199, 'h', 1, 2, "1.9997 h"},
      {7260, 'h', 2, 2, "2.0167 h"},
      {183845, 'd', 2, 2, "2.128 d"},
      {216000, 'd', 2, 2, "2.5 d: half to even"},
      {302400, 'd', 3, 4, "3.5 d"},
      {150, 'm', 2, 2, "2.5 min: half to even"},
      {7200, 'h', 2, 2, "whole number: no fraction, no comma"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(WholeUnits(c.seconds, c.unit, ','), c.comma) << c.why;
    EXPECT_EQ(WholeUnits(c.seconds, c.unit, '.'), c.point) << c.why;
  }
}

TEST(FormatUptime, WritesDaysAndTwoDigitParts) {
  for (char separator : {'.', ','}) {
    EXPECT_EQ(FormatUptime(0, kGerman, separator), "00:00:00");
    EXPECT_EQ(FormatUptime(3600, kGerman, separator), "01:00:00");
    EXPECT_EQ(FormatUptime(86400, kGerman, separator), "1 Tag 00:00:00");
    EXPECT_EQ(FormatUptime(183845, kGerman, separator), "2 Tage 03:04:05");
    EXPECT_EQ(FormatUptime(183845, kEnglish, separator), "2 days 03:04:05");
    EXPECT_EQ(FormatUptime(59, kEnglish, separator), "00:00:59");
  }
}

TEST(FormatUptime, RoundingUpUnderAPointSeparatorLeavesANegativeRest) {
  // 1.5 hours: with the comma rule 1 h 30 min; rounded, 2 h and the rest of -1800 s falls
  // through to the seconds. The rule is kept as designed.
  EXPECT_EQ(FormatUptime(5400, kEnglish, ','), "01:30:00");
  EXPECT_EQ(FormatUptime(5400, kEnglish, '.'), "02:00:-1800");
  // 2.6 days round to 3 days under a point separator.
  EXPECT_EQ(FormatUptime(224640, kEnglish, ','), "2 days 14:24:00");
  EXPECT_EQ(FormatUptime(224640, kEnglish, '.'), "3 days 00:00:-34560");
}

std::tm Time(int year, int month, int day, int hour, int minute, int second) {
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  std::tm copy = t;
  timegm(&copy);  // weekday and day of the year
  t.tm_wday = copy.tm_wday;
  t.tm_yday = copy.tm_yday;
  return t;
}

TEST(FormatDatePattern, ReadsTheLanguageFilePatterns) {
  const std::tm morning = Time(2027, 3, 1, 9, 5, 3);
  const std::tm evening = Time(2027, 12, 31, 21, 0, 0);
  const struct {
    const std::tm& time;
    const char* pattern;
    const char* expected;
    const char* why;
  } cases[] = {
      {morning, "hh:nn:ss dd.mm.yyyy", "09:05:03 01.03.2027", "German files"},
      {morning, "hh:mm", "09:05", "mm after an hour is the minute"},
      {evening, "dd.mm.yy", "31.12.27", "two-digit year"},
      {evening, "h:mm AM/PM", "9:00 PM", "12-hour clock"},
      {morning, "\"Tag\" d \\d", "Tag 1 d", "quoted and escaped literals"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FormatDatePattern(c.time, c.pattern), c.expected) << c.why;
  }
}

// 2027-03-01 09:05:03 UTC.
constexpr int64_t kStart = 1803891903;

TEST(ParseStatusJson, ReadsWhatTheServerRenders) {
  StatusSnapshot snapshot;
  snapshot.listening = true;
  snapshot.server_start_time = "01.03.2027 09:05:03";
  snapshot.start_time_unix = kStart;
  snapshot.bytes_sent = 1234;
  snapshot.bytes_received = 2147483647;
  snapshot.connection_count = 2;
  snapshot.token_connection_count = 1;
  snapshot.requests_by_package_id = {{101, 3}};
  const std::optional<StatusReport> report = ParseStatusJson(RenderStatusJson(snapshot));
  ASSERT_TRUE(report.has_value());
  EXPECT_TRUE(report->listening);
  EXPECT_EQ(report->start_time_unix, kStart);
  EXPECT_EQ(report->server_start_time, "01.03.2027 09:05:03");
  EXPECT_EQ(report->bytes_sent, 1234);
  EXPECT_EQ(report->bytes_received, 2147483647);
  EXPECT_EQ(report->connection_count, 2);
  EXPECT_EQ(report->token_connection_count, 1);

  snapshot = StatusSnapshot{};  // not listening, start unknown ("startTimeUnix": null)
  const std::optional<StatusReport> idle = ParseStatusJson(RenderStatusJson(snapshot));
  ASSERT_TRUE(idle.has_value());
  EXPECT_FALSE(idle->listening);
  EXPECT_EQ(idle->start_time_unix, 0);
}

TEST(ParseStatusJson, RejectsDocumentsWithoutTheListeningState) {
  const struct {
    const char* json;
    const char* why;
  } cases[] = {
      {"", "empty body"},
      {"Not Found\n", "not JSON"},
      {"[true]", "an array"},
      {"{\"port\":15243}", "no listening field"},
      {"{\"listening\":1}", "listening is not a boolean"},
  };
  for (const auto& c : cases) EXPECT_FALSE(ParseStatusJson(c.json).has_value()) << c.why;
}

}  // namespace
}  // namespace kalvo::tray
