// The four registry operations and their support operations, over a real .reg file in a
// temporary directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "infra/registry.h"

namespace kalvo {
namespace {

constexpr const char* kRoot = "HKEY_LOCAL_MACHINE:Software";
constexpr const char* kKey = "Orvanta\\Zentara";
constexpr const char* kKdx = "HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX";

class RegistryOpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = ::testing::TempDir() + "regopsXXXXXX";
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/registry.reg";
    std::ofstream(path_, std::ios::binary) << R"(REGEDIT4

[HKEY_LOCAL_MACHINE\SOFTWARE\Orvanta\Zentara\KDX]
"Text"="hello"
"Padded"="x  "
"Terminated"=hex(1):61,62,63,00
"Number"=dword:0000000c
"Negative"=dword:ffffffff
"Multi"=hex(7):61,00,62,00,00
"Expand"=hex(2):25,54,45,4d,50,25,5c,6b,00
"Binary"=hex:01,02
"Long"=hex:01,02,03,04,05

[HKEY_LOCAL_MACHINE\SOFTWARE\Orvanta\Zentara\KDX\DB]
@="unnamed"
"DSN"="kdx"
"Port"=dword:00000010

[HKEY_USERS\Software\Orvanta\Zentara\KDX]
"Text"="from HKEY_USERS"

[HKEY_CLASSES_ROOT\.pdf]
@="AcroExch.Document  "
"Content Type"="application/pdf"

[HKEY_LOCAL_MACHINE\Software\Classes\.txt]
@="txtfile"

[HKEY_CURRENT_USER\Software\Classes\.pdf]
@="user choice"
)";
    store_ = std::make_unique<RegistryStore>(path_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  RegistryValue Read(std::string_view sub_key, std::string_view name,
                     const RegistryValue& def = "default") {
    return RegistryRead(*store_, kRoot, kKey, sub_key, name, def);
  }
  // The stored type and data, seen through a fresh store.
  std::optional<RegValue> Stored(std::string_view key_path, std::string_view name) {
    RegistryStore fresh(path_);
    return fresh.GetValue(key_path, name);
  }
  ino_t Inode() {
    struct stat st {};
    ::stat(path_.c_str(), &st);
    return st.st_ino;
  }

  std::string dir_;
  std::string path_;
  std::unique_ptr<RegistryStore> store_;
};

TEST_F(RegistryOpsTest, ReadGivesTextNumberOrTheDefault) {
  const std::vector<std::tuple<std::string, RegistryValue, const char*>> cases = {
      {"Text", "hello", "REG_SZ as text"},
      {"TEXT", "hello", "value names compare case-insensitively"},
      {"Padded", "x", "trailing blanks removed"},
      {"Terminated", "abc", "a terminating NUL removed"},
      {"Number", 12, "REG_DWORD as number"},
      {"Negative", -1, "REG_DWORD is signed"},
      {"Multi", std::string("a\0b", 3), "multi-string with single NULs between items"},
      {"Expand", "default", "REG_EXPAND_SZ is not handled"},
      {"Binary", "default", "REG_BINARY is not handled"},
      {"Missing", "default", "missing value"},
  };
  for (const auto& [name, expected, reason] : cases) {
    EXPECT_EQ(Read("KDX", name), expected) << reason;
  }
  EXPECT_EQ(RegistryRead(*store_, kRoot, "orvanta\\ZENTARA", "kdx", "Text", 0),
            RegistryValue("hello"));
  EXPECT_EQ(RegistryRead(*store_, kRoot, "Nobody\\Here", "KDX", "Text", 5), RegistryValue(5));
}

TEST_F(RegistryOpsTest, OnlyExactHiveNamesAvoidTheFallThroughToHkeyUsers) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"HKEY_LOCAL_MACHINE:Software", "hello"}, {"HKEY_LOCAL_MACHINE:Software:ignored", "hello"},
      {"HKLM:Software", "from HKEY_USERS"},     {"hkey_local_machine:Software", "from HKEY_USERS"},
      {"Anything:Software", "from HKEY_USERS"},
  };
  for (const auto& [root, expected] : cases) {
    EXPECT_EQ(RegistryRead(*store_, root, kKey, "KDX", "Text", ""), RegistryValue(expected))
        << root;
  }
}

TEST_F(RegistryOpsTest, ReadingAMissingSubKeyGivesTheDefaultAndChangesNothing) {
  const ino_t before = Inode();
  EXPECT_EQ(Read("KDX\\Nope", "Text", 7), RegistryValue(7));
  EXPECT_EQ(Read("Nope", "Text", 7), RegistryValue(7));
  EXPECT_EQ(Inode(), before);  // the delete attempt did not rewrite the file
  EXPECT_EQ(Read("KDX", "Text"), RegistryValue("hello"));
}

