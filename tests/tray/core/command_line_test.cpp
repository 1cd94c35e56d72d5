// kalvotray's command line and the two registry settings it reads.
#include "core/command_line.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "core/tray_settings.h"

namespace kalvo::tray {
namespace {

namespace fs = std::filesystem;

TEST(ParseCommandLine, AcceptsTheDocumentedForms) {
  std::optional<CommandLine> line = ParseCommandLine(
      {"--show", "notify", "Server stopped", "--status-url=http://127.0.0.1:9/status"}, nullptr);
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->show, CommandLine::Show::kNotify);
  EXPECT_EQ(line->notify_text, "Server stopped");
  EXPECT_EQ(line->status_url, "http://127.0.0.1:9/status");

  line = ParseCommandLine({"--show=status", "--screenshot", "out.png"}, nullptr);
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->show, CommandLine::Show::kStatus);
  EXPECT_EQ(line->screenshot, "out.png");

  line = ParseCommandLine({"--show", "notify", "--", "--not an option"}, nullptr);
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->notify_text, "--not an option");
}

TEST(ParseCommandLine, RejectsUsageErrors) {
  const struct {
    std::vector<std::string> args;
    const char* why;
  } cases[] = {
      {{"--shwo", "status"}, "unknown option"},
      {{"--bogus", "--help"}, "unknown option even beside --help"},
      {{"--show", "window"}, "unknown window"},
      {{"--show"}, "--show without its value"},
      {{"--show", "notify"}, "notify without TEXT"},
      {{"--show", "notify", "a", "b"}, "two TEXTs"},
      {{"--show", "status", "extra"}, "TEXT where none belongs"},
      {{"stray"}, "positional argument in tray mode"},
      {{"--status-url="}, "empty value"},
      {{"--screenshot", "x.png"}, "screenshot of the tray"},
      {{"--version=1"}, "flag with a value"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(ParseCommandLine(c.args, &error).has_value()) << c.why;
    EXPECT_FALSE(error.empty()) << c.why;
  }
}

class TraySettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kalvotray_reg_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }

  TraySettings With(const std::string& icon_value, const std::string& kdx = "") {
    const std::string file = dir_ + "/registry.reg";
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n"
        << kdx << "\r\n[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\KalvoSrv\\"
        << "Parameters]\r\n"
        << icon_value << "\r\n";
    return ReadTraySettings(file);
  }
  std::string dir_;
};

TEST_F(TraySettingsTest, TaskbariconZeroSwitchesTheIconOff) {
  const struct {
    const char* line;
    bool enabled;
  } cases[] = {
      {"\"Taskbaricon\"=\"0\"", false},     {"\"Taskbaricon\"=dword:00000000", false},
      {"\"Taskbaricon\"=\"False\"", false}, {"\"Taskbaricon\"=\"1\"", true},
      {"\"Taskbaricon\"=\"True\"", true},   {"", true},
  };
  for (const auto& c : cases) EXPECT_EQ(With(c.line).tray_enabled, c.enabled) << c.line;
}

TEST_F(TraySettingsTest, StatusPortAndDefaults) {
  EXPECT_EQ(With("", "\"StatusPort\"=dword:00003b8d").status_port, 15245);
  EXPECT_EQ(With("").status_port, 15244);
  const TraySettings missing = ReadTraySettings(dir_ + "/none.reg");
  EXPECT_TRUE(missing.tray_enabled);
  EXPECT_EQ(missing.status_port, 15244);
  EXPECT_FALSE(fs::exists(dir_ + "/none.reg")) << "reading never creates the file";
}

}  // namespace
}  // namespace kalvo::tray
