#include "infra/registry_value.h"

#include "infra/numbers.h"

namespace kalvo {

int32_t RegistryValue::ToLong() const {
  if (const auto* n = std::get_if<int32_t>(&value_)) return *n;
  if (const auto* s = std::get_if<std::string>(&value_)) {
    // Blanks around the number are tolerated, as a numeric conversion of a text does.
    const auto v = WholeNumberText(*s);
    if (!v || *v < INT32_MIN || *v > INT32_MAX) return 0;
    return static_cast<int32_t>(*v);
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
