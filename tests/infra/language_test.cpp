// The INI reader, the language file search and the shipped language files.
#include "infra/language.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace kalvo {
namespace {

namespace fs = std::filesystem;

const std::string kData = std::string(KALVO_TEST_DATA) + "/lang/";

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

class TempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kalvo_lang_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string dir_;
};

TEST(ReadIniText, BehavesLikeTheWindowsProfileRead) {
  const std::string file = kData + "quirks.ini";
  struct Case {
    const char *section, *key, *expected, *why;
  } cases[] = {
      {"Quirks", "plain", "value", "plain pair"},
      {"QUIRKS", "PLAIN", "value", "names ignore case"},
      {"Quirks", "spaced key", "spaced value", "blanks around key and value"},
      {" Quirks ", " mixed ", "Case Key", "blanks around the asked names"},
      {"Quirks", "double", "  quoted keeps inner blanks  ", "one pair of double quotes"},
      {"Quirks", "single", "single quoted", "one pair of single quotes"},
      {"Quirks", "mismatch", "\"half'", "quotes that do not match stay"},
      {"Quirks", "lonequote", "\"", "a lone quote stays"},
      {"Quirks", "inner", "a \"b\" c", "inner quotes stay"},
      {"Quirks", "twice", "first", "the first definition wins"},
      {"Quirks", ";commented", "(default)", "comment lines define nothing"},
      {"Quirks", "; indented comment", "(default)", "also when indented"},
      {"Quirks", "escapes", "Zeile1\nZeile2", "\\n becomes a line feed"},
      {"Quirks", "crlf", "a\r\nb", "\\r becomes a carriage return"},
      {"Quirks", "tab", "C:\\temp", "other backslash sequences stay"},
      {"Quirks", "new", "C:\new", "even in a path, \\n is a line feed"},
      {"Quirks", "empty", "", "an empty value is not the default"},
      {"Quirks", "equals", "a=b", "split at the first ="},
      {"Quirks", "noequals", "(default)", "a line without = defines nothing"},
      {"Quirks", "umlaut",
       "Gr\xF6\xDF"
       "e",
       "UTF-8 file, Windows-1252 result"},
      {"Quirks", "TABBED", "tabs around", "tabs are blanks too"},
      {"", "BEFORE", "(default)", "lines before the first section"},
      {"spaced section", "k", "v", "blanks inside the brackets"},
      {"repeated", "a", "1", "only the first section of a name counts"},
      {"Repeated", "b", "(default)", "keys of a repeated section are not found"},
      {"Trailing", "t", "ok", "text after ] is ignored"},
      {"Trailing", "u", "belongs to Trailing", "a [ line without ] is no section"},
      {"Missing", "plain", "(default)", "missing section"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ReadIniText(file, c.section, c.key, "(default)"), c.expected) << c.why;
  }
}

TEST(ReadIniText, DefaultsAndEncodings) {
  EXPECT_EQ(ReadIniText(kData + "none.ini", "A", "B"), "") << "missing file, no default";
  EXPECT_EQ(ReadIniText(kData + "none.ini", "A", "B", "def  "), "def")
      << "trailing blanks of the default go";
  EXPECT_EQ(ReadIniText(kData + "none.ini", "A", "B", "a\\nb"), "a\nb")
      << "the default is finished like a value";
  EXPECT_EQ(ReadIniText(kData, "A", "B", "dir"), "dir") << "a directory is no file";
  EXPECT_EQ(ReadIniText(kData + "utf8_bom.ini", "bom", "KEY"), "\xE4\x80")
      << "UTF-8 with byte-order mark";
  EXPECT_EQ(ReadIniText(kData + "cp1252_crlf.ini", "sektion", "name"),
            "Gr\xF6\xDF"
            "e \x80")
      << "not UTF-8: read as Windows-1252, CRLF line ends";
  EXPECT_EQ(ReadIniText(kData + "cp1252_crlf.ini", "Sektion", "Key2"), "x");
}

TEST_F(TempDir, ValuesAreCutAtTheBufferAndAtNul) {
  const std::string file = dir_ + "/long.ini";
  WriteFile(file, "[S]\nlong=" + std::string(20000, 'x') + "\nnul=ab" + std::string(1, '\0') +
                      "cd\nshort=" + std::string(kIniValueMax, 'y') + "\n");
  EXPECT_EQ(ReadIniText(file, "S", "long"), std::string(kIniValueMax, 'x'));
  EXPECT_EQ(ReadIniText(file, "S", "nul"), "ab");
  EXPECT_EQ(ReadIniText(file, "S", "short").size(), kIniValueMax) << "exactly fits";
  // The cut counts the two-character sequences before they are replaced.
  WriteFile(file, "[S]\nk=" + std::string(kIniValueMax - 1, 'x') + "\\n\n");
  EXPECT_EQ(ReadIniText(file, "S", "k"), std::string(kIniValueMax - 1, 'x') + "\\");
}

