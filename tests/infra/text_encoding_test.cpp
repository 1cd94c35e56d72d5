#include "infra/text_encoding.h"

#include <gtest/gtest.h>

namespace kalvo {
namespace {

TEST(TextEncoding, UmlautsAndEuroRoundTripThroughUtf8) {
  const std::string cp1252 = "Gr\xFC\xDF" "e \x80 \x84quote\x93";
  const std::string utf8 = Cp1252ToUtf8(cp1252);
  EXPECT_EQ(utf8, "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xE2\x80\x9Equote\xE2\x80\x9C");
  EXPECT_EQ(Utf8ToCp1252(utf8), cp1252);
}

TEST(TextEncoding, NarrowLiteralsAreWindows1252) {
  EXPECT_EQ(std::string("ä"), "\xE4");
}

TEST(TextEncoding, EveryByteSurvivesBothRoundTrips) {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(Utf8ToCp1252(Cp1252ToUtf8(all)), all);
  EXPECT_EQ(Utf16LeToCp1252(Cp1252ToUtf16Le(all)), all);
}

TEST(TextEncoding, UnmappableCharactersBecomeQuestionMarks) {
  EXPECT_EQ(Utf8ToCp1252("\xE2\x98\x83"), "?");  // snowman
  EXPECT_EQ(Utf16LeToCp1252(std::string("\x03\x26", 2)), "?");
}

TEST(TextEncoding, FilesAreDetectedByBomAndValidity) {
  FileEncoding e;
  EXPECT_EQ(DecodeTextFile(std::string("\xFF\xFE" "A\0\xE4\0", 6), &e), "A\xE4");
  EXPECT_EQ(e, FileEncoding::kUtf16LeBom);
  EXPECT_EQ(DecodeTextFile("A\xC3\xA4", &e), "A\xE4");
  EXPECT_EQ(e, FileEncoding::kUtf8);
  EXPECT_EQ(DecodeTextFile("A\xE4", &e), "A\xE4");
  EXPECT_EQ(e, FileEncoding::kCp1252);
  EXPECT_EQ(DecodeTextFile("\xEF\xBB\xBFx", &e), "x");
  EXPECT_EQ(e, FileEncoding::kUtf8Bom);
  for (auto enc : {FileEncoding::kCp1252, FileEncoding::kUtf8, FileEncoding::kUtf8Bom,
                   FileEncoding::kUtf16LeBom}) {
    FileEncoding back;
    EXPECT_EQ(DecodeTextFile(EncodeTextFile("x\xE4y", enc), &back), "x\xE4y");
    if (enc != FileEncoding::kUtf8) {
      EXPECT_EQ(back, enc);
    }
  }
}

TEST(TextEncoding, MalformedUtf8IsNotValid) {
  EXPECT_FALSE(IsValidUtf8("\xC0\x80"));      // overlong NUL
  EXPECT_FALSE(IsValidUtf8("\xED\xA0\x80"));  // surrogate
  EXPECT_FALSE(IsValidUtf8("\xE2\x82"));      // truncated
  EXPECT_TRUE(IsValidUtf8(""));
}

}  // namespace
}  // namespace kalvo
