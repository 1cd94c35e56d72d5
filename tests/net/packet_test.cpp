#include "net/packet.h"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <random>

#include "infra/runtime_error.h"
#include "log_capture.h"
#include "packet_printer.h"

namespace kalvo {
namespace {

SocketDataStruct Record(int32_t id, std::string data, std::string m1 = "", std::string m2 = "",
                        std::string m3 = "") {
  SocketDataStruct r;
  r.PackageID = id;
  r.DataSize = static_cast<int32_t>(data.size());
  r.Data = std::move(data);
  r.Misc1 = std::move(m1);
  r.Misc2 = std::move(m2);
  r.Misc3 = std::move(m3);
  return r;
}

class PacketTest : public ::testing::Test {
 protected:
  void SetUp() override { log_works_ = capture_.Works(); }
  testing::LogCapture capture_;
  bool log_works_ = false;
};

TEST_F(PacketTest, EncodesTheDocumentedExample) {
  SocketDataStruct r = Record(102, "PC042");
  r.PackageSize = SocketGetPackageSize(capture_.log(), r);
  EXPECT_EQ(r.PackageSize, 19);
  EXPECT_EQ(SocketStructToString(capture_.log(), r), "19|102|0||||5|PC042");
}

// S is the length without the size field; the size field's own digits may carry it into one
// more digit, which the second step catches.
TEST_F(PacketTest, SizeFieldAtPowersOfTen) {
  struct Case {
    int32_t s;
    int32_t expected;
    const char* why;
  } cases[] = {
      {9, 11, "T = 10 has two digits"},
      {10, 12, "smallest real packet"},
      {97, 99, "two digits stay two"},
      {98, 101, "98 + 2 = 100 needs a third digit"},
      {99, 102, "already three digits after adding"},
      {997, 1001, "three to four digits"},
      {9995, 9999, "just fits in four digits"},
      {9996, 10001, "four to five digits"},
  };
  for (const auto& c : cases) {
    // PackageID 1, Reserved 0: S = 7 + 1 + 1 + len(DataSize) + DataSize, solved for DataSize
    // (negative DataSize reaches S = 9, which no real packet has).
    SocketDataStruct r;
    r.PackageID = 1;
    for (int32_t d = -9; d < 100000; ++d) {
      r.DataSize = d;
      if (9 + static_cast<int32_t>(std::to_string(d).size()) + d == c.s) break;
    }
    EXPECT_EQ(SocketGetPackageSize(capture_.log(), r), c.expected) << "S=" << c.s << ": " << c.why;
  }
}

TEST_F(PacketTest, EncodedLengthEqualsSizeFieldForEverySize) {
  SocketDataStruct r = Record(310, "", "A", "BC", "DEF");
  for (int n = 0; n < 20000; n += (n < 1200 ? 1 : 97)) {
    r.Data.assign(static_cast<size_t>(n), 'd');
    r.DataSize = n;
    r.PackageSize = SocketGetPackageSize(capture_.log(), r);
    ASSERT_EQ(SocketStructToString(capture_.log(), r).size(), static_cast<size_t>(r.PackageSize))
        << "Data length " << n;
  }
}

TEST_F(PacketTest, SizeOverflowIsLoggedAndGivesZero) {
  SocketDataStruct r;
  r.PackageID = 1;
  // S = 7 + 1 + 1 + 10 + DataSize; the last step adds len(T) = 10.
  r.DataSize = INT32_MAX - 29;  // S = INT32_MAX - 10: T = INT32_MAX, size = INT32_MAX
  EXPECT_EQ(SocketGetPackageSize(capture_.log(), r), INT32_MAX);
  r.DataSize = INT32_MAX - 28;  // T overflows
  EXPECT_EQ(SocketGetPackageSize(capture_.log(), r), 0);
  r.DataSize = INT32_MAX;  // S overflows
  EXPECT_EQ(SocketGetPackageSize(capture_.log(), r), 0);
  if (log_works_) {
    EXPECT_EQ(capture_.Count("Fehler: 6 - Overflow (SocketGetPackageSize) {}"), 2);
  }
}

TEST_F(PacketTest, DecodesWireTexts) {
  struct Case {
    const char* text;
    SocketDataStruct expected;
    const char* why;
  } cases[] = {
      {"19|102|0||||5|PC042", {19, 102, 0, 5, "PC042", "", "", ""}, "the documented example"},
      {"19|102|0||||5|a|b|c", {19, 102, 0, 5, "a|b|c", "", "", ""}, "Data is cut by length"},
      {"22|101|0|A|B|C|5|PC042", {22, 101, 0, 5, "PC042", "A", "B", "C"}, "Misc fields"},
      {"xx19|102|0||||5|PC042", {19, 102, 0, 5, "PC042", "", "", ""}, "leading x stripped"},
      {" 23 | 102 |0||||5|PC042", {23, 102, 0, 5, "PC042", "", "", ""}, "blanks around numbers"},
      {"19|102|0||||5|PC042tail", {19, 102, 0, 5, "PC042", "", "", ""}, "cut at PackageSize"},
      {"19|102|0||||3|PC042", {19, 102, 0, 3, "042", "", "", ""}, "Data from the end"},
      {"19|102|0||||50|PC042",
       {19, 102, 0, 50, "19|102|0||||50|PC04", "", "", ""},
       "DataSize past the start takes the whole first PackageSize characters"},
      {"12|7|0||||0|", {12, 7, 0, 0, "", "", "", ""}, "empty Data"},
      {"12|7|0||||0", {12, 7, 0, 0, "", "", "", ""}, "no seventh separator: no Data"},
      {"5|7", {5, 7, 0, 0, "", "", "", ""}, "missing fields stay 0 or empty"},
      {"5", {5, 0, 0, 0, "", "", "", ""}, "one field only"},
      {"-3|-4|-5||||0", {-3, -4, -5, 0, "", "", "", ""}, "negative numbers, no Data"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SocketStringToStruct(capture_.log(), c.text), c.expected) << c.text << ": " << c.why;
  }
  if (log_works_) {
    EXPECT_TRUE(capture_.Lines().empty()) << capture_.Lines().front();
  }
}

TEST_F(PacketTest, MalformedTextsGiveAnEmptyRecordAndALogLine) {
  struct Case {
    const char* text;
    const char* log;
  } cases[] = {
      {"abc|1|0||||0|", "Fehler: 13 - Type mismatch (SocketStringToStruct) {}"},
      {"19||0||||5|PC042", "Fehler: 13 - Type mismatch (SocketStringToStruct) {}"},  // blank
      {"19|102|0||||five|PC042", "Fehler: 13 - Type mismatch (SocketStringToStruct) {}"},
      {"99999999999|1|0||||0|", "Fehler: 6 - Overflow (SocketStringToStruct) {}"},
      {"-5|1|0||||0|", "Fehler: 5 - Invalid procedure call or argument (SocketStringToStruct) {}"},
      {"19|102|0||||-1|PC042",
       "Fehler: 5 - Invalid procedure call or argument (SocketStringToStruct) {}"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SocketStringToStruct(capture_.log(), c.text), SocketDataStruct{}) << c.text;
    if (log_works_) {
      EXPECT_EQ(capture_.Lines().back(), c.log) << c.text;
    }
  }
}

TEST_F(PacketTest, KeepAliveIsLoggedOncePerText) {
  EXPECT_EQ(SocketStringToStruct(capture_.log(), "xxx"), SocketDataStruct{});
  EXPECT_EQ(SocketStringToStruct(capture_.log(), "x"), SocketDataStruct{});
  if (log_works_) {
    EXPECT_EQ(capture_.Count("KeepAlive received"), 2);
  }
}

TEST_F(PacketTest, ConvertsNumbersLikeTheVariantConversion) {
  struct Case {
    const char* text;
    std::optional<int32_t> value;  // nullopt: type mismatch
    const char* why;
  } cases[] = {
      {"12", 12, "plain"},
      {" \t12 ", 12, "blanks around"},
      {"+7", 7, "plus sign"},
      {"-7", -7, "minus sign"},
      {"007", 7, "leading zeros"},
      {"2.5", 2, "half rounds to even"},
      {"3.5", 4, "half rounds to even"},
      {"2.51", 3, "above half rounds up"},
      {"-2.5", -2, "negative half to even"},
      {".5", 0, "no integer digits"},
      {"5.", 5, "no fraction digits"},
      {"2147483647", INT32_MAX, "largest"},
      {"-2147483648", INT32_MIN, "smallest"},
      {"", std::nullopt, "empty is no number"},
      {"  ", std::nullopt, "blanks only"},
      {"1 2", std::nullopt, "blank inside"},
      {"12a", std::nullopt, "trailing letter"},
      {"0x10", std::nullopt, "no C hexadecimal"},
      {".", std::nullopt, "point only"},
      {"-", std::nullopt, "sign only"},
  };
  for (const auto& c : cases) {
    if (c.value) {
      EXPECT_EQ(ConvertToInt32(c.text), *c.value) << c.text << ": " << c.why;
    } else {
      EXPECT_THROW(ConvertToInt32(c.text), RuntimeError) << c.text << ": " << c.why;
    }
  }
  for (const char* text : {"2147483648", "-2147483649", "99999999999999999999999"}) {
    try {
      ConvertToInt32(text);
      ADD_FAILURE() << text;
    } catch (const RuntimeError& e) {
      EXPECT_EQ(e.number(), kErrOverflow) << text;
    }
  }
}

TEST_F(PacketTest, ReadsTheSizeBeforeTheFirstSeparator) {
  struct Case {
    const char* text;
    int32_t size;
    const char* why;
  } cases[] = {
      {"19|102|0||||5|PC042", 19, "normal"},
      {" 19 |", 19, "blanks trimmed"},
      {"-5|", -5, "negative read as is (framing drops it)"},
      {"19", 0, "no separator yet"},
      {"x19|", 0, "keep-alive glued in front is no number"},
      {"hello|", 0, "a word"},
      {"|19|", 0, "empty field"},
      {"99999999999|", 0, "overflow"},
      {"", 0, "empty"},
  };
  for (const auto& c : cases) EXPECT_EQ(SocketReadPackageSize(c.text), c.size) << c.why;
}

TEST_F(PacketTest, AdminLoginIsToldFromTheChunkAlone) {
  struct Case {
    std::string chunk;
    bool admin;
    const char* why;
  } cases[] = {
      {"14|501|0||||0|", true, "a 501 alone"},
      {"x14|501|0||||0|", true, "leading x stripped by the decoder"},
      {"14|501|0||||0|14|401|0||||0|", true, "the chunk's first packet counts"},
      {"14|401|0||||0|14|501|0||||0|", false, "a 501 behind another packet does not"},
      {"14|501|0||", true, "a 501 whose rest comes later"},
      {"xxx", false, "keep-alive"},
      {"garbage", false, "not a number"},
      {"14|501", true, "header only"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CheckAdminLoginPackage(capture_.log(), c.chunk), c.admin) << c.why;
  }
  if (log_works_) {
    EXPECT_EQ(capture_.Count("KeepAlive received"), 1);
    EXPECT_EQ(capture_.Lines().size(), 1u);  // a chunk that does not decode is no error
  }
}

TEST_F(PacketTest, RandomRecordsRoundTrip) {
  std::mt19937 rng(20240611);
  auto random_text = [&](size_t max_len, bool allow_bar) {
    std::string s(std::uniform_int_distribution<size_t>(0, max_len)(rng), '\0');
    for (auto& ch : s) {
      do {
        ch = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(rng));
      } while (!allow_bar && ch == '|');
    }
    return s;
  };
  std::uniform_int_distribution<int32_t> any_int(INT32_MIN, INT32_MAX);
  for (int i = 0; i < 2000; ++i) {
    SocketDataStruct r = Record(any_int(rng), random_text(300, true), random_text(20, false),
                                random_text(20, false), random_text(20, false));
    // Make sure the awkward bytes appear often.
    if (i % 3 == 0) r.Data += std::string("|\r\n\0\x80\xFF|", 7);
    r.DataSize = static_cast<int32_t>(r.Data.size());
    r.Reserved = i % 2;
    r.PackageSize = SocketGetPackageSize(capture_.log(), r);
    const std::string wire = SocketStructToString(capture_.log(), r);
    ASSERT_EQ(wire.size(), static_cast<size_t>(r.PackageSize));
    ASSERT_EQ(SocketReadPackageSize(wire), r.PackageSize);
    ASSERT_EQ(SocketStringToStruct(capture_.log(), wire), r) << i;
  }
}

TEST_F(PacketTest, ClearResetsEveryField) {
  SocketDataStruct r = Record(5, "data", "a", "b", "c");
  r.PackageSize = 99;
  r.Reserved = 1;
  SocketClearStruct(r);
  EXPECT_EQ(r, SocketDataStruct{});
}

}  // namespace
}  // namespace kalvo
