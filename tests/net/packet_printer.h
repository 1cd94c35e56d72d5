// Readable gtest output for packets.
#pragma once

#include <ostream>

#include "net/packet.h"

namespace kalvo {

inline void PrintTo(const SocketDataStruct& r, std::ostream* os) {
  *os << "{" << r.PackageSize << "|" << r.PackageID << "|" << r.Reserved << "|" << r.Misc1 << "|"
      << r.Misc2 << "|" << r.Misc3 << "|" << r.DataSize << "|" << r.Data << "}";
}

}  // namespace kalvo
