#include "net/address_filter.h"

#include <arpa/inet.h>

#include <optional>

#include "infra/arrays.h"
#include "infra/numbers.h"

namespace kalvo {
namespace {

std::optional<uint32_t> ParseIpv4(const std::string& text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace

AddressFilter AddressFilter::Parse(std::string_view list, std::vector<std::string>* problems) {
  AddressFilter filter;
  if (TrimBlanks(list).empty()) return filter;
  filter.everyone_ = false;
  for (const std::string& raw : Split(list, ",")) {
    const std::string entry(TrimBlanks(raw));
    const size_t slash = entry.find('/');
    const std::optional<uint32_t> address = ParseIpv4(entry.substr(0, slash));
    std::optional<long long> bits = 32;
    if (slash != std::string::npos) {
      const std::string length = entry.substr(slash + 1);
      // Digits only: WholeNumberText would also take a sign or blanks.
      bits = !length.empty() && length.find_first_not_of("0123456789") == std::string::npos
                 ? WholeNumberText(length)
                 : std::nullopt;
    }
    if (!address || !bits || *bits > 32) {
      if (problems != nullptr) {
        problems->push_back("AdminAllowedAddresses: \"" + entry +
                            "\" is neither an IPv4 address nor a CIDR range (like 10.0.0.0/8); "
                            "it is ignored");
      }
      continue;
    }
    const uint32_t mask = *bits == 0 ? 0 : ~uint32_t{0} << (32 - *bits);
    filter.ranges_.push_back({*address & mask, mask});
  }
  return filter;
}

bool AddressFilter::Allows(std::string_view address) const {
  if (everyone_) return true;
  const std::optional<uint32_t> peer = ParseIpv4(std::string(address));
  if (!peer) return false;
  for (const Range& r : ranges_) {
    if ((*peer & r.mask) == r.network) return true;
  }
  return false;
}

}  // namespace kalvo
