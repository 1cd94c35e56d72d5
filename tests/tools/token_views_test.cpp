// The administrator views of kalvoctl without a socket: building requests, reading answers
// (well-formed and not), tables and JSON. Literals are Windows-1252 ("\xFC" is u-umlaut on the
// wire); expected output is UTF-8 ("\xC3\xBC").
#include "kalvoctl/token_views.h"

#include <gtest/gtest.h>

#include "infra/guid.h"
#include "kalvoctl/print.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {
namespace {

const std::string kG1 = "0A1B2C3D-0000-4000-8000-000000000001";
const std::string kG2 = "0a1b2c3d-0000-4000-8000-00000000000f";
const std::string kG3 = "0A1B2C3D-0000-4000-8000-000000000003";

// ---- Requests

TEST(GuidCheck, AcceptsOnlyTheServersForm) {
  EXPECT_TRUE(IsGUID(kG1));
  EXPECT_TRUE(IsGUID(kG2));  // lower case
  const struct {
    std::string text;
    const char* reason;
  } bad[] = {
      {"", "empty"},
      {"{" + kG1 + "}", "braces"},
      {kG1.substr(1), "35 characters"},
      {kG1 + "0", "37 characters"},
      {"0A1B2C3D00000-4000-8000-000000000001", "dash missing"},
      {"0A1B2C3D-0000-4000-8000-00000000000G", "G is no hex digit"},
      {"0A1B2C3-D0000-4000-8000-000000000001", "dash in the wrong place"},
      {"0A1B2C3D-0000-4000-8000-00000000000\xFC", "a byte above 0x7F"},
  };
  for (const auto& b : bad) EXPECT_FALSE(IsGUID(b.text)) << b.reason;
}

TEST(AuditActions, NamesMapToTheServersMaskBits) {
  std::string unknown;
  EXPECT_EQ(AuditActionMask({}, unknown), 0);
  EXPECT_EQ(AuditActionMask({"CONNECT"}, unknown), 1);
  EXPECT_EQ(AuditActionMask({"remove"}, unknown), 2);
  EXPECT_EQ(AuditActionMask({"Backup", "RESTORE"}, unknown), 4 | 8);
  EXPECT_EQ(AuditActionMask({"execute"}, unknown), 16);
  EXPECT_EQ(AuditActionMask({"DISCONNECT"}, unknown), 32);
  EXPECT_EQ(AuditActionMask({"error", " connect "}, unknown), 64 | 1);
  EXPECT_EQ(AuditActionMask({"CONNECT", "CONNECT"}, unknown), 1);
  EXPECT_EQ(
      AuditActionMask({"CONNECT", "REMOVE", "BACKUP", "RESTORE", "EXECUTE", "DISCONNECT", "ERROR"},
                      unknown),
      127);
  EXPECT_EQ(unknown, "");
}

TEST(AuditActions, AnUnknownNameIsReported) {
  std::string unknown;
  EXPECT_EQ(AuditActionMask({"CONNECT", "LOGIN", "FOO"}, unknown), std::nullopt);
  EXPECT_EQ(unknown, "LOGIN");
  EXPECT_EQ(AuditActionMask({""}, unknown), std::nullopt);
  EXPECT_EQ(unknown, "");
  EXPECT_EQ(AuditActionMask({"CONNEC"}, unknown), std::nullopt);
  EXPECT_EQ(AuditActionList(), "CONNECT, REMOVE, BACKUP, RESTORE, EXECUTE, DISCONNECT, ERROR");
}

TEST(AuditFilters, TimeBoundsBecomeTimestampTexts) {
  EXPECT_EQ(AuditTimeBound(""), "*");
  EXPECT_EQ(AuditTimeBound("2024-05-01-09-05-33"), "2024-05-01-09-05-33");
  EXPECT_EQ(AuditTimeBound("2024-05-01"), "2024-05-01-00-00-00");
  EXPECT_EQ(AuditTimeBound("2024-5-1 9:05"), "2024-05-01-09-05-00");
  EXPECT_EQ(AuditTimeBound("2024-05-01T09:05:33"), "2024-05-01-09-05-33");
  EXPECT_EQ(AuditTimeBound("02.05.2024 12:00"), "2024-05-02-12-00-00");
  EXPECT_EQ(AuditTimeBound("2024-13-01"), std::nullopt);
  EXPECT_EQ(AuditTimeBound("30.02.2024"), std::nullopt);
  EXPECT_EQ(AuditTimeBound("yesterday"), std::nullopt);
  EXPECT_EQ(AuditTimeBound("*"), std::nullopt);
}

TEST(AuditFilters, PatternsMustStayOnOneFilterLine) {
  EXPECT_TRUE(IsFilterText("M\xFCller*"));
  EXPECT_TRUE(IsFilterText("10.0.?.*"));
  EXPECT_FALSE(IsFilterText("a|b"));
  EXPECT_FALSE(IsFilterText("a\rb"));
  EXPECT_FALSE(IsFilterText("a\nb"));
}

TEST(AuditFilters, RequestCarriesEveryFilterInItsPlace) {
  const SocketDataStruct all = MakeAuditRequest({});
  EXPECT_EQ(all.PackageID, 329);
  EXPECT_EQ(all.Misc1, "0");
  EXPECT_EQ(all.Misc2, "*\r\n*\r\n*\r\n*");
  EXPECT_EQ(all.Misc3, "*\r\n*");
  EXPECT_EQ(all.Data, "");

  const SocketDataStruct some =
      MakeAuditRequest({34, "M\xFCller*", "jdoe", "0A1B*", "10.0.0.?", "2024-05-01-00-00-00", ""});
  EXPECT_EQ(some.Misc1, "34");
  EXPECT_EQ(some.Misc2, "M\xFCller*\r\njdoe\r\n0A1B*\r\n10.0.0.?");
  EXPECT_EQ(some.Misc3, "2024-05-01-00-00-00\r\n*");
  EXPECT_EQ(MakeAuditRequest({0, "", "", "", "", "", "2024-06-01-00-00-00"}).Misc3,
            "*\r\n2024-06-01-00-00-00");
}

// ---- Token list

TEST(TokenList, ReadsEveryFieldOfEveryRow) {
  const auto rows = ParseTokenList(kG1 +
                                   "$M\xFCller$Laptop$2024-05-01-09-05-33$2024-06-02-10-00-00$"
                                   "10.0.0.7$CN=M\xFCller,OU=IT$Ja$10.0.0.7,10.0.0.8|" +
                                   kG2 + "$Meier$$2024-01-01-00-00-00$$$$Nein$");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].guid, kG1);
  EXPECT_EQ(rows[0].person, "M\xFCller");
  EXPECT_EQ(rows[0].description, "Laptop");
  EXPECT_EQ(rows[0].created, "2024-05-01-09-05-33");
  EXPECT_EQ(rows[0].last_used, "2024-06-02-10-00-00");
  EXPECT_EQ(rows[0].last_ip, "10.0.0.7");
  EXPECT_EQ(rows[0].user_dn, "CN=M\xFCller,OU=IT");
  EXPECT_EQ(rows[0].has_certificate, "Ja");
  EXPECT_EQ(rows[0].addresses, (std::vector<std::string>{"10.0.0.7", "10.0.0.8"}));
  EXPECT_EQ(rows[1].guid, kG2);
  EXPECT_EQ(rows[1].description, "");
  EXPECT_EQ(rows[1].has_certificate, "Nein");
  EXPECT_TRUE(rows[1].addresses.empty());  // offline
}

