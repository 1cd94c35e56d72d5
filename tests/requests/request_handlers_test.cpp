// The token, group, audit, inventory and certificate requests on each engine.
#include "db/audit.h"
#include "db/tokens.h"
#include "handlers_fixture.h"
#include "infra/arrays.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kCert = "Z1B2C3D4-0000-4000-8000-00000000000C";  // not a GUID

TEST_P(HandlersTest, ClientLogonIsAnsweredStoredAuditedAndBroadcast) {
  // No console: the client gets its reply and nothing else happens on the wire.
  auto sent = Handle(1, Packet(101, kAnna, "", "anna", "CN=Anna"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].index, 1);
  EXPECT_EQ(sent[0].packet, Packet(101, kAnna, "255", "2", "0") /* Jeder has no rights */)
      << sent[0].wire;
  EXPECT_EQ(peers_.peers[1].tag, std::string(kAnna) + '\0' + "CN=Anna" + '\0' + "anna");
  EXPECT_EQ(Query("SELECT token_person, token_user_dn FROM tbl_kdx_token"),
            "unknown (anna)|CN=Anna");
  EXPECT_EQ(Query("SELECT user_name, token_action, token_ip, token_user_dn FROM "
                  "tbl_kdx_logging_client"),
            "anna|CONNECT|10.0.0.1|CN=Anna");
  EXPECT_TRUE(Logged("DoSocketAction: ID: 101 Socket: 1 Daten gesendet"));

  // With a console: the client's reply comes first, then the console hears of the logon.
  RegisterConsole();
  SetClock("2027-03-01-10-00-00");
  sent = Handle(1, Packet(101, kAnna, "", "anna", "CN=Anna"));
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].index, 1);
  EXPECT_EQ(sent[1].index, 3);
  EXPECT_EQ(sent[1].packet, Packet(101, kAnna, "10.0.0.1",
                                   std::string("2027-03-01-10-00-00") + '\0' + "CN=Anna", "255"));
  EXPECT_TRUE(Logged("SendToAllAdmins: ID: 101 Socket: 3 Daten gesendet"));
}

TEST_P(HandlersTest, ANewTokenIsAnnouncedWithTheWholeListAndItsAddresses) {
  RegisterConsole();
  peers_.peers[2].tag = std::string(kAnna) + '\0' + "" + '\0' + "";  // the token elsewhere too
  const auto sent = Handle(1, Packet(101, kAnna, "", "", ""));
  ASSERT_EQ(sent.size(), 2u);
  const SocketDataStruct& news = sent[1].packet;
  EXPECT_EQ(news.PackageID, 401);
  EXPECT_EQ(news.Misc1, "10.0.0.1");
  EXPECT_EQ(news.Misc2, "NEWTOKEN");
  EXPECT_EQ(news.Misc3, "255");
  const std::vector<std::string> fields = Split(news.Data, "$");
  ASSERT_EQ(fields.size(), 9u) << news.Data;
  EXPECT_EQ(fields[0], kAnna);
  EXPECT_EQ(fields[7], "Nein");
  EXPECT_EQ(fields[8], "10.0.0.1,10.0.0.2");
}

TEST_P(HandlersTest, ConsolesOwnTokenGetsListReplyThenClientReplyThenBroadcast) {
  const auto sent = Handle(3, Packet(401, kAnna));
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].packet.PackageID, 401);
  EXPECT_EQ(sent[0].packet.Misc1, "1") << "the database is up to date";
  EXPECT_EQ(sent[0].packet.Data, "") << "the token is registered only afterwards";
  EXPECT_EQ(sent[1].packet.PackageID, 101) << "the re-entered record is not AdminWindow";
  EXPECT_EQ(sent[2].packet.Misc2, "NEWTOKEN");
  for (const auto& s : sent) EXPECT_EQ(s.index, 3);

  // Registered once however often it registers; UPDATE and an empty Data send the list only.
  EXPECT_EQ(Handle(3, Packet(401, kAnna, "UPDATE")).size(), 1u);
  EXPECT_EQ(Handle(3, Packet(401)).size(), 1u);
  EXPECT_EQ(state_.admin_connections.Count(), 1u);
  // A console's own 101 gets no direct reply; the consoles still hear of it.
  const auto own = Handle(3, Packet(101, kAnna, "AdminWindow"));
  ASSERT_EQ(own.size(), 1u);
  EXPECT_EQ(own[0].packet.PackageID, 101);
  EXPECT_EQ(own[0].packet.Misc1, "10.0.0.3");
}

