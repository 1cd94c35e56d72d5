// The duration and number texts of the status window: the uptime as "[d day(s) ]hh:mm:ss"
// and the whole units of days, hours or minutes it is made of. Pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kalvo::tray {

// Whole days ('d'), hours ('h') or minutes ('m') in `seconds`; any other unit gives
// `seconds` unchanged. The quotient x (floating point) gives 1 when it is exactly 1.0 and 0
// when it is not above 1. Above 1, x is written in the system's number format (15
// significant digits, `decimal_separator` before the fraction): when that text holds a
// comma the result is its integer part, otherwise x rounded half to even. So with a comma
// separator 1.5 hours give 1, with a point they give 2; that difference is deliberate.
int64_t WholeUnits(int64_t seconds, char unit, char decimal_separator);

// The texts FormatUptime puts after the number of days.
struct DayWords {
  std::string day;   // after exactly one day
  std::string days;  // after any other number of days
};

// "d <day or days> hh:mm:ss" for a duration of `seconds`, the day part only when there is
// at least one whole day. Each part is what remains after the larger units (WholeUnits of
// the rest), so where WholeUnits rounds up a later part can come out negative; such a part
// is written as it is ("-5"), a single digit gets a leading "0". Texts are passed through
// unchanged (Windows-1252 in, Windows-1252 out).
std::string FormatUptime(int64_t seconds, const DayWords& words, char decimal_separator);

}  // namespace kalvo::tray
