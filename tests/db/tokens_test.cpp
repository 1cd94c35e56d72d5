// Tokens, groups, rights and certificates on each engine.
#include "db/tokens.h"

#include <algorithm>

#include "db/groups.h"
#include "domain_fixture.h"
#include "infra/arrays.h"
#include "infra/runtime_error.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kBert = "A1B2C3D4-0000-4000-8000-00000000000B";
constexpr const char* kAdmins = "6A000000-0000-4000-8000-000000000001";
constexpr const char* kUsers = "6B000000-0000-4000-8000-000000000002";

using TokensTest = DomainDbTest;

TEST_P(TokensTest, FirstLogonRegistersTheTokenInJederAndLaterOnesUpdateIt) {
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.7", "CN=Anna"), "NEWTOKEN");
  EXPECT_EQ(Query(std::string("SELECT token_person, token_description, token_creation, "
                              "token_last_use, token_last_ip, token_user_dn FROM tbl_kdx_token")),
            "unknown (anna)||2027-03-01-09-05-03|2027-03-01-09-05-03|10.0.0.7|CN=Anna");
  EXPECT_EQ(Query("SELECT token_guid, group_guid FROM tbl_kdx_token_groups"),
            std::string(kAnna) + "|" + kJeder);

  ClearLog();
  SetClock("2027-03-02-10-00-00");
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.8", "CN=Anna,OU=X"),
            std::string("2027-03-02-10-00-00") + '\0' + "CN=Anna,OU=X");
  EXPECT_TRUE(Logged(std::string("{UPDATE tbl_kdx_token SET token_last_use = "
                                 "'2027-03-02-10-00-00', token_last_ip = '10.0.0.8' , "
                                 "token_user_dn = 'CN=Anna,OU=X' WHERE token_guid = '") +
                     kAnna + "'}"));
  EXPECT_TRUE(Logged("DBSetLastTokenConnect (OK)"));
  EXPECT_EQ(Query("SELECT token_creation, token_last_use, token_last_ip FROM tbl_kdx_token"),
            "2027-03-01-09-05-03|2027-03-02-10-00-00|10.0.0.8");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token_groups"), "1");
}

TEST_P(TokensTest, WithoutAGroupNamedJederTheTokenStaysWithoutGroup) {
  MustExecute({"UPDATE tbl_kdx_groups SET group_name = 'Everyone'"});
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", ""), "");
  EXPECT_TRUE(Logged("GUID von Jeder nicht ermittelt"));
  EXPECT_EQ(Query("SELECT token_person FROM tbl_kdx_token"), "");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token"), "1");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token_groups"), "0");
}

TEST_P(TokensTest, RightsAreTheUnionOfTheGroupsAbilities) {
  MustExecute(
      {"INSERT INTO tbl_kdx_token VALUES ('" + std::string(kAnna) + "','','','','','','','')",
       "INSERT INTO tbl_kdx_groups VALUES ('" + std::string(kAdmins) + "','a','',3)",
       "INSERT INTO tbl_kdx_groups VALUES ('" + std::string(kUsers) + "','u','',12)",
       "INSERT INTO tbl_kdx_token_groups VALUES ('" + std::string(kAnna) + "','" + kAdmins + "')",
       "INSERT INTO tbl_kdx_token_groups VALUES ('" + std::string(kAnna) + "','" + kUsers + "')"});
  EXPECT_EQ(DBGetTokenRights(db(), kAnna), 15);
  EXPECT_EQ(DBGetTokenRights(db(), kBert), 0) << "a token in no group";
  // One group keeps every bit; with a second group only the five ability bits remain.
  MustExecute(
      {"UPDATE tbl_kdx_groups SET group_abilities = 35 WHERE group_name = 'a'",
       "DELETE FROM tbl_kdx_token_groups WHERE group_guid = '" + std::string(kUsers) + "'"});
  EXPECT_EQ(DBGetTokenRights(db(), kAnna), 35);
  MustExecute(
      {"UPDATE tbl_kdx_groups SET group_abilities = 0 WHERE group_name = 'u'",
       "INSERT INTO tbl_kdx_token_groups VALUES ('" + std::string(kAnna) + "','" + kUsers + "')"});
  EXPECT_EQ(DBGetTokenRights(db(), kAnna), 3);
  const std::string groups = DBGetTokenData(db(), kAnna);
  const std::string a = std::string("a\r\n") + kAdmins, u = std::string("u\r\n") + kUsers;
  EXPECT_TRUE(groups == a + "|" + u || groups == u + "|" + a) << groups;
}

