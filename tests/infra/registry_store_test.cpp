// The file store under the registry operations: key bookkeeping, change detection, writes
// that keep the file's format, and writers in several processes at once.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "infra/reg_file.h"
#include "infra/registry.h"

namespace kalvo {
namespace {

constexpr const char* kRoot = "HKEY_LOCAL_MACHINE:Software";
constexpr const char* kKey = "Orvanta\\Zentara";
constexpr const char* kKdx = "HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX";

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Parses the file as it is on disk; gives the number of malformed lines in `warnings`.
RegDocument ParseFile(const std::string& path, size_t* warnings) {
  *warnings = 0;
  return ParseRegFile(ReadBytes(path), [&](size_t, const std::string&) { ++*warnings; });
}

class RegistryStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "regstoreXXXXXX";
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/registry.reg";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // A registry with the KDX key, a seed value and `filler` further values, so that a write
  // takes long enough to be interrupted.
  void Seed(int filler = 0) {
    std::string text = "REGEDIT4\r\n\r\n[" + std::string(kKdx) + "]\r\n\"Seed\"=\"present\"\r\n";
    for (int i = 0; i < filler; ++i) {
      text += "\"Filler" + std::to_string(i) + "\"=\"" + std::string(200, 'f') + "\"\r\n";
    }
    WriteBytes(path_, text);
  }

  std::string dir_;
  std::string path_;
};

TEST(RegDocumentKeys, ParentsExistAndDeleteTakesOnlyLeaves) {
  RegDocument doc;
  ASSERT_TRUE(doc.CreateKey("HKEY_USERS\\A\\B\\C"));
  EXPECT_TRUE(doc.KeyExists("HKEY_USERS"));
  EXPECT_TRUE(doc.KeyExists("hkey_users\\a\\b"));
  EXPECT_TRUE(doc.KeyExists("HKU\\A\\B\\C\\"));
  EXPECT_FALSE(doc.KeyExists("HKEY_USERS\\A\\B\\C\\D"));
  EXPECT_FALSE(doc.KeyExists("HKEY_NOWHERE\\A"));
  EXPECT_FALSE(doc.CreateKey("HKEY_USERS\\A\\B"));  // exists already

  EXPECT_FALSE(doc.DeleteKey("HKEY_USERS\\A\\B"));  // has a sub key
  EXPECT_FALSE(doc.DeleteKey("HKEY_USERS\\A\\X"));  // missing
  EXPECT_FALSE(doc.DeleteKey("HKEY_USERS"));        // a hive
  EXPECT_TRUE(doc.DeleteKey("HKEY_USERS\\A\\B\\C"));
  EXPECT_FALSE(doc.KeyExists("HKEY_USERS\\A\\B\\C"));
  EXPECT_TRUE(doc.KeyExists("HKEY_USERS\\A\\B"));  // the parent outlives its last child
  EXPECT_TRUE(doc.DeleteKey("HKEY_USERS\\A\\B"));
}

TEST(RegDocumentKeys, ValueOnAKeyWithoutSectionGetsOneBeforeItsChildren) {
  RegDocument doc;
  ASSERT_TRUE(doc.CreateKey("HKEY_USERS\\Other"));
  ASSERT_TRUE(doc.CreateKey("HKEY_USERS\\A\\B"));
  EXPECT_FALSE(doc.SetValue("HKEY_USERS\\A\\Missing", "v", kRegSz, "x"));
  ASSERT_TRUE(doc.SetValue("HKEY_USERS\\a", "v", kRegSz, "x"));
  ASSERT_EQ(doc.keys().size(), 3u);
  EXPECT_EQ(doc.keys()[1].path, "HKEY_USERS\\a");
  EXPECT_EQ(doc.keys()[2].path, "HKEY_USERS\\A\\B");
}

TEST_F(RegistryStoreTest, MissingFileIsAnEmptyRegistryAndANewFileIsRegedit4) {
  RegistryStore store(path_);
  EXPECT_FALSE(store.KeyExists(kKdx));
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", "none"), RegistryValue("none"));
  ASSERT_TRUE(store.CreateKey(kKdx));
  ASSERT_TRUE(store.SetValue(kKdx, "Größe", kRegSz, "ä"));
  EXPECT_EQ(ReadBytes(path_), "REGEDIT4\r\n\r\n[" + std::string(kKdx) +
                                  "]\r\n\"Gr\xF6\xDF"
                                  "e\"=\"\xE4\"\r\n\r\n");
}

TEST_F(RegistryStoreTest, SeesChangesMadeBehindItsBack) {
  Seed();
  RegistryStore store(path_);
  store.SetCheckInterval(std::chrono::nanoseconds(0));  // look at the file on every read
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("present"));
  // Same size, same inode, within the same clock tick: the times alone cannot tell.
  std::string bytes = ReadBytes(path_);
  bytes.replace(bytes.find("present"), 7, "changed");
  {
    std::fstream f(path_, std::ios::in | std::ios::out | std::ios::binary);
    f << bytes;
  }
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("changed"));
  // Written by another store, that is by another process's writer.
  RegistryStore other(path_);
  RegistryWrite(other, kRoot, kKey, "KDX", "Seed", "again");
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("again"));
  std::filesystem::remove(path_);
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", "gone"), RegistryValue("gone"));
}

