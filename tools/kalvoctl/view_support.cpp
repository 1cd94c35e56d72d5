#include "kalvoctl/view_support.h"

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

std::string NumberForPeople(std::string_view text) {
  const auto number = WholeNumberText(text);
  return number ? std::to_string(*number) : "?";
}

}  // namespace kalvo::ctl
