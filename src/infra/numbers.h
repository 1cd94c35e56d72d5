// Directed rounding of numbers.
#pragma once

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

}  // namespace kalvo