TEST_F(RegistryStoreTest, DefaultCheckIntervalSeesOtherWritersWithinMilliseconds) {
  Seed();
  RegistryStore store(path_);
  RegistryStore other(path_);
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("present"));
  RegistryWrite(other, kRoot, kKey, "KDX", "Seed", "first");
  store.Invalidate();
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("first"));
  RegistryWrite(other, kRoot, kKey, "KDX", "Seed", "second");
  std::this_thread::sleep_for(std::chrono::milliseconds(15));
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("second"));
}

TEST_F(RegistryStoreTest, WarnsOncePerFileVersionNamingFileAndLine) {
  WriteBytes(path_, "REGEDIT4\n[" + std::string(kKdx) + "]\nbroken\n\"Seed\"=\"present\"\n");
  RegistryStore store(path_);
  std::vector<std::string> warnings;
  store.SetWarningSink([&](const std::string& w) {
    warnings.push_back(w);
    // A sink may read the registry itself, as the log writer does.
    RegistryRead(store, kRoot, kKey, "KDX", "LogLevel", 0);
  });
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "Seed", ""), RegistryValue("present"));
  }
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find(path_), std::string::npos);
  EXPECT_NE(warnings[0].find("line 3"), std::string::npos);
  // A write rewrites the file without the broken line.
  RegistryWrite(store, kRoot, kKey, "KDX", "Seed", "new");
  size_t malformed = 0;
  ParseFile(path_, &malformed);
  EXPECT_EQ(malformed, 0u);
}

TEST_F(RegistryStoreTest, WriteKeepsVersion5Utf16AndItsComments) {
  const std::string fixture = ReadBytes(std::string(KALVO_TEST_DATA) + "/regedit5_utf16.reg");
  WriteBytes(path_, fixture);
  ::chmod(path_.c_str(), 0600);
  RegistryStore store(path_);
  RegistryWrite(store, kRoot, kKey, "KDX\\DB", "DSN", "other");
  const std::string bytes = ReadBytes(path_);
  ASSERT_TRUE(bytes.starts_with("\xFF\xFE"));
  const std::string text = Utf16LeToCp1252(bytes.substr(2));
  EXPECT_TRUE(text.starts_with("Windows Registry Editor Version 5.00\r\n"));
  EXPECT_NE(text.find("\r\n; Exported from a test installation\r\n[HKEY_LOCAL_MACHINE"),
            std::string::npos);
  EXPECT_NE(text.find("\"DSN\"=\"other\"\r\n"), std::string::npos);
  EXPECT_NE(text.find("\"Servers\"=hex(7):61,00,6c,00"), std::string::npos);
  struct stat st {};
  ::stat(path_.c_str(), &st);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(RegistryStoreTest, RewriteChangesOnlyTheChangedValue) {
  // An administrator's file: notes above keys and values, one at the end, and an order
  // that is not alphabetical.
  const std::string original =
      "REGEDIT4\n\n"
      "; kalvosrv settings\n"
      "; (database credentials below)\n\n"
      "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\n"
      "; the port the clients use\n"
      "\"ServerLocalPort\"=\"15243\"\n"
      "\"AuditIsActive\"=dword:00000000\n"
      "\n"
      "; keep three of each\n"
      "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\Backup]\n"
      "\"Client\"=dword:00000003\n"
      "\n"
      "  ; indented note\n"
      "\"Admin\"=dword:00000003\n"
      "\n"
      "; end of file\n";
  WriteBytes(path_, original);
  RegistryStore store(path_);
  RegistryWrite(store, kRoot, kKey, "KDX", "AuditIsActive", -1);
  std::string expected = original;
  expected.replace(expected.find("dword:00000000"), 14, "dword:ffffffff");
  EXPECT_EQ(ReadBytes(path_), expected);

  // A value added goes to the end of its key; everything else stays.
  RegistryWrite(store, kRoot, kKey, "KDX\\Backup", "Automatic", 5);
  const std::string text = ReadBytes(path_);
  EXPECT_NE(text.find("\"Admin\"=dword:00000003\n\"Automatic\"=dword:00000005\n\n; end of file\n"),
            std::string::npos)
      << text;
  EXPECT_TRUE(text.starts_with(expected.substr(0, expected.find("\"Admin\""))));
}

TEST_F(RegistryStoreTest, WriteThroughASymlinkReplacesItsTarget) {
  Seed();
  const std::string link = dir_ + "/link.reg";
  std::filesystem::create_symlink(path_, link);
  RegistryStore store(link);
  ASSERT_TRUE(store.SetValue(kKdx, "Seed", kRegSz, "via link"));
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  RegistryStore direct(path_);
  EXPECT_EQ(direct.GetValue(kKdx, "Seed")->data, "via link");
}

TEST_F(RegistryStoreTest, UnwritableLocationFailsQuietly) {
  RegistryStore store(dir_ + "/no/such/dir/registry.reg");
  EXPECT_FALSE(store.CreateKey(kKdx));
  EXPECT_FALSE(store.SetValue("HKEY_USERS", "x", kRegSz, "y"));
  EXPECT_TRUE(RegistryEnumValues(store, kRoot, kKey, "KDX").IsEmpty());
}

TEST_F(RegistryStoreTest, EnumValuesWritesOneSectionForKeyAndSubKey) {
  RegistryStore store(path_);
  const std::string key = "HKEY_LOCAL_MACHINE\\Software\\Orvanta\\New";
  EXPECT_TRUE(RegistryEnumValues(store, kRoot, "Orvanta\\New", "Sub").IsEmpty());
  EXPECT_EQ(ReadBytes(path_), "REGEDIT4\r\n\r\n[" + key + "\\Sub]\r\n\r\n");
  RegistryStore fresh(path_);
  EXPECT_TRUE(fresh.KeyExists(key));
  // A sub key that makes no usable path still leaves its key created, and nothing else.
  std::filesystem::remove(path_);
  fresh.Invalidate();
  EXPECT_TRUE(RegistryEnumValues(fresh, kRoot, "Orvanta\\New", "\\Bad").IsEmpty());
  EXPECT_EQ(ReadBytes(path_), "REGEDIT4\r\n\r\n[" + key + "]\r\n\r\n");
}

TEST_F(RegistryStoreTest, UnchangedFileIsNotReadAgain) {
  Seed(30);
  RegistryStore store(path_);
  store.SetCheckInterval(std::chrono::nanoseconds(0));
  // Let the file age past the window in which its times are not trusted.
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto first = store.Snapshot();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(store.Snapshot(), first) << "re-read at look " << i;
  }
  // A change by another store is seen at the next look.
  RegistryStore other(path_);
  RegistryWrite(other, kRoot, kKey, "KDX", "LogLevel", 2);
  EXPECT_NE(store.Snapshot(), first);
  EXPECT_EQ(RegistryRead(store, kRoot, kKey, "KDX", "LogLevel", 0).ToLong(), 2);
}

