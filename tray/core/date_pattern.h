// Date and time patterns as the language files write them ("dd.mm.yyyy", "hh:nn:ss").
#pragma once

#include <ctime>
#include <string>
#include <string_view>

namespace kalvo::tray {

// `time` (local broken-down time) written by `pattern`, in the notation the language files
// use:
//   d dd ddd dddd   day, two-digit day, weekday abbreviated, weekday
//   m mm mmm mmmm   month, two-digit month, month abbreviated, month; "m" and "mm" right
//                   after an hour field (literals between do not count) are the minute
//   y yy yyyy       day of the year, two-digit year, year
//   h hh  n nn  s ss  hour, minute, second (one or two digits)
//   w q             weekday (Sunday 1), quarter
//   AM/PM am/pm A/P a/p  12-hour clock, writing the marker in the case given
//   "text", \c      literal text, literal character
// Every other character is copied. Weekday and month names are English. Never fails.
std::string FormatDatePattern(const std::tm& time, std::string_view pattern);

}  // namespace kalvo::tray
