#include "infra/registry.h"

// Placeholder until the .reg store lands: every read gives its default.
namespace kalvo {

RegistryValue RegistryRead(RegistryStore&, std::string_view, std::string_view, std::string_view,
                           std::string_view, const RegistryValue& def) {
  return def;
}

}  // namespace kalvo
