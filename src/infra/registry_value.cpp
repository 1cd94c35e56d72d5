#include "infra/registry_value.h"

#include "infra/numbers.h"
#include "infra/runtime_error.h"

namespace kalvo {

int32_t RegistryValue::ToLong() const {
  if (const auto* n = std::get_if<int32_t>(&value_)) return *n;
  if (const auto* s = std::get_if<std::string>(&value_)) {
    // The numeric conversion every setting goes through ("1.5" gives 2); 0 when it fails.
    try {
      return NumericTextToInt32(*s);
    } catch (const RuntimeError&) {
      return 0;
    }
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