// Runs `body` in a child process; gives its pid. The child never returns into the tests.
template <typename Body>
pid_t Spawn(Body body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    body();
    ::_exit(0);
  }
  return pid;
}

TEST_F(RegistryStoreTest, UnreadableFileIsNeverOverwrittenByAWrite) {
  Seed(3);
  const std::string before = ReadBytes(path_);
  ASSERT_EQ(::chmod(path_.c_str(), 0), 0);
  ASSERT_EQ(::chmod(dir_.c_str(), 0777), 0);  // the writer may still create its lock file
  // The writer runs as a user that cannot read the file: root reads anything, so a root
  // test run hands the child to "nobody".
  enum Outcome { kKept = 0, kChangeCalled, kWritten, kStillReadable, kNoUserSwitch };
  const pid_t child = Spawn([&] {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) {
      ::_exit(kNoUserSwitch);
    }
    if (::access(path_.c_str(), R_OK) == 0) ::_exit(kStillReadable);
    RegistryStore store(path_);
    if (store.CreateKey(kKdx + std::string("\\New"))) ::_exit(kWritten);
    bool called = false;
    const bool written = store.Modify([&](RegDocument& doc) {
      called = true;
      return doc.CreateKey(kKdx) && doc.SetValue(kKdx, "Other", kRegSz, "x");
    });
    if (called) ::_exit(kChangeCalled);
    ::_exit(written ? kWritten : kKept);
  });
  ASSERT_GT(child, 0);
  int status = -1;
  ::waitpid(child, &status, 0);
  ::chmod(path_.c_str(), 0644);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) >= kStillReadable) GTEST_SKIP() << "no user that cannot read the file";
  EXPECT_EQ(WEXITSTATUS(status), kKept);
  EXPECT_EQ(ReadBytes(path_), before);
}

