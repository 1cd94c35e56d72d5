#include "infra/reg_file.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "infra/strings.h"

namespace kalvo {
namespace {

constexpr std::string_view kHeader4 = "REGEDIT4";
constexpr std::string_view kHeader5 = "Windows Registry Editor Version 5.00";
constexpr std::string_view kHeader5Prefix = "Windows Registry Editor Version 5";

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view TrimLeft(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  return s;
}

std::string_view TrimRight(std::string_view s) {
  while (!s.empty() && (IsBlank(s.back()) || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

std::string_view Trim(std::string_view s) { return TrimRight(TrimLeft(s)); }

bool StartsWithNoCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && RegFoldName(s.substr(0, prefix.size())) == prefix;
}

// After the data of a value only blanks or a ";" comment may follow.
bool OnlyTrailer(std::string_view rest) {
  rest = TrimLeft(rest);
  return rest.empty() || rest.front() == ';';
}

// Parses 1 to 8 hex digits as a whole.
std::optional<uint32_t> ParseHex32(std::string_view s) {
  if (s.empty() || s.size() > 8) return std::nullopt;
  uint32_t v = 0;
  for (char c : s) {
    const int d = HexDigitValue(c);
    if (d < 0) return std::nullopt;
    v = (v << 4) | static_cast<uint32_t>(d);
  }
  return v;
}

// Parses a quoted text starting at s[pos] == '"'; on success `pos` is just after the closing
// quote. "\\" and "\"" are unescaped; any other backslash stays as it is.
std::optional<std::string> ParseQuoted(std::string_view s, size_t& pos) {
  std::string out;
  for (size_t i = pos + 1; i < s.size(); ++i) {
    if (s[i] == '"') {
      pos = i + 1;
      return out;
    }
    if (s[i] == '\\' && i + 1 < s.size() && (s[i + 1] == '\\' || s[i + 1] == '"')) ++i;
    out += s[i];
  }
  return std::nullopt;
}

// Parses "xx,xx,..." (blanks allowed, trailing comma allowed) into bytes.
std::optional<std::string> ParseHexBytes(std::string_view s) {
  s = Trim(s.substr(0, s.find(';')));
  std::string out;
  while (!s.empty()) {
    const size_t comma = s.find(',');
    const std::string_view item = Trim(s.substr(0, comma));
    const std::optional<uint32_t> byte = ParseHex32(item);
    if (!byte || item.size() > 2) return std::nullopt;
    out += static_cast<char>(*byte);
    if (comma == std::string_view::npos) break;
    s = TrimLeft(s.substr(comma + 1));
  }
  return out;
}

// Whether a value line holds "hex:" or "hex(N):" data, looked for where ParseValueLine finds
// the data: after the name, the "=" and the blanks around it.
bool HasHexData(std::string_view line) {
  size_t pos = 0;
  if (line.front() == '@') {
    pos = 1;
  } else if (!ParseQuoted(line, pos)) {
    return false;
  }
  const std::string_view rest = TrimLeft(line.substr(pos));
  return rest.starts_with('=') && StartsWithNoCase(TrimLeft(rest.substr(1)), "HEX");
}

bool IsTextType(uint32_t type) {
  return type == kRegSz || type == kRegExpandSz || type == kRegMultiSz;
}

struct ParsedValue {
  std::string name;
  bool deletion = false;
  RegValue value;
};

// Parses one value line; gives an English reason in `error` when it is malformed.
std::optional<ParsedValue> ParseValueLine(std::string_view line, RegFormat format,
                                          std::string& error) {
  ParsedValue parsed;
  size_t pos = 0;
  if (line.front() == '@') {
    pos = 1;
  } else {
    std::optional<std::string> name = ParseQuoted(line, pos);
    if (!name) {
      error = "value name without closing quote";
      return std::nullopt;
    }
    parsed.name = std::move(*name);
  }
  std::string_view rest = TrimLeft(line.substr(pos));
  if (rest.empty() || rest.front() != '=') {
    error = "missing \"=\" after the value name";
    return std::nullopt;
  }
  rest = TrimLeft(rest.substr(1));
  RegValue& value = parsed.value;
  value.name = parsed.name;
  if (rest.starts_with('"')) {
    size_t end = 0;
    std::optional<std::string> text = ParseQuoted(rest, end);
    if (!text || !OnlyTrailer(rest.substr(end))) {
      error = text ? "text after the closing quote" : "string without closing quote";
      return std::nullopt;
    }
    value.type = kRegSz;
    value.data = std::move(*text);
  } else if (rest.starts_with('-') && OnlyTrailer(rest.substr(1))) {
    parsed.deletion = true;
  } else if (StartsWithNoCase(rest, "DWORD:")) {
    const std::optional<uint32_t> number =
        ParseHex32(Trim(rest.substr(6).substr(0, rest.substr(6).find(';'))));
    if (!number) {
      error = "bad dword data";
      return std::nullopt;
    }
    value.type = kRegDword;
    for (int shift = 0; shift < 32; shift += 8) value.data += static_cast<char>(*number >> shift);
  } else if (StartsWithNoCase(rest, "HEX")) {
    rest.remove_prefix(3);
    value.type = kRegBinary;
    if (rest.starts_with('(')) {
      const size_t close = rest.find(')');
      const std::optional<uint32_t> type =
          close == std::string_view::npos ? std::nullopt : ParseHex32(rest.substr(1, close - 1));
      if (!type) {
        error = "bad type in hex(...)";
        return std::nullopt;
      }
      value.type = *type;
      rest.remove_prefix(close + 1);
    }
    std::optional<std::string> bytes;
    if (rest.starts_with(':')) bytes = ParseHexBytes(rest.substr(1));
    if (!bytes) {
      error = "bad hex data";
      return std::nullopt;
    }
    value.data = std::move(*bytes);
    if (IsTextType(value.type) && format == RegFormat::kVersion5) {
      value.data = Utf16LeToCp1252(value.data);
    }
  } else {
    error = "unknown data type";
    return std::nullopt;
  }
  return parsed;
}

// Builds the ordered key list while parsing, merging repeated sections and repeated values
// through indexes, so that a key with many values costs no more per value than one with few.
class KeyCollector {
 public:
  // The section of the key, added at the end when it is new, and whether it was new. Valid
  // until the next call.
  size_t Section(const std::string& canonical, bool* added_out = nullptr) {
    ++lookups_;
    auto [it, added] = index_.try_emplace(RegFoldName(canonical), keys_.size());
    if (added) {
      keys_.push_back(RegKey{canonical, {}});
      value_index_.emplace_back();
    }
    if (added_out != nullptr) *added_out = added;
    return it->second;
  }
  RegKey& Key(size_t section) { return keys_[section]; }
  // Adds the value to section `section`, or replaces the one of the same name in its place.
  void PutValue(size_t section, RegValue value) {
    ++lookups_;
    std::vector<RegValue>& values = keys_[section].values;
    const auto [it, added] =
        value_index_[section].try_emplace(RegFoldName(value.name), values.size());
    if (added) {
      values.push_back(std::move(value));
    } else {
      // The first occurrence keeps its place and its comment.
      values[it->second].type = value.type;
      values[it->second].data = std::move(value.data);
    }
  }
  std::vector<RegKey> Take() { return std::move(keys_); }
  // Keys and values looked up so far.
  uint64_t lookups() const { return lookups_; }

 private:
  uint64_t lookups_ = 0;
  std::vector<RegKey> keys_;
  std::unordered_map<std::string, size_t> index_;  // folded path -> index in keys_
  // Per section: folded value name -> index in its values.
  std::vector<std::unordered_map<std::string, size_t>> value_index_;
};

std::string Quote(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}

void AppendHexData(std::string& out, std::string_view bytes, std::string_view line_end) {
  static constexpr char kDigits[] = "0123456789abcdef";
  // Length of the current line so far, to wrap before 80 columns as regedit does.
  size_t column = out.size() - (out.rfind('\n') == std::string::npos ? 0 : out.rfind('\n') + 1);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (column + 3 > 78) {
      out += '\\';
      out += line_end;
      out += "  ";
      column = 2;
    }
    const auto b = static_cast<unsigned char>(bytes[i]);
    out += kDigits[b >> 4];
    out += kDigits[b & 0xF];
    column += 2;
    if (i + 1 < bytes.size()) {
      out += ',';
      ++column;
    }
  }
}

// Lines kept as "\n"-terminated text, written with the document's line end.
void AppendCommentLines(std::string& out, std::string_view lines, std::string_view line_end) {
  for (size_t start = 0; start < lines.size();) {
    const size_t end = std::min(lines.find('\n', start), lines.size());
    out += lines.substr(start, end - start);
    out += line_end;
    start = end + 1;
  }
}

// `lines` ("\n"-terminated) without the blank lines at its start and, with `at_end`, at its
// end.
std::string WithoutBlankLines(std::string_view lines, bool at_end) {
  std::vector<std::string_view> kept;
  for (size_t start = 0; start < lines.size();) {
    const size_t end = std::min(lines.find('\n', start), lines.size());
    kept.push_back(lines.substr(start, end - start));
    start = end + 1;
  }
  auto blank = [](std::string_view line) { return Trim(line).empty(); };
  while (!kept.empty() && blank(kept.front())) kept.erase(kept.begin());
  while (at_end && !kept.empty() && blank(kept.back())) kept.pop_back();
  std::string out;
  for (std::string_view line : kept) {
    out += line;
    out += '\n';
  }
  return out;
}

void AppendValue(std::string& out, const RegValue& value, const RegDocument& doc) {
  AppendCommentLines(out, value.comment, doc.line_end);
  out += value.name.empty() ? std::string("@") : Quote(value.name);
  out += '=';
  if (value.type == kRegSz &&
      value.data.find_first_of(std::string_view("\0\r\n", 3)) == std::string::npos) {
    out += Quote(value.data);
  } else if (value.type == kRegDword && value.data.size() == 4) {
    uint32_t number = 0;
    for (int i = 3; i >= 0; --i) number = (number << 8) | static_cast<unsigned char>(value.data[i]);
    char buf[16];
    std::snprintf(buf, sizeof buf, "dword:%08x", number);
    out += buf;
  } else {
    if (value.type == kRegBinary) {
      out += "hex:";
    } else {
      char buf[24];
      std::snprintf(buf, sizeof buf, "hex(%x):", value.type);
      out += buf;
    }
    const bool wide = IsTextType(value.type) && doc.format == RegFormat::kVersion5;
    AppendHexData(out, wide ? Cp1252ToUtf16Le(value.data) : value.data, doc.line_end);
  }
  out += doc.line_end;
}

}  // namespace

RegDocument ParseRegFile(std::string_view bytes, const RegParseWarning& warn, uint64_t* work) {
  RegDocument doc;
  const std::string text = DecodeTextFile(bytes, &doc.encoding);
  // A pure ASCII file is the Windows-1252 that regedit writes, not a UTF-8 one.
  if (doc.encoding == FileEncoding::kUtf8 &&
      std::all_of(bytes.begin(), bytes.end(), [](char c) { return (c & 0x80) == 0; })) {
    doc.encoding = FileEncoding::kCp1252;
  }
  doc.format =
      doc.encoding == FileEncoding::kUtf16LeBom ? RegFormat::kVersion5 : RegFormat::kRegedit4;
  const size_t first_lf = text.find('\n');
  doc.line_end = first_lf != std::string::npos && (first_lf == 0 || text[first_lf - 1] != '\r')
                     ? "\n"
                     : "\r\n";

  std::vector<std::string_view> lines;
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size());
    lines.push_back(std::string_view(text).substr(start, end - start));
    start = end + 1;
  }
  auto report = [&](size_t line_no, const std::string& message) {
    if (warn) warn(line_no, message);
  };