TEST(DBGetMaxValue, KeepsAllBitsOfOneValueAndFiveBitsOfSeveral) {
  EXPECT_EQ(DBGetMaxValue("", "$"), 0);
  EXPECT_EQ(DBGetMaxValue("35", "$"), 35);
  EXPECT_EQ(DBGetMaxValue("-1", "$"), -1);
  EXPECT_EQ(DBGetMaxValue("35$0", "$"), 3);
  EXPECT_EQ(DBGetMaxValue("3$12$1", "$"), 15);
  EXPECT_EQ(DBGetMaxValue("31$31", "$"), 31);
  EXPECT_THROW(DBGetMaxValue("3$x", "$"), RuntimeError);
}

TEST_P(TokensTest, TokenListShowsCertificateAndCurrentAddresses) {
  EXPECT_EQ(DBGetTokenList(db(), nullptr, nullptr), "") << "no tokens";
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.7", "CN=A"), "NEWTOKEN");
  ASSERT_EQ(DBSetLastTokenConnect(db(), kBert, "", "10.0.0.9", ""), "NEWTOKEN");
  ASSERT_TRUE(DBSetTokenData(db(), kBert, "Bert Müller|Laptop"));
  EXPECT_TRUE(Logged("DBSetTokenData (OK)"));
  ASSERT_TRUE(DBSetCertificate(db(), "CERT", kBert));
  const LanguageLookup language = [](std::string_view section, std::string_view key) {
    return section == "GENERAL" ? std::string(key == "YES" ? "Ja" : "Nein") : std::string();
  };
  const std::string list = DBGetTokenList(db(), language, [](std::string_view guid) {
    return guid == kAnna ? std::string("10.0.0.7,10.0.0.8") : std::string();
  });
  const std::string stamp = "2027-03-01-09-05-03";
  const std::string anna = std::string(kAnna) + "$unknown (anna)$$" + stamp + "$" + stamp +
                           "$10.0.0.7$CN=A$Nein$10.0.0.7,10.0.0.8";
  const std::string bert =
      std::string(kBert) + "$Bert Müller$Laptop$" + stamp + "$" + stamp + "$10.0.0.9$$Ja$";
  EXPECT_TRUE(list == anna + "|" + bert || list == bert + "|" + anna) << list;
  EXPECT_FALSE(DBSetTokenData(db(), kBert, "no bar")) << "person and description are both needed";
}

