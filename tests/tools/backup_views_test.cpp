// The backup views of kalvoctl: reading the lists (names may hold "$"), the command-line
// words, and the table and JSON shown.
#include "kalvoctl/backup_views.h"

#include <gtest/gtest.h>

namespace kalvo::ctl {
namespace {

const std::string kG1 = "0A1B2C3D-0000-4000-8000-000000000001";
const std::string kG2 = "0A1B2C3D-0000-4000-8000-000000000002";

TEST(BackupViews, ListsAreReadWithFreeTextsInPlace) {
  auto rows = ParseTokenBackups("Karte$1$3$2\r\nalt$1$1");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].name, "Karte$1") << "type and index are the last two fields";
  EXPECT_EQ(rows[0].type, "3");
  EXPECT_EQ(rows[0].index, "2");
  EXPECT_TRUE(ParseTokenBackups("").empty());

  rows = ParseAllBackups(kG2 + "$b$2$10$M\xFCller$GmbH\r\nzwei\r\n" + kG1 + "$a$2$9$Anna");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].person, "M\xFCller$GmbH\r\nzwei") << "the person takes the rest";
  SortBackups(rows);
  EXPECT_EQ(rows[0].guid, kG1);
  EXPECT_EQ(rows[1].index, "10");

  rows = ParseTokenBackups("b$2$10\r\na$2$9\r\nc$1$11");
  SortBackups(rows);
  EXPECT_EQ(rows[0].name, "c") << "by type, then index as a number";
  EXPECT_EQ(rows[1].name, "a");
}

TEST(BackupViews, WordsAndNames) {
  EXPECT_EQ(BackupType("Client"), 3);
  EXPECT_EQ(BackupType("4"), 4);
  EXPECT_EQ(BackupType("all"), 4);
  EXPECT_FALSE(BackupType("5"));
  EXPECT_FALSE(BackupType(""));
  EXPECT_EQ(BackupTypeName("1"), "automatic");
  EXPECT_EQ(BackupTypeName("7"), "7");
  EXPECT_EQ(BackupNameProblem("Vor dem Tausch"), "");
  EXPECT_NE(BackupNameProblem("a|b"), "");
  EXPECT_NE(BackupNameProblem("Anna's"), "");
}

TEST(BackupViews, TableAndJson) {
  const std::vector<BackupRow> rows = {{kG1, "Anna", "Karte", "3", "1"}};
  EXPECT_EQ(FormatBackupTable({}, false), "No backups.\n");
  const std::string table = FormatBackupTable(rows, true);
  EXPECT_NE(table.find("TOKEN"), std::string::npos) << table;
  EXPECT_NE(table.find("client"), std::string::npos) << table;
  EXPECT_EQ(FormatTokenBackupsJson(kG1, true, {{"", "", "K\"1", "2", "x"}}),
            "{\"token\":\"" + kG1 +
                "\",\"certificate\":true,\"backups\":[{\"name\":\"K\\\"1\",\"type\":2,"
                "\"index\":null}]}\n");
  EXPECT_EQ(FormatAllBackupsJson(rows),
            "{\"backups\":[{\"token\":\"" + kG1 +
                "\",\"person\":\"Anna\",\"name\":\"Karte\",\"type\":3,\"index\":1}]}\n");
}

}  // namespace
}  // namespace kalvo::ctl
