// Text, array, number and file helpers.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "infra/arrays.h"
#include "infra/files.h"
#include "infra/numbers.h"
#include "infra/runtime_error.h"
#include "infra/strings.h"

namespace kalvo {
namespace {

using Strings = std::vector<std::string>;

TEST(PadWith, AppendsWholeFillUntilLongEnough) {
  struct Case {
    std::string text, fill;
    size_t length;
    std::string expected;
    const char* why;
  } cases[] = {
      {"abc", "xy", 4, "abcxy", "the fill goes in whole, so the text may end longer"},
      {"abc", "xy", 3, "abc", "already long enough"},
      {"", "0", 3, "000", "empty text"},
      {"abc", "", 10, "abc", "an empty fill cannot lengthen the text"},
  };
  for (Case c : cases) {
    std::string& result = PadWith(c.text, c.fill, c.length);
    EXPECT_EQ(result, c.expected) << c.why;
    EXPECT_EQ(&result, &c.text) << "changed in place";
  }
}

TEST(TrimLeading, RemovesRepetitionsOfTheCharacter) {
  struct Case {
    std::string text, character, expected;
    const char* why;
  } cases[] = {
      {"000123", "0", "123", "every leading repetition"},
      {"0100", "0", "100", "only leading ones"},
      {"aaab", "", "b", "empty character: the text's own first character"},
      {"xxxx", "x", "", "all of it"},
      {"", "", "", "empty text"},
      {"abab1", "ab", "1", "a longer character text is removed as a unit"},
  };
  for (Case c : cases) EXPECT_EQ(TrimLeading(c.text, c.character), c.expected) << c.why;
}

TEST(TrimLeading, CharacterMayViewTheTextItself) {
  std::string text = "zzy";
  EXPECT_EQ(TrimLeading(text, std::string_view(text).substr(0, 1)), "y");
}

TEST(Hex, TextToHexGivesTwoUpperCaseDigitsPerByte) {
  EXPECT_EQ(TextToHex("AB"), "4142");
  EXPECT_EQ(TextToHex("\n"), "0A");
  EXPECT_EQ(TextToHex("\xE4\xFF"), "E4FF");  // ä and ÿ: bytes above 127 are not negative
  EXPECT_EQ(TextToHex(std::string("\0", 1)), "00");
  EXPECT_EQ(TextToHex(""), "");
}

TEST(Hex, EveryByteRoundTrips) {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(HexToText(TextToHex(all)), all);
}

TEST(Hex, HexToTextOnlyForHexText) {
  struct Case {
    std::string hex, expected;
    const char* why;
  } cases[] = {
      {"0a41", "\nA", "lower-case digits are accepted"},
      {"E4", "\xE4", "upper-case digits"},
      {"0A4", "", "odd length"},
      {"", "", "empty"},
      {"4G", "", "not a hexadecimal digit"},
      {" 41", "", "blanks are not digits"},
      {"&H41", "", "the prefix is not part of the text"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(HexToText(c.hex), c.expected) << c.why;
    EXPECT_EQ(IsHexText(c.hex), !c.expected.empty()) << c.why;
  }
}

TEST(Split, BehavesLikeTheClassicSplit) {
  struct Case {
    std::string text, separator;
    Strings expected;
    const char* why;
  } cases[] = {
      {"", "|", {}, "an empty text gives no elements"},
      {"a", "|", {"a"}, "no separator in the text"},
      {"a|b|c", "|", {"a", "b", "c"}, "plain"},
      {"a||b", "|", {"a", "", "b"}, "empty parts are kept"},
      {"|", "|", {"", ""}, "a lone separator gives two empty parts"},
      {"a|", "|", {"a", ""}, "trailing separator"},
      {"a$$b$$", "$$", {"a", "b", ""}, "multi-character separator"},
      {"a|b", "", {"a|b"}, "empty separator: the whole text"},
      {std::string("a\0b", 3), std::string("\0", 1), {"a", "b"}, "NUL is a separator too"},
  };
  for (const Case& c : cases) EXPECT_EQ(Split(c.text, c.separator), c.expected) << c.why;
}

TEST(ArrayBounds, NeverFail) {
  const Strings none;
  const Strings three = Split("a,b,c", ",");
  const std::optional<Strings> absent;
  const std::vector<std::vector<std::string>> table = {{"1", "2"}, {"3", "4"}, {"5", "6"}};
  const std::vector<std::vector<std::string>> no_rows;

  EXPECT_EQ(ArrayCount(none), 0);
  EXPECT_EQ(ArrayUpper(none), 0);
  EXPECT_EQ(ArrayCount(Split("", ",")), 0) << "the split of an empty text";
  EXPECT_EQ(ArrayCount(absent), 0) << "never dimensioned";
  EXPECT_EQ(ArrayUpper(absent), 0);

  EXPECT_EQ(ArrayCount(three), 3);
  EXPECT_EQ(ArrayUpper(three), 2);
  EXPECT_EQ(ArrayLower(three), 0);
  EXPECT_EQ(ArrayCount(three, 2), 0) << "a dimension the array does not have";
  EXPECT_EQ(ArrayCount(std::optional<Strings>(three)), 3);

  EXPECT_EQ(ArrayCount(table, 1), 3) << "rows";
  EXPECT_EQ(ArrayCount(table, 2), 2) << "columns";
  EXPECT_EQ(ArrayUpper(table, 2), 1);
  EXPECT_EQ(ArrayCount(table, 3), 0);
  EXPECT_EQ(ArrayCount(no_rows, 2), 0);
}

TEST(CheckedAdd, SumsInsideThe32BitRangeAndFailsOutsideIt) {
  const struct {
    int64_t a, b;
    std::optional<int32_t> sum;  // nothing: overflow
    const char* why;
  } cases[] = {
      {INT32_MAX - 1, 1, INT32_MAX, "the upper bound itself"},
      {INT32_MAX, 1, std::nullopt, "one above the upper bound"},
      {INT32_MIN + 1, -1, INT32_MIN, "the lower bound itself"},
      {INT32_MIN, -1, std::nullopt, "one below the lower bound"},
      {INT32_MIN, 0, INT32_MIN, "the lower bound plus nothing"},
      {-5, 3, -2, "an ordinary sum"},
  };
  for (const auto& c : cases) {
    if (c.sum) {
      EXPECT_EQ(CheckedAdd(c.a, c.b), *c.sum) << c.why;
      continue;
    }
    try {
      CheckedAdd(c.a, c.b);
      ADD_FAILURE() << c.why << ": no overflow reported";
    } catch (const RuntimeError& e) {
      EXPECT_EQ(e.number(), kErrOverflow) << c.why;
    }
  }
}

TEST(RoundDirected, Table) {
  struct Case {
    double value;
    int digits;
    const char* direction;
    double expected;
    const char* why;
  } cases[] = {
      {2.1, 0, "UP", 3, "ceiling"},
      {2.9, 0, "DOWN", 2, "floor"},
      {2.5, 0, "UP", 3, "half to even gives 2, then raised"},
      {3.5, 0, "DOWN", 3, "half to even gives 4, then lowered"},
      {2.0, 0, "UP", 2, "a whole number stays"},
      {-2.1, 0, "UP", -2, "ceiling of a negative value"},
      {-2.1, 0, "DOWN", -3, "floor of a negative value"},
      {2.1, 0, "up", 0, "direction texts are exact"},
      {2.1, 0, "", 0, "no direction"},
      {2.5, -1, "UP", 2, "negative digits: half to even only"},
      {3.5, -1, "x", 4, "negative digits ignore the direction"},
      {2.46, 1, "DOWN", 2, "2.46 -> 2.5 -> 2 (half to even twice)"},
      {2.56, 1, "UP", 3, "2.56 -> 2.6 -> 3"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RoundDirected(c.value, c.digits, c.direction), c.expected) << c.why;
  }
}

TEST(RoundDirected, SplitCountsAreCeilings) {
  // The backup upload divides a length by a part size and needs the next whole number.
  EXPECT_EQ(RoundDirected(10000.0 / 4096, 0, "UP"), 3);
  EXPECT_EQ(RoundDirected(8192.0 / 4096, 0, "UP"), 2);
}

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kalvo_files_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string dir_;
};

TEST_F(FilesTest, FileExistsAlsoForDirectoriesIsPlainFileNot) {
  const std::string file = dir_ + "/a.txt", sub = dir_ + "/sub", link = dir_ + "/dangling";
  std::ofstream(file) << "x";
  std::filesystem::create_directory(sub);
  std::filesystem::create_symlink(dir_ + "/missing", link);

  EXPECT_TRUE(FileExists(file));
  EXPECT_TRUE(IsPlainFile(file));
  EXPECT_TRUE(FileExists(sub));
  EXPECT_FALSE(IsPlainFile(sub));
  EXPECT_TRUE(FileExists(link)) << "the entry is there even if its target is not";
  EXPECT_FALSE(IsPlainFile(link));
  EXPECT_FALSE(FileExists(dir_ + "/nothing"));
  EXPECT_FALSE(IsPlainFile(dir_ + "/nothing"));
  EXPECT_FALSE(FileExists(""));
  EXPECT_FALSE(IsPlainFile(""));
}

}  // namespace
}  // namespace kalvo
