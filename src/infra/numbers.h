// Directed rounding of numbers.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kalvo {

// Rounds `value` to a whole number.
// - digits == 0: rounds half to even, then corrects by `direction`: "UP" raises a result
//   below `value` by 1 and "DOWN" lowers a result above `value` by 1, so the two give the
//   ceiling and the floor (2.5 "UP" gives 3, 2.5 "DOWN" gives 2). Any other direction text
//   (also lower case) gives 0.
// - digits > 0: rounds half to even to that many decimals, then half to even to a whole
//   number; the direction is not looked at.
// - digits < 0: rounds half to even to a whole number; the direction is not looked at.
// Never fails; a value that is not finite is given back unchanged (0 for a bad direction).
double RoundDirected(double value, int digits, std::string_view direction);

// True when `text` is a number as a numeric conversion takes it: optional blanks and sign,
// digits with at most one decimal point, an optional exponent. "" is not numeric.
bool IsNumericText(std::string_view text);

// The whole decimal number `text` holds ("03" is 3, "+7" is 7, "-1" is -1; spaces around it
// allowed), or nothing for "", any other text or a number beyond the 64-bit range.
std::optional<long long> WholeNumberText(std::string_view text);

// 32-bit signed addition: a + b, or RuntimeError 6 (overflow) when the sum leaves the range.
int32_t CheckedAdd(int64_t a, int64_t b);

// `text` converted to a 32-bit integer, rounded half to even. Throws RuntimeError 13 (type
// mismatch) when the text is not numeric and 6 (overflow) when the value does not fit.
int32_t NumericTextToInt32(std::string_view text);

}  // namespace kalvo
