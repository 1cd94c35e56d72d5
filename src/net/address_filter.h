// Which peer addresses may use the console requests: IPv4 addresses and CIDR ranges.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo {

class AddressFilter {
 public:
  // A filter that lets every address through.
  AddressFilter() = default;

  // Reads a comma-separated list of dotted IPv4 addresses ("10.0.0.5") and CIDR ranges
  // ("10.0.0.0/8"); blanks around the entries are ignored. An empty list (or one of blanks
  // only) lets every address through. An entry that is neither is left out and named in
  // `problems`; a list whose every entry is bad lets no address through, so a mistyped
  // setting never opens the consoles' requests to everybody.
  static AddressFilter Parse(std::string_view list, std::vector<std::string>* problems);

  // True when `address` (dotted IPv4, as the connection reports it) may pass.
  bool Allows(std::string_view address) const;
  bool AllowsEveryone() const { return everyone_; }

 private:
  struct Range {
    uint32_t network = 0;
    uint32_t mask = 0;
  };
  bool everyone_ = true;
  std::vector<Range> ranges_;
};

}  // namespace kalvo
