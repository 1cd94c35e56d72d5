// The settings and database configuration requests, the free queries and the console address
// filter, on each engine.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "handlers_fixture.h"
#include "infra/arrays.h"
#include "infra/registry.h"
#include "infra/settings.h"
#include "security/encryption.h"

namespace kalvo::testing {
namespace {

constexpr std::string_view kNul("\0", 1);

std::string Encrypted(std::string_view plain) { return EncryptText(plain, VersionInfoKeyText()); }
std::string Decrypted(std::string_view cipher) { return DecryptText(cipher, VersionInfoKeyText()); }

class ConfigurationRequestsTest : public HandlersTest {
 protected:
  // A registry file with the keys the requests write to (a write never creates a key).
  void WriteRegistryFile() {
    std::ofstream out(registry_path_, std::ios::binary);
    const std::string product = "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara";
    out << "REGEDIT4\r\n\r\n"
        << product << "]\r\n\"LogLevel\"=dword:00000001\r\n\r\n"
        << product << "\\KDX]\r\n\r\n"
        << product << "\\KDX\\Backup]\r\n\r\n"
        << product << "\\KDX\\Log]\r\n\"LogServer\"=dword:00000002\r\n\r\n"
        << product << "\\KDX\\DB]\r\n\"ListStringType\"=\"VARCHAR,TEXT\"\r\n"
        << "\"ListNumberType\"=\"INTEGER\"\r\n\"ListBLOBType\"=\"BLOB,BYTEA\"\r\n\r\n";
    out.close();
    registry_.Invalidate();
  }

  RegistryValue Stored(std::string_view sub_key, std::string_view name) {
    registry_.Invalidate();
    return RegistryRead(registry_, kSettingsRoot, kSettingsKey, sub_key, name, "missing");
  }

  // The nine NUL-joined fields of sub-commands 5 and 6 for this engine.
  std::string ConfigurationFields(std::string_view last, std::string_view string_max_size = "") {
    const DatabaseSettings s = Settings();
    return Join(
        {s.dsn, Encrypted(s.user), Encrypted(s.password), s.string_type,
         string_max_size.empty() ? std::to_string(s.string_max_size) : std::string(string_max_size),
         s.number_type, s.blob_type, std::to_string(s.blob_max_size), std::string(last)},
        kNul);
  }

  // The one reply to `index` of a 351 with sub-command `sub` and `data`.
  std::string Configure(int sub, std::string data) {
    auto sent = Handle(3, Packet(351, std::move(data), std::to_string(sub)));
    EXPECT_EQ(sent.size(), 1u);
    if (sent.size() != 1) return "(no reply)";
    EXPECT_EQ(sent[0].packet.PackageID, 351);
    return sent[0].packet.Data;
  }
};

TEST_P(ConfigurationRequestsTest, SettingsReportAndUpdateRoundTripThroughTheRegistry) {
  WriteRegistryFile();
  auto sent = Handle(3, Packet(305));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(305, "3$3$3$-1$-1$2$True$100$False$True$1000$False$365"));

  sent = Handle(3, Packet(306, "5$4$2$1$3$0$False$50$-1$0$100$1$30"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(306));
  EXPECT_TRUE(Logged("DoSocketAction: ID: 306 Socket: 3 Daten gesendet"));
  EXPECT_EQ(Stored("KDX\\Backup", "Automatic").ToLong(), 5);
  EXPECT_EQ(Stored("KDX\\Backup", "Client").ToLong(), 2);
  // The log values go to Admin, Server and Client; start-up's LogServer stays as it was.
  EXPECT_EQ(Stored("KDX\\Log", "Server").ToLong(), 3);
  EXPECT_EQ(Stored("KDX\\Log", "Admin").ToLong(), 1);
  EXPECT_EQ(Stored("KDX\\Log", "LogServer").ToLong(), 2);
  // Flags as the 32-bit number of a Boolean, numbers as numbers.
  EXPECT_TRUE(Stored("KDX", "AuditIsLimited").IsNumber());
  EXPECT_EQ(Stored("KDX", "AuditIsLimited").ToLong(), -1);
  EXPECT_EQ(Stored("KDX", "AuditIsActive").ToLong(), 0);
  EXPECT_EQ(Stored("KDX", "AuditIsSaveMaxDays").ToLong(), -1);
  EXPECT_EQ(Stored("KDX", "AuditSaveMaxDays").ToLong(), 30);
  // Log Server 3 is log level 9.
  EXPECT_EQ(RegistryRead(registry_, kSettingsRoot, "Orvanta", "Zentara", "LogLevel", 0).ToLong(),
            9);
  sent = Handle(3, Packet(305));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.Data, "5$4$2$1$3$0$False$50$True$False$100$True$30");

