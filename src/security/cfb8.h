// The CFB-8 passes that the credential cipher runs over its texts: a stream of single bytes,
// each XORed with the last byte of the DES encryption of an 8-byte shift register.
#pragma once

#include <string>
#include <string_view>

#include "security/des.h"

namespace kalvo {

class Log;

// What enters the shift register after each byte.
enum class CfbFeedback {
  kCipher,  // the cipher byte (current values, marked with a leading "L")
  kPlain,   // the plain byte: the older byte mode of values written without the "L"
};

// Encrypts `input` byte by byte with `subkey` (its first 8 characters are the DES key; see
// clsDES::Key): the register starts as eight NUL bytes; each output byte is the input byte
// XOR the last byte of the register's encryption; then the register drops its first byte and
// takes the feedback byte. The result has the length of `input`. `des` only provides the
// block function (its key is changed). On any error a line "Error in DESEncrypt (<number> -
// <description>)" goes to `log` (if not null) and "" is returned; nothing is thrown.
std::string DESEncrypt(std::string_view input, std::string_view subkey, clsDES& des,
                       Log* log = nullptr, CfbFeedback feedback = CfbFeedback::kCipher);

// Inverse of DESEncrypt with the same subkey and feedback; also uses the block encryption.
// Errors are logged as "Error in DESDecrypt (...)" and give "".
std::string DESDecrypt(std::string_view input, std::string_view subkey, clsDES& des,
                       Log* log = nullptr, CfbFeedback feedback = CfbFeedback::kCipher);

}  // namespace kalvo
