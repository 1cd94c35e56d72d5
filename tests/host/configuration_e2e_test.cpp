// The configuration requests through the real server on SQLite: an empty database brought to
// a complete one from a console, the settings written to the registry file, and console
// requests refused to an address outside AdminAllowedAddresses.
#include <gtest/gtest.h>

#include <cstdio>

#include "../db/odbc_test_env.h"
#include "../net/packet_printer.h"
#include "infra/log.h"
#include "infra/unique_fd.h"
#include "infra/version.h"
#include "net/packet.h"
#include "net/socket_send.h"
#include "packet_peer.h"
#include "security/encryption.h"
#include "server_process.h"

namespace kalvo::testing {
namespace {

using Console = PacketPeer;

const std::string kProduct = "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara";
const std::string kDatabaseKey = kProduct + "\\KDX\\DB]\r\n\"DSN\"=\"" + kSqliteDsn +
                                 "\"\r\n\"StringType\"=\"VARCHAR\"\r\n"
                                 "\"StringMaxSize\"=dword:000000ff\r\n"
                                 "\"NumberType\"=\"INTEGER\"\r\n\"BLOBType\"=\"BLOB\"\r\n"
                                 "\"BLOBMaxSize\"=dword:00001000\r\n\r\n";

TEST(ConfigurationE2E, AConsoleBringsAnEmptyDatabaseToACompleteOne) {
  std::filesystem::remove(SqliteOdbcDir() / "kalvo.db");
  ServerProcess server("", kDatabaseKey);
  Console console(server.port());
  console.Send(401, "", "UPDATE");
  EXPECT_EQ(console.Receive().Misc1, "3") << "NoTables\n" << server.Log();

  const std::string nul(1, '\0');
  const std::string key = VersionInfoKeyText();
  console.Send(351,
               std::string(kSqliteDsn) + nul + EncryptText("", key) + nul + EncryptText("", key) +
                   nul + "VARCHAR" + nul + "200" + nul + "INTEGER" + nul + "BLOB" + nul + "8192" +
                   nul + "1",
               "6");
  SocketDataStruct reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 351);
  EXPECT_EQ(reply.Data, "0") << server.Log();
  console.Send(401, "", "UPDATE");
  reply = console.Receive();
  EXPECT_EQ(reply.Misc1, "1") << "UpToDate";
  EXPECT_EQ(reply.Misc3, "200") << "the new StringMaxSize is the server's";
  const std::string registry = server.RegistryText();
  EXPECT_NE(registry.find("\"StringMaxSize\"=dword:000000c8"), std::string::npos) << registry;
  EXPECT_NE(registry.find("\"BLOBMaxSize\"=dword:00002000"), std::string::npos) << registry;

  // The free query sees the default group.
  console.Send(701, "SELECT group_name FROM tbl_kdx_groups");
  EXPECT_EQ(console.Receive().Data, "Data:group_name$Jeder");
}

TEST(ConfigurationE2E, SettingsUpdateIsWrittenToTheRegistryFileUnderTheConsolesNames) {
  ServerProcess server("", kProduct + "\\KDX\\Backup]\r\n\r\n" + kProduct +
                               "\\KDX\\Log]\r\n\"LogServer\"=dword:00000001\r\n\r\n");
  Console console(server.port());
  console.Send(306, "4$5$6$1$2$3$True$77");
  const SocketDataStruct reply = console.Receive();
  EXPECT_EQ(reply.PackageID, 306);
  EXPECT_EQ(reply.Data, "");
  const std::string registry = server.RegistryText();
  for (const char* line :
       {"\"Automatic\"=dword:00000004", "\"Client\"=dword:00000006", "\"Server\"=dword:00000002",
        "\"LogServer\"=dword:00000001", "\"AuditIsActive\"=dword:ffffffff",
        "\"AuditDisplayMaxCount\"=dword:0000004d", "\"LogLevel\"=dword:00000007"}) {
    EXPECT_NE(registry.find(line), std::string::npos) << line << "\n" << registry;
  }
  console.Send(305);
  EXPECT_EQ(console.Receive().Data, "4$5$6$1$2$3$True$77$False$True$1000$False$365");
}

TEST(ConfigurationE2E, ConsoleRequestsFromOtherAddressesAreIgnored) {
  ServerProcess server("\"AdminAllowedAddresses\"=\"127.0.0.1\"\r\n");
  Console outsider(server.port(), "127.0.0.2");
  outsider.Send(311);
  outsider.Send(701, "SELECT 1");
  ASSERT_TRUE(server.WaitForLog("console request 701 from 127.0.0.2 ignored"));
  EXPECT_TRUE(server.WaitForLog("console request 311 from 127.0.0.2 ignored"));
  // A token client's request from there is answered; the first answer it gets is that one.
  outsider.Send(327, "A1B2C3D4-0000-4000-8000-00000000000A");
  SocketDataStruct reply = outsider.Receive();
  EXPECT_EQ(reply.PackageID, 327);
  Console admin(server.port());
  admin.Send(311);
  EXPECT_EQ(admin.Receive().PackageID, 311);
}

}  // namespace
}  // namespace kalvo::testing
