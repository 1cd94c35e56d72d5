#include "security/des.h"

#include <algorithm>
#include <cstddef>
#include <random>

#include "infra/runtime_error.h"

namespace kalvo {
namespace {

// The tables of the Data Encryption Standard, 1-based bit positions as printed in FIPS 46.
constexpr uint8_t kInitialPermutation[64] = {
    58, 50, 42, 34, 26, 18, 10, 2,  60, 52, 44, 36, 28, 20, 12, 4,  62, 54, 46, 38, 30, 22,
    14, 6,  64, 56, 48, 40, 32, 24, 16, 8,  57, 49, 41, 33, 25, 17, 9,  1,  59, 51, 43, 35,
    27, 19, 11, 3,  61, 53, 45, 37, 29, 21, 13, 5,  63, 55, 47, 39, 31, 23, 15, 7};

constexpr uint8_t kFinalPermutation[64] = {
    40, 8,  48, 16, 56, 24, 64, 32, 39, 7,  47, 15, 55, 23, 63, 31, 38, 6,  46, 14, 54, 22,
    62, 30, 37, 5,  45, 13, 53, 21, 61, 29, 36, 4,  44, 12, 52, 20, 60, 28, 35, 3,  43, 11,
    51, 19, 59, 27, 34, 2,  42, 10, 50, 18, 58, 26, 33, 1,  41, 9,  49, 17, 57, 25};

constexpr uint8_t kExpansion[48] = {32, 1,  2,  3,  4,  5,  4,  5,  6,  7,  8,  9,  8,  9,  10, 11,
                                    12, 13, 12, 13, 14, 15, 16, 17, 16, 17, 18, 19, 20, 21, 20, 21,
                                    22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1};

constexpr uint8_t kPermutation[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23,
                                      26, 5, 18, 31, 10, 2,  8,  24, 14, 32, 27,
                                      3,  9, 19, 13, 30, 6,  22, 11, 4,  25};

constexpr uint8_t kPermutedChoice1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                                          10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                                          63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                                          14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

constexpr uint8_t kPermutedChoice2[48] = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

constexpr uint8_t kLeftShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

constexpr uint8_t kSBoxes[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11}};

constexpr size_t kBlockSize = 8;
constexpr size_t kFrameHeader = 12;  // two random words and the size descriptor

// Bit i (0-based) of `out` becomes bit table[i] (1-based) of `in`.
template <size_t N, size_t M>
std::array<uint8_t, N> Permute(const std::array<uint8_t, M>& in, const uint8_t (&table)[N]) {
  std::array<uint8_t, N> out{};
  for (size_t i = 0; i < N; ++i) out[i] = in[table[i] - 1];
  return out;
}

// Most significant bit of the first byte first, as DES numbers its bits.
std::array<uint8_t, 64> ToBits(const uint8_t* bytes, size_t count) {
  std::array<uint8_t, 64> bits{};
  for (size_t i = 0; i < count && i < 8; ++i) {
    for (size_t b = 0; b < 8; ++b) bits[i * 8 + b] = (bytes[i] >> (7 - b)) & 1;
  }
  return bits;
}

std::array<uint8_t, 8> FromBits(const std::array<uint8_t, 64>& bits) {
  std::array<uint8_t, 8> bytes{};
  for (size_t i = 0; i < 64; ++i) bytes[i / 8] |= static_cast<uint8_t>(bits[i] << (7 - i % 8));
  return bytes;
}

// Rotates a 28-bit half (one bit per element) left by `count`.
void RotateHalf(uint8_t* half, int count) { std::rotate(half, half + count, half + 28); }

}  // namespace

void clsDES::Key(std::string_view text) {
  if (schedule_valid_ && text == key_) return;
  key_ = text;
  BuildSchedule();
}

void clsDES::EnsureSchedule() {
  if (!schedule_valid_) BuildSchedule();
}

void clsDES::BuildSchedule() {
  const auto key_bits =
      ToBits(reinterpret_cast<const uint8_t*>(key_.data()), std::min<size_t>(key_.size(), 8));
  auto cd = Permute(key_bits, kPermutedChoice1);  // C in 0..27, D in 28..55
  for (int round = 0; round < 16; ++round) {
    RotateHalf(cd.data(), kLeftShifts[round]);
    RotateHalf(cd.data() + 28, kLeftShifts[round]);
    round_keys_[round] = Permute(cd, kPermutedChoice2);
  }
  schedule_valid_ = true;
  ++key_schedule_builds_;
}

