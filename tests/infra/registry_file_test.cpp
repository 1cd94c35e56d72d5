// Parsing and writing the .reg format. The fixtures under tests/data were written the way
// regedit exports: regedit5_utf16.reg is a version 5.00 file in UTF-16LE with byte-order
// mark and CRLF; regedit4_cp1252.reg a REGEDIT4 file in Windows-1252 with LF line ends.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

#include "infra/reg_file.h"

namespace kalvo {
namespace {

using Warnings = std::vector<std::pair<size_t, std::string>>;

std::string ReadFixture(const std::string& name) {
  std::ifstream in(std::string(KALVO_TEST_DATA) + "/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

RegDocument Parse(std::string_view bytes, Warnings* warnings = nullptr) {
  return ParseRegFile(bytes, [&](size_t line, const std::string& message) {
    if (warnings != nullptr) warnings->emplace_back(line, message);
  });
}

std::string DataOf(const RegDocument& doc, std::string_view key, std::string_view name,
                   uint32_t* type = nullptr) {
  const RegValue* value = doc.FindValue(key, name);
  if (value == nullptr) return "<missing>";
  if (type != nullptr) *type = value->type;
  return value->data;
}

std::vector<size_t> LinesOf(const Warnings& warnings) {
  std::vector<size_t> lines;
  for (const auto& w : warnings) lines.push_back(w.first);
  return lines;
}

constexpr std::string_view kKdx = "HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX";

TEST(RegFileParse, Version5Utf16ExportLoadsAllValueKinds) {
  Warnings warnings;
  const RegDocument doc = Parse(ReadFixture("regedit5_utf16.reg"), &warnings);
  EXPECT_EQ(doc.format, RegFormat::kVersion5);
  EXPECT_EQ(doc.encoding, FileEncoding::kUtf16LeBom);
  EXPECT_EQ(doc.line_end, "\r\n");

  uint32_t type = 0;
  EXPECT_EQ(DataOf(doc, "hklm\\software\\orvanta\\zentara\\kdx", "serverlocalport", &type),
            std::string("\x8b\x3b\0\0", 4));
  EXPECT_EQ(type, kRegDword);
  EXPECT_EQ(DataOf(doc, kKdx, "", &type), "Standard");
  EXPECT_EQ(type, kRegSz);
  EXPECT_EQ(DataOf(doc, kKdx, "InstallPath"), "C:\\Programme\\Zentara \"KDX\"");
  // Non-ASCII names and data arrive as Windows-1252 and match case-insensitively.
  EXPECT_EQ(DataOf(doc, kKdx, "GRÜßE"), "Größe ändern");

  const std::string db = std::string(kKdx) + "\\DB";
  EXPECT_EQ(DataOf(doc, db, "Servers", &type),
            std::string("alpha\0beta\0gamma\0delta-server.example\0epsilon\0\0", 47));
  EXPECT_EQ(type, kRegMultiSz);
  EXPECT_EQ(DataOf(doc, db, "TempPath", &type), std::string("%TEMP%\\kdx\0", 11));
  EXPECT_EQ(type, kRegExpandSz);
  EXPECT_EQ(DataOf(doc, db, "Blob", &type), "\x01\x02\xff");
  EXPECT_EQ(type, kRegBinary);
  EXPECT_EQ(DataOf(doc, db, "Big", &type), std::string("\x01\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(type, 0xbu);
  EXPECT_EQ(DataOf(doc, db, "AfterBroken"), "still here");
  EXPECT_EQ(DataOf(doc, db, "Gone"), "<missing>");

  EXPECT_FALSE(doc.KeyExists("HKEY_LOCAL_MACHINE\\SOFTWARE\\Orvanta\\Obsolete"));
  EXPECT_EQ(DataOf(doc, "HKEY_CLASSES_ROOT\\.pdf", ""), "AcroExch.Document");
  // Only the stray text line is reported; values under a deleted key are dropped quietly.
  EXPECT_EQ(LinesOf(warnings), std::vector<size_t>{20});
}

TEST(RegFileParse, Regedit4Cp1252ExportKeepsSingleByteText) {
  Warnings warnings;
  const RegDocument doc = Parse(ReadFixture("regedit4_cp1252.reg"), &warnings);
  EXPECT_EQ(doc.format, RegFormat::kRegedit4);
  EXPECT_EQ(doc.encoding, FileEncoding::kCp1252);
  EXPECT_EQ(doc.line_end, "\n");
  const std::string log = std::string(kKdx) + "\\Log";
  EXPECT_EQ(DataOf(doc, log, "LogLevel"), std::string("\3\0\0\0", 4));
  EXPECT_EQ(DataOf(doc, log, "Owner"), "Jürgen \"JB\" Bäcker");
  EXPECT_EQ(DataOf(doc, log, "Servers"),
            std::string("eins\0zwei\0drei-und-ein-langer-name.example\0vier\0\0", 49));
  EXPECT_EQ(DataOf(doc, log, "TempPath"), std::string("%TEMP%\\ä\0", 9));
  EXPECT_EQ(DataOf(doc, log, "AfterBad"), "\xff\xff\xff\xff");
  EXPECT_EQ(LinesOf(warnings), (std::vector<size_t>{11, 12}));
}

TEST(RegFileParse, MalformedLineIsSkippedAndTheNextLineStillLoads) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"("Name"="unterminated)", "string without closing quote"},
      {R"("Name"="a" trailing)", "text after the string"},
      {R"("Name"=dword:123456789)", "nine hex digits overflow a dword"},
      {R"("Name"=dword:)", "dword without digits"},
      {R"("Name"=dword:12g4)", "not a hex digit"},
      {R"("Name"=hex(7:61,00)", "type without closing parenthesis"},
      {R"("Name"=hex():00)", "empty type"},
      {R"("Name"=hex:01,2g)", "bad hex byte"},
      {R"("Name"=hex:100)", "three digits in one byte"},
      {R"("Name"=hex 01)", "hex without colon"},
      {R"("Name"=qword:1)", "unknown data type"},
      {R"("Name")", "no equals sign"},
      {R"("Name=dword:1)", "name without closing quote"},
      {R"(Name=1)", "ini syntax, not .reg"},
  };
  for (const auto& [line, reason] : cases) {
    SCOPED_TRACE(reason + ": " + line);
    Warnings warnings;
    const RegDocument doc = Parse(
        "REGEDIT4\r\n[HKEY_CURRENT_USER\\K]\r\n" + line + "\r\n\"Next\"=\"ok\"\r\n", &warnings);
    EXPECT_EQ(LinesOf(warnings), std::vector<size_t>{3});
    EXPECT_EQ(DataOf(doc, "HKEY_CURRENT_USER\\K", "Next"), "ok");
    EXPECT_EQ(DataOf(doc, "HKEY_CURRENT_USER\\K", "Name"), "<missing>");
  }
}

TEST(RegFileParse, OnlyHexDataGoOnOverBackslashedLines) {
  struct Case {
    std::string lines;
    std::string data;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"\"V\"=hex:01,02,\\\r\n  03", "\x01\x02\x03", "wrapped as regedit writes it"},
      {"\"V\" = hex:01,\\\r\n  02,\\\r\n  03", "\x01\x02\x03", "blanks around the equals sign"},
      {"\"V\"=\tHEX(3):01,02,\\\r\n03", "\x01\x02\x03", "tab, upper case and a type"},
      {"\"V\"=\"a=hex\" ; note\\", "a=hex", "a string is never continued"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    Warnings warnings;
    const RegDocument doc =
        Parse("REGEDIT4\r\n[HKEY_USERS\\K]\r\n" + c.lines + "\r\n\"Next\"=\"ok\"\r\n", &warnings);
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(DataOf(doc, "HKEY_USERS\\K", "V"), c.data);
    EXPECT_EQ(DataOf(doc, "HKEY_USERS\\K", "Next"), "ok");
  }
}

TEST(RegFileParse, BadKeyLineDropsItsValuesButNotTheNextKey) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[HKEY_NOWHERE\\K]", "unknown hive"},
      {"[HKEY_CURRENT_USER\\K", "no closing bracket"},
      {"[HKEY_CURRENT_USER\\\\K]", "empty key name component"},
  };
  for (const auto& [line, reason] : cases) {
    SCOPED_TRACE(reason);
    Warnings warnings;
    const RegDocument doc =
        Parse("REGEDIT4\n" + line + "\n\"A\"=\"1\"\n[HKEY_USERS\\U]\n\"B\"=\"2\"\n", &warnings);
    EXPECT_EQ(LinesOf(warnings), (std::vector<size_t>{2, 3}));
    EXPECT_EQ(DataOf(doc, "HKEY_USERS\\U", "B"), "2");
    EXPECT_EQ(doc.keys().size(), 1u);
  }
}

TEST(RegFileParse, EncodingAndHeaderDetection) {
  struct Case {
    std::string bytes;
    FileEncoding encoding;
    RegFormat format;
    size_t warnings;
    const char* reason;
  };
  const std::vector<Case> cases = {
      {"REGEDIT4\n[HKEY_USERS\\U]\n\"T\"=\"Gr\xC3\xBC\xC3\x9F"
       "e\"\n",
       FileEncoding::kUtf8, RegFormat::kRegedit4, 0, "valid UTF-8 is decoded and remembered"},
      {"REGEDIT4\n[HKEY_USERS\\U]\n\"T\"=\"Gr\xFC\xDF"
       "e\"\n",
       FileEncoding::kCp1252, RegFormat::kRegedit4, 0, "invalid UTF-8 is Windows-1252"},
      {"\xEF\xBB\xBFREGEDIT4\n[HKEY_USERS\\U]\n\"T\"=\"Gr\xC3\xBC\xC3\x9F"
       "e\"\n",
       FileEncoding::kUtf8Bom, RegFormat::kRegedit4, 0, "UTF-8 with byte-order mark"},
      {"[HKEY_USERS\\U]\n\"T\"=\"Gr\xFC\xDF"
       "e\"\n",
       FileEncoding::kCp1252, RegFormat::kRegedit4, 1,
       "missing header is reported, the content still loads"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    Warnings warnings;
    const RegDocument doc = Parse(c.bytes, &warnings);
    EXPECT_EQ(doc.encoding, c.encoding);
    EXPECT_EQ(doc.format, c.format);
    EXPECT_EQ(warnings.size(), c.warnings);
    EXPECT_EQ(DataOf(doc, "HKEY_USERS\\U", "T"), "Grüße");
  }
  // Plain ASCII is what regedit writes in Windows-1252; a rewrite must stay Windows-1252.
  EXPECT_EQ(Parse("REGEDIT4\r\n").encoding, FileEncoding::kCp1252);
  const RegDocument empty = Parse("");
  EXPECT_TRUE(empty.keys().empty());
  EXPECT_EQ(empty.format, RegFormat::kRegedit4);
}

TEST(RegFileParse, RepeatedKeysMergeAndRepeatedValuesReplaceInPlace) {
  const RegDocument doc = Parse(
      "REGEDIT4\n[HKEY_USERS\\A]\n\"x\"=\"1\"\n\"y\"=\"2\"\n[HKEY_USERS\\B]\n"
      "[hkey_users\\a]\n\"X\"=dword:00000007\n\"z\"=\"3\"\n");
  ASSERT_EQ(doc.keys().size(), 2u);
  const auto& values = doc.Values("HKEY_USERS\\A");
  ASSERT_EQ(values.size(), 3u);
  EXPECT_EQ(values[0].name, "x");
  EXPECT_EQ(values[0].type, kRegDword);
  EXPECT_EQ(values[1].name, "y");
  EXPECT_EQ(values[2].name, "z");
}

void ExpectSameContent(const RegDocument& a, const RegDocument& b) {
  ASSERT_EQ(a.keys().size(), b.keys().size());
  for (size_t i = 0; i < a.keys().size(); ++i) {
    EXPECT_EQ(a.keys()[i].path, b.keys()[i].path);
    EXPECT_EQ(a.keys()[i].values, b.keys()[i].values) << a.keys()[i].path;
  }
}

TEST(RegFileWrite, RoundTripKeepsDialectEncodingLineEndsAndContent) {
  for (const char* name : {"regedit5_utf16.reg", "regedit4_cp1252.reg"}) {
    SCOPED_TRACE(name);
    const RegDocument original = Parse(ReadFixture(name));
    const std::string written = FormatRegFile(original);
    Warnings warnings;
    const RegDocument reread = Parse(written, &warnings);
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(reread.format, original.format);
    EXPECT_EQ(reread.encoding, original.encoding);
    EXPECT_EQ(reread.line_end, original.line_end);
    ExpectSameContent(original, reread);
    EXPECT_EQ(FormatRegFile(reread), written);  // stable from the first rewrite on
  }
}

TEST(RegFileWrite, DataThatAQuotedStringCannotHoldGoesAsHex) {
  for (RegFormat format : {RegFormat::kRegedit4, RegFormat::kVersion5}) {
    RegDocument doc;
    doc.format = format;
    doc.encoding =
        format == RegFormat::kVersion5 ? FileEncoding::kUtf16LeBom : FileEncoding::kCp1252;
    ASSERT_TRUE(doc.CreateKey("HKEY_USERS\\K"));
    const std::vector<RegValue> values = {
        {"embedded nul", kRegSz, std::string("a\0b", 3)},
        {"terminated", kRegSz, std::string("ab\0", 3)},
        {"line break", kRegSz, "one\r\ntwo"},
        {"quote \"and\" back\\slash", kRegSz, "C:\\x \"y\""},
        {"", kRegSz, "default"},
        {"short dword", kRegDword, std::string("\x01\x02", 2)},
        {"umlaut", kRegMultiSz, std::string("ä\0ö\0\0", 5)},
        {"long", kRegBinary, std::string(300, '\xAB')},
        {"empty", kRegBinary, ""},
    };
    for (const RegValue& v : values) doc.SetValue("HKEY_USERS\\K", v.name, v.type, v.data);
    const std::string written = FormatRegFile(doc);
    Warnings warnings;
    const RegDocument reread = Parse(written, &warnings);
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(reread.Values("HKEY_USERS\\K"), values);

    const std::string text =
        format == RegFormat::kVersion5 ? Utf16LeToCp1252(written.substr(2)) : written;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), 81u) << line;  // 80 columns plus the CR
    }
  }
}

}  // namespace
}  // namespace kalvo
