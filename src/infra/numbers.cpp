#include "infra/numbers.h"

#include <cmath>

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

}  // namespace kalvo
