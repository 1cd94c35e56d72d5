#include "security/encryption.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>
#include <string>

#include "security/cfb8.h"
#include "security/des.h"

namespace kalvo {
namespace {

std::string Check(std::string_view text) {
  char digits[5];
  std::snprintf(digits, sizeof digits, "%04X", Crc16Text(text));
  return digits;
}

// Appends the check value, so a test reaches the decryption behind the check.
std::string WithCheck(std::string body) { return body + Check(body); }

TEST(Crc, KnownCheckValues) {
  EXPECT_EQ(Crc16Text("123456789"), 0xBB3Du);
  EXPECT_EQ(Crc16Text(""), 0u);
  EXPECT_EQ(Crc16Text("A"), 0x30C0u);
  EXPECT_EQ(Crc16Text("\xE4\xFF"), 0x400Bu);  // high bytes are unsigned
  EXPECT_EQ(Crc32Text("123456789"), 0xCBF43926u);
}

TEST(Hex, EncodeIsTwoUpperCaseDigitsPerByte) {
  EXPECT_EQ(HexEncodeText(""), "");
  EXPECT_EQ(HexEncodeText(std::string("\n\0\xE4\xFF", 4)), "0A00E4FF");
}

TEST(Hex, DecodeReadsOnlyPureHexText) {
  struct Case {
    const char* hex;
    std::string text;
    const char* reason;
  };
  const Case kCases[] = {
      {"0a41", "\nA", "lower case digits"},
      {"E4ff", "\xE4\xFF", "mixed case, high bytes"},
      {"", "", "empty"},
      {"414", "A\x04", "a lone last digit is a byte of its own"},
      {"4G", "", "not a hex digit"},
      {"41 42", "", "blank inside"},
      {"0x41", "", "prefix"},
      {"-1", "", "sign"},
  };
  for (const auto& c : kCases) EXPECT_EQ(HexDecodeText(c.hex), c.text) << c.reason;
}

class EncryptionTest : public ::testing::Test {
 protected:
  const std::string key_ = VersionInfoKeyText();
};

TEST_F(EncryptionTest, RoundTripsTextsOfEveryKind) {
  std::string all_bytes;
  for (int c = 1; c < 256; ++c) all_bytes.push_back(static_cast<char>(c));
  const std::string kTexts[] = {
      "",
      "a",
      "sa",
      "Passw\xF6rt\xE4\xFC\xDF\x80",  // umlauts, sharp s and the euro sign
      std::string(300, 'x'),
      all_bytes,
  };
  for (const auto& text : kTexts) {
    const std::string cipher = EncryptText(text, key_);
    EXPECT_EQ(DecryptText(cipher, key_), text) << text.size();
  }
}

TEST_F(EncryptionTest, CipherTextIsPrintableWithSaltTerminatorAndPaddingInside) {
  for (int padding = 1; padding <= 10; ++padding) {
    const std::string cipher = EncryptText("geheim", key_, CipherNoise{123456, padding});
    // "L" + hex of (8 salt + 6 text + 1 NUL + padding) + 4 check digits.
    ASSERT_EQ(cipher.size(), 1 + 2 * (8 + 6 + 1 + padding) + 4u);
    EXPECT_EQ(cipher[0], 'L');
    EXPECT_EQ(cipher.find_first_not_of("0123456789ABCDEF", 1), std::string::npos);
    EXPECT_EQ(cipher.substr(cipher.size() - 4), Check(cipher.substr(0, cipher.size() - 4)));
  }
}

TEST_F(EncryptionTest, TwoEncryptionsOfOneTextDiffer) {
  EXPECT_NE(EncryptText("pw", key_, CipherNoise{1000, 3}), EncryptText("pw", key_, {1001, 3}));
  EXPECT_NE(EncryptText("pw", key_, CipherNoise{1000, 3}), EncryptText("pw", key_, {1000, 4}));
  std::set<std::string> ciphers;
  for (int i = 0; i < 20; ++i) ciphers.insert(EncryptText("pw", key_));
  EXPECT_GT(ciphers.size(), 1u);
  for (const auto& c : ciphers) EXPECT_EQ(DecryptText(c, key_), "pw");
}

TEST_F(EncryptionTest, NulsInPlainTextAreLostAndNulsInCipherTextIgnored) {
  EXPECT_EQ(DecryptText(EncryptText(std::string("a\0b", 3), key_), key_), "ab");
  std::string cipher = EncryptText("user", key_);
  cipher.insert(5, 1, '\0');
  cipher.push_back('\0');
  EXPECT_EQ(DecryptText(cipher, key_), "user");
}

TEST_F(EncryptionTest, ShortKeyTextsStillRoundTrip) {
  for (const std::string key : {"", "abc", "0123456789"}) {
    EXPECT_EQ(DecryptText(EncryptText("pw", key), key), "pw") << key;
  }
}

TEST_F(EncryptionTest, WrongKeyGivesSomethingElse) {
  EXPECT_NE(DecryptText(EncryptText("secret", key_), "Copyright (C) someone else"), "secret");
}

TEST_F(EncryptionTest, TextsShorterThanFourCharactersComeBackUnchanged) {
  EXPECT_EQ(DecryptText("", key_), "");
  EXPECT_EQ(DecryptText("L", key_), "L");
  EXPECT_EQ(DecryptText("abc", key_), "abc");
  EXPECT_EQ(DecryptText(std::string("a\0b\0c", 5), key_), "abc");
}

TEST_F(EncryptionTest, WrongCheckValueGoesTheLegacyWay) {
  const std::string cipher = EncryptText("pw", key_, CipherNoise{42, 2});
  std::string tampered = cipher;
  tampered.back() = tampered.back() == '0' ? '1' : '0';
  EXPECT_EQ(DecryptText(tampered, key_), DecryptLegacyText(tampered));
  EXPECT_EQ(DecryptText(tampered, key_), "");  // "L..." is no legacy hex text

  std::string lower = cipher;
  for (size_t i = lower.size() - 4; i < lower.size(); ++i) lower[i] = std::tolower(lower[i]);
  if (lower != cipher) {
    EXPECT_EQ(DecryptText(lower, key_), "") << "check digits are upper case";
  }
}

// An older value: the text, its CRC-32 in hex and NUL padding, encrypted with subkeys cut
// from the fixed pass phrase.
std::string LegacyCipher(std::string_view text) {
  char crc[9];
  std::snprintf(crc, sizeof crc, "%08X", Crc32Text(text));
  std::string message = std::string(text) + crc + std::string(3, '\0');
  clsDES des;
  for (const char* subkey : {"segeraet", "et fuer ", "uster 7."}) {
    message = DESEncrypt(message, subkey, des);
  }
  return HexEncodeText(message);
}

TEST_F(EncryptionTest, LegacyValuesDecrypt) {
  const std::string cipher = LegacyCipher("altes Kennw\xF6rt");
  EXPECT_EQ(DecryptLegacyText(cipher), "altes Kennw\xF6rt");
  ASSERT_NE(cipher.substr(cipher.size() - 4), Check(cipher.substr(0, cipher.size() - 4)));
  EXPECT_EQ(DecryptText(cipher, key_), "altes Kennw\xF6rt");
  EXPECT_EQ(DecryptLegacyText(LegacyCipher("")), "");
}

TEST_F(EncryptionTest, LegacyValueWithWrongCrc32KeepsItsDigits) {
  std::string message = "pw" + std::string("DEADBEEF");
  clsDES des;
  for (const char* subkey : {"segeraet", "et fuer ", "uster 7."}) {
    message = DESEncrypt(message, subkey, des);
  }
  EXPECT_EQ(DecryptLegacyText(HexEncodeText(message)), "pwDEADBEEF");
}

TEST_F(EncryptionTest, ValuesWithoutLeadingLAreReadInTheOlderByteMode) {
  std::string message = std::string("12345678") + "alt" + std::string(4, '\0');
  clsDES des;
  for (const size_t start : {4, 8, 14}) {
    message = DESEncrypt(message, key_.substr(start, 8), des, nullptr, CfbFeedback::kPlain);
  }
  EXPECT_EQ(DecryptText(WithCheck(HexEncodeText(message)), key_), "alt");
}

TEST_F(EncryptionTest, MalformedCipherTextsNeverThrow) {
  const std::string valid = EncryptText("pw", key_, CipherNoise{7, 5});
  const std::string body = valid.substr(0, valid.size() - 4);
  struct Case {
    std::string cipher;
    const char* reason;
  };
  const Case kCases[] = {
      {WithCheck("L"), "nothing but the marker"},
      {WithCheck("L41"), "shorter than the salt"},
      {WithCheck("L414"), "odd number of digits"},
      {WithCheck("LZZZZ"), "not hexadecimal"},
      {WithCheck("L" + std::string(300, '\xFF')), "high bytes"},
      {WithCheck(body.substr(0, 1 + 2 * 9)), "truncated inside the text"},
      {WithCheck(body + "00"), "extended"},
      {WithCheck(""), "check value alone"},
      {WithCheck("00"), "byte mode, shorter than the salt"},
      {valid.substr(0, valid.size() - 1), "check value cut"},
      {"LLLLLLLL", "markers only"},
      {"0123456789ABCDEF012", "odd legacy hex"},
      {std::string(10000, 'A'), "long legacy hex"},
  };
  for (const auto& c : kCases) {
    std::string plain;
    EXPECT_NO_THROW(plain = DecryptText(c.cipher, key_)) << c.reason;
    EXPECT_NE(plain, "pw") << c.reason;
  }
  EXPECT_EQ(DecryptText(WithCheck("LZZZZ"), key_), "");
  EXPECT_EQ(DecryptText(WithCheck("L41"), key_), "");
}

TEST_F(EncryptionTest, RandomAndMutatedInputsNeverThrow) {
  std::mt19937 rng(4711);
  const std::string valid = EncryptText("Benutzer", key_, CipherNoise{99, 7});
  for (int i = 0; i < 500; ++i) {
    std::string junk(rng() % 64, '\0');
    for (char& c : junk) c = static_cast<char>(rng());
    EXPECT_NO_THROW(DecryptText(junk, key_));
    EXPECT_NO_THROW(DecryptLegacyText(junk));

    // A mutated body behind a correct check value reaches the decryption passes.
    std::string body = valid.substr(0, valid.size() - 4);
    body[1 + rng() % (body.size() - 1)] = "0123456789ABCDEFxL"[rng() % 18];
    body.resize(1 + rng() % body.size());
    EXPECT_NO_THROW(DecryptText(WithCheck(body), key_));
  }
}

}  // namespace
}  // namespace kalvo

namespace kalvo {
namespace {

TEST(IsCipherText, TellsCipherTextsFromPlainTexts) {
  const std::string key = VersionInfoKeyText();
  for (const char* plain : {"", "admin", "p\xE4ss w|rd"}) {
    const std::string cipher = EncryptText(plain, key);
    EXPECT_TRUE(IsCipherText(cipher)) << cipher;
    // One changed digit spoils the check value; what is left is no pure hexadecimal text.
    std::string spoiled = cipher;
    spoiled[3] = spoiled[3] == '0' ? '1' : '0';
    EXPECT_FALSE(IsCipherText(spoiled)) << spoiled;
  }
  // The older byte mode (no "L") and the older format (hexadecimal pairs only).
  const std::string body = "0A1B2C3D";
  char check[5];
  std::snprintf(check, sizeof check, "%04X", Crc16Text(body));
  EXPECT_TRUE(IsCipherText(body + check));
  EXPECT_TRUE(IsCipherText("DEADBEEF00"));
  for (const char* plain : {"admin", "secret", "", "L", "LABC", "ABC", "0x41"}) {
    EXPECT_FALSE(IsCipherText(plain)) << plain;
  }
}

}  // namespace
}  // namespace kalvo