TEST(TokenList, MalformedRowsKeepTheirFieldsInPlace) {
  EXPECT_TRUE(ParseTokenList("").empty());
  // Too few fields: the missing ones are empty.
  auto rows = ParseTokenList(kG1 + "$Meier");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].person, "Meier");
  EXPECT_EQ(rows[0].has_certificate, "");
  // A "$" in the person: the fields after it stay where they belong.
  rows = ParseTokenList(kG1 + "$Meier $ Co$Desk$c$u$1.2.3.4$dn$Yes$");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].person, "Meier $ Co");
  EXPECT_EQ(rows[0].description, "Desk");
  EXPECT_EQ(rows[0].has_certificate, "Yes");
  // A "|" in a description does not start a row: the next piece starts with no GUID.
  rows = ParseTokenList(kG1 + "$Meier$A|B$c$u$ip$dn$Yes$|" + kG2 + "$Kurz$$c$u$ip$dn$No$");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].description, "A|B");
  EXPECT_EQ(rows[0].has_certificate, "Yes");
  EXPECT_EQ(rows[1].person, "Kurz");
  // A "|" after the last row starts none.
  EXPECT_EQ(ParseTokenList(kG1 + "$a$b$c$d$e$f$g$h|").size(), 1u);
}

TEST(TokenList, DatabaseWarningNamesTheState) {
  EXPECT_EQ(DatabaseStateWarning("1"), "");
  EXPECT_EQ(DatabaseStateWarning("2"),
            "the server's database is not ready: state 2 (ConnectFailed)");
  EXPECT_EQ(DatabaseStateWarning("3"), "the server's database is not ready: state 3 (NoTables)");
  EXPECT_EQ(DatabaseStateWarning("6"), "the server's database is not ready: state 6 (DataMissing)");
  EXPECT_EQ(DatabaseStateWarning("0"), "the server's database is not ready: state 0 (Unknown)");
  EXPECT_EQ(DatabaseStateWarning("7"), "the server's database is not ready: state 7 (Unknown)");
  EXPECT_EQ(DatabaseStateWarning(""), "the server's database state is unknown: \"\"");
  EXPECT_EQ(DatabaseStateWarning("x\xFC"), "the server's database state is unknown: \"x\xC3\xBC\"");
}

