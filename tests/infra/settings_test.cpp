#include "infra/settings.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "infra/log.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

namespace fs = std::filesystem;

// A registry file with logging switched on and the given lines below the settings key.
class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("kalvo_settings_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Writes the registry file; `kdx` and `db` are .reg value lines of "KDX" and "KDX\DB".
  void WriteRegistry(const std::string& kdx, const std::string& db = "",
                     const std::string& extra = "") {
    std::ofstream out(dir_ / "registry.reg", std::ios::binary);
    out << "REGEDIT4\r\n\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n\"LogLevel\"=dword:00000001\r\n\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n"
        << kdx << "\r\n"
        << "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\DB]\r\n"
        << db << "\r\n"
        << extra;
  }

  // Reads the settings, runs the checks and gives the check result; the log's text is kept.
  bool ReadAndCheck(Settings& s) {
    RegistryStore registry((dir_ / "registry.reg").string());
    ReadSettings(
        registry, [](std::string_view c) { return "plain:" + std::string(c); }, s);
    Log log(registry, (dir_ / "kalvosrv.log").string());
    return CheckRegistrySettings(s, log);
  }

  std::string LogText() {
    std::ifstream in(dir_ / "kalvosrv.log", std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  fs::path dir_;
};

const std::string kGoodDb =
    "\"DSN\"=\"kalvo\"\r\n\"StringType\"=\"VARCHAR\"\r\n\"StringMaxSize\"=dword:000000ff\r\n"
    "\"BLOBType\"=\"BLOB\"\r\n\"BLOBMaxSize\"=dword:00100000\r\n";

TEST_F(SettingsTest, NoValuesGiveDefaultsAndTheRangeMessageWithZero) {
  WriteRegistry("");
  Settings s;
  EXPECT_FALSE(ReadAndCheck(s));
  EXPECT_EQ(s.server_local_port, "0");
  EXPECT_EQ(s.backup_automatic, 3);
  EXPECT_EQ(s.log_client, -1);
  EXPECT_EQ(s.audit_display_max_count, 1000);
  EXPECT_TRUE(s.audit_is_save_max_count);
  EXPECT_FALSE(s.audit_is_save_max_days);
  EXPECT_EQ(s.audit_save_max_days, 365);
  EXPECT_EQ(s.max_package_size, 64 * 1024 * 1024);
  EXPECT_EQ(s.status_port, 15244);
  EXPECT_TRUE(s.tray_enabled);
  // UTF-8 in the file: the German text is converted at the edge.
  EXPECT_NE(LogText().find("Der zu verwendende Port des KDX liegt au\xC3\x9F"
                           "erhalb des "
                           "g\xC3\xBCltigen Bereichs von 1025 bis 65535 (aktuell: 0)! - Es wird "
                           "der Standard-Port 15243 verwendet!"),
            std::string::npos)
      << LogText();
  std::string reason;
  EXPECT_EQ(ChooseServerPort(s, &reason), 15243);
  EXPECT_EQ(reason, "ServerLocalPort not found in registry -> assuming default port 15243");
}

TEST_F(SettingsTest, PortOutsideTheRangeIsReportedYetUsed) {
  WriteRegistry("\"ServerLocalPort\"=\"80\"", kGoodDb);
  Settings s;
  EXPECT_FALSE(ReadAndCheck(s));
  EXPECT_NE(LogText().find("(aktuell: 80)! - Es wird der Standard-Port 15243 verwendet!"),
            std::string::npos);
  std::string reason;
  EXPECT_EQ(ChooseServerPort(s, &reason), 80);
  EXPECT_EQ(reason, "");
}

TEST_F(SettingsTest, NonNumericPortHidesEveryDatabaseProblem) {
  WriteRegistry("\"ServerLocalPort\"=\"abc\"");
  Settings s;
  EXPECT_FALSE(ReadAndCheck(s));
  const std::string log = LogText();
  EXPECT_NE(log.find("Der zu verwendende Port des KDX ist nicht numerisch (aktuell: abc)! - Es "
                     "wird der Standard-Port 15243 verwendet!"),
            std::string::npos);
  EXPECT_EQ(log.find("Datenbankzugriff"), std::string::npos);
  std::string reason;
  EXPECT_EQ(ChooseServerPort(s, &reason), 15243);
  EXPECT_EQ(reason, "ServerLocalPort invalid -> assuming default port 15243");
}

TEST_F(SettingsTest, FirstDatabaseProblemIsLoggedWithItsOwnWording) {
  const struct {
    std::string db;
    std::string line;
  } cases[] = {
      {"", "(DSN leer)"},
      {"\"DSN\"=\"x\"", "(DBStringType leer)"},
      // The misspelt name is what the consoles' documentation shows.
      {"\"DSN\"=\"x\"\r\n\"StringType\"=\"VARCHAR\"", "(DBStrinMaxSize = 0)"},
      {"\"DSN\"=\"x\"\r\n\"StringType\"=\"V\"\r\n\"StringMaxSize\"=dword:00000001",
       "(DBBLOBType leer)"},
      {"\"DSN\"=\"x\"\r\n\"StringType\"=\"V\"\r\n\"StringMaxSize\"=dword:00000001\r\n\"BLOBType\"="
       "\"B\"",
       "(DBBLOBMaxSize = 0)"},
  };
  for (const auto& c : cases) {
    fs::remove(dir_ / "kalvosrv.log");
    WriteRegistry("\"ServerLocalPort\"=\"15243\"", c.db);
    Settings s;
    EXPECT_FALSE(ReadAndCheck(s)) << c.line;
    EXPECT_NE(LogText().find("Der Datenbankzugriff ist nicht korrekt eingerichtet! " + c.line),
              std::string::npos)
        << c.line << "\n"
        << LogText();
  }
}

TEST_F(SettingsTest, CompleteSettingsPassAndLogNothing) {
  WriteRegistry("\"ServerLocalPort\"=\"15243\"\r\n\"AuditIsLimited\"=\"True\"",
                kGoodDb + "\"LoginUser\"=\"ABC\"\r\n",
                "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\Action]\r\n"
                "\"DeleteAfterComplete\"=dword:00000002\r\n\r\n"
                "[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\KalvoSrv\\Parameters]"
                "\r\n\"Taskbaricon\"=\"0\"\r\n");
  Settings s;
  EXPECT_TRUE(ReadAndCheck(s));
  EXPECT_EQ(LogText(), "");
  EXPECT_EQ(s.string_max_size, 255);
  EXPECT_EQ(s.login_user, "plain:ABC");  // credentials are deciphered
  EXPECT_EQ(s.login_pass, "plain:");
  EXPECT_TRUE(s.delete_after_complete);  // any number but 0
  EXPECT_TRUE(s.audit_is_limited);
  EXPECT_FALSE(s.tray_enabled);
}

TEST_F(SettingsTest, UnconvertibleNumberEndsReadingButKeepsWhatCameBefore) {
  WriteRegistry("\"AuditDisplayMaxCount\"=dword:00000007",
                "\"DSN\"=\"kalvo\"\r\n\"StringMaxSize\"=\"many\"\r\n\"BLOBType\"=\"BLOB\"");
  RegistryStore registry((dir_ / "registry.reg").string());
  Settings s;
  try {
    ReadSettings(
        registry, [](std::string_view c) { return std::string(c); }, s);
    FAIL() << "expected a type mismatch";
  } catch (const RuntimeError& e) {
    EXPECT_EQ(e.number(), kErrTypeMismatch);
  }
  EXPECT_EQ(s.dsn, "kalvo");
  EXPECT_EQ(s.blob_type, "");                  // after the failure: default
  EXPECT_EQ(s.audit_display_max_count, 1000);  // also after it
}

// The platform's values come after the table's and are read on their own: a bad value of
// the table (here StringMaxSize) or of their own cannot leave the others at their defaults.
TEST_F(SettingsTest, PlatformValuesAreReadWhateverFailsAndBadOnesAreNamed) {
  WriteRegistry(
      "\"MaxPackageSize\"=\"big\"\r\n\"MaxSendQueue\"=dword:00000000\r\n"
      "\"AdminAllowedAddresses\"=\"10.0.0.0/8\"\r\n\"MaxBufferedBytes\"=\"1000.5\"\r\n"
      "\"StatusPort\"=dword:00000000",
      "\"StringMaxSize\"=\"many\"\r\n\"DatabaseTimeout\"=\"3\"");
  RegistryStore registry((dir_ / "registry.reg").string());
  Settings s;
  EXPECT_THROW(ReadSettings(
                   registry, [](std::string_view c) { return std::string(c); }, s),
               RuntimeError);
  ReadPlatformSettings(registry, s);
  EXPECT_EQ(s.admin_allowed_addresses, "10.0.0.0/8");
  EXPECT_EQ(s.database_timeout, 3);
  EXPECT_EQ(s.max_buffered_bytes, 1000);  // rounded half to even
  EXPECT_EQ(s.status_port, 0);            // 0 switches the status endpoint off: allowed
  EXPECT_EQ(s.max_package_size, kDefaultMaxPackageSize);
  EXPECT_EQ(s.max_send_queue, kDefaultMaxSendQueue);
  ASSERT_EQ(s.problems.size(), 2u);
  EXPECT_EQ(s.problems[0],
            "KDX\\MaxPackageSize = \"big\" is not a whole number of at least 1; "
            "using 67108864");
  EXPECT_EQ(s.problems[1],
            "KDX\\MaxSendQueue = \"0\" is not a whole number of at least 1; "
            "using 8388608");
  // A second reading starts a new list.
  ReadPlatformSettings(registry, s);
  EXPECT_EQ(s.problems.size(), 2u);
}

TEST(IsNumericText, AcceptsWhatANumericConversionAccepts) {
  const struct {
    const char* text;
    bool numeric;
  } cases[] = {
      {"0", true}, {" 15243 ", true}, {"-1", true},   {"1.5", true}, {"1e3", true},
      {"", false}, {"abc", false},    {"12a", false}, {"1e", false}, {".", false},
  };
  for (const auto& c : cases) EXPECT_EQ(IsNumericText(c.text), c.numeric) << c.text;
}

}  // namespace
}  // namespace kalvo

