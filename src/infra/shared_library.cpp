#include "infra/shared_library.h"

#include <dlfcn.h>

namespace kalvo {

SharedLibrary SharedLibrary::Open(const std::string& path, std::string& error) {
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* text = ::dlerror();
    error = text != nullptr ? text : "unknown error";
  }
  return SharedLibrary(handle);
}

void* SharedLibrary::Symbol(const std::string& name, std::string& error) const {
  // A null result is not an error by itself, so the pending error is cleared first and
  // asked for afterwards.
  ::dlerror();
  void* address = ::dlsym(handle_, name.c_str());
  if (address == nullptr) {
    const char* text = ::dlerror();
    error = name + ": " + (text != nullptr ? text : "the symbol has a null address");
  }
  return address;
}

void SharedLibrary::Close() noexcept {
  if (handle_ == nullptr) return;
  ::dlclose(std::exchange(handle_, nullptr));
}

}  // namespace kalvo