TEST(TokenList, TableIsAlignedByCharactersAndPrintedAsUtf8) {
  const auto rows = ParseTokenList(kG1 + "$M\xFCller$Laptop$2024-05-01-09-05-33$$10.0.0.7$$Ja$" +
                                   "10.0.0.7,10.0.0.8|" + kG2 + "$Li$Tab\tlet$x$$$$Nein$");
  // Columns: GUID 36, PERSON 6 ("Müller" counts six characters), DESCRIPTION 11, CREATED 19,
  // LAST USE 8, LAST IP 8, USER DN 7, CERTIFICATE 11; the last column is not padded.
  EXPECT_EQ(FormatTokenTable(rows),
            "GUID                                  PERSON  DESCRIPTION  CREATED              "
            "LAST USE  LAST IP   USER DN  CERTIFICATE  ADDRESSES\n" +
                kG1 + "  M\xC3\xBCller  Laptop       2024-05-01 09:05:33" + std::string(12, ' ') +
                "10.0.0.7" + std::string(11, ' ') + "Ja" + std::string(11, ' ') +
                "10.0.0.7,10.0.0.8\n" + kG2 + "  Li      Tab\\tlet     x" +
                std::string(18 + 2 + 8 + 2 + 8 + 2 + 7 + 2, ' ') + "Nein\n");
  EXPECT_EQ(FormatTokenTable({}), "No tokens.\n");
}

TEST(TokenList, JsonHasNamedFieldsAndAnAddressArray) {
  const auto rows =
      ParseTokenList(kG1 + "$M\xFCller \"M\"$$2024-05-01-09-05-33$u$ip$dn$Ja$10.0.0.7,10.0.0.8");
  EXPECT_EQ(FormatTokenJson(rows),
            "[{\"guid\":\"" + kG1 +
                "\",\"person\":\"M\xC3\xBCller \\\"M\\\"\",\"description\":\"\","
                "\"created\":\"2024-05-01T09:05:33\","
                "\"lastUsed\":null,\"lastIp\":\"ip\",\"userDn\":\"dn\",\"hasCertificate\":true,"
                "\"addresses\":[\"10.0.0.7\",\"10.0.0.8\"]}]\n");
  EXPECT_EQ(FormatTokenJson({}), "[]\n");
}

TEST(JsonValues, TimesAndYesNoWordsDoNotDependOnTheServersLanguage) {
  const struct {
    const char* server;
    const char* time;   // JsonTimeOrNull
    const char* yesno;  // JsonYesNoOrNull
  } cases[] = {
      {"2026-11-24-02-43-37", "\"2026-11-24T02:43:37\"", "null"},
      {"", "null", "null"},                      // no time yet
      {"2026-11-24 02:43:37", "null", "null"},   // another shape is not guessed at
      {"2026-11-24-02-43-3x", "null", "null"},   // a letter among the digits
      {"2026-11-24-02-43-370", "null", "null"},  // one character too many
      {"Ja", "null", "true"},                    // German language file
      {"Nein", "null", "false"},
      {"YES", "null", "true"},  // English, any case
      {"no", "null", "false"},
      {"Oui", "null", "null"},  // a word no shipped file uses
  };
  for (const auto& c : cases) {
    EXPECT_EQ(JsonTimeOrNull(c.server), c.time) << c.server;
    EXPECT_EQ(JsonYesNoOrNull(c.server), c.yesno) << c.server;
  }
}

// ---- Groups

