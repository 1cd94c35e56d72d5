#include "infra/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "infra/cdebug.h"
#include "infra/registry.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

namespace fs = std::filesystem;

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("kalvo_log_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // A registry whose product key holds the given LogLevel and LogMaxSize lines.
  RegistryStore& Registry(const std::string& values) {
    {
      std::ofstream out(dir_ / "registry.reg", std::ios::binary);
      out << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
          << values << "\r\n";
    }
    store_ = std::make_unique<RegistryStore>((dir_ / "registry.reg").string());
    return *store_;
  }

  std::string Read(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }

  std::string LogPath() { return (dir_ / "kalvosrv.log").string(); }

  fs::path dir_;
  std::unique_ptr<RegistryStore> store_;
};

TEST_F(LogTest, LevelDecidesWhichLinesAreWritten) {
  const struct {
    const char* values;
    const char* expected;  // the messages found in the file, in order
  } cases[] = {
      {"\"LogLevel\"=dword:00000001", "plain|forced|"},
      {"", "forced|"},                          // level 0 (default): only forced lines
      {"\"LogLevel\"=dword:ffffffff", ""},      // negative: nothing, not even forced lines
      {"\"LogLevel\"=\"3\"", "plain|forced|"},  // a text level counts as its number
  };
  for (const auto& c : cases) {
    fs::remove(LogPath());
    Log log(Registry(c.values), LogPath());
    log.WriteLog("plain");
    log.WriteLog("forced", true);
    std::string found;
    std::istringstream lines(Read(LogPath()));
    for (std::string line; std::getline(lines, line);) {
      found += line.substr(line.find(" - ") + 3, line.size() - line.find(" - ") - 4) + "|";
    }
    EXPECT_EQ(found, c.expected) << c.values;
  }
}

TEST_F(LogTest, LineIsDatedCrlfTerminatedUtf8) {
  Log log(Registry("\"LogLevel\"=dword:00000001"), LogPath());
  log.WriteLog(
      "Verbindung hergestellt: Gr\xFC\xDF"
      "e");
  const std::string text = Read(LogPath());
  EXPECT_TRUE(std::regex_match(
      text, std::regex("\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d - Verbindung hergestellt: "
                       "Gr\xC3\xBC\xC3\x9F"
                       "e\r\n")))
      << text;
}

TEST_F(LogTest, LogErrorFormatsNumberDescriptionProcedureAndExtra) {
  Log log(Registry("\"LogLevel\"=dword:00000001"), LogPath());
  log.LogError(13, "Type mismatch", "SocketGetData");
  log.LogError(6, "Overflow", "Socket_DataArrival", "3Socket");
  const std::string text = Read(LogPath());
  EXPECT_NE(text.find(" - Fehler: 13 - Type mismatch (SocketGetData) {}\r\n"), std::string::npos);
  EXPECT_NE(text.find(" - Fehler: 6 - Overflow (Socket_DataArrival) {3Socket}\r\n"),
            std::string::npos);
}

TEST_F(LogTest, CaughtExceptionsAreLoggedWithAFittingNumber) {
  Log log(Registry("\"LogLevel\"=dword:00000001"), LogPath());
  try {
    throw RuntimeError(kErrOverflow, "Overflow");
  } catch (...) {
    LogCurrentException(log, "A");
  }
  try {
    throw std::out_of_range("index 7");
  } catch (...) {
    LogCurrentException(log, "B");
  }
  const std::string text = Read(LogPath());
  EXPECT_NE(text.find("Fehler: 6 - Overflow (A) {}"), std::string::npos);
  EXPECT_NE(text.find("Fehler: 9 - index 7 (B) {}"), std::string::npos);
}

