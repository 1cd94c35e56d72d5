#include "security/des.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "infra/runtime_error.h"

namespace kalvo {
namespace {

std::string FromHex(std::string_view hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

std::string ToHex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : bytes) {
    out.push_back(kDigits[static_cast<uint8_t>(c) >> 4]);
    out.push_back(kDigits[static_cast<uint8_t>(c) & 0xF]);
  }
  return out;
}

struct KnownAnswer {
  const char* key;
  const char* plain;
  const char* cipher;
  const char* reason;
};

// Published DES test vectors (FIPS 46 worked example and NIST SP 800-17 tables).
constexpr KnownAnswer kKnownAnswers[] = {
    {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405", "classic worked example"},
    {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900", "variable plaintext, bit 1"},
    {"0101010101010101", "4000000000000000", "DD7F121CA5015619", "variable plaintext, bit 2"},
    {"0101010101010101", "0000000000000001", "166B40B44ABA4BD6", "variable plaintext, bit 64"},
    {"8001010101010101", "0000000000000000", "95A8D72813DAA94D", "variable key, bit 1"},
    {"4001010101010101", "0000000000000000", "0EEC1487DD8C26D5", "variable key, bit 2"},
    {"1046913489980131", "0000000000000000", "88D55E54F54C97B4", "permutation operation"},
    {"7CA110454A1A6E57", "01A1D6D039776742", "690F5B0D9A26939B", "substitution table"},
    {"0131D9619DC1376E", "5CD54CA83DEF57DA", "7A389D10354BD271", "substitution table"},
};

TEST(Des, KnownAnswersHoldForEightByteTexts) {
  clsDES des;
  for (const auto& v : kKnownAnswers) {
    SCOPED_TRACE(v.reason);
    const std::string key = FromHex(v.key);
    const std::string cipher = des.EncryptString(FromHex(v.plain), key);
    EXPECT_EQ(ToHex(cipher), v.cipher);
    EXPECT_EQ(ToHex(des.DecryptString(cipher, key)), v.plain);
  }
}

TEST(Des, ShortKeyIsFilledWithZeroBitsAndLongKeyIsCut) {
  clsDES des;
  const std::string plain = "Muster 7";
  EXPECT_EQ(des.EncryptString(plain, "abc"),
            des.EncryptString(plain, std::string("abc\0\0\0\0\0", 8)));
  EXPECT_EQ(des.EncryptString(plain, "abcdefgh"), des.EncryptString(plain, "abcdefghXYZ"));
  EXPECT_EQ(des.EncryptString(plain, ""), des.EncryptString(plain, std::string(8, '\0')));
}

TEST(Des, OddLengthTextsKeepTheirLengthAndRoundTrip) {
  clsDES des;
  for (const std::string text : {"", "a", "1234567", "123456789",
                                 "Gr\xFC\xDF"
                                 "e aus K\xF6ln!"}) {
    const std::string cipher = des.EncryptString(text, "schl\xFCssel");
    EXPECT_EQ(cipher.size(), text.size());
    EXPECT_EQ(des.DecryptString(cipher, "schl\xFCssel"), text);
  }
}

TEST(Des, KeyScheduleIsRebuiltOnlyForAnotherKeyText) {
  clsDES des;
  des.Key("first ke");
  des.Key("first ke");
  des.EncryptString("12345678", "first ke");
  EXPECT_EQ(des.key_schedule_builds(), 1);
  des.Key("other ke");
  EXPECT_EQ(des.key_schedule_builds(), 2);
  des.Key("first ke");
  EXPECT_EQ(des.key_schedule_builds(), 3);
}

TEST(Des, EncryptByteFramesAndDecryptByteRestores) {
  clsDES des;
  // Payload length -> frame length: 12 bytes of header, rounded up to whole blocks.
  const std::pair<size_t, size_t> kSizes[] = {{0, 16},  {4, 16},  {5, 24},
                                              {12, 24}, {13, 32}, {100, 112}};
  for (const auto& [n, frame] : kSizes) {
    std::vector<uint8_t> data(n);
    for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 37 + 1);
    const std::vector<uint8_t> original = data;
    des.EncryptByte(data, "bytekey!");
    EXPECT_EQ(data.size(), frame) << n;
    des.DecryptByte(data, "bytekey!");
    EXPECT_EQ(data, original) << n;
  }
}

TEST(Des, EncryptByteStartsWithRandomBlocks) {
  clsDES des;
  std::vector<uint8_t> a = {'x'};
  std::vector<uint8_t> b = {'x'};
  des.EncryptByte(a, "k");
  des.EncryptByte(b);  // keeps the key set before
  EXPECT_NE(a, b);
  des.DecryptByte(b, "k");
  EXPECT_EQ(b, std::vector<uint8_t>{'x'});
}

// Builds a chained frame by hand around a chosen size descriptor.
std::vector<uint8_t> FrameWithSize(clsDES& des, size_t frame_size, uint32_t size) {
  std::string frame(frame_size, '\0');
  for (int b = 0; b < 4; ++b) frame[8 + b] = static_cast<char>((size >> (8 * b)) & 0xFF);
  std::string previous(8, '\0');
  for (size_t pos = 0; pos < frame_size; pos += 8) {
    std::string block = frame.substr(pos, 8);
    for (int i = 0; i < 8; ++i) block[i] ^= previous[i];
    previous = des.EncryptString(block, "framekey");
    frame.replace(pos, 8, previous);
  }
  return std::vector<uint8_t>(frame.begin(), frame.end());
}

TEST(Des, DecryptByteRejectsImpossibleSizeDescriptors) {
  clsDES des;
  struct Case {
    size_t frame_size;
    uint32_t size;
    const char* reason;
  };
  const Case kCases[] = {
      {16, 5, "size larger than the frame allows"},
      {24, 4, "more than 7 bytes of padding"},
      {16, 0xFFFFFFFF, "negative size"},
      {1024, 0x7FFFFFFF, "size far beyond the frame"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.reason);
    std::vector<uint8_t> data = FrameWithSize(des, c.frame_size, c.size);
    const std::vector<uint8_t> before = data;
    try {
      des.DecryptByte(data, "framekey");
      ADD_FAILURE() << "no error";
    } catch (const RuntimeError& e) {
      EXPECT_STREQ(e.what(), "Incorrect size descriptor in DES decryption");
    }
    EXPECT_EQ(data, before);
  }
  // Borders that are still right: padding of exactly 12 and of 19 bytes.
  std::vector<uint8_t> data = FrameWithSize(des, 16, 4);
  EXPECT_NO_THROW(des.DecryptByte(data, "framekey"));
  EXPECT_EQ(data.size(), 4u);
  data = FrameWithSize(des, 24, 5);
  EXPECT_NO_THROW(des.DecryptByte(data, "framekey"));
  EXPECT_EQ(data.size(), 5u);
}

TEST(Des, DecryptByteRejectsFramesThatAreNotWholeBlocks) {
  clsDES des;
  for (const size_t n : {0, 7, 8, 12, 17}) {
    std::vector<uint8_t> data(n, 0x41);
    EXPECT_THROW(des.DecryptByte(data, "k"), RuntimeError) << n;
    EXPECT_EQ(data.size(), n);
  }
}

}  // namespace
}  // namespace kalvo
