#include "kalvoctl/view_support.h"

#include <cctype>

#include "infra/arrays.h"
#include "infra/guid.h"
#include "infra/numbers.h"

namespace kalvo::ctl {

bool StartsWithGuid(std::string_view record, std::string_view field_separator) {
  return record.size() >= kGuidLength + field_separator.size() &&
         IsGUID(record.substr(0, kGuidLength)) &&
         record.substr(kGuidLength, field_separator.size()) == field_separator;
}

std::vector<std::string> SplitRecords(std::string_view text, std::string_view record_separator,
                                      std::string_view field_separator) {
  std::vector<std::string> pieces = Split(text, record_separator);
  while (!pieces.empty() && pieces.back().empty()) pieces.pop_back();
  std::vector<std::string> records;
  for (auto& piece : pieces) {
    if (!records.empty() && !StartsWithGuid(piece, field_separator)) {
      records.back().append(record_separator);
      records.back() += piece;
    } else {
      records.push_back(std::move(piece));
    }
  }
  return records;
}

std::vector<std::string> SplitFields(std::string_view record, std::string_view separator,
                                     size_t count, size_t free_index) {
  std::vector<std::string> parts = Split(record, separator);
  if (parts.size() > count) {
    const size_t excess = parts.size() - count;
    const auto first = parts.begin() + static_cast<std::ptrdiff_t>(free_index) + 1;
    const auto last = first + static_cast<std::ptrdiff_t>(excess);
    for (auto it = first; it != last; ++it) {
      parts[free_index].append(separator);
      parts[free_index] += *it;
    }
    parts.erase(first, last);
  }
  parts.resize(count);
  return parts;
}

std::string JsonObject(const std::vector<std::pair<std::string_view, std::string>>& fields) {
  std::string out = "{";
  for (const auto& [name, value] : fields) {
    if (out.size() > 1) out += ",";
    out += "\"";
    out += name;
    out += "\":";
    out += value;
  }
  return out + "}";
}

std::string JsonNumberOrNull(std::string_view text) {
  const auto number = WholeNumberText(text);
  return number ? std::to_string(*number) : "null";
}

std::string JsonTimeOrNull(std::string_view stamp) {
  // Digits at every place but the five separators.
  constexpr std::string_view kShape = "dddd-dd-dd-dd-dd-dd";
  if (stamp.size() != kShape.size()) return "null";
  for (size_t i = 0; i < kShape.size(); ++i) {
    const bool digit = stamp[i] >= '0' && stamp[i] <= '9';
    if (kShape[i] == 'd' ? !digit : stamp[i] != '-') return "null";
  }
  std::string iso(stamp);
  iso[10] = 'T';
  iso[13] = ':';
  iso[16] = ':';
  return "\"" + iso + "\"";
}

std::string JsonYesNoOrNull(std::string_view word) {
  std::string folded;
  for (char c : word) folded += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (folded == "ja" || folded == "yes") return "true";
  if (folded == "nein" || folded == "no") return "false";
  return "null";
}

std::string NumberForPeople(std::string_view text) {
  const auto number = WholeNumberText(text);
  return number ? std::to_string(*number) : "?";
}

}  // namespace kalvo::ctl
