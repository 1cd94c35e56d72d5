#include "infra/dates.h"

#include <cstdio>

#include "infra/arrays.h"
#include "infra/numbers.h"

namespace kalvo {
namespace {

// Reads a date text one token at a time.
class DateScanner {
 public:
  explicit DateScanner(std::string_view text) : text_(text) {}

  // A number of `min_digits` to `max_digits` digits, not followed by a further digit.
  std::optional<int> Number(size_t min_digits, size_t max_digits) {
    size_t n = 0;
    int value = 0;
    while (pos_ + n < text_.size() && IsDigit(text_[pos_ + n])) {
      value = value * 10 + (text_[pos_ + n] - '0');
      if (++n > max_digits) return std::nullopt;
    }
    if (n < min_digits) return std::nullopt;
    pos_ += n;
    return value;
  }

  bool Take(char c) {
    if (pos_ >= text_.size() || text_[pos_] != c) return false;
    ++pos_;
    return true;
  }

  // One or more blanks.
  bool TakeBlanks() {
    const size_t start = pos_;
    while (pos_ < text_.size() && text_[pos_] == ' ') ++pos_;
    return pos_ > start;
  }

  bool AtEnd() const { return pos_ == text_.size(); }

 private:
  static bool IsDigit(char c) { return c >= '0' && c <= '9'; }
  std::string_view text_;
  size_t pos_ = 0;
};

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// "hh:mm" or "hh:mm:ss" into `time`.
bool ScanClockTime(DateScanner& in, std::tm& time) {
  const auto hour = in.Number(1, 2);
  if (!hour || !in.Take(':')) return false;
  const auto minute = in.Number(1, 2);
  if (!minute) return false;
  time.tm_hour = *hour;
  time.tm_min = *minute;
  if (in.Take(':')) {
    const auto second = in.Number(1, 2);
    if (!second) return false;
    time.tm_sec = *second;
  }
  return true;
}

// The date text of ParseDateText without range checks; all parts as written.
std::optional<std::tm> ScanDateText(std::string_view text) {
  std::tm time{};
  time.tm_isdst = -1;
  DateScanner in(text);
  int year = 0, month = 0, day = 0;
  // Digits before the first separator: four for a year, at most two for a day.
  const size_t lead = text.find_first_not_of("0123456789");
  if (const auto first = in.Number(1, 4); !first) {
    return std::nullopt;
  } else if (in.Take('-')) {  // yyyy-mm-dd...
    const auto m = in.Number(1, 2);
    if (!m || !in.Take('-')) return std::nullopt;
    const auto d = in.Number(1, 2);
    if (!d) return std::nullopt;
    year = *first, month = *m, day = *d;
    if (in.Take('-')) {  // the timestamp text: -hh-mm-ss
      const auto h = in.Number(1, 2);
      if (!h || !in.Take('-')) return std::nullopt;
      const auto mi = in.Number(1, 2);
      if (!mi || !in.Take('-')) return std::nullopt;
      const auto s = in.Number(1, 2);
      if (!s) return std::nullopt;
      time.tm_hour = *h, time.tm_min = *mi, time.tm_sec = *s;
    } else if (in.Take('T') || in.TakeBlanks()) {
      if (!ScanClockTime(in, time)) return std::nullopt;
    }
    if (lead != 4) return std::nullopt;  // "27-03-01" is not a date here
  } else if (in.Take('.')) {             // dd.mm.yyyy...
    const auto m = in.Number(1, 2);
    if (lead > 2 || !m || !in.Take('.')) return std::nullopt;
    const auto y = in.Number(4, 4);
    if (!y) return std::nullopt;
    year = *y, month = *m, day = *first;
    if (in.TakeBlanks() && !ScanClockTime(in, time)) return std::nullopt;
  } else {
    return std::nullopt;
  }
  if (!in.AtEnd()) return std::nullopt;
  time.tm_year = year - 1900;
  time.tm_mon = month - 1;
  time.tm_mday = day;
  return time;
}

std::string TwoDigits(int value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%02d", value);
  return buffer;
}

}  // namespace

std::tm LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

std::optional<std::tm> ParseDateText(std::string_view text) {
  const auto time = ScanDateText(TrimBlanks(text));
  if (!time) return std::nullopt;
  const int year = time->tm_year + 1900, month = time->tm_mon + 1;
  if (year < 1 || month < 1 || month > 12) return std::nullopt;
  if (time->tm_mday < 1 || time->tm_mday > DaysInMonth(year, month)) return std::nullopt;
  if (time->tm_hour > 23 || time->tm_min > 59 || time->tm_sec > 59) return std::nullopt;
  return time;
}

std::string FormatTimestamp(const std::tm& time) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d-%02d-%02d-%02d", time.tm_year + 1900,
                time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
  return buffer;
}

