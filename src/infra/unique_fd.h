// An owned POSIX file descriptor and the read/write loops that survive short transfers.
#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace kalvo {

// Closes its descriptor when destroyed. -1 means none.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Close(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  // Closes now and reports whether the close succeeded (it can fail on write-back errors).
  bool Close();

 private:
  int fd_;
};

// Reads until end of file, appending to `out`. False on a read error.
bool ReadAll(int fd, std::string& out);
// Writes every byte, retrying short writes and interruptions. False on a write error.
bool WriteAll(int fd, std::string_view bytes);

}  // namespace kalvo
