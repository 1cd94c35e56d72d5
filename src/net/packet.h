// The packet: its record, its wire text and the size field that makes the text
// self-delimiting. Pure functions over text; no sockets here.
//
// Wire text: PackageSize|PackageID|Reserved|Misc1|Misc2|Misc3|DataSize|Data, where
// PackageSize counts the whole text including its own digits and Data is cut by length, so it
// may hold any byte, "|" included. A text of "x" characters only is a keep-alive.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kalvo {

class Log;

// One decoded packet. Fields keep the record order (DataSize before the Misc fields), which
// differs from the wire order. Texts are Windows-1252 bytes.
struct SocketDataStruct {
  int32_t PackageSize = 0;  // length of the whole wire text, its own digits included
  int32_t PackageID = 0;    // request or reply code
  int32_t Reserved = 0;     // sent as 0 (1 in one reply); never read
  int32_t DataSize = 0;     // length of Data; the sender sets it before computing the size
  std::string Data;         // payload, any bytes
  std::string Misc1;        // parameters; may not hold "|" (nothing escapes them)
  std::string Misc2;
  std::string Misc3;

  bool operator==(const SocketDataStruct&) const = default;
};

// The PackageID a console sends when it announces itself; CheckAdminLoginPackage looks for it.
inline constexpr int32_t kAdminLoginPackageId = 501;

// The value for PackageSize given the record's other fields (PackageID, Reserved, the three
// Misc texts and DataSize; Data itself does not count, only DataSize): with S the length of
// the text without the size field, T = S + len(S) and the result is S + len(T), so a size
// whose own digits carry it into one more digit is still right (S = 98 gives 101). Numbers
// count with their sign, as they are written. A sum that leaves the 32-bit range is an
// overflow error: logged as "SocketGetPackageSize", and the result is 0.
int32_t SocketGetPackageSize(Log& log, const SocketDataStruct& record);

// The wire text of the record, fields as they stand (PackageSize is not recomputed; Data is
// written whole whatever DataSize says). Never throws; on failure (out of memory) logs as
// "SocketStructToString" and gives "".
std::string SocketStructToString(Log& log, const SocketDataStruct& record);

// Decodes one packet text. Leading "x" characters are dropped; when nothing else is left the
// text was a keep-alive: logs "KeepAlive received" and gives an empty record. Otherwise the
// first seven "|"-separated fields fill PackageSize, PackageID, Reserved, Misc1..3 and
// DataSize (missing fields stay 0 or empty) and, when there is a seventh "|", Data is the
// last DataSize characters of the first PackageSize characters. Numeric fields convert as
// ConvertToInt32 does; any failure there (a blank or non-numeric number field, a value
// outside 32 bits, a negative PackageSize or DataSize when Data is cut) is logged as
// "SocketStringToStruct" and gives an empty record.
SocketDataStruct SocketStringToStruct(Log& log, std::string_view text);

// The number before the first "|" of `text`, blanks around it allowed; 0 when there is no
// "|", the text before it is no 32-bit number, or anything else fails. Never logs.
int32_t SocketReadPackageSize(std::string_view text);

// Resets the record: numbers 0, texts empty (DataSize = length of the empty Data), and gives
// the memory of its texts back.
void SocketClearStruct(SocketDataStruct& record);

// True when `chunk` on its own decodes (as SocketStringToStruct would) to PackageID 501. The
// caller stores the answer in its AdminLoginFlag. A keep-alive chunk logs "KeepAlive
// received"; a chunk that does not decode (typically the middle of a long packet) is simply
// false, without an error line. Cheap: Data is located, never copied, so it costs the header
// plus the leading "x" characters.
bool CheckAdminLoginPackage(Log& log, std::string_view chunk);

// The conversion of a numeric packet field to a 32-bit integer: blanks (space, tab) around the
// number are ignored; an optional sign, decimal digits and an optional "." with a fraction, rounded
// half to even
// (" 12 " gives 12, "2.5" gives 2, "3.5" gives 4). Throws RuntimeError kErrTypeMismatch for
// an empty or non-numeric text and kErrOverflow outside the 32-bit range. Hexadecimal
// ("&H"), exponents and thousands separators are not accepted.
int32_t ConvertToInt32(std::string_view text);

}  // namespace kalvo