// The list's certificate column says whether a row with the GUID made of the first 36
// characters of the token's text holds a certificate that differs from the empty text. Each
// case is one token row (or two); `flags` gives the column per engine, SQLite|PostgreSQL|MariaDB.
TEST_P(TokensTest, TokenListCertificateColumnOnEveryKindOfRow) {
  const bool maria = GetParam() == Engine::kMariaDb;
  const std::string backslash = maria ? "\\\\" : "\\";
  const struct {
    const char* name;
    std::string guid;
    const char* person;
    const char* certificate;  // SQL of the stored value
  } rows[] = {
      {"stored certificate", "C0000000-0000-4000-8000-000000000001", "p", "'CERT'"},
      {"empty text", "C0000000-0000-4000-8000-000000000002", "p", "''"},
      {"NULL", "C0000000-0000-4000-8000-000000000003", "p", "NULL"},
      {"duplicate without", "C0000000-0000-4000-8000-000000000005", "p", "''"},
      {"duplicate with", "C0000000-0000-4000-8000-000000000005", "p", "'X'"},
      {"short GUID", "SHORT-1", "p", "'X'"},
      {"apostrophe in the GUID", "C0000000-0000-4000-8000-00000000''07", "p", "'X'"},
      {"lower-case twin without", "c0000000-0000-4000-8000-0000000000aa", "p", "''"},
      {"upper-case twin with", "C0000000-0000-4000-8000-0000000000AA", "p", "'X'"},
      {"bar in the person", "C0000000-0000-4000-8000-000000000009", "Bob|Ext", "'X'"},
      {"backslash in the GUID", "C0000000-0000-4000-8000-00000000" + backslash + "010", "p", "'X'"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    MustExecute({"INSERT INTO tbl_kdx_token VALUES ('" + r.guid + "','" + r.person +
                 "','','c','u',''," + r.certificate + ",'')"});
  }
  // A certificate stored and then removed through the operations.
  const std::string removed = "C0000000-0000-4000-8000-000000000004";
  MustExecute({"INSERT INTO tbl_kdx_token VALUES ('" + removed + "','p','','c','u','','','')"});
  ASSERT_TRUE(DBSetCertificate(db(), "CERT", removed));
  ASSERT_TRUE(DBSetCertificate(db(), "", removed));

  const LanguageLookup language = [](std::string_view, std::string_view key) {
    return std::string(key == "YES" ? "J" : "N");
  };
  std::vector<std::string> list = Split(DBGetTokenList(db(), language, nullptr), "|");
  std::sort(list.begin(), list.end());
  const auto row = [](std::string_view guid, std::string_view flag) {
    return std::string(guid) + "$p$$c$u$$$" + std::string(flag) + "$";
  };
  // MariaDB compares GUIDs without case and refuses a backslash in a value.
  std::vector<std::string> expected = {
      row("C0000000-0000-4000-8000-000000000001", "J"),
      row("C0000000-0000-4000-8000-000000000002", "N"),
      row("C0000000-0000-4000-8000-000000000003", "N"),
      row(removed, "N"),
      row("C0000000-0000-4000-8000-000000000005", "J"),
      row("C0000000-0000-4000-8000-000000000005", "J"),
      "SHORT-1$p$$c$u$$$N$",
      row("C0000000-0000-4000-8000-00000000'07", "N"),
      row("c0000000-0000-4000-8000-0000000000aa", maria ? "J" : "N"),
      row("C0000000-0000-4000-8000-0000000000AA", "J"),
      "C0000000-0000-4000-8000-000000000009$Bob",
      "Ext$$c$u$$$N$",
      row("C0000000-0000-4000-8000-00000000\\010", maria ? "N" : "J"),
  };
  // The part after the bar continues the row it was cut from, and gets its own columns.
  expected[10] += "$J$";
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(list, expected);
}

TEST_P(TokensTest, CertificateIsStoredByteExactlyAndOnlyForAKnownToken) {
  EXPECT_FALSE(DBSetCertificate(db(), "CERT", kAnna)) << "no row to write into";
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", ""), "NEWTOKEN");
  EXPECT_EQ(DBTokenHasCertificate(db(), kAnna), 0);
  std::string record = std::string("f6") + '\0' + "f0" + '\0' + "\x80\xFC\xFF|$'\\";
  ASSERT_TRUE(DBSetCertificate(db(), record, kAnna));
  EXPECT_EQ(DBTokenHasCertificate(db(), kAnna), 1);
  EXPECT_TRUE(DBGetCertificateData(db(), kAnna) == record);
  // Storing the same bytes again is still a success, whatever the driver counts.
  EXPECT_TRUE(DBSetCertificate(db(), record, kAnna));
  // The empty certificate counts as none.
  ASSERT_TRUE(DBSetCertificate(db(), "", kAnna));
  EXPECT_EQ(DBTokenHasCertificate(db(), kAnna), 0);
  EXPECT_EQ(DBGetCertificateData(db(), kAnna), "");
}

TEST_P(TokensTest, DeleteTokenRemovesEverythingOfItAndUnknownOnesAreNoFailure) {
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", ""), "NEWTOKEN");
  ASSERT_EQ(DBSetLastTokenConnect(db(), kBert, "", "10.0.0.9", ""), "NEWTOKEN");
  const std::string a(kAnna);
  MustExecute(
      {"INSERT INTO tbl_kdx_backup VALUES ('" + a + "','b',1,1,1,0,'','t')",
       "INSERT INTO tbl_kdx_job_members VALUES ('x','" + a + "')",
       "INSERT INTO tbl_kdx_job_state VALUES ('x','" + a + "','t',1,1)",
       "INSERT INTO tbl_kdx_logging_client VALUES ('" + a + "','','CONNECT','t','','','')"});
  EXPECT_EQ(DBDeleteToken(db(), a + "\r\n" + "00000000-0000-0000-0000-000000000000"), "OK");
  for (const char* table : {"tbl_kdx_token", "tbl_kdx_token_groups", "tbl_kdx_backup",
                            "tbl_kdx_job_state", "tbl_kdx_logging_client"}) {
    EXPECT_EQ(
        Query(std::string("SELECT COUNT(*) FROM ") + table + " WHERE token_guid = '" + a + "'"),
        "0")
        << table;
  }
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_members"), "0");
  EXPECT_EQ(Query("SELECT token_guid FROM tbl_kdx_token"), kBert) << "the other token stays";

  // A list that fails part way deletes none of its tokens.
  EXPECT_EQ(DBDeleteToken(db(), std::string(kBert) + "\r\nx' OR 'a'='a"), "ERROR");
  EXPECT_EQ(Query("SELECT token_guid FROM tbl_kdx_token"), kBert);
}

TEST_P(TokensTest, ValuesWithQuotesFailTheOperationWithoutReachingTheDatabase) {
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", ""), "NEWTOKEN");
  ClearLog();
  // The classic: a GUID that would turn the delete into one of every token.
  EXPECT_EQ(DBDeleteToken(db(), "x' OR 'a'='a"), "ERROR");
  EXPECT_TRUE(Logged("value holds a quote character"));
  EXPECT_TRUE(
      Logged("DBExecuteSQLCommand (Error) {DELETE FROM tbl_kdx_token WHERE token_guid = "
             "'x' OR 'a'='a'}"));
  EXPECT_FALSE(Logged("DBExecuteSQLCommand (OK)"));
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token"), "1");
  EXPECT_EQ(db().last_error_description(), "value holds a quote character");

  EXPECT_FALSE(DBSetTokenData(db(), kAnna, "O'Brien|x"));
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", "CN=O'Brien"), "");
  EXPECT_EQ(Query("SELECT token_person FROM tbl_kdx_token"), "");
  if (GetParam() == Engine::kMariaDb) {
    // MariaDB reads a backslash in a literal as an escape, so it is refused like a quote.
    EXPECT_FALSE(DBSetTokenData(db(), kAnna, "DOMAIN\\anna|x"));
    EXPECT_TRUE(Logged("value holds a quote character"));
    EXPECT_EQ(Query("SELECT token_person FROM tbl_kdx_token"), "");
    return;
  }
  // A backslash is an ordinary character on the other engines.
  EXPECT_TRUE(DBSetTokenData(db(), kAnna, "DOMAIN\\anna|x"));
  EXPECT_EQ(Query("SELECT token_person FROM tbl_kdx_token"), "DOMAIN\\anna");
}

TEST_P(TokensTest, AnUnreachableDatabaseGivesEachOperationsEmptyResult) {
  DatabaseSettings s = Settings();
  s.dsn = "kalvo_no_such_dsn";
  db().set_settings(s);
  EXPECT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "1.2.3.4", ""), "");
  EXPECT_TRUE(
      Logged("Verbindungsherstellung zur Datenbank nicht erfolgreich (DBSetLastTokenConnect)"));
  EXPECT_EQ(DBDeleteToken(db(), kAnna), "ERROR");
  EXPECT_TRUE(Logged("Verbindungsherstellung zur Datenbank nicht erfolgreich! (DBDeleteToken)"));
  EXPECT_EQ(DBGetTokenRights(db(), kAnna), 0);
  EXPECT_EQ(DBGetGroupData(db()), "");
  EXPECT_FALSE(DBSetGroupData(db(), ""));
}