TEST_F(RegistryStoreTest, ConcurrentWritersInTwoProcessesBothSurvive) {
  Seed(20);
  constexpr int kWrites = 200;
  auto writer = [&](const char* name) {
    return Spawn([&, name] {
      RegistryStore store(path_);
      for (int i = 1; i <= kWrites; ++i) RegistryWrite(store, kRoot, kKey, "KDX", name, i);
    });
  };
  const pid_t a = writer("WriterA");
  const pid_t b = writer("WriterB");
  ASSERT_GT(a, 0);
  ASSERT_GT(b, 0);

  // Meanwhile every read sees a whole file.
  RegistryStore reader(path_);
  int torn_reads = 0;
  int status_a = -1, status_b = -1;
  while (::waitpid(a, &status_a, WNOHANG) == 0 || ::waitpid(b, &status_b, WNOHANG) == 0) {
    reader.Invalidate();
    if (RegistryRead(reader, kRoot, kKey, "KDX", "Seed", "") != RegistryValue("present")) {
      ++torn_reads;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  ::waitpid(a, &status_a, 0);
  ::waitpid(b, &status_b, 0);
  EXPECT_EQ(torn_reads, 0);

  size_t malformed = 0;
  const RegDocument doc = ParseFile(path_, &malformed);
  EXPECT_EQ(malformed, 0u);
  EXPECT_EQ(doc.Values(kKdx).size(), 23u);
  // The reader's last look may lie within its check interval of the final writes.
  reader.Invalidate();
  EXPECT_EQ(RegistryRead(reader, kRoot, kKey, "KDX", "WriterA", 0), RegistryValue(kWrites));
  EXPECT_EQ(RegistryRead(reader, kRoot, kKey, "KDX", "WriterB", 0), RegistryValue(kWrites));
}

TEST_F(RegistryStoreTest, WriterKilledMidWriteLeavesAWholeFile) {
  Seed(200);  // about 45 KB, so that kills land inside writes
  std::mt19937 random(12345);
  int32_t last_seen = 0;
  int interrupted_writes = 0;
  // Kills land at random; go on until some landed inside a write (bounded, for slow builds
  // where most of a write is spent before the temporary file exists).
  for (int round = 0; round < 15 || (interrupted_writes == 0 && round < 400); ++round) {
    const pid_t child = Spawn([&] {
      RegistryStore store(path_);
      for (int32_t i = last_seen + 1;; ++i) RegistryWrite(store, kRoot, kKey, "KDX", "Counter", i);
    });
    ASSERT_GT(child, 0);
    // Let the child finish one write (slow builds start slowly), then kill it at a random
    // moment of the writes that follow.
    RegistryStore watcher(path_);
    watcher.SetCheckInterval(std::chrono::nanoseconds(0));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (RegistryRead(watcher, kRoot, kKey, "KDX", "Counter", 0).ToLong() <= last_seen &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 10'000));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);

    // A temporary file left behind means the kill landed between its creation and the rename.
    if (std::filesystem::exists(path_ + ".tmp")) ++interrupted_writes;
    size_t malformed = 0;
    const RegDocument doc = ParseFile(path_, &malformed);
    ASSERT_EQ(malformed, 0u) << "round " << round;
    RegistryStore store(path_);
    const int32_t counter = RegistryRead(store, kRoot, kKey, "KDX", "Counter", 0).ToLong();
    EXPECT_EQ(doc.Values(kKdx).size(), counter == 0 ? 201u : 202u) << "round " << round;
    EXPECT_GT(counter, last_seen);  // never goes back: each complete write is durable
    last_seen = counter;
  }
  EXPECT_GT(last_seen, 0);
  EXPECT_GT(interrupted_writes, 0);
  // The lock died with its holder: a later writer is not blocked.
  RegistryStore store(path_);
  EXPECT_TRUE(store.SetValue(kKdx, "After", kRegSz, "ok"));
}

TEST_F(RegistryStoreTest, ServiceRewritingRootsFileKeepsOwnerGroupAndMode) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give the file to another owner";
  Seed();
  // As installed: root's file, the service's group may write it, the directory is the
  // group's too.
  ASSERT_EQ(::chown(path_.c_str(), 0, 65534), 0);
  ASSERT_EQ(::chmod(path_.c_str(), 0660), 0);
  ASSERT_EQ(::chown(dir_.c_str(), 0, 65534), 0);
  ASSERT_EQ(::chmod(dir_.c_str(), 02775), 0);
  const pid_t child = Spawn([&] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    RegistryStore store(path_);
    ::_exit(store.SetValue(kKdx, "Seed", kRegSz, "by the service") ? 0 : 1);
  });
  ASSERT_GT(child, 0);
  int status = -1;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), 0);
  struct stat st {};
  ASSERT_EQ(::stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_gid, 65534u);
  EXPECT_EQ(st.st_mode & 07777, 0660u);
  EXPECT_FALSE(std::filesystem::exists(path_ + ".tmp"));
  RegistryStore reader(path_);
  EXPECT_EQ(reader.GetValue(kKdx, "Seed")->data, "by the service");
}

}  // namespace
}  // namespace kalvo
