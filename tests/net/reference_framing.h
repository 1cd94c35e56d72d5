// The framing rules written the plain way, for comparison with ReceiveBuffers: the size is
// read afresh from the whole front of the buffer before every packet, whatever that costs.
// Used on small inputs by the framing test and the framing fuzz target.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "net/packet.h"

namespace kalvo::testing {

class ReferenceFraming {
 public:
  explicit ReferenceFraming(int32_t max_package_size) : max_(max_package_size) {}

  // One arrival: the chunk is appended, then packets are cut off until none is complete.
  // Gives the packets in order.
  std::vector<SocketDataStruct> Arrive(Log& log, std::string_view chunk) {
    std::vector<SocketDataStruct> out;
    if (chunk.empty()) return out;
    text_ += chunk;
    if (text_.size() > static_cast<size_t>(max_)) {
      const int32_t front = Front();
      if (front < 1 || front > max_) text_.clear();
    }
    while (!text_.empty()) {
      const int32_t size = Front();
      if (size < 1) {
        // Digits that may still become a size field wait; anything else is garbage.
        if (!SizeFieldSoFar()) text_.clear();
        break;
      }
      if (size > max_) {
        text_.clear();
        break;
      }
      if (static_cast<size_t>(size) > text_.size()) break;
      out.push_back(SocketStringToStruct(log, std::string_view(text_).substr(0, size)));
      text_.erase(0, static_cast<size_t>(size));
    }
    return out;
  }

  size_t pending() const { return text_.size(); }

 private:
  int32_t Front() const {
    const int32_t size = SocketReadPackageSize(text_);
    return size < 0 ? 0 : size;
  }
  // At most 12 characters: blanks, then digits only.
  bool SizeFieldSoFar() const {
    if (text_.size() > 12) return false;
    const size_t digits = text_.find_first_not_of(' ');
    return digits != std::string::npos &&
           text_.find_first_not_of("0123456789", digits) == std::string::npos;
  }

  int32_t max_;
  std::string text_;
};

}  // namespace kalvo::testing