  // A short update changes the leading values only, and writes all of them; log Server 0 to
  // 4 are levels 0, 5, 7, 9, 10; 5 or more write no level.
  for (const auto& [server, level] :
       std::vector<std::pair<std::string, int32_t>>{{"0", 0}, {"4", 10}, {"1", 5}, {"5", 5}}) {
    Handle(3, Packet(306, "7$7$7$7$" + server));
    EXPECT_EQ(RegistryRead(registry_, kSettingsRoot, "Orvanta", "Zentara", "LogLevel", 0).ToLong(),
              level)
        << server;
  }
  EXPECT_EQ(Handle(3, Packet(305))[0].packet.Data, "7$7$7$7$5$0$False$50$True$False$100$True$30");
  EXPECT_EQ(Stored("KDX", "AuditDisplayMaxCount").ToLong(), 50);

  // A value that is no number ends the request: no reply, nothing written; the values
  // before it are held.
  EXPECT_TRUE(Handle(3, Packet(306, "1$1$x$1")).empty());
  EXPECT_EQ(settings_.backup_admin, 1);
  EXPECT_EQ(Stored("KDX\\Backup", "Admin").ToLong(), 7);
  // Flags also arrive as "-1", "1" and "0".
  Handle(3, Packet(306, "1$1$1$1$1$1$-1$1$1$0"));
  EXPECT_TRUE(settings_.audit_is_active);
  EXPECT_TRUE(settings_.audit_is_limited);
  EXPECT_FALSE(settings_.audit_is_save_max_count);
}

TEST_P(ConfigurationRequestsTest, DatabaseReportNeverSendsThePasswordAndIsSilencedByTheLoginFlag) {
  settings_.dsn = "kalvo";
  settings_.login_user = "admin";
  settings_.login_pass = "secret";
  settings_.string_type = "VARCHAR";
  settings_.number_type = "INTEGER";
  settings_.blob_type = "BLOB";
  settings_.blob_max_size = 4096;
  auto sent = Handle(3, Packet(350));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(350, "kalvo|admin|VARCHAR|255|INTEGER|BLOB|4096"));
  EXPECT_FALSE(Logged("ID: 350 Socket: 3 Daten gesendet"));

  state_.admin_login_flag = true;
  EXPECT_TRUE(Handle(3, Packet(350)).empty());
  EXPECT_FALSE(state_.admin_login_flag);
  EXPECT_EQ(Handle(3, Packet(350)).size(), 1u);
}

TEST_P(ConfigurationRequestsTest, ConnectionTestCredentialsAndTypeLists) {
  WriteRegistryFile();
  const DatabaseSettings s = Settings();
  const std::string good = Join({s.dsn, Encrypted(s.user), Encrypted(s.password)}, kNul);
  EXPECT_EQ(Configure(1, good), "OK");
  EXPECT_EQ(Configure(1, good + std::string(kNul)), "ERROR");  // four fields
  EXPECT_EQ(Configure(1, Join({std::string("no_such_dsn"), Encrypted(""), Encrypted("")}, kNul)),
            "ERROR");
  EXPECT_FALSE(Logged("ID: 351 Socket: 3 Daten gesendet"));

  settings_.login_user = "admin";
  settings_.login_pass = "secret";
  const std::vector<std::string> credentials = Split(Configure(3, ""), "|");
  ASSERT_EQ(credentials.size(), 2u);
  EXPECT_EQ(Decrypted(credentials[0]), "admin");
  EXPECT_EQ(Decrypted(credentials[1]), "secret");

  EXPECT_EQ(Configure(4, ""), "VARCHAR,TEXT|INTEGER|BLOB,BYTEA");
  settings_.dsn = "current";
  EXPECT_TRUE(Configure(2, "").ends_with("\r\ncurrent"));
  EXPECT_EQ(Configure(9, ""), "");  // no such sub-command: an empty answer
  // The machine-wide list: the test's data sources are system ones; a data source of the
  // user's own file is not listed.
  {
    const std::string system_ini = std::getenv("ODBCINI");
    const std::string user_ini = registry_path_ + ".odbc.ini";
    std::ofstream(user_ini) << "[kalvo_user_only]\nDriver = SQLite3\nDatabase = /nonexistent\n";
    ::setenv("ODBCINI", user_ini.c_str(), 1);
    const std::vector<std::string> names = Split(Split(Configure(2, ""), "\r\n").at(0), kNul);
    ::setenv("ODBCINI", system_ini.c_str(), 1);
    std::filesystem::remove(user_ini);
    EXPECT_EQ(std::count(names.begin(), names.end(), s.dsn), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "kalvo_user_only"), 0);
  }

  // A sub-command that is no number is a run-time error of the handler: no reply, and the
  // login flag is left as it was.
  for (const char* sub : {"x", ""}) {
    state_.admin_login_flag = true;
    ClearLog();
    EXPECT_TRUE(Handle(3, Packet(351, good, sub)).empty()) << sub;
    EXPECT_TRUE(state_.admin_login_flag) << sub;
    EXPECT_TRUE(Logged("(DoSocketAction)")) << sub;
  }

  state_.admin_login_flag = true;
  EXPECT_TRUE(Handle(3, Packet(351, good, "1")).empty());
  EXPECT_FALSE(state_.admin_login_flag);
}