TEST_F(LogTest, FileIsPrivateToTheGroupAndSurvivesRotationByRename) {
  const mode_t old_umask = ::umask(0);  // the mode must not rely on the caller's umask
  Log log(Registry("\"LogLevel\"=dword:00000001"), LogPath());
  log.WriteLog("first");
  ::umask(old_umask);
  EXPECT_EQ(fs::status(LogPath()).permissions(),
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  // What logrotate does without copytruncate: rename, then the next line starts a new file.
  fs::rename(LogPath(), LogPath() + ".1");
  log.WriteLog("second");
  EXPECT_NE(Read(LogPath() + ".1").find("first"), std::string::npos);
  EXPECT_NE(Read(LogPath()).find("second"), std::string::npos);
  EXPECT_EQ(Read(LogPath()).find("first"), std::string::npos);
}

TEST_F(LogTest, FileThatRootCreatesBelongsToTheOwnerOfItsDirectory) {
  if (::geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
  // A service account's log directory, and a root-owned one (the program's parent).
  struct Case {
    uid_t dir_uid;
    gid_t dir_gid;
    bool file_exists_as_root;  // made by root earlier: stays root's
    uid_t want_uid;
    gid_t want_gid;
  } cases[] = {
      {65534, 65534, false, 65534, 65534},
      {65534, 0, false, 65534, 0},
      {0, 0, false, 0, 0},
      {65534, 65534, true, 0, 0},
  };
  for (const Case& c : cases) {
    const fs::path sub = dir_ / ("d" + std::to_string(&c - cases));
    fs::create_directories(sub);
    ASSERT_EQ(::chown(sub.c_str(), c.dir_uid, c.dir_gid), 0);
    const std::string path = (sub / "kalvosrv.log").string();
    if (c.file_exists_as_root) std::ofstream(path) << "old\r\n";
    Log log(Registry("\"LogLevel\"=dword:00000001"), path);
    log.WriteLog("line");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, c.want_uid) << sub;
    EXPECT_EQ(st.st_gid, c.want_gid) << sub;
    EXPECT_NE(Read(path).find("line"), std::string::npos);
  }
  // The generation a rotation starts is a new file too.
  const fs::path sub = dir_ / "rotated";
  fs::create_directories(sub);
  ASSERT_EQ(::chown(sub.c_str(), 65534, 65534), 0);
  const std::string path = (sub / "kalvosrv.log").string();
  std::ofstream(path) << std::string(2000, 'x');
  Log log(Registry("\"LogLevel\"=dword:00000001\r\n\"LogMaxSize\"=dword:00000000"), path);
  log.WriteLog("after the rotation");
  EXPECT_EQ(fs::file_size(path + ".bak"), 2000u);
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
}

TEST_F(LogTest, LogToJournalSendsTheLinesThatPassTheLevelToTheSink) {
  const struct {
    const char* values;  // under the product key, then the KDX key
    bool force;
    bool journaled;
  } cases[] = {
      {"\"LogLevel\"=dword:00000001\r\n[KDX]\r\n\"LogToJournal\"=dword:00000001", false, true},
      {"\"LogLevel\"=dword:00000001\r\n[KDX]\r\n\"LogToJournal\"=\"True\"", false, true},
      {"\"LogLevel\"=dword:00000000\r\n[KDX]\r\n\"LogToJournal\"=dword:00000001", true, true},
      // Below the level: neither file nor journal.
      {"\"LogLevel\"=dword:00000000\r\n[KDX]\r\n\"LogToJournal\"=dword:00000001", false, false},
      {"\"LogLevel\"=dword:00000001\r\n[KDX]\r\n\"LogToJournal\"=dword:00000000", false, false},
      {"\"LogLevel\"=dword:00000001", false, false},  // off unless asked
      {"\"LogLevel\"=dword:00000001\r\n[KDX]\r\n\"LogToJournal\"=\"ja\"", false, false},
  };
  for (const auto& c : cases) {
    std::string values = c.values;
    // "[KDX]" stands for the product's KDX key.
    if (const size_t at = values.find("[KDX]"); at != std::string::npos) {
      values.replace(at, 5, "\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]");
    }
    Log log(Registry(values), LogPath());
    std::vector<std::string> journal;
    log.SetJournalSink([&](std::string_view line) { journal.emplace_back(line); });
    log.WriteLog(
        "Gr\xFC\xDF"
        "e",
        c.force);
    EXPECT_EQ(journal, c.journaled ? std::vector<std::string>{"Gr\xC3\xBC\xC3\x9F"
                                                              "e"}
                                   : std::vector<std::string>{})
        << c.values;
  }
  // A file that cannot be written does not keep the line from the journal.
  Log log(Registry("\"LogLevel\"=dword:00000001\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\"
                   "Zentara\\KDX]\r\n\"LogToJournal\"=dword:00000001"),
          (dir_ / "missing" / "kalvosrv.log").string());
  log.SetProblemSink([](const std::string&) {});
  int sent = 0;
  log.SetJournalSink([&](std::string_view) { ++sent; });
  log.WriteLog("line");
  EXPECT_EQ(sent, 1);
}

TEST_F(LogTest, FileAtTheLimitRotatesBeforeTheNextLine) {
  Log log(Registry("\"LogLevel\"=dword:00000001\r\n\"LogMaxSize\"=dword:00000001"), LogPath());
  // Fill the file to exactly 1 MiB: the next line must go to a fresh file.
  { std::ofstream(LogPath(), std::ios::binary) << std::string(1024 * 1024, 'a'); }
  log.WriteLog("first of the new generation");
  EXPECT_EQ(fs::file_size(LogPath() + ".bak"), 1024u * 1024u);
  const std::string text = Read(LogPath());
  EXPECT_EQ(text.find("first of the new generation"), 22u) << text;
}

TEST_F(LogTest, LineEndingAtTheLimitStaysAndOneByteMoreRotates) {
  Log log(Registry("\"LogLevel\"=dword:00000001\r\n\"LogMaxSize\"=dword:00000001"), LogPath());
  const std::string message = "the line at the limit";
  // "dd.mm.yyyy hh:mm:ss - " and the message; the line break is not counted.
  const size_t line = 22 + message.size();
  const size_t limit = 1024 * 1024;
  const struct {
    size_t before;  // bytes in the file before the line
    bool rotates;
  } cases[] = {
      {limit - line - 1, false},  // the line's text ends exactly at the limit
      {limit - line, true},       // one byte further
  };
  for (const auto& c : cases) {
    fs::remove(LogPath() + ".bak");
    { std::ofstream(LogPath(), std::ios::binary) << std::string(c.before, 'a'); }
    log.WriteLog(message);
    EXPECT_EQ(fs::exists(LogPath() + ".bak"), c.rotates) << c.before;
    EXPECT_EQ(fs::file_size(LogPath()), c.rotates ? line + 2 : c.before + line + 2) << c.before;
  }
}

TEST_F(LogTest, ZeroLimitKeepsExactlyTheLastTwoLines) {
  Log log(Registry("\"LogLevel\"=dword:00000001\r\n\"LogMaxSize\"=dword:00000000"), LogPath());
  log.WriteLog("one");
  log.WriteLog("two");
  log.WriteLog("three");
  const std::string text = Read(LogPath());
  EXPECT_TRUE(text.ends_with(" - three\r\n"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
  EXPECT_TRUE(Read(LogPath() + ".bak").ends_with(" - two\r\n"));
}

TEST_F(LogTest, LimitThatOverflowsThe32BitSizeLosesTheLine) {
  Log log(Registry("\"LogLevel\"=dword:00000001\r\n\"LogMaxSize\"=dword:00000800"), LogPath());
  log.WriteLog("lost");
  EXPECT_FALSE(fs::exists(LogPath()));
}

TEST_F(LogTest, UnwritableFileLosesOnlyThatLine) {
  Log log(Registry("\"LogLevel\"=dword:00000001"), (dir_ / "missing" / "x.log").string());
  EXPECT_NO_THROW(log.WriteLog("nowhere to go"));
}

TEST_F(LogTest, SettingsChangesTakeEffectWithTheNextLine) {
  Registry("\"LogLevel\"=dword:00000000");
  Log log(*store_, LogPath());
  log.WriteLog("not written");
  RegistryWrite(*store_, "HKEY_LOCAL_MACHINE:Software", "Orvanta", "Zentara", "LogLevel", 1);
  log.WriteLog("written");
  const std::string text = Read(LogPath());
  EXPECT_EQ(text.find("not written"), std::string::npos);
  EXPECT_NE(text.find("written"), std::string::npos);
}

TEST(LogPathTest, LogLiesInTheParentOfTheProgramDirectory) {
  EXPECT_EQ(Log::LogPathFor({"/opt/zentara/kdx", "kalvosrv"}), "/opt/zentara/kalvosrv.log");
  EXPECT_EQ(Log::LogPathFor({"/kdx", "kalvosrv"}), "/kalvosrv.log");
  EXPECT_EQ(Log::LogPathFor({"/", "kalvosrv"}), "/kalvosrv.log");
}

TEST(CDebugTest, ContinuedLineReportsTheElapsedMilliseconds) {
  CDebug trace;
  trace.SetProgName("KalvoAdm");
  const std::string open = trace.FormatLine("A", false);
  EXPECT_TRUE(
      std::regex_match(open, std::regex("\\d\\d\\.\\d\\d-\\d\\d:\\d\\d:\\d\\d - KalvoAdm - A")))
      << open;
  const std::string close = trace.FormatLine("B", true);
  EXPECT_TRUE(std::regex_match(close, std::regex("B \\(\\d+ms\\)\r\n"))) << close;
  // A fresh line again carries the stamp and no duration.
  EXPECT_TRUE(
      std::regex_match(trace.FormatLine("C", true),
                       std::regex("\\d\\d\\.\\d\\d-\\d\\d:\\d\\d:\\d\\d - KalvoAdm - C\r\n")));
}

TEST(CDebugTest, TraceFileRotatesAtItsMaximumSize) {
  const fs::path dir = fs::temp_directory_path() / ("kalvo_trace_" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir);
  CDebug trace(dir.string());
  trace.SetProgName("trace");
  trace.SetToFile(true);
  trace.SetMaxFileSize(10);
  trace.Write("first line", true);
  trace.Write("second line", true);
  EXPECT_TRUE(fs::exists(dir / "trace.log.bak"));
  std::ifstream in(dir / "trace.log");
  std::string line;
  std::getline(in, line);
  EXPECT_NE(line.find("second line"), std::string::npos);
  fs::remove_all(dir);
}

TEST(CDebugTest, HelpersOnPathsAndLineBreaks) {
  EXPECT_EQ(CDebug::AddBackslash("/opt"), "/opt/");
  EXPECT_EQ(CDebug::AddBackslash("/opt/"), "/opt/");
  EXPECT_EQ(CDebug::RemoveLineBreaks("a\r\nb\nc"), "a  b c");
}

TEST_F(LogTest, AFileThatCannotBeWrittenIsReportedOnceWhenItFailsAndOnceWhenItWorksAgain) {
  Log log(Registry("\"LogLevel\"=dword:00000001"), (dir_ / "gone" / "kalvosrv.log").string());
  std::vector<std::string> reports;
  log.SetProblemSink([&](const std::string& line) { reports.push_back(line); });
  log.WriteLog("one");
  log.WriteLog("two");
  log.WriteLog("three");
  ASSERT_EQ(reports.size(), 1u) << "nothing per lost line";
  EXPECT_EQ(reports[0], "kalvosrv: the log is not written (cannot open " +
                            (dir_ / "gone" / "kalvosrv.log").string() +
                            ": No such file or directory); log lines are lost until it works "
                            "again");
  fs::create_directories(dir_ / "gone");
  log.WriteLog("four");
  log.WriteLog("five");
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[1], "kalvosrv: the log file " + (dir_ / "gone" / "kalvosrv.log").string() +
                            " is written again");
  EXPECT_NE(Read(dir_ / "gone" / "kalvosrv.log").find("five"), std::string::npos);
}

}  // namespace
}  // namespace kalvo
