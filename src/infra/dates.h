// The server's timestamp text ("yyyy-mm-dd-hh-mm-ss") and comparisons of dates held as
// six-part records. Nothing here reports an error: unusable input gives "", an empty record
// or false.
//
// Every function that looks at the clock has an overload taking `now` (a local broken-down
// time), so that tests run on a fixed clock; the other overloads pass LocalNow().
#pragma once

#include <array>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace kalvo {

// Six texts: year, month, day, hour, minute, second (in that order, index 0 to 5).
struct DateRecord {
  static constexpr int kYear = 0, kMonth = 1, kDay = 2, kHour = 3, kMinute = 4, kSecond = 5;
  std::array<std::string, 6> fields;

  const std::string& operator[](int k) const { return fields[k]; }
  std::string& operator[](int k) { return fields[k]; }
  bool operator==(const DateRecord&) const = default;
};

// The current local date and time.
std::tm LocalNow();

// Reads a date text. Accepted, with surrounding blanks ignored and 1 or 2 digits for every
// part but the four-digit year:
//   yyyy-mm-dd-hh-mm-ss     (the timestamp text itself)
//   yyyy-mm-dd              yyyy-mm-dd hh:mm     yyyy-mm-dd hh:mm:ss   ("T" also separates)
//   dd.mm.yyyy              dd.mm.yyyy hh:mm     dd.mm.yyyy hh:mm:ss
// A missing time is midnight. Gives nothing for any other text and for dates that do not
// exist (month 13, 30 February, hour 24, ...). Only the date and time fields of the result
// are set (tm_wday, tm_yday are 0, tm_isdst is -1).
std::optional<std::tm> ParseDateText(std::string_view text);

// `time` (local broken-down time; only year to second are read) as "yyyy-mm-dd-hh-mm-ss".
std::string FormatTimestamp(const std::tm& time);

// `date_text` (see ParseDateText) as "yyyy-mm-dd-hh-mm-ss"; "" means `now`. Gives "" when
// the text cannot be read.
std::string FormatTimestamp(std::string_view date_text, const std::tm& now);
std::string FormatTimestamp(std::string_view date_text);

// `date` moved by `days` whole calendar days (negative: back), the time of day kept.
std::tm AddDays(const std::tm& date, int days);

// `text` split at `separator` (callers pass "-"): field k is part k of the split when there
// are more than k parts, else "". Parts are taken as found, without checks.
DateRecord SplitTimestamp(std::string_view text, std::string_view separator);

// The record of `date_text` (see ParseDateText), of `now` when it is "": the year with four
// digits, the other five fields with two. Six empty fields when the text cannot be read.
DateRecord MakeDateRecord(std::string_view date_text, const std::tm& now);
DateRecord MakeDateRecord(std::string_view date_text);

// Field by field, the number of `a` minus the number of `b`, as decimal text ("-1", "0",
// "12"). A field where either side is not a number (see WholeNumberText) is "" in the
// result.
DateRecord DiffDateRecord(const DateRecord& a, const DateRecord& b);

// True when `record` is later than the reference, or equal to it and `equal_allowed`.
// The reference is `now` when `reference_text` is "", else `reference_text` split at "-"
// (a timestamp text). Fields are compared as numbers from year to second. False whenever a
// field of either side is missing or not a number.
bool IsNotBefore(const DateRecord& record, std::string_view reference_text, bool equal_allowed,
                 const std::tm& now);
bool IsNotBefore(const DateRecord& record, std::string_view reference_text, bool equal_allowed);

}  // namespace kalvo
