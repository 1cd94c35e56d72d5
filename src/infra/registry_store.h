// The registry store: a text file in the .reg format that regedit writes and reads.
// (Interface sketch; the implementation fills in the private part.)
#pragma once

#include <functional>
#include <string>

namespace kalvo {

class RegistryStore {
 public:
  // Receives one line of text for each malformed line skipped while loading.
  using WarningSink = std::function<void(const std::string&)>;

  // `path` is the .reg file; it need not exist yet (an empty registry).
  explicit RegistryStore(std::string path);
  ~RegistryStore();

  const std::string& path() const { return path_; }
  void SetWarningSink(WarningSink sink) { warn_ = std::move(sink); }

 private:
  std::string path_;
  WarningSink warn_;
};

}  // namespace kalvo