// Groups -------------------------------------------------------------------------------------

using GroupsTest = DomainDbTest;

TEST_P(GroupsTest, ReplacingTheGroupsKeepsAnyTextAndAcceptsMembersWithPersons) {
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.7", ""), "NEWTOKEN");
  ASSERT_EQ(DBSetLastTokenConnect(db(), kBert, "", "10.0.0.9", ""), "NEWTOKEN");
  const std::string data = std::string(kAdmins) + "|O'Neil's admins|a \\ b; DROP|3|" + kAnna +
                           ",unknown (anna)$" + kBert + "\r\n" + kUsers + "||||";
  ASSERT_TRUE(DBSetGroupData(db(), data));
  EXPECT_EQ(Query("SELECT group_name, group_description, group_abilities FROM tbl_kdx_groups "
                  "WHERE group_guid = '" +
                  std::string(kAdmins) + "'"),
            "O'Neil's admins|a \\ b; DROP|3");
  EXPECT_EQ(Query("SELECT group_abilities FROM tbl_kdx_groups WHERE group_guid = '" +
                  std::string(kUsers) + "'"),
            "0")
      << "an empty abilities field is 0";
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token_groups"), "2") << "Jeder is gone";
  const std::string back = DBGetGroupData(db());
  EXPECT_NE(back.find(std::string(kAdmins) + "|O'Neil's admins|a \\ b; DROP|3|"), std::string::npos)
      << back;
  EXPECT_NE(back.find(std::string(kAnna) + ",unknown (anna)"), std::string::npos) << back;
  EXPECT_NE(back.find(std::string(kUsers) + "|||0|"), std::string::npos)
      << "a group without members keeps its last bar: " << back;
}

