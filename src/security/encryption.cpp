#include "security/encryption.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <random>
#include <utility>

#include "infra/strings.h"
#include "infra/version.h"
#include "security/cfb8.h"
#include "security/des.h"

namespace kalvo {
namespace {

// 1-based start positions of the three overlapping 8-character subkeys in the key text.
constexpr size_t kSubkeyPositions[3] = {5, 9, 15};
constexpr size_t kSubkeyLength = 8;
constexpr size_t kSaltLength = 8;
constexpr size_t kCheckLength = 4;

// The older format's subkeys are cut from this phrase at run time, at these positions, and
// its passes are undone in this order.
constexpr std::string_view kLegacyPhrase = "Lesegeraet fuer Muster 7.3";
constexpr size_t kLegacyPositions[3] = {18, 9, 3};

// Up to `length` characters from 1-based position `start`; "" past the end.
std::string_view Mid(std::string_view text, size_t start, size_t length) {
  if (start == 0 || start > text.size()) return {};
  return text.substr(start - 1, length);
}

std::string RemoveNuls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c != '\0') out.push_back(c);
  }
  return out;
}

// `value` as upper-case hexadecimal, padded on the left with "0" to `digits`.
std::string HexDigits(uint32_t value, size_t digits) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  do {
    out.insert(out.begin(), kDigits[value & 0xF]);
    value >>= 4;
  } while (value != 0);
  if (out.size() < digits) out.insert(0, digits - out.size(), '0');
  return out;
}

std::string MakeSalt(uint32_t tick_count) {
  std::string salt = HexDigits(tick_count, kSaltLength);
  std::swap(salt[1], salt[7]);
  std::swap(salt[0], salt[6]);
  return salt;
}

}  // namespace

std::string VersionInfoKeyText() { return GetVersionText("LegalCopyright"); }

CipherNoise DrawCipherNoise() {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
  std::random_device device;
  std::uniform_int_distribution<int> padding(1, 10);
  return CipherNoise{static_cast<uint32_t>(ms.count()), padding(device)};
}

std::string EncryptText(std::string_view plain, std::string_view key, Log* log) {
  try {
    return EncryptText(plain, key, DrawCipherNoise(), log);
  } catch (...) {
    return "";  // no random source: nothing sensible can be written
  }
}

std::string EncryptText(std::string_view plain, std::string_view key, const CipherNoise& noise,
                        Log* log) {
  try {
    std::string message = MakeSalt(noise.tick_count);
    message.append(plain);
    message.append(1 + std::clamp(noise.padding, 1, 10), '\0');

    clsDES des;
    for (const size_t position : kSubkeyPositions) {
      message = DESEncrypt(message, Mid(key, position, kSubkeyLength), des, log);
    }
    std::string cipher = "L" + HexEncodeText(message);
    cipher += HexDigits(Crc16Text(cipher), kCheckLength);
    return cipher;
  } catch (...) {
    return "";
  }
}

std::string DecryptText(std::string_view cipher, std::string_view key, Log* log) {
  try {
    std::string text = RemoveNuls(cipher);
    if (text.size() < kCheckLength) return text;

    std::string_view body(text.data(), text.size() - kCheckLength);
    const std::string_view check(text.data() + body.size(), kCheckLength);
    if (check != HexDigits(Crc16Text(body), kCheckLength)) return DecryptLegacyText(text, log);

    CfbFeedback feedback = CfbFeedback::kPlain;
    if (!body.empty() && body.front() == 'L') {
      body.remove_prefix(1);
      feedback = CfbFeedback::kCipher;
    }
    std::string message = HexDecodeText(body);
    clsDES des;
    for (auto it = std::rbegin(kSubkeyPositions); it != std::rend(kSubkeyPositions); ++it) {
      message = DESDecrypt(message, Mid(key, *it, kSubkeyLength), des, log, feedback);
    }
    if (message.size() <= kSaltLength) return "";
    return RemoveNuls(std::string_view(message).substr(kSaltLength));
  } catch (...) {
    return "";
  }
}

std::string EncryptCredentialText(std::string_view plain) {
  return EncryptText(plain, VersionInfoKeyText());
}

std::string DecryptCredentialText(std::string_view cipher) {
  return DecryptText(cipher, VersionInfoKeyText());
}

bool IsCipherText(std::string_view cipher) {
  const std::string text = RemoveNuls(cipher);
  auto hex_pairs = [](std::string_view t) {
    return !t.empty() && t.size() % 2 == 0 &&
           t.find_first_not_of("0123456789ABCDEFabcdef") == std::string_view::npos;
  };
  if (text.size() > kCheckLength) {
    std::string_view body(text.data(), text.size() - kCheckLength);
    const std::string_view check(text.data() + body.size(), kCheckLength);
    if (check == HexDigits(Crc16Text(body), kCheckLength)) {
      if (body.front() == 'L') body.remove_prefix(1);
      return hex_pairs(body);
    }
  }
  return hex_pairs(text);
}

std::string DecryptLegacyText(std::string_view cipher, Log* log) {
  try {
    std::string message = HexDecodeText(cipher);
    clsDES des;
    for (const size_t position : kLegacyPositions) {
      message = DESDecrypt(message, Mid(kLegacyPhrase, position, kSubkeyLength), des, log);
    }
    message = RemoveNuls(message);
    constexpr size_t kCrcDigits = 8;
    if (message.size() >= kCrcDigits) {
      const std::string_view text(message.data(), message.size() - kCrcDigits);
      if (message.compare(text.size(), kCrcDigits, HexDigits(Crc32Text(text), kCrcDigits)) == 0) {
        return std::string(text);
      }
    }
    return message;
  } catch (...) {
    return "";
  }
}

uint32_t Crc16Text(std::string_view text) {
  // CRC-16/ARC four bits at a time: entry i is the CRC of the nibble i under 0xA001.
  static constexpr std::array<uint16_t, 16> kTable = [] {
    std::array<uint16_t, 16> table{};
    for (uint16_t i = 0; i < 16; ++i) {
      uint16_t crc = i;
      for (int bit = 0; bit < 4; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
      table[i] = crc;
    }
    return table;
  }();
  uint32_t crc = 0;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    crc = (crc >> 4) ^ kTable[(crc ^ byte) & 0xF];         // low nibble first
    crc = (crc >> 4) ^ kTable[(crc ^ (byte >> 4)) & 0xF];  // then the high one
  }
  return crc;
}

uint32_t Crc32Text(std::string_view text) {
  uint32_t crc = 0xFFFFFFFF;
  for (const char c : text) {
    crc ^= static_cast<uint8_t>(c);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
  }
  return ~crc;
}

std::string HexEncodeText(std::string_view text) { return TextToHex(text); }

std::string HexDecodeText(std::string_view text) {
  if (!std::all_of(text.begin(), text.end(), [](char c) { return HexDigitValue(c) >= 0; }))
    return "";
  std::string out;
  out.reserve(text.size() / 2 + 1);
  for (size_t i = 0; i < text.size(); i += 2) {
    int value = HexDigitValue(text[i]);
    if (i + 1 < text.size()) value = value * 16 + HexDigitValue(text[i + 1]);
    out.push_back(static_cast<char>(value));
  }
  return out;
}

}  // namespace kalvo