namespace kalvo {
namespace {

TEST(ChooseServerPortTest, UsesEveryValueTheCheckCallsANumber) {
  const struct {
    const char* stored;
    int32_t port;
    const char* reason;
  } cases[] = {
      {"0", 15243, "ServerLocalPort not found in registry -> assuming default port 15243"},
      {" 8080 ", 8080, ""},  // blanks, as the numeric check allows
      {"8080.0", 8080, ""},  // a decimal that is a whole number
      {"80", 80, ""},        // outside the checked range, still used
      {"1.5", 2, ""},        // rounded as every number setting is
      {"70000", 70000, ""},  // a number: used, and the listen fails on it
      {"-5", -5, ""},
      {"abc", 15243, "ServerLocalPort invalid -> assuming default port 15243"},
      {"99999999999", 15243, "ServerLocalPort invalid -> assuming default port 15243"},
      {"nan", 15243, "ServerLocalPort invalid -> assuming default port 15243"},
  };
  for (const auto& c : cases) {
    Settings s;
    s.server_local_port = c.stored;
    std::string reason;
    EXPECT_EQ(ChooseServerPort(s, &reason), c.port) << c.stored;
    EXPECT_EQ(reason, c.reason) << c.stored;
  }
}

}  // namespace
}  // namespace kalvo
