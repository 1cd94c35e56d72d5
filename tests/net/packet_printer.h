// Readable gtest output for packets, and packets built for tests.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "net/packet.h"

namespace kalvo {

inline void PrintTo(const SocketDataStruct& r, std::ostream* os) {
  *os << "{" << r.PackageSize << "|" << r.PackageID << "|" << r.Reserved << "|" << r.Misc1 << "|"
      << r.Misc2 << "|" << r.Misc3 << "|" << r.DataSize << "|" << r.Data << "}";
}

// A packet with the given fields; sizes and Reserved 0, as a test writes one down.
inline SocketDataStruct Packet(int32_t id, std::string data = "", std::string misc1 = "",
                               std::string misc2 = "", std::string misc3 = "") {
  SocketDataStruct p;
  p.PackageID = id;
  p.Data = std::move(data);
  p.Misc1 = std::move(misc1);
  p.Misc2 = std::move(misc2);
  p.Misc3 = std::move(misc3);
  return p;
}

}  // namespace kalvo