TEST_P(GroupsTest, ActionMembersThatAreNeitherTokenNorGroupAreRemoved) {
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "", "10.0.0.7", ""), "NEWTOKEN");
  MustExecute({"INSERT INTO tbl_kdx_job_members VALUES ('j','" + std::string(kAnna) + "')",
               "INSERT INTO tbl_kdx_job_members VALUES ('j','" + std::string(kAdmins) + "')",
               "INSERT INTO tbl_kdx_job_members VALUES ('j','" + std::string(kUsers) + "')"});
  ASSERT_TRUE(DBSetGroupData(db(), std::string(kAdmins) + "|a||1|"));
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_members WHERE member_guid = '" +
                  std::string(kUsers) + "'"),
            "0");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_job_members"), "2");
}

TEST_P(GroupsTest, AReplacementThatFailsLeavesTheGroupsAsTheyWere) {
  ASSERT_TRUE(DBSetGroupData(db(), std::string(kAdmins) + "|alt||1|"));
  // Too few fields in the second group, a refused member in the second case.
  for (const std::string& data :
       {std::string(kUsers) + "|a||1|\r\n" + kAdmins + "|u|",
        std::string(kUsers) + "|a||1|\r\n" + kAdmins + "|u||1|x' OR 'a'='a"}) {
    ClearLog();
    EXPECT_FALSE(DBSetGroupData(db(), data)) << data;
    EXPECT_EQ(Query("SELECT group_name FROM tbl_kdx_groups"), "alt") << data;
    EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token_groups"), "0") << data;
  }
}

TEST_P(GroupsTest, MemberChoicesAndGroupExpansion) {
  EXPECT_EQ(DBGetAllMemberGUIDs(db()), std::string("Jeder$") + kJeder + "\r\n");
  ASSERT_EQ(DBSetLastTokenConnect(db(), kAnna, "anna", "10.0.0.7", ""), "NEWTOKEN");
  EXPECT_EQ(DBGetAllMemberGUIDs(db()),
            std::string("Jeder$") + kJeder + "\r\nunknown (anna)$" + kAnna);
  DbConnection c(db());
  ASSERT_TRUE(DBConnect(c));
  std::vector<std::string> tokens{"stale"};
  EXPECT_TRUE(DBGetGroupMembers(c, tokens, kJeder));
  EXPECT_EQ(tokens, std::vector<std::string>{kAnna});
  EXPECT_TRUE(Logged("DBGetGroupMembers (OK)"));
  EXPECT_FALSE(DBGetGroupMembers(c, tokens, kAnna)) << "a token is no group";
  EXPECT_TRUE(tokens.empty());
}

KALVO_INSTANTIATE_ENGINES(TokensTest);
KALVO_INSTANTIATE_ENGINES(GroupsTest);

}  // namespace
}  // namespace kalvo::testing
