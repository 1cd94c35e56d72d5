// The settings view of kalvoctl: the names, the checks of --set values, reading the server's
// thirteen values and the table and JSON shown.
#include "kalvoctl/settings_views.h"

#include <gtest/gtest.h>

namespace kalvo::ctl {
namespace {

// A 305 answer: backups 3/5/2, log 1/2/0, audit active, 500 shown, limited, save 1000, by
// days 90.
const std::string kReport = "3$5$2$1$2$0$True$500$False$True$1000$False$90";

constexpr size_t kLogServer = 4;
constexpr size_t kAuditIsActive = 6;

TEST(SettingsViews, NamesAreFoundInAnyCaseInWireOrder) {
  EXPECT_EQ(SettingIndex("BackupAutomatic"), 0u);
  EXPECT_EQ(SettingIndex("logserver"), kLogServer);
  EXPECT_EQ(SettingIndex("AUDITSAVEMAXDAYS"), 12u);
  EXPECT_FALSE(SettingIndex("Automatic")) << "the wire's short names are not the names";
  EXPECT_FALSE(SettingIndex(""));
  EXPECT_EQ(SettingNames().find("BackupAutomatic, BackupAdmin, BackupClient, LogAdmin"), 0u);
}

TEST(SettingsViews, ValuesTravelAsWholeNumbersOrTrueFalse) {
  const struct {
    size_t index;
    std::string text;
    std::optional<std::string> wire;
    const char* reason;
  } cases[] = {
      {kLogServer, "4", "4", "a number"},
      {kLogServer, " +07 ", "7", "a number as written, sent plain"},
      {kLogServer, "-2147483648", "-2147483648", "the smallest 32-bit number"},
      {kLogServer, "2147483647", "2147483647", "the largest 32-bit number"},
      {kLogServer, "2147483648", std::nullopt, "beyond 32 bits"},
      {kLogServer, "-2147483649", std::nullopt, "below 32 bits"},
      {kLogServer, "1.5", std::nullopt, "not whole"},
      {kLogServer, "", std::nullopt, "empty"},
      {kLogServer, "true", std::nullopt, "a number setting takes no Boolean"},
      {kAuditIsActive, "true", "True", "the word"},
      {kAuditIsActive, "FALSE", "False", "any case"},
      {kAuditIsActive, "Yes", "True", "yes"},
      {kAuditIsActive, "no", "False", "no"},
      {kAuditIsActive, "1", "True", "1"},
      {kAuditIsActive, "-1", "True", "the stored number of true"},
      {kAuditIsActive, "0", "False", "0"},
      {kAuditIsActive, "2", std::nullopt, "no other number"},
      {kAuditIsActive, "on", std::nullopt, "no other word"},
      {kAuditIsActive, "", std::nullopt, "empty"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SettingWireValue(c.index, c.text), c.wire) << c.reason << ": \"" << c.text << "\"";
  }
}

TEST(SettingsViews, AChangeNamesWhatIsWrong) {
  std::string error;
  auto change = ParseSettingChange("auditismaxdays=1", error);
  EXPECT_FALSE(change);
  EXPECT_NE(error.find("no setting \"auditismaxdays\""), std::string::npos) << error;
  EXPECT_NE(error.find("AuditIsSaveMaxDays"), std::string::npos) << "the valid names: " << error;

  change = ParseSettingChange("LogServer", error);
  EXPECT_FALSE(change);
  EXPECT_NE(error.find("NAME=VALUE"), std::string::npos) << error;

  change = ParseSettingChange("auditislimited=maybe", error);
  EXPECT_FALSE(change);
  EXPECT_EQ(error, "AuditIsLimited takes true or false (also 1, 0, -1, yes, no), not \"maybe\"");

  change = ParseSettingChange("backupclient=x=1", error);
  EXPECT_FALSE(change) << "the value is everything after the first \"=\"";

  change = ParseSettingChange("auditislimited=yes", error);
  ASSERT_TRUE(change);
  EXPECT_EQ(change->index, 8u);
  EXPECT_EQ(change->value, "True");
}

TEST(SettingsViews, OnlyACompleteReportIsWrittenBack) {
  std::string error;
  const auto values = ParseSettings(kReport, error);
  ASSERT_TRUE(values) << error;
  EXPECT_EQ(JoinSettings(*values), kReport) << "read and sent again unchanged";

  const struct {
    std::string data;
    std::string error;
    const char* reason;
  } bad[] = {
      {"", "the server sent 0 values instead of 13", "nothing"},
      {"3$5$2$1$2$0$True$500$False$True$1000$False", "the server sent 12 values instead of 13",
       "one short"},
      {kReport + "$1", "the server sent 14 values instead of 13", "one too many"},
      {"3$5$2$1$2$0$Wahr$500$False$True$1000$False$90",
       "the server's AuditIsActive is not true or false (also 1, 0, -1, yes, no)",
       "a Boolean it does not write"},
      {"3$5$2$1$2$0$True$500$False$True$$False$90",
       "the server's AuditSaveMaxCount is not a whole number from -2147483648 to 2147483647",
       "an empty number"},
  };
  for (const auto& c : bad) {
    EXPECT_FALSE(ParseSettings(c.data, error)) << c.reason;
    EXPECT_EQ(error, c.error) << c.reason;
  }
}

TEST(SettingsViews, TableAndJson) {
  const std::string table = FormatSettingsTable(kReport);
  EXPECT_EQ(table.substr(0, table.find('\n', table.find('\n') + 1) + 1),
            "SETTING               VALUE\n"
            "BackupAutomatic       3\n");
  EXPECT_NE(table.find("AuditIsActive         true\n"), std::string::npos) << table;
  EXPECT_NE(table.find("AuditSaveMaxDays      90\n"), std::string::npos) << table;
  EXPECT_EQ(FormatSettingsJson(kReport),
            "{\"BackupAutomatic\":3,\"BackupAdmin\":5,\"BackupClient\":2,\"LogAdmin\":1,"
            "\"LogServer\":2,\"LogClient\":0,\"AuditIsActive\":true,\"AuditDisplayMaxCount\":500,"
            "\"AuditIsLimited\":false,\"AuditIsSaveMaxCount\":true,\"AuditSaveMaxCount\":1000,"
            "\"AuditIsSaveMaxDays\":false,\"AuditSaveMaxDays\":90}\n");
  // A short or garbled answer is still shown, its unreadable values marked.
  const std::string json = FormatSettingsJson("3$x");
  EXPECT_EQ(json.substr(0, 50), "{\"BackupAutomatic\":3,\"BackupAdmin\":null,\"BackupCli");
  EXPECT_NE(json.find("\"AuditIsActive\":null"), std::string::npos) << json;
  EXPECT_NE(FormatSettingsTable("3$x").find("BackupAdmin           ?\n"), std::string::npos);
}

}  // namespace
}  // namespace kalvo::ctl
