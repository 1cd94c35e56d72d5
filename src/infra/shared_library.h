// An owned handle of a shared object opened with dlopen, and the look-up of its symbols.
#pragma once

#include <string>
#include <utility>

namespace kalvo {

// Closes its shared object (dlclose) when destroyed; never throws. Movable, not copyable.
// Every address looked up through it is valid only while it (or the handle it was moved to)
// stays open. An empty handle (default-constructed, moved from, closed) holds nothing.
class SharedLibrary {
 public:
  SharedLibrary() = default;
  ~SharedLibrary() { Close(); }
  SharedLibrary(SharedLibrary&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  SharedLibrary& operator=(SharedLibrary&& other) noexcept {
    if (this != &other) {
      Close();
      handle_ = std::exchange(other.handle_, nullptr);
    }
    return *this;
  }
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  // Opens `path` with every symbol bound at once and none made global (RTLD_NOW |
  // RTLD_LOCAL). The path goes to dlopen as given: a name without "/" is searched in the
  // system's library directories, and "" would be the program itself, so callers that mean a
  // file pass a path with a "/". On failure gives an empty handle and `error` receives
  // dlerror's text. Opening an object that is already open counts up its references and
  // gives the same object.
  static SharedLibrary Open(const std::string& path, std::string& error);

  // The address of symbol `name`, or nullptr when the object does not define it (or defines
  // it with a null address, which no entry point has); `error` then receives "<name>: " and
  // dlerror's text. Must not be called on an empty handle.
  void* Symbol(const std::string& name, std::string& error) const;

  // Symbol(name) as a pointer to a function of type `F`. The caller vouches for the type.
  template <typename F>
  F* Function(const std::string& name, std::string& error) const {
    return reinterpret_cast<F*>(Symbol(name, error));
  }

  explicit operator bool() const { return handle_ != nullptr; }

  // Closes the object now (nothing when empty). Never throws.
  void Close() noexcept;

 private:
  explicit SharedLibrary(void* handle) : handle_(handle) {}

  void* handle_ = nullptr;
};

}  // namespace kalvo