clsDES::Block clsDES::CryptBlock(const Block& in, bool decrypt) {
  EnsureSchedule();
  const auto permuted = Permute(ToBits(in.data(), in.size()), kInitialPermutation);
  std::array<uint8_t, 32> left{};
  std::array<uint8_t, 32> right{};
  std::copy_n(permuted.begin(), 32, left.begin());
  std::copy_n(permuted.begin() + 32, 32, right.begin());

  for (int round = 0; round < 16; ++round) {
    const RoundKey& k = round_keys_[decrypt ? 15 - round : round];
    auto expanded = Permute(right, kExpansion);
    for (size_t i = 0; i < 48; ++i) expanded[i] ^= k[i];
    std::array<uint8_t, 32> substituted{};
    for (size_t box = 0; box < 8; ++box) {
      const uint8_t* six = &expanded[box * 6];
      const int row = six[0] * 2 + six[5];
      const int column = six[1] * 8 + six[2] * 4 + six[3] * 2 + six[4];
      const uint8_t value = kSBoxes[box][row * 16 + column];
      for (size_t b = 0; b < 4; ++b) substituted[box * 4 + b] = (value >> (3 - b)) & 1;
    }
    const auto f = Permute(substituted, kPermutation);
    std::array<uint8_t, 32> next_right{};
    for (size_t i = 0; i < 32; ++i) next_right[i] = left[i] ^ f[i];
    left = right;
    right = next_right;
  }

  // The halves are swapped once more before the final permutation.
  std::array<uint8_t, 64> preoutput{};
  std::copy(right.begin(), right.end(), preoutput.begin());
  std::copy(left.begin(), left.end(), preoutput.begin() + 32);
  return FromBits(Permute(preoutput, kFinalPermutation));
}

std::string clsDES::EncryptString(std::string_view text, std::string_view key) {
  return CryptString(text, key, false);
}

std::string clsDES::DecryptString(std::string_view text, std::string_view key) {
  return CryptString(text, key, true);
}

std::string clsDES::CryptString(std::string_view text, std::string_view key, bool decrypt) {
  Key(key);
  std::string out(text);
  auto* bytes = reinterpret_cast<uint8_t*>(out.data());
  const size_t whole = out.size() / kBlockSize * kBlockSize;
  Block block{};
  for (size_t pos = 0; pos < whole; pos += kBlockSize) {
    std::copy_n(bytes + pos, kBlockSize, block.begin());
    block = CryptBlock(block, decrypt);
    std::copy_n(block.begin(), kBlockSize, bytes + pos);
  }
  if (whole < out.size()) {
    // The tail is masked with an encrypted zero block either way: masking twice restores it.
    const Block pad = CryptBlock(Block{}, false);
    for (size_t i = whole; i < out.size(); ++i) bytes[i] ^= pad[i - whole];
  }
  return out;
}

void clsDES::EncryptByte(std::vector<uint8_t>& data, std::string_view key) {
  if (!key.empty()) Key(key);
  const size_t n = data.size();
  const size_t frame_size = (n + kFrameHeader + kBlockSize - 1) / kBlockSize * kBlockSize;
  std::vector<uint8_t> frame(frame_size, 0);

  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<uint32_t> draw(0, 2147483646);
  const uint32_t header[3] = {draw(random), draw(random), static_cast<uint32_t>(n)};
  for (size_t word = 0; word < 3; ++word) {
    for (size_t b = 0; b < 4; ++b) frame[word * 4 + b] = (header[word] >> (8 * b)) & 0xFF;
  }
  std::copy(data.begin(), data.end(), frame.begin() + kFrameHeader);

  Block previous{};
  for (size_t pos = 0; pos < frame_size; pos += kBlockSize) {
    Block block{};
    for (size_t i = 0; i < kBlockSize; ++i) block[i] = frame[pos + i] ^ previous[i];
    previous = CryptBlock(block, false);
    std::copy(previous.begin(), previous.end(), frame.begin() + pos);
  }
  data = std::move(frame);
}

void clsDES::DecryptByte(std::vector<uint8_t>& data, std::string_view key) {
  if (!key.empty()) Key(key);
  const size_t frame_size = data.size();
  if (frame_size < 2 * kBlockSize || frame_size % kBlockSize != 0) {
    throw RuntimeError(kErrInvalidCall, std::string(kDesSizeDescriptorError));
  }
  std::vector<uint8_t> frame(frame_size);
  Block previous{};
  for (size_t pos = 0; pos < frame_size; pos += kBlockSize) {
    Block cipher{};
    std::copy_n(data.begin() + pos, kBlockSize, cipher.begin());
    const Block plain = CryptBlock(cipher, true);
    for (size_t i = 0; i < kBlockSize; ++i) frame[pos + i] = plain[i] ^ previous[i];
    previous = cipher;
  }
  const uint32_t size =
      frame[8] | (frame[9] << 8) | (frame[10] << 16) | (static_cast<uint32_t>(frame[11]) << 24);
  // The descriptor is a signed 32-bit number; a negative one cannot be right either.
  const int64_t padding = static_cast<int64_t>(frame_size) - static_cast<int32_t>(size);
  if (static_cast<int32_t>(size) < 0 || padding < static_cast<int64_t>(kFrameHeader) ||
      padding >= static_cast<int64_t>(kFrameHeader + kBlockSize)) {
    throw RuntimeError(kErrInvalidCall, std::string(kDesSizeDescriptorError));
  }
  data.assign(frame.begin() + kFrameHeader, frame.begin() + kFrameHeader + size);
}

}  // namespace kalvo