TEST_P(HandlersTest, RemovalBroadcastsFirstThenAnswersSilentlyAndTheCloseNoticeCarriesTheTag) {
  RegisterConsole();
  Handle(1, Packet(101, kAnna, "", "anna", ""));
  ClearLog();
  auto sent = Handle(1, Packet(102, kAnna));
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].index, 3);
  EXPECT_EQ(sent[0].packet, Packet(102, kAnna, "10.0.0.1"));
  EXPECT_EQ(sent[1].index, 1);
  EXPECT_EQ(sent[1].wire, "14|102|0||||0|");
  EXPECT_FALSE(Logged("ID: 102 Socket: 1 Daten gesendet"));
  EXPECT_EQ(peers_.peers[1].tag, "");
  EXPECT_EQ(AuditActions(), "CONNECT$REMOVE");
  // A client's 102 with a malformed GUID is ignored.
  EXPECT_TRUE(Handle(1, Packet(102, "not-a-guid")).empty());

  // The connection layer's notice for a closing client: no GUID check, no audit entry.
  const std::string tag = std::string(kAnna) + '\0' + "DN" + '\0' + "anna";
  sent = Handle(0, Packet(102, tag, "10.0.0.1"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(102, tag, "10.0.0.1"));
  EXPECT_EQ(AuditActions(), "CONNECT$REMOVE");
}

TEST_P(HandlersTest, TokenEditsAnswerByBroadcastAndDeletionAnswersFirst) {
  Handle(1, Packet(101, kAnna, "", "anna", ""));
  RegisterConsole();
  auto sent = Handle(3, Packet(310, "Anna Berg|Laptop", kAnna));
  ASSERT_EQ(sent.size(), 1u) << "the sender's only answer is the broadcast";
  EXPECT_EQ(sent[0].packet.PackageID, 401);
  EXPECT_NE(sent[0].packet.Data.find("$Anna Berg$Laptop$"), std::string::npos);

  sent = Handle(2, Packet(307, kAnna));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(307, std::string("Jeder\r\n") + kJeder, "0"));

  sent = Handle(3, Packet(328, kAnna));
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].packet, Packet(328, "OK"));
  EXPECT_EQ(sent[1].packet, Packet(401, ""));
}

TEST_P(HandlersTest, GroupsAndChoiceLists) {
  Handle(1, Packet(101, kAnna, "", "anna", ""));
  auto sent = Handle(2, Packet(301));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.Data,
            std::string(kJeder) + "|Jeder|Alle|0|" + kAnna + ",unknown (anna)");
  sent = Handle(2, Packet(302, std::string(kJeder) + "|Jeder|Alle|5|" + kAnna));
  EXPECT_EQ(sent.at(0).packet, Packet(302, "OK"));
  EXPECT_EQ(Handle(2, Packet(302, "broken")).at(0).packet, Packet(302, "ERROR"));
  EXPECT_EQ(Handle(2, Packet(303)).at(0).packet.Data, "Jeder")
      << "a replacement that fails leaves the groups as they were";
  Handle(2, Packet(302, std::string(kJeder) + "|Jeder|Alle|5|"));
  EXPECT_EQ(Handle(2, Packet(303)).at(0).packet.Data, "Jeder");
  EXPECT_EQ(Handle(2, Packet(304)).at(0).packet.Data, "unknown (anna)");
  EXPECT_EQ(Handle(2, Packet(316)).at(0).packet.Data,
            std::string("Jeder$") + kJeder + "\r\nunknown (anna)$" + kAnna);
}

TEST_P(HandlersTest, GroupFieldsThatCannotBeStoredAnswerError) {
  // A name longer than its column fails the write on PostgreSQL and MariaDB; SQLite does not
  // enforce widths, so a trigger does it there.
  if (GetParam() == Engine::kSqlite) {
    MustExecute(
        {"CREATE TRIGGER name_width BEFORE UPDATE ON tbl_kdx_groups "
         "WHEN length(NEW.group_name) > 255 BEGIN SELECT RAISE(ABORT, 'value too long'); END"});
  }
  const std::string data = std::string(kJeder) + "|" + std::string(300, 'n') + "|Alle|5|";
  EXPECT_EQ(Handle(2, Packet(302, data)).at(0).packet, Packet(302, "ERROR"));
  EXPECT_TRUE(Logged("DBSetGroupData (Error)"));
}

