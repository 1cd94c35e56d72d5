// The backup requests of clients (115, 116, 117) and consoles (308, 309, 315) on each engine.
#include "handlers_fixture.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kBert = "A1B2C3D4-0000-4000-8000-00000000000B";

// Every byte value, "|" and NUL among them, and longer than one part.
std::string EveryByte() {
  std::string bytes;
  for (int round = 0; round < 5; ++round) {
    for (int b = 0; b < 256; ++b) bytes += static_cast<char>(round % 2 ? 255 - b : b);
  }
  return bytes;
}

class BackupRequestsTest : public HandlersTest {
 protected:
  // Connection `index` registers token `guid` as a client; its reply is dropped.
  void Logon(int index, std::string_view guid) {
    Handle(index, Packet(101, std::string(guid), "", "user", ""));
  }
};

TEST_P(BackupRequestsTest, AClientStoresAndRestoresItsBackupByteForByte) {
  Logon(1, kAnna);
  const std::string backup = EveryByte();
  auto sent = Handle(1, Packet(115, backup, "", "3", "Mein Token"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(115, "OK", "", "3")) << "Misc2 stays as sent";
  EXPECT_TRUE(Logged("DoSocketAction: ID: 115 Socket: 1 Daten gesendet"));
  // The backup is key material: its size is logged, none of its bytes.
  EXPECT_TRUE(Logged("DoSocketAction: Misc1: - Misc2: 3 - Misc3: Mein Token - Data: 1280 bytes"));
  EXPECT_EQ(LogText().find(backup.substr(300, 64)), std::string::npos);
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_backup WHERE backup_type = 3"), "2");

  sent = Handle(1, Packet(116, "", "1", "3"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.Data.size(), backup.size());
  EXPECT_EQ(sent[0].packet, Packet(116, backup));
  EXPECT_EQ(AuditActions(), "BACKUP$CONNECT$RESTORE");
}

TEST_P(BackupRequestsTest, RefusedAndFailedStoresSayWhy) {
  settings_.backup_client = 1;
  Logon(1, kAnna);
  EXPECT_EQ(Handle(1, Packet(115, "eins", "", "3", "a")).at(0).packet.Data, "OK");
  EXPECT_EQ(Handle(1, Packet(115, "zwei", "", "3", "b")).at(0).packet,
            Packet(115, "TOOMUCH", "", "3"));
  EXPECT_EQ(Handle(1, Packet(115, "zwei", "", "1", "Anna's")).at(0).packet,
            Packet(115, "Error", "", "1"));

  // A type that is no number is a run-time error after the audit entry: no answer.
  ClearLog();
  EXPECT_TRUE(Handle(1, Packet(115, "x", "", "drei", "c")).empty());
  EXPECT_TRUE(Logged("(DoSocketAction)"));
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_logging_client WHERE token_action = 'BACKUP'"),
            "4");
}

TEST_P(BackupRequestsTest, AClientListsOnlyItsOwnBackups) {
  Logon(1, kAnna);
  Logon(2, kBert);
  Handle(1, Packet(115, "a", "", "3", "anna"));
  Handle(2, Packet(115, "b", "", "1", "bert"));

  auto sent = Handle(1, Packet(117, "", "4"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(308, "anna$3$1", "4", "0"));
  EXPECT_TRUE(Logged("DoSocketAction: ID: 308 Socket: 1 Daten gesendet"));
  EXPECT_EQ(Handle(1, Packet(117, "", "1")).at(0).packet, Packet(308, "", "1", "0"));
  // Without a token of its own a connection must not see everybody's.
  peers_.peers[3].tag = "";
  EXPECT_EQ(Handle(3, Packet(117, "", "4")).at(0).packet, Packet(308, "", "4", "0"));
}

TEST_P(BackupRequestsTest, ConsolesListAndFetchAnyTokensBackups) {
  Logon(1, kAnna);
  Handle(1, Packet(115, "erster", "", "2", "admin"));
  SetClock("2027-03-02-08-00-00");
  Handle(1, Packet(115, "zweiter", "", "2", "admin"));
  MustExecute({"UPDATE tbl_kdx_token SET token_person = 'Anna', token_certificate = 'C'"});

  auto sent = Handle(3, Packet(308, kAnna, "2"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.Misc1, "2");
  EXPECT_EQ(sent[0].packet.Misc2, "1") << "the token has a certificate";
  EXPECT_EQ(sent[0].packet.Data.size(), std::string("admin$2$1\r\nadmin$2$2").size());

  sent = Handle(3, Packet(309, kAnna, "2", "2"));
  ASSERT_EQ(sent.size(), 1u);
  SocketDataStruct expected = Packet(309, "erster", "2027-03-01-09-05-03", kAnna);
  expected.Reserved = 1;
  EXPECT_EQ(sent[0].packet, expected);
  EXPECT_EQ(sent[0].wire.substr(0, sent[0].wire.find(kAnna)), "75|309|1|2027-03-01-09-05-03|");

  sent = Handle(3, Packet(315));
  ASSERT_EQ(sent.size(), 1u);
  const std::string all = sent[0].packet.Data;
  EXPECT_NE(all.find(std::string(kAnna) + "$admin$2$1$Anna"), std::string::npos) << all;
  EXPECT_NE(all.find(std::string(kAnna) + "$admin$2$2$Anna"), std::string::npos) << all;
  EXPECT_EQ(AuditActions(), "BACKUP$CONNECT$BACKUP") << "consoles are not audited";
}

KALVO_INSTANTIATE_ENGINES(BackupRequestsTest);

}  // namespace
}  // namespace kalvo::testing
