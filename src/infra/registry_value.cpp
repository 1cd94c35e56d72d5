#include "infra/registry_value.h"

#include <charconv>

namespace kalvo {

int32_t RegistryValue::ToLong() const {
  if (const auto* n = std::get_if<int32_t>(&value_)) return *n;
  if (const auto* s = std::get_if<std::string>(&value_)) {
    // Leading and trailing blanks are tolerated, as a numeric conversion of a text does.
    size_t b = s->find_first_not_of(' ');
    size_t e = s->find_last_not_of(' ');
    if (b == std::string::npos) return 0;
    const char* first = s->data() + b;
    const char* last = s->data() + e + 1;
    if (*first == '+') ++first;
    int64_t v = 0;
    auto [p, ec] = std::from_chars(first, last, v);
    if (ec != std::errc() || p != last || v < INT32_MIN || v > INT32_MAX) return 0;
    return static_cast<int32_t>(v);
  }
  return 0;
}

std::string RegistryValue::ToText() const {
  if (const auto* n = std::get_if<int32_t>(&value_)) return std::to_string(*n);
  if (const auto* s = std::get_if<std::string>(&value_)) return *s;
  return "";
}

const RegistryTable& RegistryValue::Table() const {
  static const RegistryTable kEmpty;
  if (const auto* t = std::get_if<RegistryTable>(&value_)) return *t;
  return kEmpty;
}

}  // namespace kalvo
