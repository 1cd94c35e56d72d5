#include "infra/numbers.h"

#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <string>

#include "infra/runtime_error.h"

namespace kalvo {
namespace {

// Nearest whole number, halves to the even neighbour; independent of the FPU rounding mode.
double RoundHalfEven(double x) {
  if (!std::isfinite(x)) return x;
  const double lower = std::floor(x);
  const double diff = x - lower;
  if (diff < 0.5) return lower;
  if (diff > 0.5) return lower + 1;
  return std::fmod(lower, 2.0) == 0 ? lower : lower + 1;
}

}  // namespace

double RoundDirected(double value, int digits, std::string_view direction) {
  if (digits > 0) {
    // Beyond 15 decimals a double has nothing left to round.
    if (digits <= 15) {
      const double scale = std::pow(10.0, digits);
      const double scaled = value * scale;
      if (std::isfinite(scaled)) value = RoundHalfEven(scaled) / scale;
    }
    return RoundHalfEven(value);
  }
  if (digits < 0) return RoundHalfEven(value);

  double result = RoundHalfEven(value);
  if (direction == "UP") {
    if (result < value) result += 1;
  } else if (direction == "DOWN") {
    if (result > value) result -= 1;
  } else {
    return 0;
  }
  return result;
}

bool IsNumericText(std::string_view text) {
  size_t i = 0;
  auto skip_blanks = [&] {
    while (i < text.size() && text[i] == ' ') ++i;
  };
  skip_blanks();
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  size_t digits = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  }
  if (digits == 0) return false;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    size_t exp_digits = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
      ++i, ++exp_digits;
    }
    if (exp_digits == 0) return false;
  }
  skip_blanks();
  return i == text.size();
}

std::optional<long long> WholeNumberText(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  long long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

int32_t CheckedAdd(int64_t a, int64_t b) {
  const int64_t sum = a + b;
  if (sum > INT32_MAX || sum < INT32_MIN) throw RuntimeError(kErrOverflow, "Overflow");
  return static_cast<int32_t>(sum);
}

int32_t NumericTextToInt32(std::string_view text) {
  if (!IsNumericText(text)) throw RuntimeError(kErrTypeMismatch, "Type mismatch");
  const double d = RoundHalfEven(std::strtod(std::string(text).c_str(), nullptr));
  if (!(d >= INT32_MIN && d <= INT32_MAX)) throw RuntimeError(kErrOverflow, "Overflow");
  return static_cast<int32_t>(d);
}

}  // namespace kalvo