TEST_F(TempDir, CacheSeesChangedFiles) {
  const std::string file = dir_ + "/c.ini";
  IniCache cache;
  EXPECT_EQ(cache.Read(file, "S", "k", "none"), "none");
  WriteFile(file, "[S]\nk=one\n");
  EXPECT_EQ(cache.Read(file, "S", "k"), "one") << "a file that appears later";
  WriteFile(file, "[S]\nk=three\n");
  EXPECT_EQ(cache.Read(file, "S", "k"), "three") << "new size";

  // Same size, modification time set back: the cached text is still used...
  struct stat before {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  WriteFile(file, "[S]\nk=THREE\n");
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  EXPECT_EQ(cache.Read(file, "S", "k"), "three");
  // ...and a new modification time with the same size is picked up.
  const timespec later[2] = {before.st_atim, {before.st_mtim.tv_sec + 1, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), later, 0), 0);
  EXPECT_EQ(cache.Read(file, "S", "k"), "THREE");

  fs::remove(file);
  EXPECT_EQ(cache.Read(file, "S", "k", "gone"), "gone");
}

class LanguageTest : public TempDir {
 protected:
  void Put(const std::string& name, const std::string& fixture) {
    fs::copy_file(kData + fixture, dir_ + "/" + name, fs::copy_options::overwrite_existing);
  }
  Language Make(int id) { return Language(ProgramInfo{dir_, "kalvosrv"}, id); }
};

TEST_F(LanguageTest, GermanFileIsPreferredOverEnglish) {
  Put("kalvo.407", "lang_de.ini");
  Put("kalvo.409", "lang_en.ini");
  Language language = Make(0x0407);
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "Ja");
  EXPECT_EQ(language.LanguageFilePath(), dir_ + "/kalvo.407");
  EXPECT_EQ(language.GetLanguageString("TEST", "LINES"), "Zeile1\nZeile2");
  EXPECT_EQ(language.GetLanguageString("TEST", "MISSING"), "");
  EXPECT_EQ(language.GetLanguageString("TEST", "MISSING", "fallback"), "fallback");
}

TEST_F(LanguageTest, SpanishFallsBackToEnglish) {
  Put("kalvo.409", "lang_en.ini");
  Language language = Make(0x0C0A);
  EXPECT_EQ(language.LanguageFileFor(0x0C0A), dir_ + "/kalvo.40A");
  EXPECT_TRUE(language.LanguageFileExists());
  EXPECT_EQ(language.LanguageFilePath(), dir_ + "/kalvo.409");
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "Yes");
}

TEST_F(LanguageTest, DirectoryWithTheNameDoesNotCount) {
  fs::create_directory(dir_ + "/kalvo.407");
  Language language = Make(0x07);
  EXPECT_FALSE(language.LanguageFileExists());
  Put("kalvo.409", "lang_en.ini");
  EXPECT_EQ(language.FindLanguageFile(), dir_ + "/kalvo.409");
}

TEST_F(LanguageTest, WithoutFileEveryLookupSearchesAgain) {
  Language language = Make(0x07);
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "");
  EXPECT_EQ(language.LanguageFilePath(), "");
  Put("kalvo.409", "lang_en.ini");
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "Yes") << "found without a restart";
  // Once a file is chosen, lookups keep it; an explicit check searches again.
  Put("kalvo.407", "lang_de.ini");
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "Yes");
  EXPECT_TRUE(language.LanguageFileExists());
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "Ja");
  // A chosen file that is edited is read again.
  WriteFile(dir_ + "/kalvo.407", "[GENERAL]\nYES=Jawohl\n");
  EXPECT_EQ(language.GetLanguageString("GENERAL", "YES"), "Jawohl");
}

TEST(LanguageFileName, FirstFiveCharactersOfTheNameWithoutExtension) {
  struct Case {
    ProgramInfo program;
    int id;
    const char *expected, *why;
  } cases[] = {
      {{"/opt/kdx", "kalvosrv"}, 0x07, "/opt/kdx/kalvo.407", "our executable"},
      {{"/opt/kdx", "KalvoSrv.exe"}, 0x0407, "/opt/kdx/Kalvo.407", "extension dropped, case kept"},
      {{"/opt/kdx", "ab"}, 0x0C, "/opt/kdx/ab.40C", "short names stay whole"},
      {{"/opt/kdx", "kalvo.srv.bin"}, 0x09, "/opt/kdx/kalvo.409", "only the last extension"},
      {{"/", "kalvosrv"}, 0x09, "/kalvo.409", "root directory"},
      {{"/opt", "kalvosrv"}, 0x12E, "/opt/kalvo.412E", "ids above 0xFF keep all digits"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Language(c.program, c.id).LanguageFileFor(c.id), c.expected) << c.why;
  }
}

