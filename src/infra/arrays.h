// Bounds queries that never fail, and the text splitting whose results they are used on.
//
// Arrays start at index 0. A one-dimensional array is a std::vector; a two-dimensional table
// is a std::vector of rows (indexed row, column; dimension 1 counts the rows, dimension 2
// the columns of the first row); an array that may be absent is a std::optional of either.
// Dimensions are counted from 1. An empty or absent array, or a dimension the array does not
// have, is a failure and every query then gives 0.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo {

// Splits `text` at every occurrence of `separator`. An empty text gives an empty array
// (ArrayCount 0); an empty separator gives the whole text as the only element. Empty parts
// are kept: "a||b" at "|" gives "a", "", "b"; "a|" gives "a", "".
std::vector<std::string> Split(std::string_view text, std::string_view separator);

// Element `index` of a split; a missing one is the run-time error "Subscript out of range"
// (RuntimeError 9), as indexing past the end of an array is.
const std::string& ElementAt(const std::vector<std::string>& parts, size_t index);

// The parts joined by `separator` (the inverse of Split for a non-empty result).
std::string Join(const std::vector<std::string>& parts, std::string_view separator);

// Number of elements of dimension `dimension` (upper bound plus 1); 0 on failure.
template <typename T>
int ArrayCount(const std::vector<T>& array, int dimension = 1) {
  if (dimension != 1) return 0;
  return static_cast<int>(array.size());
}

template <typename T>
int ArrayCount(const std::vector<std::vector<T>>& table, int dimension = 1) {
  if (table.empty()) return 0;
  if (dimension == 1) return static_cast<int>(table.size());
  if (dimension == 2) return static_cast<int>(table.front().size());
  return 0;
}

template <typename A>
int ArrayCount(const std::optional<A>& array, int dimension = 1) {
  return array ? ArrayCount(*array, dimension) : 0;
}

// Upper bound of dimension `dimension` (count minus 1); 0 on failure, also for an array
// without elements.
template <typename A>
int ArrayUpper(const A& array, int dimension = 1) {
  const int count = ArrayCount(array, dimension);
  return count > 0 ? count - 1 : 0;
}

// Lower bound of dimension `dimension`: always 0 here, since every array starts at 0, and
// 0 on failure as well. Kept so that loops over both bounds read naturally.
template <typename A>
int ArrayLower(const A& /*array*/, int /*dimension*/ = 1) {
  return 0;
}

}  // namespace kalvo
