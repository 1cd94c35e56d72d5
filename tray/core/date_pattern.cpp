#include "core/date_pattern.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace kalvo::tray {
namespace {

constexpr const char* kMonths[] = {"January",   "February", "March",    "April",
                                   "May",       "June",     "July",     "August",
                                   "September", "October",  "November", "December"};
constexpr const char* kWeekdays[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};

std::string Number(int value, size_t width) {
  std::string text = std::to_string(value);
  if (text.size() < width) text.insert(0, width - text.size(), '0');
  return text;
}

// Length of the run of `c` (either case) at `pos`.
size_t RunLength(std::string_view pattern, size_t pos, char c) {
  size_t n = 0;
  while (pos + n < pattern.size() &&
         std::tolower(static_cast<unsigned char>(pattern[pos + n])) == c) {
    ++n;
  }
  return n;
}

bool StartsWith(std::string_view text, size_t pos, std::string_view prefix) {
  return text.substr(pos, prefix.size()) == prefix;
}

// The 12-hour clock markers, longest first; the marker is written in the case given.
struct Marker {
  std::string_view pattern, am, pm;
};
constexpr Marker kMarkers[] = {
    {"AM/PM", "AM", "PM"}, {"am/pm", "am", "pm"}, {"A/P", "A", "P"}, {"a/p", "a", "p"}};

bool HasMarker(std::string_view pattern) {
  return std::any_of(std::begin(kMarkers), std::end(kMarkers), [&](const Marker& m) {
    return pattern.find(m.pattern) != std::string_view::npos;
  });
}

}  // namespace

std::string FormatDatePattern(const std::tm& time, std::string_view pattern) {
  const bool twelve_hour = HasMarker(pattern);
  int hour = time.tm_hour;
  if (twelve_hour) {
    hour %= 12;
    if (hour == 0) hour = 12;
  }
  std::string out;
  bool after_hour = false;  // the last field written was an hour
  size_t i = 0;
  while (i < pattern.size()) {
    const char raw = pattern[i];
    const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(raw)));
    if (raw == '"') {
      const size_t end = pattern.find('"', i + 1);
      const size_t stop = end == std::string_view::npos ? pattern.size() : end;
      out.append(pattern.substr(i + 1, stop - i - 1));
      i = stop + 1;
      continue;
    }
    if (raw == '\\') {
      if (i + 1 < pattern.size()) out += pattern[i + 1];
      i += 2;
      continue;
    }
    if (const auto* m =
            std::find_if(std::begin(kMarkers), std::end(kMarkers),
                         [&](const Marker& mk) { return StartsWith(pattern, i, mk.pattern); });
        m != std::end(kMarkers)) {
      out.append(time.tm_hour < 12 ? m->am : m->pm);
      i += m->pattern.size();
      continue;
    }
    const size_t n = RunLength(pattern, i, c);
    bool field = true;
    switch (c) {
      case 'd':
        if (n >= 4) {
          out += kWeekdays[std::clamp(time.tm_wday, 0, 6)];
        } else if (n == 3) {
          out += std::string(kWeekdays[std::clamp(time.tm_wday, 0, 6)]).substr(0, 3);
        } else {
          out += Number(time.tm_mday, n);
        }
        break;
      case 'm':
        if (after_hour && n <= 2) {
          out += Number(time.tm_min, n);
        } else if (n >= 4) {
          out += kMonths[std::clamp(time.tm_mon, 0, 11)];
        } else if (n == 3) {
          out += std::string(kMonths[std::clamp(time.tm_mon, 0, 11)]).substr(0, 3);
        } else {
          out += Number(time.tm_mon + 1, n);
        }
        break;
      case 'y':
        if (n >= 4) {
          out += Number(time.tm_year + 1900, 4);
        } else if (n >= 2) {
          out += Number((time.tm_year + 1900) % 100, 2);
        } else {
          out += std::to_string(time.tm_yday + 1);
        }
        break;
      case 'h':
        out += Number(hour, std::min<size_t>(n, 2));
        break;
      case 'n':
        out += Number(time.tm_min, std::min<size_t>(n, 2));
        break;
      case 's':
        out += Number(time.tm_sec, std::min<size_t>(n, 2));
        break;
      case 'w':
        out += std::to_string(time.tm_wday + 1);
        break;
      case 'q':
        out += std::to_string(time.tm_mon / 3 + 1);
        break;
      default:
        field = false;
        out += raw;
        break;
    }
    if (field) after_hour = c == 'h';
    i += field ? n : 1;
  }
  return out;
}

}  // namespace kalvo::tray
