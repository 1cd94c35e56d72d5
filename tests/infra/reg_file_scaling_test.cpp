// What hostile registry files cost: a key nested thousands of levels deep and a key with tens
// of thousands of values must take time and memory linear in the file's size. Memory is
// measured by counting this program's allocations (operator new is replaced below), time by
// the parser's own count of its steps; nothing here is timed.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "infra/reg_file.h"

namespace {

std::atomic<int64_t> g_live{0};
std::atomic<int64_t> g_peak{0};

void* Allocate(size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  const int64_t live = g_live += static_cast<int64_t>(malloc_usable_size(p));
  int64_t peak = g_peak.load();
  while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
  }
  return p;
}

void Release(void* p) noexcept {
  if (p == nullptr) return;
  g_live -= static_cast<int64_t>(malloc_usable_size(p));
  std::free(p);
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }

namespace kalvo {
namespace {

using Warnings = std::vector<std::pair<size_t, std::string>>;

struct Cost {
  int64_t peak_bytes = 0;  // most bytes allocated at once while parsing, beyond those before
  uint64_t steps = 0;      // the parser's count of its work
};

// Parses `file` and keeps the document until the measurement is taken.
Cost Measure(const std::string& file, RegDocument& doc, Warnings& warnings) {
  const int64_t before = g_live.load();
  g_peak = before;
  Cost cost;
  doc = ParseRegFile(
      file, [&](size_t line, const std::string& message) { warnings.emplace_back(line, message); },
      &cost.steps);
  cost.peak_bytes = g_peak.load() - before;
  return cost;
}

const std::string kHead = "REGEDIT4\r\n\r\n";

// A key path of `levels` levels (the hive included), each after the hive `name` long.
std::string PathOf(size_t levels, const std::string& name = "A") {
  std::string path = "HKEY_LOCAL_MACHINE";
  for (size_t i = 1; i < levels; ++i) path += "\\" + name;
  return path;
}

// The sizes where keys stop being kept: both bounds, from inside and from outside.
TEST(RegFileLimits, KeysBeyondTheDepthOrLengthBoundAreSkippedWithTheirValues) {
  struct Case {
    std::string path;
    bool kept;
    const char* why;
  } cases[] = {
      {PathOf(kRegMaxKeyDepth), true, "64 levels"},
      {PathOf(kRegMaxKeyDepth + 1), false, "65 levels"},
      {"HKLM" + PathOf(kRegMaxKeyDepth + 1).substr(18), false, "65 levels, hive abbreviated"},
      {PathOf(2, std::string(kRegMaxKeyLength - 19, 'n')), true, "1,024 characters"},
      {PathOf(2, std::string(kRegMaxKeyLength - 18, 'n')), false, "1,025 characters"},
      {"HKLM\\" + std::string(kRegMaxKeyLength - 18, 'n'), false,
       "1,025 characters once the hive is spelt out"},
  };
  for (const auto& c : cases) {
    const std::string file = kHead + "[" + c.path + "]\r\n\"v\"=\"1\"\r\n@=\"2\"\r\n\r\n" +
                             "[HKEY_LOCAL_MACHINE\\Software\\Next]\r\n\"w\"=\"3\"\r\n";
    RegDocument doc;
    Warnings warnings;
    Measure(file, doc, warnings);
    EXPECT_EQ(doc.FindValue(c.path, "v") != nullptr, c.kept) << c.why;
    EXPECT_EQ(doc.KeyExists(c.path), c.kept) << c.why;
    // The key after it is not affected.
    ASSERT_NE(doc.FindValue("HKLM\\Software\\Next", "w"), nullptr) << c.why;
    if (c.kept) {
      EXPECT_TRUE(warnings.empty()) << c.why;
    } else {
      // One warning for the key, none for its values.
      ASSERT_EQ(warnings.size(), 1u) << c.why;
      EXPECT_EQ(warnings[0].first, 3u) << c.why;
      EXPECT_EQ(warnings[0].second,
                "key deeper than 64 levels or longer than 1024 characters skipped with its values")
          << c.why;
    }
  }
}

// The document refuses such paths too, so that no write can bring one into the file.
TEST(RegFileLimits, TheDocumentTreatsATooLargePathAsUnusable) {
  RegDocument doc;
  bool too_large = false;
  EXPECT_EQ(RegCanonicalKeyPath(PathOf(kRegMaxKeyDepth + 1), &too_large), "");
  EXPECT_TRUE(too_large);
  EXPECT_EQ(RegCanonicalKeyPath("HKEY_NOWHERE\\A", &too_large), "");
  EXPECT_FALSE(too_large);  // unusable for another reason
  EXPECT_FALSE(doc.CreateKey(PathOf(kRegMaxKeyDepth + 1)));
  EXPECT_TRUE(doc.CreateKey(PathOf(kRegMaxKeyDepth)));
  EXPECT_TRUE(doc.HasSubKeys(PathOf(kRegMaxKeyDepth - 1)));
  EXPECT_FALSE(doc.HasSubKeys(PathOf(kRegMaxKeyDepth)));
}

// One key 65,000 levels deep in a 128 KiB file: an index that stores every parent path of a
// key takes memory growing with the square of the depth (gigabytes here).
TEST(RegFileScaling, AVeryDeepKeyCostsMemoryLinearInTheFile) {
  std::string file = kHead + "[HKEY_LOCAL_MACHINE";
  while (file.size() < 128 * 1024) file += "\\A";
  file += "]\r\n\"v\"=\"x\"\r\n";
  RegDocument doc;
  Warnings warnings;
  const Cost cost = Measure(file, doc, warnings);
  EXPECT_LT(cost.peak_bytes, 8 * static_cast<int64_t>(file.size()));
  EXPECT_LT(cost.steps, 4 * file.size());
  EXPECT_EQ(warnings.size(), 1u);
  EXPECT_TRUE(doc.keys().empty());
}

// Many keys up to the depth bound, all distinct: the index keeps each key's own name once,
// not the whole paths of its parents again.
TEST(RegFileScaling, ManyDeepKeysCostMemoryLinearInTheFile) {
  std::string file = kHead;
  for (int i = 0; i < 2000; ++i) {
    file += "[" + PathOf(kRegMaxKeyDepth - 1, "Level" + std::to_string(i)) + "]\r\n\"v\"=\"x\"\r\n";
  }
  RegDocument doc;
  Warnings warnings;
  const Cost cost = Measure(file, doc, warnings);
  EXPECT_TRUE(warnings.empty());
  EXPECT_EQ(doc.keys().size(), 2000u);
  EXPECT_TRUE(doc.HasSubKeys(PathOf(kRegMaxKeyDepth - 2, "Level1999")));
  EXPECT_LT(cost.peak_bytes, 16 * static_cast<int64_t>(file.size()));
}

// 80,000 values in one key: merging by comparing each new value with all before it takes
// steps growing with the square of the count (3.2 billion here).
TEST(RegFileScaling, EightyThousandValuesInOneKeyTakeLinearSteps) {
  constexpr int kValues = 80000;
  std::string file = kHead + "[HKEY_LOCAL_MACHINE\\Software\\Big]\r\n";
  for (int i = 0; i < kValues; ++i) file += "\"value" + std::to_string(i) + "\"=\"x\"\r\n";
  file += "\"VALUE17\"=\"replaced\"\r\n";  // a repeat, in another case, replaces in place
  RegDocument doc;
  Warnings warnings;
  const Cost cost = Measure(file, doc, warnings);
  EXPECT_LT(cost.steps, 2 * file.size());
  // Each value of 17 bytes in the file carries its name, its data and the comment lines above
  // it (empty here) as strings of their own.
  EXPECT_LT(cost.peak_bytes, 20 * static_cast<int64_t>(file.size()));
  const std::vector<RegValue>& values = doc.Values("HKLM\\Software\\Big");
  ASSERT_EQ(values.size(), static_cast<size_t>(kValues));
  EXPECT_EQ(values[17].name, "value17");
  EXPECT_EQ(values[17].data, "replaced");
  EXPECT_EQ(values[kValues - 1].name, "value" + std::to_string(kValues - 1));
}

}  // namespace
}  // namespace kalvo