TEST_P(ConfigurationRequestsTest, TypeTestAndNewConfigurationWriteTheRegistryOnlyOnSuccess) {
  WriteRegistryFile();
  EXPECT_EQ(Configure(5, ConfigurationFields("1")), "OK|1");
  EXPECT_EQ(Configure(5, "too\0few"), "ERROR|1");

  // A size that is no number: -3, and nothing changes.
  EXPECT_EQ(Configure(6, ConfigurationFields("2", "many")), "-3");
  EXPECT_EQ(Stored("KDX\\DB", "DSN").ToText(), "missing");
  EXPECT_EQ(Configure(6, ConfigurationFields("two")), "-3");

  // Mode 2 upgrades the complete database: nothing to do, success.
  const DatabaseSettings s = Settings();
  EXPECT_EQ(Configure(6, ConfigurationFields("2")), "0");
  EXPECT_EQ(Stored("KDX\\DB", "DSN").ToText(), s.dsn);
  EXPECT_EQ(Stored("KDX\\DB", "StringMaxSize").ToLong(), s.string_max_size);
  EXPECT_TRUE(Stored("KDX\\DB", "StringMaxSize").IsNumber());
  EXPECT_EQ(Decrypted(Stored("KDX\\DB", "LoginPass").ToText()), s.password);
  EXPECT_EQ(Decrypted(Stored("KDX\\DB", "LoginUser").ToText()), s.user);
  // The server holds the new configuration: the report shows it.
  EXPECT_EQ(Handle(3, Packet(350))[0].packet.Data,
            s.dsn + "|" + s.user + "|" + s.string_type + "|" + std::to_string(s.string_max_size) +
                "|" + s.number_type + "|" + s.blob_type + "|" + std::to_string(s.blob_max_size));

  // Mode 1 on a database that has its tables: every create fails; nothing is written.
  WriteRegistryFile();
  EXPECT_NE(Configure(6, ConfigurationFields("1")), "0");
  EXPECT_EQ(Stored("KDX\\DB", "DSN").ToText(), "missing");
}

TEST_P(ConfigurationRequestsTest, DatabaseTestAndFreeQueries) {
  const DatabaseSettings s = Settings();
  const std::string fields = Join({s.dsn, Encrypted(s.user), Encrypted(s.password), s.string_type,
                                   std::to_string(s.string_max_size), s.number_type, s.blob_type},
                                  "|");
  auto sent = Handle(3, Packet(313, fields));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_TRUE(sent[0].packet.Data.starts_with("OK: connect\r\n")) << sent[0].packet.Data;
  EXPECT_TRUE(sent[0].packet.Data.ends_with(
      "OK: join\r\nDas Entfernen der angelegten Tabellen war erfolgreich!"));
  sent = Handle(3, Packet(313, fields.substr(0, fields.rfind('|'))));
  EXPECT_EQ(sent[0].packet, Packet(313, "unzureichende Konfigurationseinstellungen erhalten"));

  sent = Handle(3, Packet(701, "SELECT group_name FROM tbl_kdx_groups"));
  EXPECT_EQ(sent[0].packet, Packet(701, "Data:group_name$Jeder"));
  sent = Handle(3, Packet(314, "SELECT group_name FROM tbl_kdx_groups WHERE group_name = 'x'"));
  EXPECT_EQ(sent[0].packet, Packet(314, "Data:group_name"));
  EXPECT_EQ(Handle(3, Packet(312))[0].packet, Packet(312, ""));
}

TEST_P(ConfigurationRequestsTest, ConsoleRequestsFromOtherAddressesAreIgnored) {
  std::vector<std::string> problems;
  state_.console_addresses = AddressFilter::Parse("10.0.0.1, 10.0.0.3/32", &problems);
  ASSERT_TRUE(problems.empty());
  EXPECT_TRUE(Handle(2, Packet(311)).empty());
  EXPECT_TRUE(Logged("DoSocketAction: console request 311 from 10.0.0.2 ignored"));
  EXPECT_TRUE(Handle(2, Packet(701, "DELETE FROM tbl_kdx_groups")).empty());
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_groups"), "1");
  EXPECT_TRUE(Handle(2, Packet(401)).empty());
  EXPECT_FALSE(state_.admin_connections.Contains(2));
  EXPECT_EQ(state_.requests_by_package_id.count(311), 0u);
  // A token client's requests stay open to every address.
  EXPECT_EQ(Handle(2, Packet(101, "A1B2C3D4-0000-4000-8000-00000000000A", "", "anna")).size(), 1u);
  EXPECT_EQ(Handle(2, Packet(327, "A1B2C3D4-0000-4000-8000-00000000000A"))[0].packet.Data, "NONE");
  // Allowed addresses are served.
  EXPECT_EQ(Handle(1, Packet(311)).size(), 1u);
  EXPECT_EQ(Handle(3, Packet(311)).size(), 1u);
}

KALVO_INSTANTIATE_ENGINES(ConfigurationRequestsTest);

}  // namespace
}  // namespace kalvo::testing
