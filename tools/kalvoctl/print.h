// How kalvoctl shows a packet: fields one per line for people, or one JSON object per line
// for programs. Packet texts are Windows-1252; the output is UTF-8.
#pragma once

#include <string>

#include "net/packet.h"

namespace kalvo::ctl {

// "PackageSize: 19\nPackageID: 102\n...Data: PC042\n", fields in wire order. Control
// characters in texts are shown escaped (\r, \n, \t, \0, \xNN) and a backslash as \\, so each
// field stays on its line and the output can be read back unambiguously.
std::string FormatPacketText(const SocketDataStruct& packet);

// {"PackageSize":19,"PackageID":102,...,"Data":"PC042"} without a line end; texts as JSON
// strings (UTF-8, control characters as \uXXXX escapes).
std::string FormatPacketJson(const SocketDataStruct& packet);

}  // namespace kalvo::ctl
