#include "infra/registry_store.h"

namespace kalvo {

RegistryStore::RegistryStore(std::string path) : path_(std::move(path)) {}
RegistryStore::~RegistryStore() = default;

}  // namespace kalvo