TEST(GroupList, ReadsGroupsAndMembers) {
  const auto groups = ParseGroupList(kG1 + "|Jeder|Alle Tokens|5|" + kG2 + ",M\xFCller$" + kG3 +
                                     ",Meier\r\n" + kG3 + "|Leer||0|");
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0].guid, kG1);
  EXPECT_EQ(groups[0].name, "Jeder");
  EXPECT_EQ(groups[0].description, "Alle Tokens");
  EXPECT_EQ(groups[0].abilities, "5");
  ASSERT_EQ(groups[0].members.size(), 2u);
  EXPECT_EQ(groups[0].members[0].guid, kG2);
  EXPECT_EQ(groups[0].members[0].person, "M\xFCller");
  EXPECT_EQ(groups[0].members[1].person, "Meier");
  EXPECT_EQ(groups[1].name, "Leer");
  EXPECT_TRUE(groups[1].members.empty());
}

TEST(GroupList, SeparatorsInsideTextsDoNotSplitRecords) {
  EXPECT_TRUE(ParseGroupList("").empty());
  // A member's person with "," (split at the first one) and with "$" (the piece after it
  // starts with no GUID, so it belongs to the member before).
  auto groups = ParseGroupList(kG1 + "|G|d|1|" + kG2 + ",Meier, Hans$" + kG3 + ",A$B$C");
  ASSERT_EQ(groups.size(), 1u);
  ASSERT_EQ(groups[0].members.size(), 2u);
  EXPECT_EQ(groups[0].members[0].person, "Meier, Hans");
  EXPECT_EQ(groups[0].members[1].guid, kG3);
  EXPECT_EQ(groups[0].members[1].person, "A$B$C");
  // A description with a line break and a "|".
  groups = ParseGroupList(kG1 + "|G|one\r\ntwo|three|2|\r\n" + kG2 + "|H||0|");
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0].description, "one\r\ntwo|three");
  EXPECT_EQ(groups[0].abilities, "2");
  EXPECT_EQ(groups[1].name, "H");
  // Too few fields; a member without ",".
  groups = ParseGroupList(kG1 + "|Kurz\r\n" + kG2 + "|G|d|1|" + kG3);
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0].name, "Kurz");
  EXPECT_EQ(groups[0].abilities, "");
  ASSERT_EQ(groups[1].members.size(), 1u);
  EXPECT_EQ(groups[1].members[0].guid, kG3);
  EXPECT_EQ(groups[1].members[0].person, "");
}

TEST(GroupList, TableCountsMembersAndJsonListsThem) {
  const auto groups =
      ParseGroupList(kG1 + "|Jeder|Alle|5|" + kG2 + ",M\xFCller, H.\r\n" + kG3 + "|Leer||x|");
  EXPECT_EQ(FormatGroupTable(groups),
            "GUID                                  NAME   DESCRIPTION  ABILITIES  MEMBERS\n" + kG1 +
                "  Jeder  Alle         5          1\n" + kG3 +
                "  Leer                x          0\n");
  EXPECT_EQ(FormatGroupJson(groups),
            "[{\"guid\":\"" + kG1 +
                "\",\"name\":\"Jeder\",\"description\":\"Alle\",\"abilities\":5,\"members\":["
                "{\"guid\":\"" +
                kG2 + "\",\"person\":\"M\xC3\xBCller, H.\"}]},{\"guid\":\"" + kG3 +
                "\",\"name\":\"Leer\",\"description\":\"\",\"abilities\":null,\"members\":[]}]\n");
  EXPECT_EQ(FormatGroupTable({}), "No groups.\n");
}

// ---- Rights

TEST(TokenRights, GroupsArePairedNameThenGuid) {
  EXPECT_TRUE(ParseTokenGroups("").empty());
  auto groups = ParseTokenGroups("Jeder\r\n" + kG1 + "|M\xFC|nchen\r\n" + kG2);
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0].name, "Jeder");
  EXPECT_EQ(groups[0].guid, kG1);
  EXPECT_EQ(groups[1].name, "M\xFC|nchen");  // a "|" in the name
  EXPECT_EQ(groups[1].guid, kG2);
  // Malformed: an entry without a line break is a name alone; a trailing "|" adds nothing.
  groups = ParseTokenGroups("Jeder\r\n" + kG1 + "|Rest|");
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[1].name, "Rest|");
  EXPECT_EQ(groups[1].guid, "");
}