std::string FormatTimestamp(std::string_view date_text, const std::tm& now) {
  if (date_text.empty()) return FormatTimestamp(now);
  const auto time = ParseDateText(date_text);
  return time ? FormatTimestamp(*time) : "";
}

std::string FormatTimestamp(std::string_view date_text) {
  return FormatTimestamp(date_text, LocalNow());
}

std::tm AddDays(const std::tm& date, int days) {
  // Calendar arithmetic on the civil date in UTC, so that daylight-saving changes cannot
  // shift the time of day.
  std::tm civil{};
  civil.tm_year = date.tm_year;
  civil.tm_mon = date.tm_mon;
  civil.tm_mday = date.tm_mday + days;
  civil.tm_hour = 12;
  const std::time_t noon = timegm(&civil);
  std::tm result{};
  gmtime_r(&noon, &result);
  result.tm_hour = date.tm_hour;
  result.tm_min = date.tm_min;
  result.tm_sec = date.tm_sec;
  result.tm_isdst = -1;
  return result;
}

DateRecord SplitTimestamp(std::string_view text, std::string_view separator) {
  const std::vector<std::string> parts = Split(text, separator);
  DateRecord record;
  for (size_t k = 0; k < record.fields.size() && k < parts.size(); ++k) {
    record.fields[k] = parts[k];
  }
  return record;
}

DateRecord MakeDateRecord(std::string_view date_text, const std::tm& now) {
  std::optional<std::tm> time = now;
  if (!date_text.empty()) time = ParseDateText(date_text);
  if (!time) return {};
  char year[16];
  std::snprintf(year, sizeof year, "%04d", time->tm_year + 1900);
  return {{year, TwoDigits(time->tm_mon + 1), TwoDigits(time->tm_mday), TwoDigits(time->tm_hour),
           TwoDigits(time->tm_min), TwoDigits(time->tm_sec)}};
}

DateRecord MakeDateRecord(std::string_view date_text) {
  return MakeDateRecord(date_text, LocalNow());
}

DateRecord DiffDateRecord(const DateRecord& a, const DateRecord& b) {
  DateRecord diff;
  for (size_t k = 0; k < diff.fields.size(); ++k) {
    const auto x = WholeNumberText(a.fields[k]);
    const auto y = WholeNumberText(b.fields[k]);
    long long d = 0;
    if (x && y && !__builtin_sub_overflow(*x, *y, &d)) diff.fields[k] = std::to_string(d);
  }
  return diff;
}

bool IsNotBefore(const DateRecord& record, std::string_view reference_text, bool equal_allowed,
                 const std::tm& now) {
  const DateRecord reference =
      reference_text.empty() ? MakeDateRecord("", now) : SplitTimestamp(reference_text, "-");
  const DateRecord diff = DiffDateRecord(record, reference);
  for (const std::string& field : diff.fields) {
    if (field.empty()) return false;  // a field that is not a number: no defined order
  }
  for (const std::string& field : diff.fields) {
    const long long d = *WholeNumberText(field);
    if (d > 0) return true;
    if (d < 0) return false;
  }
  return equal_allowed;
}

bool IsNotBefore(const DateRecord& record, std::string_view reference_text, bool equal_allowed) {
  return IsNotBefore(record, reference_text, equal_allowed, LocalNow());
}

}  // namespace kalvo
