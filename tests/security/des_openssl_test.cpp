// Checks our DES against OpenSSL's (libcrypto with its legacy provider) on random keys and
// blocks, and the whole credential cipher against an independent construction over it.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstdio>
#include <random>
#include <string>

#include "security/des.h"
#include "security/encryption.h"

namespace kalvo {
namespace {

// DES-ECB without padding of whole blocks under an 8-byte key.
std::string OpenSslEcb(const EVP_CIPHER* cipher, std::string_view key, std::string_view blocks) {
  EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
  std::string out(blocks.size() + 8, '\0');
  int len = 0;
  int final_len = 0;
  const bool ok =
      ctx != nullptr &&
      EVP_EncryptInit_ex2(ctx, cipher, reinterpret_cast<const unsigned char*>(key.data()), nullptr,
                          nullptr) == 1 &&
      EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
      EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(out.data()), &len,
                        reinterpret_cast<const unsigned char*>(blocks.data()),
                        static_cast<int>(blocks.size())) == 1 &&
      EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(out.data()) + len, &final_len) == 1;
  EVP_CIPHER_CTX_free(ctx);
  EXPECT_TRUE(ok);
  out.resize(ok ? len + final_len : 0);
  return out;
}

class OpenSslDes : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    legacy_ = OSSL_PROVIDER_load(nullptr, "legacy");
    default_ = OSSL_PROVIDER_load(nullptr, "default");
    cipher_ = EVP_CIPHER_fetch(nullptr, "DES-ECB", nullptr);
  }
  static void TearDownTestSuite() {
    EVP_CIPHER_free(cipher_);
    if (default_ != nullptr) OSSL_PROVIDER_unload(default_);
    if (legacy_ != nullptr) OSSL_PROVIDER_unload(legacy_);
  }
  void SetUp() override { ASSERT_NE(cipher_, nullptr) << "DES-ECB needs the legacy provider"; }

  static std::string Ecb(std::string_view key, std::string_view blocks) {
    return OpenSslEcb(cipher_, key, blocks);
  }

  // One CFB-8 encryption pass as the credential format describes it: the key stream byte is
  // the last byte of the encrypted register, and the cipher byte is shifted in.
  static std::string ReferencePass(std::string_view input, std::string_view subkey) {
    std::string key(subkey);
    key.resize(8, '\0');
    std::string reg(8, '\0');
    std::string out;
    for (const char c : input) {
      const char o = static_cast<char>(c ^ Ecb(key, reg).back());
      out.push_back(o);
      reg = reg.substr(1) + o;
    }
    return out;
  }

  static OSSL_PROVIDER* legacy_;
  static OSSL_PROVIDER* default_;
  static EVP_CIPHER* cipher_;
};

OSSL_PROVIDER* OpenSslDes::legacy_ = nullptr;
OSSL_PROVIDER* OpenSslDes::default_ = nullptr;
EVP_CIPHER* OpenSslDes::cipher_ = nullptr;

std::string RandomBytes(std::mt19937& rng, size_t n) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

TEST_F(OpenSslDes, AgreesOnTwoThousandRandomKeysAndBlocks) {
  std::mt19937 rng(20270301);
  clsDES des;
  for (int i = 0; i < 2000; ++i) {
    const std::string key = RandomBytes(rng, 8);
    const std::string block = RandomBytes(rng, 8);
    const std::string ours = des.EncryptString(block, key);
    ASSERT_EQ(ours, Ecb(key, block)) << "case " << i;
    ASSERT_EQ(des.DecryptString(ours, key), block) << "case " << i;
  }
}

TEST_F(OpenSslDes, AgreesOnMultiBlockTexts) {
  std::mt19937 rng(7);
  clsDES des;
  for (const size_t blocks : {2, 5, 16}) {
    const std::string key = RandomBytes(rng, 8);
    const std::string text = RandomBytes(rng, blocks * 8);
    EXPECT_EQ(des.EncryptString(text, key), Ecb(key, text)) << blocks;
  }
}

TEST_F(OpenSslDes, CredentialCipherMatchesAnIndependentConstruction) {
  const std::string key = VersionInfoKeyText();
  ASSERT_GE(key.size(), 22u);
  struct Case {
    std::string plain;
    CipherNoise noise;
    std::string salt;  // tick count in hex, bytes 1<->7 then 0<->6 swapped
  };
  const Case kCases[] = {
      {"sa", {0x0012ABCD, 3}, "CD12AB00"},
      {"", {0, 1}, "00000000"},
      {"Kennw\xF6rt mit \x80 und \xDF", {0xFEDCBA98, 10}, "98DCBAFE"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.plain);
    std::string message = c.salt + c.plain + std::string(1 + c.noise.padding, '\0');
    for (const size_t start : {4, 8, 14}) message = ReferencePass(message, key.substr(start, 8));
    std::string expected = "L" + HexEncodeText(message);
    char check[5];
    std::snprintf(check, sizeof check, "%04X", Crc16Text(expected));
    expected += check;
    EXPECT_EQ(EncryptText(c.plain, key, c.noise), expected);
    EXPECT_EQ(DecryptText(expected, key), c.plain);
  }
}

}  // namespace
}  // namespace kalvo