TEST_F(RegistryOpsTest, WriteChoosesTypeAndBytesAsWindowsWould) {
  struct Case {
    RegistryValue value;
    uint32_t type;
    std::string data;
    RegistryValue read_back;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"", kRegSz, " ", "", "empty text stored as one blank, read back empty"},
      {std::string("a\0\0b", 4), kRegMultiSz, std::string("a\0\0b", 4), std::string("a\0\0b", 4),
       "two NULs in a row make a multi-string, no terminator added"},
      {std::string("a\0b", 3), kRegSz, std::string("a\0b", 3), std::string("a\0b", 3),
       "a single NUL stays REG_SZ"},
      {0, kRegDword, std::string(4, '\0'), 0, "number 0 is a REG_DWORD"},
      {"0", kRegSz, "0", "0", "text 0 stays text"},
      {-5, kRegDword, "\xfb\xff\xff\xff", -5, "negative numbers as two's complement"},
      {"Grüße", kRegSz, "Grüße", "Grüße", "Windows-1252 bytes unchanged"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    RegistryWrite(*store_, kRoot, kKey, "KDX\\DB", "W", c.value);
    const auto stored = Stored(std::string(kKdx) + "\\DB", "W");
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(stored->type, c.type);
    EXPECT_EQ(stored->data, c.data);
    EXPECT_EQ(Read("KDX\\DB", "W"), c.read_back);
  }
}

TEST_F(RegistryOpsTest, WriteNeverCreatesKeysAndSkipsUnchangedValues) {
  const ino_t before = Inode();
  RegistryWrite(*store_, kRoot, kKey, "KDX\\Missing", "A", "1");
  RegistryWrite(*store_, kRoot, "Orvanta\\Other", "KDX", "A", "1");
  RegistryWrite(*store_, kRoot, kKey, "KDX", "Text", "hello");  // same type and data
  EXPECT_EQ(Inode(), before);
  EXPECT_FALSE(store_->KeyExists(std::string(kKdx) + "\\Missing"));
  EXPECT_FALSE(store_->KeyExists("HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Other"));

  RegistryWrite(*store_, kRoot, kKey, "KDX", "text", 3);  // replaces "Text" in its place
  const auto stored = Stored(kKdx, "Text");
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(stored->name, "Text");
  EXPECT_EQ(stored->type, kRegDword);
}

TEST_F(RegistryOpsTest, EnumValuesKeepsAColumnForTheSkippedUnnamedValue) {
  const RegistryValue listed = RegistryEnumValues(*store_, kRoot, kKey, "KDX\\DB");
  ASSERT_TRUE(listed.IsTable());
  EXPECT_EQ(listed.Table().names, (std::vector<std::string>{"", "DSN", "Port"}));
  EXPECT_EQ(listed.Table().data, (std::vector<std::string>{"", "kdx", "16"}));

  const RegistryTable kdx = RegistryEnumValues(*store_, kRoot, kKey, "KDX").Table();
  ASSERT_EQ(kdx.names.size(), 9u);
  EXPECT_EQ(kdx.data[2], "abc");  // REG_SZ cut at its first NUL
  EXPECT_EQ(kdx.data[4], "-1");   // REG_DWORD as signed decimal
  EXPECT_EQ(kdx.data[5], "0");    // other types longer than four bytes do not fit: 0
  EXPECT_EQ(kdx.data[7], "513");  // two bytes 01 02 read as a little-endian integer
}

TEST_F(RegistryOpsTest, EnumValuesCreatesMissingKeysAndGivesEmpty) {
  EXPECT_TRUE(RegistryEnumValues(*store_, kRoot, "Orvanta\\New", "Sub\\Deep").IsEmpty());
  RegistryStore fresh(path_);
  EXPECT_TRUE(fresh.KeyExists("HKEY_LOCAL_MACHINE\\Software\\Orvanta\\New\\Sub\\Deep"));
  // A key holding only its unnamed value lists as empty too.
  EXPECT_TRUE(RegistryEnumValues(*store_, "HKEY_CLASSES_ROOT", "", ".txt").IsEmpty());
}

