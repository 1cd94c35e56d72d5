// clsDES: the program's own single-DES block cipher (64-bit blocks, 56-bit effective key),
// working on texts (one block per 8 bytes) and on byte arrays with a random, size-tagged,
// CBC-chained frame. No crypto library is involved; bits are held one per array element and
// every permutation is table-driven, which is slow but plenty for the short texts it sees.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo {

// Description of the error DecryptByte raises for a frame whose size descriptor cannot be
// right (number kErrInvalidCall of infra/runtime_error.h).
inline constexpr std::string_view kDesSizeDescriptorError =
    "Incorrect size descriptor in DES decryption";

// One instance holds one key schedule; not thread-safe, cheap to create. Texts are byte
// strings (Windows-1252): each character is one byte.
class clsDES {
 public:
  clsDES() = default;

  // Store the three auxiliary key texts as given. No operation of the class reads them.
  void Key1Value(std::string_view text) { key1_value_ = text; }
  void Key2Value(std::string_view text) { key2_value_ = text; }
  void Key3Value(std::string_view text) { key3_value_ = text; }

  // Encrypts `data` in place into a frame: 8 random bytes, the input length as a 32-bit
  // little-endian size descriptor, the input, zero bytes up to a multiple of 8 (at least 12
  // bytes are added, so an empty input gives 16 bytes), chained block by block (CBC with a
  // zero initial vector; the random first block acts as the real one). A non-empty `key` is
  // first set as Key. `data` must be shorter than 2 GiB. Throws only std::bad_alloc.
  void EncryptByte(std::vector<uint8_t>& data, std::string_view key = "");

  // Inverse of EncryptByte: replaces `data` by the payload of the frame. Throws RuntimeError
  // (kErrInvalidCall, kDesSizeDescriptorError) and leaves `data` untouched when the frame is
  // not a whole number of blocks of at least 16 bytes, or when the frame length minus the
  // size descriptor is below 12 or above 19, or the descriptor (a signed 32-bit number) is
  // negative: a wrong key, damaged or foreign data.
  void DecryptByte(std::vector<uint8_t>& data, std::string_view key = "");

  // Sets `key` as Key and encrypts `text` block by block (ECB): an 8-byte text is exactly one
  // DES block. A final partial block of fewer than 8 bytes is XORed with the encryption of an
  // all-zero block, so the result always has the byte length of `text`. Never fails.
  std::string EncryptString(std::string_view text, std::string_view key);

  // Inverse of EncryptString under the same key. Never fails.
  std::string DecryptString(std::string_view text, std::string_view key);

  // Sets the current key: the bytes of the first 8 characters of `text` form the 64-bit DES
  // key (a shorter text leaves the remaining bits zero; parity bits are ignored). The round
  // keys are rebuilt only when `text` differs from the current key text.
  void Key(std::string_view text);

  // How often the round keys have been built by this instance (lets callers and tests see
  // that setting the same key text again is free).
  int key_schedule_builds() const { return key_schedule_builds_; }

 private:
  using Block = std::array<uint8_t, 8>;
  using RoundKey = std::array<uint8_t, 48>;  // one bit per element

  void EnsureSchedule();
  void BuildSchedule();
  Block CryptBlock(const Block& in, bool decrypt);
  // Whole blocks through the cipher in `decrypt`'s direction; a partial last block is
  // masked with an encrypted zero block, which the same call undoes.
  std::string CryptString(std::string_view text, std::string_view key, bool decrypt);

  std::string key1_value_;
  std::string key2_value_;
  std::string key3_value_;
  std::string key_;
  bool schedule_valid_ = false;
  int key_schedule_builds_ = 0;
  std::array<RoundKey, 16> round_keys_{};
};

}  // namespace kalvo
