// The in-memory content of a registry file: keys in file order, each with its values in
// order, looked up case-insensitively as Windows compares key and value names.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "infra/text_encoding.h"

namespace kalvo {

// Registry value types (the numbers Windows uses, also in "hex(N):" of a .reg file).
inline constexpr uint32_t kRegNone = 0;
inline constexpr uint32_t kRegSz = 1;
inline constexpr uint32_t kRegExpandSz = 2;
inline constexpr uint32_t kRegBinary = 3;
inline constexpr uint32_t kRegDword = 4;
inline constexpr uint32_t kRegMultiSz = 7;

// The two .reg dialects: "REGEDIT4" keeps text data as single-byte ANSI characters, version
// 5.00 ("Windows Registry Editor Version 5.00") as UTF-16LE.
enum class RegFormat { kRegedit4, kVersion5 };

// One value: its name ("" is the key's unnamed default value), its type and its raw data as
// Windows would hand them to an ANSI caller (text types in Windows-1252, any terminating NULs
// included exactly as they were stored).
struct RegValue {
  std::string name;
  uint32_t type = kRegNone;
  std::string data;
  // The comment and blank lines of the file that stood right above this value, each ending
  // in "\n", written back in front of it; not part of the value (equality ignores them).
  std::string comment = {};
  bool operator==(const RegValue& other) const {
    return name == other.name && type == other.type && data == other.data;
  }
};

// One key: its canonical path ("HKEY_LOCAL_MACHINE\Software\..."), its values, and the
// comment lines that stood above its section line (each ending in "\n").
struct RegKey {
  std::string path;
  std::vector<RegValue> values;
  std::string comment = {};
};

// Case folding of a Windows-1252 name for comparisons (upper case, as Windows compares).
std::string RegFoldName(std::string_view name);
// Whether two names are equal after RegFoldName, without building the folded copies.
bool RegNamesEqual(std::string_view a, std::string_view b);

// The largest key path kept: levels (components, the hive counted as one) and characters of
// its canonical form. A file's key beyond them is skipped with its values; the document
// treats such a path as unusable.
inline constexpr size_t kRegMaxKeyDepth = 64;
inline constexpr size_t kRegMaxKeyLength = 1024;

// Canonical form of a key path: hive name in full upper case ("HKLM" and the other usual
// abbreviations expanded), empty leading and trailing components dropped. Gives "" when the
// path is unusable: an unknown hive, an empty component in the middle ("A\\B"), or more than
// kRegMaxKeyDepth levels or kRegMaxKeyLength characters; for the last two `too_large` (when
// given) is set to true, else to false.
std::string RegCanonicalKeyPath(std::string_view path, bool* too_large = nullptr);

// A whole registry file in memory. Key paths passed in are canonicalised first; an unusable
// path is treated as a missing key. A key exists when it has its own section, when it lies
// above a key that has one, or when it is a hive. Memory and the time to build the index are
// linear in the total length of the section paths; a lookup costs the length of its path.
// Not thread-safe; copyable.
class RegDocument {
 public:
  RegFormat format = RegFormat::kRegedit4;
  FileEncoding encoding = FileEncoding::kCp1252;
  std::string line_end = "\r\n";
  // Comment lines after the last value of the file (each ending in "\n").
  std::string trailer;

  // True when the key exists (see above).
  bool KeyExists(std::string_view path) const;
  // True when some existing key lies below `path`.
  bool HasSubKeys(std::string_view path) const;
  // The values of the key, or null when it is missing (an existing key without a section
  // of its own has an empty list). Valid until the next change.
  const std::vector<RegValue>* FindKey(std::string_view path) const;
  // The value, or null when the key or the value is missing. Valid until the next change.
  const RegValue* FindValue(std::string_view path, std::string_view name) const;
  // The value of that name in `values`, or null.
  static const RegValue* FindIn(const std::vector<RegValue>& values, std::string_view name);
  // The values of an existing key in order; empty for a missing key.
  const std::vector<RegValue>& Values(std::string_view path) const;
  // Keys with their own section, in file order.
  const std::vector<RegKey>& keys() const { return keys_; }
  // Replaces the whole content (used by the file parser). Paths must be canonical and
  // distinct (case-insensitively).
  void SetKeys(std::vector<RegKey> keys);

  // Creates the key and its missing parents. Gives true when something was added, false when
  // it existed already or the path is unusable.
  bool CreateKey(std::string_view path);
  // Deletes a key that exists and has no sub keys (its parent stays). Gives true on success.
  bool DeleteKey(std::string_view path);
  // Sets a value of an existing key (replacing one of the same name in its place, adding it
  // at the end otherwise). Gives false, changing nothing, when the key is missing.
  bool SetValue(std::string_view path, std::string_view name, uint32_t type, std::string data);

 private:
  static constexpr size_t kImplied = static_cast<size_t>(-1);
  static constexpr size_t kNoNode = static_cast<size_t>(-1);

  // The index is a tree of the existing keys, one node per key: the hives below the root,
  // each sub key below its parent under its folded name. A path is found by walking its
  // components, so no key stores its parents' paths again.
  struct IndexNode {
    size_t section = kImplied;  // index in keys_, or kImplied for a key without a section
    size_t children = 0;        // number of sub keys
  };
  struct ChildKey {
    size_t parent;
    std::string name;  // folded
    bool operator==(const ChildKey&) const = default;
  };
  struct ChildKeyHash {
    size_t operator()(const ChildKey& key) const;
  };

  // The section of an existing key, giving it one (placed before its first descendant's)
  // when it exists only implicitly. Null for a missing key.
  RegKey* SectionFor(std::string_view canonical);
  size_t FindSection(std::string_view canonical) const;
  // The node of a canonical path (folded or not), or kNoNode when that key is missing.
  size_t FindNode(std::string_view canonical) const;
  void RebuildIndex();

  std::vector<RegKey> keys_;
  std::vector<IndexNode> nodes_{IndexNode{}};                    // [0] is the root above the hives
  std::unordered_map<ChildKey, size_t, ChildKeyHash> children_;  // -> index in nodes_
};

}  // namespace kalvo
