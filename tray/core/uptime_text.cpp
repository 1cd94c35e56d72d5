#include "core/uptime_text.h"

#include <cmath>
#include <cstdio>

namespace kalvo::tray {
namespace {

// A number the way the status window writes each part: at least two characters.
std::string TwoDigits(int64_t value) {
  std::string text = std::to_string(value);
  if (text.size() == 1) text.insert(0, "0");
  return text;
}

}  // namespace

int64_t WholeUnits(int64_t seconds, char unit, char decimal_separator) {
  double x = static_cast<double>(seconds);
  switch (unit) {
    case 'd':
      x = x / 60 / 60 / 24;
      break;
    case 'h':
      x = x / 60 / 60;
      break;
    case 'm':
      x = x / 60;
      break;
    default:
      return seconds;
  }
  if (!(x > 1)) return x == 1.0 ? 1 : 0;

  // The number as the system writes it: fifteen significant digits, the locale's separator.
  char text[64];
  std::snprintf(text, sizeof text, "%.15G", x);
  std::string written(text);
  for (char& c : written) {
    if (c == '.') c = decimal_separator;
  }
  if (written.find(',') != std::string::npos) return static_cast<int64_t>(std::trunc(x));
  return static_cast<int64_t>(std::nearbyint(x));  // the default rounding: half to even
}

std::string FormatUptime(int64_t seconds, const DayWords& words, char decimal_separator) {
  std::string text;
  const int64_t d = WholeUnits(seconds, 'd', decimal_separator);
  if (d > 0) text = std::to_string(d) + " " + (d == 1 ? words.day : words.days) + " ";
  int64_t rest = seconds - d * 60 * 60 * 24;
  const int64_t h = WholeUnits(rest, 'h', decimal_separator);
  text += TwoDigits(h) + ":";
  rest -= h * 60 * 60;
  const int64_t m = WholeUnits(rest, 'm', decimal_separator);
  text += TwoDigits(m) + ":";
  text += TwoDigits(rest - m * 60);
  return text;
}

}  // namespace kalvo::tray
