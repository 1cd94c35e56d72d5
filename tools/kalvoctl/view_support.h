// What the views of the administrator's commands share: reading the server's lists
// defensively (records start with a GUID; free texts may hold the separators) and writing
// JSON. Pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kalvo::ctl {

inline constexpr size_t kGuidLength = 36;
inline constexpr std::string_view kCrlf = "\r\n";

// True when `record` begins with a GUID followed by `field_separator`.
bool StartsWithGuid(std::string_view record, std::string_view field_separator);

// `text` cut into records at `record_separator`, gluing back every piece that does not start
// with a GUID and `field_separator`: that separator was inside the text of the record before.
// A separator at the very end closes the last record and starts none.
std::vector<std::string> SplitRecords(std::string_view text, std::string_view record_separator,
                                      std::string_view field_separator);

// `record` as exactly `count` fields: missing ones empty, the excess joined (with the
// separator) into field `free_index`, so the fields before and after it stay in place.
std::vector<std::string> SplitFields(std::string_view record, std::string_view separator,
                                     size_t count, size_t free_index);

// A JSON object of `fields`, whose values are JSON already.
std::string JsonObject(const std::vector<std::pair<std::string_view, std::string>>& fields);

// A JSON array of `items`, each turned into JSON by `to_json`.
template <typename T, typename ToJson>
std::string JsonArray(const std::vector<T>& items, ToJson to_json) {
  std::string out = "[";
  for (const auto& item : items) {
    if (out.size() > 1) out += ",";
    out += to_json(item);
  }
  return out + "]";
}

// A number of the server as a JSON number, or null when its text is none.
std::string JsonNumberOrNull(std::string_view text);

// A time stamp of the server ("yyyy-mm-dd-hh-mm-ss", as every table stores it) as a JSON
// string in ISO 8601 ("yyyy-mm-ddThh:mm:ss"); null for "" and for a text of another shape.
std::string JsonTimeOrNull(std::string_view stamp);

// The server's word for yes or no (from its language file: "Ja"/"Nein", "Yes"/"No", any case)
// as JSON true or false, so that scripts need not know the server's language; null for any
// other word.
std::string JsonYesNoOrNull(std::string_view word);

// A number of the server for people: the number, or "?" when its text is none.
std::string NumberForPeople(std::string_view text);

}  // namespace kalvo::ctl
