// Text helpers shared by the registry, the cipher and the protocol code. Every text is
// Windows-1252, one byte per character.
#pragma once

#include <string>
#include <string_view>

namespace kalvo {

// Clean-up of a text read from the registry: when its last two characters are both NUL,
// every pair of NULs is removed; otherwise, when its last character is NUL, every NUL is
// removed; then trailing blanks are removed.
std::string TrimNulls(std::string text);

// Appends `fill`, whole, to `text` until `text` is at least `length` characters long, so the
// result may end longer than `length` ("abc", "xy", 4 gives "abcxy"). An empty `fill` leaves
// the text unchanged. Changes `text` in place and gives back a reference to it.
std::string& PadWith(std::string& text, std::string_view fill, size_t length);

// Removes every leading repetition of `character` from `text`. When `character` is empty,
// the text's own first character is used (so "aaab" loses its "aaa"). A `character` of
// several characters is removed as a unit. Changes `text` in place and gives it back.
std::string& TrimLeading(std::string& text, std::string_view character);

// Every byte of `text` as two upper-case hexadecimal digits ("AB" gives "4142", a line feed
// gives "0A"). An empty text gives "".
std::string TextToHex(std::string_view text);

// The reverse of TextToHex: each pair of hexadecimal digits (either case) becomes the byte
// of that code. Gives "" unless IsHexText(hex) holds.
std::string HexToText(std::string_view hex);

// The value of one hexadecimal digit (0-9, A-F, a-f), or -1 for any other character.
int HexDigitValue(char c);

// True when `a` and `b` are equal but for the case of ASCII letters.
bool EqualsNoCase(std::string_view a, std::string_view b);

// True when `text` is not empty, has an even length and holds only 0-9, A-F and a-f.
bool IsHexText(std::string_view text);

}  // namespace kalvo