TEST_F(RegistryOpsTest, QueryPathReadsOneValueByItsFullAddress) {
  struct Case {
    std::string path;
    const char* type;
    const char* text;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {std::string("HKEY_CLASSES_ROOT") + ":.pdf\\", "REG_SZ", "user choice",
       "trailing backslash: unnamed value; the user's class wins"},
      {"HKCR/.pdf/Content Type", "REG_SZ", "application/pdf", "slashes as separators"},
      {"HKCR\\.txt\\", "REG_SZ", "txtfile", "classes of the machine"},
      {"HKLM\\Software\\Orvanta\\Zentara\\KDX\\Expand", "REG_EXPAND_SZ", "%TEMP%\\k",
       "not expanded"},
      {"HKLM:Software:Orvanta:Zentara:KDX:Multi", "REG_MULTI_SZ", "a", "first item only"},
      {"HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\Negative", "REG_DWORD", "-1",
       "decimal text of the number"},
      {"HKLM\\Software\\Orvanta\\Zentara\\KDX\\Padded", "REG_SZ", "x", "trailing blanks"},
      {"HKU\\Software\\Orvanta\\Zentara\\KDX\\Text", "REG_SZ", "from HKEY_USERS", "HKU"},
  };
  for (const Case& c : cases) {
    std::string type = "preset", text = "preset";
    RegistryQueryPath(*store_, c.path, type, text);
    EXPECT_EQ(type, c.type) << c.reason;
    EXPECT_EQ(text, c.text) << c.reason;
  }
}

TEST_F(RegistryOpsTest, QueryPathFailureLeavesOutputsUntouched) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"\\\\server\\HKLM\\Software\\Orvanta\\Zentara\\KDX\\Text", "remote machine"},
      {"HKEY_NOWHERE\\Software\\x", "unknown hive"},
      {"hklm\\Software\\Orvanta\\Zentara\\KDX\\Text", "abbreviations compare exactly"},
      {"HKLM\\Software\\Orvanta\\Zentara\\KDX\\Missing", "missing value"},
      {"HKLM\\Software\\Orvanta\\Zentara\\Nope\\Text", "missing key"},
      {"HKLM\\Software\\Orvanta\\Zentara\\KDX\\Binary", "unhandled type"},
      {"HKLM\\Software\\Orvanta\\Zentara\\KDX\\Long", "unhandled type, longer data"},
      {"HKLM", "no backslash at all"},
  };
  for (const auto& [path, reason] : cases) {
    std::string type = "preset", text = "preset";
    RegistryQueryPath(*store_, path, type, text);
    EXPECT_EQ(type, "preset") << reason;
    EXPECT_EQ(text, "preset") << reason;
  }
}

TEST(RegistrySupport, GetFieldCountsSeparatorsFromOne) {
  const std::vector<std::tuple<std::string, int, std::string, std::string>> cases = {
      {"a::b", 2, ":", ""},
      {"a::b", 3, ":", "b"},
      {"HKEY_LOCAL_MACHINE:Software", 2, ":", "Software"},
      {"HKEY_LOCAL_MACHINE:Software", 1, ":", "HKEY_LOCAL_MACHINE"},
      {"no colon", 1, ":", "no colon"},
      {"no colon", 2, ":", ""},
      {"a<>b<>c", 3, "<>", "c"},
      {"a<>b<>c", 4, "<>", ""},
      {"aXb", 2, "x", ""},  // exact, case-sensitive
      {"\\\\srv\\HKLM\\x", 3, "\\", "srv"},
  };
  for (const auto& [text, n, sep, expected] : cases) {
    EXPECT_EQ(GetField(text, n, sep), expected) << text << " field " << n;
  }
}

TEST(RegistrySupport, FindNthDropLeftCutAtNullAndToLong) {
  EXPECT_EQ(FindNth("a\\b\\c\\d", "\\", 1), 2);
  EXPECT_EQ(FindNth("a\\b\\c\\d", "\\", 3), 6);
  EXPECT_EQ(FindNth("a\\b\\c\\d", "\\", 4), 0);
  EXPECT_EQ(FindNth("xAxa", "a", 2), 4);  // case-insensitive
  EXPECT_EQ(FindNth("aaa", "aa", 2), 2);  // overlapping hits count
  EXPECT_EQ(DropLeft("abc", 1), "bc");
  EXPECT_EQ(DropLeft("abc", 3), "");
  EXPECT_EQ(DropLeft("abc", 5), "");
  EXPECT_EQ(CutAtNull(std::string("ab\0cd", 5)), "ab");
  EXPECT_EQ(CutAtNull("abc"), "abc");
  EXPECT_EQ(CutAtNullTrim(std::string("ab  \0cd", 7)), "ab");
  EXPECT_EQ(ToLong(RegistryValue(" 42 ")), 42);
  EXPECT_EQ(ToLong(RegistryValue("4x")), 0);
  EXPECT_EQ(ToLong(RegistryValue("+-5")), 0);  // one sign only
  EXPECT_EQ(ToLong(RegistryValue("+7")), 7);
  // Converted as every number setting is: rounded half to even.
  EXPECT_EQ(ToLong(RegistryValue("1.5")), 2);
  EXPECT_EQ(ToLong(RegistryValue("2.5")), 2);
  EXPECT_EQ(ToLong(RegistryValue(-3)), -3);
  EXPECT_EQ(NormalizeKeyPath("HKCR:.pdf/x"), "HKCR\\.pdf\\x");
}

}  // namespace
}  // namespace kalvo
