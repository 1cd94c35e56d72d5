// The small variant that registry reads and writes carry.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kalvo {

// A table of texts as listing a key gives it: names[i] and data[i] belong to the value at
// enumeration index i (a two-row table of texts, row 1 the names and row 2 the data, column
// i + 1 counted from 1). Both vectors always have the same length.
struct RegistryTable {
  std::vector<std::string> names;
  std::vector<std::string> data;
  bool operator==(const RegistryTable&) const = default;
};

// One of: empty; a 32-bit signed integer; a text (Windows-1252); a table of texts.
class RegistryValue {
 public:
  RegistryValue() = default;
  RegistryValue(int32_t number) : value_(number) {}                 // NOLINT: implicit
  RegistryValue(std::string text) : value_(std::move(text)) {}      // NOLINT: implicit
  RegistryValue(const char* text) : value_(std::string(text)) {}    // NOLINT: implicit
  RegistryValue(RegistryTable table) : value_(std::move(table)) {}  // NOLINT: implicit

  bool IsEmpty() const { return std::holds_alternative<std::monostate>(value_); }
  bool IsNumber() const { return std::holds_alternative<int32_t>(value_); }
  bool IsText() const { return std::holds_alternative<std::string>(value_); }
  bool IsTable() const { return std::holds_alternative<RegistryTable>(value_); }

  // The number, or the text converted as a number is (rounded half to even: "1.5" gives 2);
  // 0 where that fails.
  int32_t ToLong() const;
  // The text, or the number as decimal text; "" for empty and tables.
  std::string ToText() const;
  // The table; an empty table for other kinds.
  const RegistryTable& Table() const;

  bool operator==(const RegistryValue&) const = default;

 private:
  std::variant<std::monostate, int32_t, std::string, RegistryTable> value_;
};

}  // namespace kalvo