  constexpr size_t kNoSection = static_cast<size_t>(-1);
  KeyCollector keys;
  uint64_t steps = 0;
  size_t current = kNoSection;
  // Under a key deletion or a key too large to keep, value lines are dropped without a
  // warning of their own.
  bool values_ignored = false;
  bool header_seen = false;
  // Comment and blank lines since the last key or value line: they go with the next one, so
  // that a rewrite keeps an administrator's notes where they were.
  std::string pending;
  for (size_t i = 0; i < lines.size(); ++i) {
    const size_t line_no = i + 1;
    steps += lines[i].size() + 1;
    std::string line(Trim(lines[i]));
    if (line.empty() || line.front() == ';') {
      if (header_seen) {
        std::string_view raw = lines[i];
        if (raw.ends_with('\r')) raw.remove_suffix(1);
        pending += raw;
        pending += '\n';
      }
      continue;
    }
    if (!header_seen) {
      header_seen = true;
      if (line == kHeader4) {
        doc.format = RegFormat::kRegedit4;
        continue;
      }
      if (line.starts_with(kHeader5Prefix)) {
        doc.format = RegFormat::kVersion5;
        continue;
      }
      report(line_no, "missing REGEDIT4 or version 5.00 header line");
    }
    // Hex data go on over the following lines while a line ends with a backslash.
    if ((line.front() == '"' || line.front() == '@') && HasHexData(line)) {
      while (line.ends_with('\\') && i + 1 < lines.size()) {
        line.pop_back();
        line += Trim(lines[++i]);
        steps += lines[i].size() + 1;
      }
    }
    if (line.front() == '[') {
      current = kNoSection;
      values_ignored = false;
      const size_t close = line.rfind(']');
      if (close == std::string::npos) {
        report(line_no, "key line without closing bracket skipped");
        continue;
      }
      const std::string_view name = std::string_view(line).substr(1, close - 1);
      if (name.starts_with('-')) {
        values_ignored = true;  // key deletions are not applied
        continue;
      }
      bool too_large = false;
      const std::string canonical = RegCanonicalKeyPath(name, &too_large);
      if (too_large) {
        values_ignored = true;
        report(line_no, "key deeper than " + std::to_string(kRegMaxKeyDepth) +
                            " levels or longer than " + std::to_string(kRegMaxKeyLength) +
                            " characters skipped with its values");
        continue;
      }
      if (canonical.empty() || !OnlyTrailer(std::string_view(line).substr(close + 1))) {
        report(line_no, "unknown hive or malformed key name skipped");
        continue;
      }
      bool added = false;
      current = keys.Section(canonical, &added);
      if (added) {
        // One blank line before a section is the writer's own.
        keys.Key(current).comment = WithoutBlankLines(pending, false);
        pending.clear();
      }
    } else if (line.front() == '"' || line.front() == '@') {
      std::string error;
      std::optional<ParsedValue> parsed = ParseValueLine(line, doc.format, error);
      if (!parsed) {
        report(line_no, "malformed value line skipped (" + error + ")");
      } else if (current == kNoSection) {
        if (!values_ignored) report(line_no, "value line outside of any key skipped");
      } else if (!parsed->deletion) {
        parsed->value.comment = std::move(pending);
        pending.clear();
        keys.PutValue(current, std::move(parsed->value));
      }
    } else {
      report(line_no, "unrecognised line skipped");
    }
  }
  doc.trailer = WithoutBlankLines(pending, true);
  doc.SetKeys(keys.Take());
  if (work != nullptr) *work = steps + keys.lookups();
  return doc;
}

std::string FormatRegFile(const RegDocument& doc) {
  std::string out(doc.format == RegFormat::kVersion5 ? kHeader5 : kHeader4);
  out += doc.line_end;
  out += doc.line_end;
  for (const RegKey& key : doc.keys()) {
    AppendCommentLines(out, key.comment, doc.line_end);
    out += '[';
    out += key.path;
    out += ']';
    out += doc.line_end;
    for (const RegValue& value : key.values) AppendValue(out, value, doc);
    out += doc.line_end;
  }
  AppendCommentLines(out, doc.trailer, doc.line_end);
  return EncodeTextFile(out, doc.encoding);
}

}  // namespace kalvo
