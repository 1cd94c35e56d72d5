#include "infra/arrays.h"

#include "infra/runtime_error.h"

namespace kalvo {

std::vector<std::string> Split(std::string_view text, std::string_view separator) {
  std::vector<std::string> parts;
  if (text.empty()) return parts;
  if (separator.empty()) {
    parts.emplace_back(text);
    return parts;
  }
  size_t start = 0;
  while (true) {
    const size_t hit = text.find(separator, start);
    if (hit == std::string_view::npos) break;
    parts.emplace_back(text.substr(start, hit - start));
    start = hit + separator.size();
  }
  parts.emplace_back(text.substr(start));
  return parts;
}

std::string Join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string joined;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) joined += separator;
    joined += parts[i];
  }
  return joined;
}

const std::string& ElementAt(const std::vector<std::string>& parts, size_t index) {
  if (index >= parts.size()) throw RuntimeError(kErrSubscript, "Subscript out of range");
  return parts[index];
}

}  // namespace kalvo
