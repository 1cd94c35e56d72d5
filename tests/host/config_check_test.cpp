#include "host/config_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "infra/version.h"
#include "security/encryption.h"

namespace kalvo {
namespace {

namespace fs = std::filesystem;

class ConfigCheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("kalvo_cfg_" + std::to_string(::getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    options_.registry_path = (dir_ / "registry.reg").string();
    options_.log_path = (dir_ / "k.log").string();
    options_.program = {dir_.string(), "kalvosrv"};
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string Run(const std::string& db_values, int* code) {
    std::ofstream(options_.registry_path, std::ios::binary)
        << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n"
        << "\"ServerLocalPort\"=\"15243\"\r\n\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n"
        << db_values << "\r\n";
    std::ostringstream out;
    *code = CheckConfig(options_, out);
    return out.str();
  }

  fs::path dir_;
  ServerOptions options_;
};

// Unlike the start-up check, which stops at its first failure, every missing database
// setting is reported.
TEST_F(ConfigCheckTest, ReportsEveryMissingDatabaseSetting) {
  int code = 0;
  const std::string out = Run("\"DSN\"=\"kalvo\"", &code);
  EXPECT_EQ(code, 1);
  EXPECT_NE(out.find("KDX\\DB DSN = kalvo"), std::string::npos) << out;
  for (const char* name : {"StringType is empty", "StringMaxSize is 0", "BLOBType is empty",
                           "BLOBMaxSize is 0"}) {
    EXPECT_NE(out.find(std::string("ERROR: KDX\\DB ") + name), std::string::npos) << out;
  }
  EXPECT_EQ(out.find("DSN is empty"), std::string::npos) << out;
}

TEST_F(ConfigCheckTest, MasksThePasswordButShowsTheDecipheredUser) {
  const std::string user = EncryptText("kalvo_user", VersionInfoKeyText());
  const std::string pass = EncryptText("s3cr3t", VersionInfoKeyText());
  int code = 0;
  const std::string out =
      Run("\"LoginUser\"=\"" + user + "\"\r\n\"LoginPass\"=\"" + pass + "\"", &code);
  EXPECT_NE(out.find("LoginUser = kalvo_user"), std::string::npos) << out;
  EXPECT_NE(out.find("LoginPass = ********"), std::string::npos) << out;
  EXPECT_EQ(out.find("s3cr3t"), std::string::npos) << out;
}

TEST_F(ConfigCheckTest, UnconvertibleSettingFailsTheCheck) {
  int code = 0;
  const std::string out = Run("\"StringMaxSize\"=\"lots\"", &code);
  EXPECT_EQ(code, 1);
  EXPECT_NE(out.find("could not be converted"), std::string::npos) << out;
}

TEST(CredentialCipherCommands, EncryptThenDecryptGivesTheTextBackInUtf8) {
  std::istringstream plain("Passw\xC3\xB6rter\n");  // UTF-8 on the terminal
  std::ostringstream cipher;
  EXPECT_EQ(EncryptCredential(plain, cipher), 0);
  EXPECT_EQ(cipher.str().find("Passw"), std::string::npos);
  std::istringstream back_in(cipher.str());
  std::ostringstream back;
  EXPECT_EQ(DecryptCredential(back_in, back), 0);
  EXPECT_EQ(back.str(), "Passw\xC3\xB6rter\n");
  // The registry holds Windows-1252: the cipher text deciphers to the single-byte umlaut.
  std::string text = cipher.str();
  text.pop_back();
  EXPECT_EQ(DecryptText(text, VersionInfoKeyText()), "Passw\xF6rter");
}

}  // namespace
}  // namespace kalvo
