// Fuzz target: the .reg parser on arbitrary bytes, then the writer on what it parsed and the
// parser again on what the writer wrote. Traps when parsing takes more than linear steps or
// when a parsed key breaks the depth or length bound.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "infra/reg_document.h"
#include "infra/reg_file.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

void CheckKeys(const kalvo::RegDocument& doc) {
  for (const kalvo::RegKey& key : doc.keys()) {
    Check(key.path.size() <= kalvo::kRegMaxKeyLength);
    Check(static_cast<size_t>(std::count(key.path.begin(), key.path.end(), '\\')) <
          kalvo::kRegMaxKeyDepth);
    Check(doc.KeyExists(key.path));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  size_t warnings = 0;
  const auto warn = [&](size_t, const std::string&) { ++warnings; };
  uint64_t work = 0;
  const kalvo::RegDocument doc = kalvo::ParseRegFile(bytes, warn, &work);
  // The text may grow when decoded (one byte of Windows-1252 is up to three of UTF-8).
  Check(work <= 8 * size + 64);
  CheckKeys(doc);
  const std::string written = kalvo::FormatRegFile(doc);
  const kalvo::RegDocument again = kalvo::ParseRegFile(written, warn);
  CheckKeys(again);
  return 0;
}
