// A small reader of JSON documents for the files that administrators write by hand (an action
// definition): objects, arrays, strings, numbers, true, false and null. Strings come back as
// UTF-8 as written (escapes resolved).
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo::ctl {

struct JsonValue {
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };
  Kind kind = Kind::kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // kString; kNumber: the number as written
  std::vector<JsonValue> items;
  std::map<std::string, JsonValue> members;
};

// The document `text`, or nothing with the reason (and where) in `error`.
std::optional<JsonValue> ParseJson(std::string_view text, std::string& error);

}  // namespace kalvo::ctl
