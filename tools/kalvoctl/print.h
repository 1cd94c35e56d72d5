// How kalvoctl shows what it receives: a packet as fields one per line for people or as one
// JSON object per line for programs, and lists as aligned tables. Packet texts are
// Windows-1252; the output is UTF-8.
#pragma once

#include <string>
#include <vector>

#include "net/packet.h"

namespace kalvo::ctl {

// "PackageSize: 19\nPackageID: 102\n...Data: PC042\n", fields in wire order. Control
// characters in texts are shown escaped (\r, \n, \t, \0, \xNN) and a backslash as \\, so each
// field stays on its line and the output can be read back unambiguously.
std::string FormatPacketText(const SocketDataStruct& packet);

// {"PackageSize":19,"PackageID":102,...,"Data":"PC042"} without a line end; texts as JSON
// strings (UTF-8, control characters as \uXXXX escapes).
std::string FormatPacketJson(const SocketDataStruct& packet);

// A table for people: `header` above `rows`, every column as wide as its widest cell, columns
// two blanks apart, no blanks at line ends, each line ending in "\n". Cells are Windows-1252
// texts, escaped as in FormatPacketText so that a cell stays on its line; widths count
// characters, so "M\xFCller" takes six. A row with fewer cells than `header` is filled with
// empty ones; cells beyond the header's are not shown.
std::string FormatTable(const std::vector<std::string>& header,
                        const std::vector<std::vector<std::string>>& rows);

}  // namespace kalvo::ctl
