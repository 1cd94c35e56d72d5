// Timestamp texts and date records, on a fixed clock.
#include "infra/dates.h"

#include <gtest/gtest.h>

namespace kalvo {
namespace {

std::tm At(int year, int month, int day, int hour, int minute, int second) {
  std::tm t{};
  t.tm_year = year - 1900;
  t.tm_mon = month - 1;
  t.tm_mday = day;
  t.tm_hour = hour;
  t.tm_min = minute;
  t.tm_sec = second;
  t.tm_isdst = -1;
  return t;
}

const std::tm kNow = At(2027, 3, 1, 9, 5, 3);

DateRecord Record(std::string y, std::string mo, std::string d, std::string h, std::string mi,
                  std::string s) {
  return {{y, mo, d, h, mi, s}};
}

TEST(FormatTimestamp, EmptyMeansNow) {
  EXPECT_EQ(FormatTimestamp("", kNow), "2027-03-01-09-05-03");
}

TEST(FormatTimestamp, RealClockGivesNineteenCharacters) {
  const std::string now = FormatTimestamp("");
  ASSERT_EQ(now.size(), 19u) << now;
  EXPECT_EQ(FormatTimestamp(now), now) << "a timestamp reads back as itself";
}

TEST(FormatTimestamp, AcceptedAndRejectedDateTexts) {
  struct Case {
    const char* text;
    const char* expected;
    const char* why;
  } cases[] = {
      {"2026-11-14 23:58:09", "2026-11-14-23-58-09", "ISO date and time"},
      {"2026-11-14T23:58:09", "2026-11-14-23-58-09", "ISO with T"},
      {"2026-11-14 23:58", "2026-11-14-23-58-00", "no seconds"},
      {"2026-11-14", "2026-11-14-00-00-00", "date only is midnight"},
      {"2026-11-14-23-58-09", "2026-11-14-23-58-09", "the timestamp text itself"},
      {"14.11.2026 23:58:09", "2026-11-14-23-58-09", "German date and time"},
      {"1.3.2027", "2027-03-01-00-00-00", "single digits"},
      {"  2027-3-1 9:5:3 ", "2027-03-01-09-05-03", "blanks around, single digits"},
      {"2028-02-29", "2028-02-29-00-00-00", "leap day"},
      {"2027-02-29", "", "no leap day in 2027"},
      {"2027-13-01", "", "month 13"},
      {"2027-04-31", "", "April has 30 days"},
      {"2027-03-01 24:00:00", "", "hour 24"},
      {"2027-03-01 10:60", "", "minute 60"},
      {"27-03-01", "", "two-digit year"},
      {"01.03.27", "", "two-digit year"},
      {"001.03.2027", "", "three-digit day"},
      {"2027-03-01-09-05", "", "timestamp missing its seconds"},
      {"2027-03-01 09:05:03 x", "", "trailing text"},
      {"03/01/2027", "", "slashes are not accepted"},
      {"gestern", "", "not a date"},
      {" ", "", "only a blank is not \"now\""},
  };
  for (const Case& c : cases) EXPECT_EQ(FormatTimestamp(c.text, kNow), c.expected) << c.why;
}

TEST(AddDays, CrossesMonthAndYearKeepingTheTime) {
  EXPECT_EQ(FormatTimestamp(AddDays(kNow, -1)), "2027-02-28-09-05-03");
  EXPECT_EQ(FormatTimestamp(AddDays(At(2026, 12, 31, 0, 0, 0), 1)), "2027-01-01-00-00-00");
  EXPECT_EQ(FormatTimestamp(AddDays(At(2028, 3, 1, 23, 0, 0), -366)), "2027-03-01-23-00-00");
}

TEST(SplitTimestamp, MissingPartsAreEmpty) {
  EXPECT_EQ(SplitTimestamp("2027-03-01", "-"), Record("2027", "03", "01", "", "", ""));
  EXPECT_EQ(SplitTimestamp("2027-03-01-09-05-03", "-"),
            Record("2027", "03", "01", "09", "05", "03"));
  EXPECT_EQ(SplitTimestamp("", "-"), DateRecord{});
  EXPECT_EQ(SplitTimestamp("1-2-3-4-5-6-7", "-"), Record("1", "2", "3", "4", "5", "6"))
      << "parts beyond the sixth are dropped";
}

TEST(MakeDateRecord, PadsToTwoDigits) {
  EXPECT_EQ(MakeDateRecord("", kNow), Record("2027", "03", "01", "09", "05", "03"));
  EXPECT_EQ(MakeDateRecord("2026-11-14 23:58:09", kNow),
            Record("2026", "11", "14", "23", "58", "09"));
  EXPECT_EQ(MakeDateRecord("not a date", kNow), DateRecord{});
}

TEST(DiffDateRecord, FieldWiseNumbersAndEmptyForNonNumbers) {
  EXPECT_EQ(DiffDateRecord(Record("2027", "03", "01", "09", "05", "03"),
                           Record("2026", "12", "31", "10", "05", "3")),
            Record("1", "-9", "-30", "-1", "0", "0"))
      << "no borrowing between fields";
  EXPECT_EQ(DiffDateRecord(Record("2027", "03", "01", "09", "05", "03"),
                           SplitTimestamp("2027-03-01", "-")),
            Record("0", "0", "0", "", "", ""))
      << "empty fields are number failures";
  EXPECT_EQ(DiffDateRecord(Record("2027", "x", " 5 ", "+1", "99999999999999999999", "+-1"),
                           Record("2027", "1", "2", "1", "1", "1")),
            Record("0", "", "3", "0", "", ""));
}

TEST(IsNotBefore, ComparesFieldByField) {
  const DateRecord record = Record("2027", "03", "01", "09", "05", "03");
  struct Case {
    const char* reference;
    bool equal_allowed;
    bool expected;
    const char* why;
  } cases[] = {
      {"2027-03-01-09-05-02", false, true, "one second later"},
      {"2027-03-01-09-05-04", true, false, "one second earlier"},
      {"2026-12-31-23-59-59", false, true, "later year wins over smaller month"},
      {"2027-03-01-09-05-03", true, true, "equal and equal allowed"},
      {"2027-03-01-09-05-03", false, false, "equal but not allowed"},
      {"2027-3-1-9-5-3", true, true, "numbers, not texts, are compared"},
      {"", true, true, "empty reference is now, which is equal here"},
      {"", false, false, "empty reference is now, equal not allowed"},
      {"2026-03-01", true, false, "incomplete reference: no defined order"},
      {"garbage", true, false, "not a timestamp"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(IsNotBefore(record, c.reference, c.equal_allowed, kNow), c.expected) << c.why;
  }
  EXPECT_FALSE(
      IsNotBefore(Record("2027", "03", "01", "", "", ""), "2020-01-01-00-00-00", true, kNow))
      << "incomplete record";
}

}  // namespace
}  // namespace kalvo