TEST(LanguageId, FromLocaleNames) {
  struct Case {
    const char* locale;
    int id;
  } cases[] = {
      {"de_DE.UTF-8", 0x07}, {"de_AT", 0x07},       {"de", 0x07},    {"en_US.UTF-8", 0x09},
      {"fr_FR@euro", 0x0C},  {"es_ES", 0x0A},       {"it_IT", 0x10}, {"nl_NL", 0x13},
      {"pt_BR", 0x16},       {"pl_PL", 0x15},       {"DE_DE", 0x07}, {"C", 0x09},
      {"POSIX", 0x09},       {"C.UTF-8", 0x09},     {"", 0x09},      {"xx_YY", 0x09},
      {"nb_NO", 0x14},       {"sr_RS@latin", 0x1A},
  };
  for (const Case& c : cases) EXPECT_EQ(LanguageIdFromLocaleName(c.locale), c.id) << c.locale;
}

TEST(LanguageId, FirstNonEmptyOfLcAllLcMessagesLang) {
  struct Saved {
    const char* name;
    std::optional<std::string> value;
  } saved[] = {{"LC_ALL", {}}, {"LC_MESSAGES", {}}, {"LANG", {}}};
  for (Saved& s : saved) {
    if (const char* v = getenv(s.name)) s.value = v;
  }
  setenv("LC_ALL", "", 1);
  setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
  setenv("LANG", "de_DE.UTF-8", 1);
  EXPECT_EQ(LanguageIdFromLocale(), 0x0C) << "an empty LC_ALL is skipped";
  setenv("LC_ALL", "es_ES", 1);
  EXPECT_EQ(LanguageIdFromLocale(), 0x0A);
  unsetenv("LC_ALL");
  unsetenv("LC_MESSAGES");
  EXPECT_EQ(LanguageIdFromLocale(), 0x07);
  unsetenv("LANG");
  EXPECT_EQ(LanguageIdFromLocale(), 0x09);
  for (const Saved& s : saved) {
    if (s.value) {
      setenv(s.name, s.value->c_str(), 1);
    } else {
      unsetenv(s.name);
    }
  }
}

// Every text the server and its tray companion look up, in both shipped files.
TEST(ShippedLanguageFiles, HoldEveryTextTheServerUses) {
  const std::pair<const char*, std::vector<const char*>> required[] = {
      {"MAINWIN_SERVER", {"TITLE"}},
      {"MSGBOX_SERVER", {"ERROR_NO_SERVICE_START"}},
      {"MENU_SERVER", {"STATUS", "INFO", "HELP"}},
      {"DLG_STATE", {"TITLE", "FRAME_CONNECTION", "FRAME_ACTIVITIES", "SENT", "RECEIVED", "BYTES"}},
      {"DLG_STATE_SERVER",
       {"CONNECTION", "CONNECTED", "TIME", "CONNECTION_COUNT", "STATE_ACTIVE", "STATE_INACTIVE",
        "TIME_DAY", "TIME_DAYS"}},
      {"DLG_INFO", {"TITLE", "FILE_VERSION", "COPYRIGHT"}},
      {"GENERAL", {"BUTTON_CLOSE", "YES", "NO", "FORMAT_DATE", "FORMAT_TIME"}},
      {"DLG_GROUP_PROPERTIES", {"GROUP_EVERYONE", "GROUP_EVERYONE_DESCRIPTION"}},
  };
  const std::string packaging = std::string(KALVO_TEST_DATA) + "/../../packaging/";
  for (const char* name : {"kalvo.407", "kalvo.409"}) {
    const std::string file = packaging + name;
    ASSERT_TRUE(fs::is_regular_file(file)) << file;
    for (const auto& [section, keys] : required) {
      for (const char* key : keys) {
        EXPECT_NE(ReadIniText(file, section, key), "") << name << " " << section << " " << key;
      }
    }
    // New tokens join the group found by this literal name, whatever the server's language.
    EXPECT_EQ(ReadIniText(file, "DLG_GROUP_PROPERTIES", "GROUP_EVERYONE"), "Jeder") << name;
  }
  const std::string german = packaging + "kalvo.407";
  EXPECT_EQ(ReadIniText(german, "DLG_STATE", "FRAME_ACTIVITIES"), "Aktivit\xE4ten")
      << "UTF-8 file read as Windows-1252 text";
  EXPECT_EQ(ReadIniText(german, "DLG_STATE_SERVER", "TIME_DAYS"), "Tage");
  EXPECT_EQ(ReadIniText(german, "GENERAL", "FORMAT_DATE"), "dd.mm.yyyy");
  EXPECT_NE(ReadIniText(german, "MSGBOX_SERVER", "ERROR_NO_SERVICE_START").find('\n'),
            std::string::npos);
}

}  // namespace
}  // namespace kalvo
