// The credential cipher: turns a short text (a database login name or password) into a
// printable, salted, check-summed cipher text and back.
//
// Cipher text: "L", the cipher bytes as two upper-case hexadecimal digits each, then four
// upper-case hexadecimal digits of Crc16Text over everything before them. Inside the cipher:
// an 8-character salt, the plain text, then 2 to 11 NUL bytes; the message is run through
// three CFB-8 passes (security/cfb8.h) whose DES keys are the 8 characters at 1-based
// positions 5, 9 and 15 of the key text. Texts are Windows-1252 byte strings.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kalvo {

class Log;

// The key text every caller of this system passes: the compiled-in "LegalCopyright" version
// text. Server and administration consoles must agree on it.
std::string VersionInfoKeyText();

// The credential texts of the settings and of the consoles' configuration requests:
// EncryptText and DecryptText under VersionInfoKeyText().
std::string EncryptCredentialText(std::string_view plain);
std::string DecryptCredentialText(std::string_view cipher);

// The varying inputs of one encryption.
struct CipherNoise {
  uint32_t tick_count = 0;  // milliseconds of a steady clock; the salt is built from it
  int padding = 1;          // NUL bytes added after the terminating NUL, 1 to 10
};

// A fresh CipherNoise: the steady clock in milliseconds (wrapping at 32 bits) and a random
// padding count in 1..10.
CipherNoise DrawCipherNoise();

// Encrypts `plain` under `key` (normally VersionInfoKeyText()) with fresh noise, so two
// encryptions of one text differ. Never throws; on an internal failure (only running out of
// memory) the failing pass logs "Error in DESEncrypt (...)" to `log` if given, and the
// result is garbled. `log` need only live for the call.
std::string EncryptText(std::string_view plain, std::string_view key, Log* log = nullptr);

// The same with the given noise (a padding outside 1..10 is clamped); deterministic.
std::string EncryptText(std::string_view plain, std::string_view key, const CipherNoise& noise,
                        Log* log = nullptr);

// Decrypts a cipher text made by EncryptText under the same key. NUL bytes in `cipher` are
// ignored. A text of fewer than 4 characters is returned as it is (without its NULs). A text
// whose last four characters are not the check value of the rest is handed to
// DecryptLegacyText. A text without the leading "L" is read in the older byte mode. NUL bytes
// of the plain text are lost. Never throws: malformed input gives a garbled or empty text.
std::string DecryptText(std::string_view cipher, std::string_view key, Log* log = nullptr);

// True when `cipher` can be a value made by EncryptText (its check digits match and the rest
// is "L" and pairs of hexadecimal digits, or only such pairs in the older byte mode) or a
// value of the older format (pairs of hexadecimal digits only). A plain text typed into the
// registry instead of its cipher text fails this. NUL bytes are ignored.
bool IsCipherText(std::string_view cipher);

// Decrypts a value of the older format: hexadecimal cipher bytes of three CFB-8 passes under
// subkeys cut from a fixed pass phrase, over the plain text followed by the eight upper-case
// hexadecimal digits of its Crc32Text and NUL padding. NULs are removed from the result; when
// the CRC-32 digits match they are removed too, otherwise the decrypted text is returned as
// it is. A text that is not all hexadecimal digits gives "". Never throws.
std::string DecryptLegacyText(std::string_view cipher, Log* log = nullptr);

// CRC-16/ARC (reflected polynomial 0xA001, initial value 0, no final XOR) over the bytes of
// `text`; "123456789" gives 0xBB3D.
uint32_t Crc16Text(std::string_view text);

// CRC-32 (the common reflected polynomial 0xEDB88320, initial value and final XOR
// 0xFFFFFFFF) over the bytes of `text`; "123456789" gives 0xCBF43926.
uint32_t Crc32Text(std::string_view text);

// Each byte as two upper-case hexadecimal digits (the same as TextToHex of infra/strings.h).
std::string HexEncodeText(std::string_view text);

// A text made only of hexadecimal digits (either case) is read in pairs, each pair giving
// one byte; a lone last digit gives a byte of its own value. Any other text gives "".
std::string HexDecodeText(std::string_view text);

}  // namespace kalvo