TEST(TokenRights, ShownAsNumberAndGroupTable) {
  const auto groups = ParseTokenGroups("Jeder\r\n" + kG1 + "|M\xFCnchen\r\n" + kG2);
  EXPECT_EQ(FormatRightsText("21", groups),
            "Rights: 21\nGROUP    GUID\nJeder    " + kG1 + "\nM\xC3\xBCnchen  " + kG2 + "\n");
  EXPECT_EQ(FormatRightsText("", {}), "Rights: ?\nNo groups.\n");
  EXPECT_EQ(FormatRightsJson(kG3, "21", groups),
            "{\"token\":\"" + kG3 + "\",\"rights\":21,\"groups\":[{\"name\":\"Jeder\",\"guid\":\"" +
                kG1 + "\"},{\"name\":\"M\xC3\xBCnchen\",\"guid\":\"" + kG2 + "\"}]}\n");
  EXPECT_EQ(FormatRightsJson(kG3, "many", {}),
            "{\"token\":\"" + kG3 + "\",\"rights\":null,\"groups\":[]}\n");
}

// ---- Audit

TEST(AuditRows, ReadsRowsAndKeepsFieldsInPlace) {
  EXPECT_TRUE(ParseAuditRows("").empty());
  const auto rows =
      ParseAuditRows(kG1 + "|M\xFCller|mm|CONNECT|2024-05-01-09-05-33|10.0.0.7|CN=x\r\n" + kG2 +
                     "|A|B|C|u|REMOVE|2024-05-01-09-00-00|10.0.0.8|dn\r\n" + kG3 + "|short\r\n");
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].token_guid, kG1);
  EXPECT_EQ(rows[0].person, "M\xFCller");
  EXPECT_EQ(rows[0].user_name, "mm");
  EXPECT_EQ(rows[0].action, "CONNECT");
  EXPECT_EQ(rows[0].timestamp, "2024-05-01-09-05-33");
  EXPECT_EQ(rows[0].ip, "10.0.0.7");
  EXPECT_EQ(rows[0].user_dn, "CN=x");
  EXPECT_EQ(rows[1].person, "A|B|C");  // "|" in the person
  EXPECT_EQ(rows[1].action, "REMOVE");
  EXPECT_EQ(rows[1].user_dn, "dn");
  EXPECT_EQ(rows[2].person, "short");
  EXPECT_EQ(rows[2].user_dn, "");
}

TEST(AuditRows, TableEndsWithHowManyOfTheTotalAreShown) {
  const auto rows = ParseAuditRows(kG1 + "|M\xFCller|mm|CONNECT|2024-05-01-09-05-33|10.0.0.7|dn");
  EXPECT_EQ(FormatAuditTable(rows, "40"),
            "TIME                 ACTION   PERSON  USER  IP        TOKEN                          "
            "       USER DN\n"
            "2024-05-01 09:05:33  CONNECT  M\xC3\xBCller  mm    10.0.0.7  " +
                kG1 + "  dn\n1 of 40 entries shown\n");
  EXPECT_EQ(FormatAuditTable({}, "0"), "0 of 0 entries shown\n");
  EXPECT_EQ(FormatAuditTable({}, ""), "0 of ? entries shown\n");
  EXPECT_EQ(FormatAuditJson(rows, "40"),
            "{\"total\":40,\"entries\":[{\"tokenGuid\":\"" + kG1 +
                "\",\"person\":\"M\xC3\xBCller\",\"userName\":\"mm\",\"action\":\"CONNECT\","
                "\"timestamp\":\"2024-05-01T09:05:33\",\"ip\":\"10.0.0.7\",\"userDn\":\"dn\"}]}\n");
  EXPECT_EQ(FormatAuditJson({}, "x"), "{\"total\":null,\"entries\":[]}\n");
}

// ---- Tables

TEST(Tables, CellsAreEscapedPaddedAndTrimmed) {
  EXPECT_EQ(FormatTable({"A", "B", "C"}, {{"x\r\ny", "", ""}, {"\xE4", "b"}}),
            "A       B  C\n"
            "x\\r\\ny\n"
            "\xC3\xA4       b\n");
  EXPECT_EQ(FormatTable({"A"}, {}), "A\n");
}

TEST(Tables, OnlyServerTimestampsAreRewrittenForPeople) {
  EXPECT_EQ(TimestampForPeople("2024-05-01-09-05-33"), "2024-05-01 09:05:33");
  EXPECT_EQ(TimestampForPeople(""), "");
  EXPECT_EQ(TimestampForPeople("2024-05-01-09-05-3"), "2024-05-01-09-05-3");
  EXPECT_EQ(TimestampForPeople("2024-05-01 09:05:33"), "2024-05-01 09:05:33");
  EXPECT_EQ(TimestampForPeople("2024-05-01-09-05-3x"), "2024-05-01-09-05-3x");
}

}  // namespace
}  // namespace kalvo::ctl
