#include "kalvoctl/json_reader.h"

#include <cstdlib>

#include "infra/text_encoding.h"

namespace kalvo::ctl {
namespace {

// Nesting deeper than this is refused rather than followed (a definition has two levels).
constexpr int kMaxDepth = 32;

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::optional<JsonValue> Document(std::string& error) {
    JsonValue value;
    if (Value(value, 0)) {
      Blanks();
      if (pos_ == text_.size()) return value;
      Fail("text after the document");
    }
    error = error_ + " at offset " + std::to_string(pos_);
    return std::nullopt;
  }

 private:
  bool Fail(std::string why) {
    if (error_.empty()) error_ = std::move(why);
    return false;
  }
  void Blanks() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }
  bool Take(char c) {
    Blanks();
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }
  bool Word(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) return Fail("unknown word");
    pos_ += word.size();
    return true;
  }

  bool Value(JsonValue& v, int depth) {
    if (depth > kMaxDepth) return Fail("nested too deeply");
    Blanks();
    if (pos_ >= text_.size()) return Fail("unexpected end");
    const char c = text_[pos_];
    if (c == '{') return Object(v, depth);
    if (c == '[') return Array(v, depth);
    if (c == '"') {
      v.kind = JsonValue::Kind::kString;
      return String(v.text);
    }
    if (c == 't' || c == 'f') {
      v.kind = JsonValue::Kind::kBool;
      v.boolean = c == 't';
      return Word(c == 't' ? "true" : "false");
    }
    if (c == 'n') return Word("null");
    return Number(v);
  }

  bool Object(JsonValue& v, int depth) {
    v.kind = JsonValue::Kind::kObject;
    ++pos_;
    if (Take('}')) return true;
    do {
      Blanks();
      std::string name;
      if (pos_ >= text_.size() || text_[pos_] != '"' || !String(name)) {
        return Fail("expected a member name");
      }
      if (!Take(':')) return Fail("expected \":\"");
      if (!Value(v.members[name], depth + 1)) return false;
    } while (Take(','));
    return Take('}') || Fail("expected \",\" or \"}\"");
  }

  bool Array(JsonValue& v, int depth) {
    v.kind = JsonValue::Kind::kArray;
    ++pos_;
    if (Take(']')) return true;
    do {
      v.items.emplace_back();
      if (!Value(v.items.back(), depth + 1)) return false;
    } while (Take(','));
    return Take(']') || Fail("expected \",\" or \"]\"");
  }

  bool Number(JsonValue& v) {
    const size_t start = pos_;
    while (pos_ < text_.size() &&
           std::string_view("+-0123456789.eE").find(text_[pos_]) != std::string_view::npos) {
      ++pos_;
    }
    v.kind = JsonValue::Kind::kNumber;
    v.text = std::string(text_.substr(start, pos_ - start));
    char* end = nullptr;
    v.number = std::strtod(v.text.c_str(), &end);
    if (v.text.empty() || end != v.text.c_str() + v.text.size()) return Fail("not a value");
    return true;
  }

  bool Hex4(unsigned& code) {
    if (pos_ + 4 > text_.size()) return Fail("short \\u escape");
    code = 0;
    for (int i = 0; i < 4; ++i) {
      const char h = text_[pos_++];
      code <<= 4;
      if (h >= '0' && h <= '9') {
        code |= static_cast<unsigned>(h - '0');
      } else if (h >= 'a' && h <= 'f') {
        code |= static_cast<unsigned>(h - 'a' + 10);
      } else if (h >= 'A' && h <= 'F') {
        code |= static_cast<unsigned>(h - 'A' + 10);
      } else {
        return Fail("bad \\u escape");
      }
    }
    return true;
  }

  bool String(std::string& out) {
    ++pos_;  // the opening quote
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return Fail("control character in a string");
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ >= text_.size()) break;
      const char e = text_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out += e;
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          unsigned code = 0;
          if (!Hex4(code)) return false;
          if (code >= 0xD800 && code < 0xDC00 && text_.substr(pos_, 2) == "\\u") {
            pos_ += 2;
            unsigned low = 0;
            if (!Hex4(low)) return false;
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
          }
          AppendUtf8(out, code);
          break;
        }
        default:
          return Fail("bad escape");
      }
    }
    return Fail("unterminated string");
  }

  std::string_view text_;
  size_t pos_ = 0;
  std::string error_;
};

}  // namespace

std::optional<JsonValue> ParseJson(std::string_view text, std::string& error) {
  return Reader(text).Document(error);
}

}  // namespace kalvo::ctl