TEST_P(HandlersTest, AnAuditQueryThatCannotConnectGivesTheRequestsMisc3Back) {
  DatabaseSettings s = Settings();
  s.dsn = "kalvo_no_such_dsn";
  db().set_settings(s);
  const auto sent = Handle(3, Packet(329, "", "1", "*\r\n*\r\n*\r\n*", "2027\r\n*"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(329, "", "", "", "2027\r\n*"));
}

TEST_P(HandlersTest, AuditQueryAndClearingAnswerAs329WithoutTheSentLine) {
  Handle(1, Packet(101, kAnna, "", "anna", ""));
  Handle(1, Packet(102, kAnna));
  ClearLog();
  auto sent = Handle(3, Packet(329, "", "1", "*\r\n*\r\n*\r\n*", "*\r\n*"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.PackageID, 329);
  EXPECT_EQ(sent[0].packet.Misc1, "");
  EXPECT_EQ(sent[0].packet.Misc3, "2") << "the total of the table";
  EXPECT_EQ(Split(sent[0].packet.Data, "|").at(3), "CONNECT");
  EXPECT_EQ(Split(sent[0].packet.Data, "\r\n").size(), 1u);
  EXPECT_FALSE(Logged("Daten gesendet"));

  sent = Handle(3, Packet(330));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(329, "", "Delete=OK", "", "0"));
  EXPECT_TRUE(Handle(3, Packet(329, "", "x")).empty()) << "a mask that is no number";
}

TEST_P(HandlersTest, CertificatesAreMadeStoredAndReadBackSilently) {
  Handle(1, Packet(101, kAnna, "", "", ""));
  ClearLog();
  std::string fields;
  for (const char* f : {"cn", "o", "ou", "l", "st", "c", "mail"}) fields += std::string(f) + '\0';
  fields.pop_back();
  auto sent = Handle(3, Packet(601, fields, kAnna));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.Misc1, "0");
  const std::string certificate = sent[0].packet.Data;
  EXPECT_FALSE(certificate.empty());
  EXPECT_TRUE(Logged("CreateCertificate returned true"));
  EXPECT_FALSE(Logged("Daten gesendet"));
  const std::string record = Handle(3, Packet(603, kAnna)).at(0).packet.Data;
  EXPECT_EQ(record, std::string("mail") + '\0' + "cn" + '\0' + "o" + '\0' + "ou" + '\0' + "l" +
                        '\0' + "st" + '\0' + "2027-03-01-09-05-03" + '\0' + "10.0.0.3" + '\0' +
                        certificate)
      << "field 5 is not stored";
  EXPECT_EQ(Handle(3, Packet(602, kAnna)).at(0).packet, Packet(602, "True"));
  EXPECT_EQ(Handle(3, Packet(602, kCert)).at(0).packet, Packet(602, "False"));

  // Made but not stored (no such token): 2; not made (six fields): 1.
  EXPECT_EQ(Handle(3, Packet(601, fields, kCert)).at(0).packet, Packet(601, "", "2"));
  EXPECT_EQ(Handle(3, Packet(601, "a\0b", kAnna)).at(0).packet, Packet(601, "", "1"));
}

TEST_P(HandlersTest, AMissingCertificateLibraryEndsTheRequestWithoutAnswer) {
  CertificateLibrary missing("/nonexistent/libcert.so");
  Dispatcher dispatcher(RequestContext{state_, peers_, SharedDatabases::Get().log(), settings_,
                                       db(), nullptr, missing, registry_});
  std::string fields(6, '\0');
  state_.current = Packet(601, fields, kAnna);
  peers_.sent.clear();
  dispatcher.DoSocketAction(3);
  EXPECT_TRUE(peers_.sent.empty());
  EXPECT_TRUE(Logged("(DoSocketAction)"));
}

TEST_P(HandlersTest, UnknownAndReservedNumbersGetNoAnswer) {
  for (int32_t id : {0, 103, 321, 331, 349, 402, 403, 999}) {
    EXPECT_TRUE(Handle(1, Packet(id, kAnna)).empty()) << id;
  }
  EXPECT_TRUE(state_.requests_by_package_id.empty()) << "unknown numbers are not counted";
}

KALVO_INSTANTIATE_ENGINES(HandlersTest);

}  // namespace
}  // namespace kalvo::testing
