#include "infra/reg_document.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kalvo {
namespace {

struct HiveName {
  std::string_view full;
  std::string_view abbreviation;
};

constexpr std::array<HiveName, 5> kHives = {{
    {"HKEY_CLASSES_ROOT", "HKCR"},
    {"HKEY_CURRENT_USER", "HKCU"},
    {"HKEY_LOCAL_MACHINE", "HKLM"},
    {"HKEY_USERS", "HKU"},
    {"HKEY_CURRENT_CONFIG", "HKCC"},
}};

char FoldChar(char c) {
  const auto u = static_cast<unsigned char>(c);
  if (u >= 'a' && u <= 'z') return static_cast<char>(u - 0x20);
  // Latin-1 lower-case letters (except the division sign) and the four Windows-1252 extras.
  if (u >= 0xE0 && u <= 0xFE && u != 0xF7) return static_cast<char>(u - 0x20);
  switch (u) {
    case 0x9A:
      return '\x8A';  // š
    case 0x9C:
      return '\x8C';  // œ
    case 0x9E:
      return '\x8E';  // ž
    case 0xFF:
      return '\x9F';  // ÿ
    default:
      return c;
  }
}

const std::vector<RegValue>& NoValues() {
  static const std::vector<RegValue> kNone;
  return kNone;
}

}  // namespace

bool RegNamesEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return FoldChar(x) == FoldChar(y);
         });
}

std::string RegFoldName(std::string_view name) {
  std::string out(name);
  for (char& c : out) c = FoldChar(c);
  return out;
}

std::string RegCanonicalKeyPath(std::string_view path, bool* too_large) {
  if (too_large != nullptr) *too_large = false;
  while (path.starts_with('\\')) path.remove_prefix(1);
  while (path.ends_with('\\')) path.remove_suffix(1);
  if (path.empty() || path.find("\\\\") != std::string_view::npos) return "";
  const size_t cut = path.find('\\');
  const std::string_view hive_name = path.substr(0, cut);
  for (const HiveName& hive : kHives) {
    if (RegNamesEqual(hive_name, hive.full) || RegNamesEqual(hive_name, hive.abbreviation)) {
      std::string out(hive.full);
      if (cut != std::string_view::npos) out += path.substr(cut);
      const size_t depth = 1 + static_cast<size_t>(std::count(out.begin(), out.end(), '\\'));
      if (out.size() > kRegMaxKeyLength || depth > kRegMaxKeyDepth) {
        if (too_large != nullptr) *too_large = true;
        return "";
      }
      return out;
    }
  }
  return "";
}

size_t RegDocument::ChildKeyHash::operator()(const ChildKey& key) const {
  return std::hash<std::string>{}(key.name) ^ (key.parent * 0x9E3779B97F4A7C15ull);
}

size_t RegDocument::FindNode(std::string_view canonical) const {
  if (canonical.empty()) return kNoNode;
  ChildKey key{0, {}};
  for (size_t start = 0;;) {
    const size_t cut = canonical.find('\\', start);
    key.name =
        RegFoldName(canonical.substr(start, cut == std::string_view::npos ? cut : cut - start));
    const auto it = children_.find(key);
    if (it == children_.end()) return kNoNode;
    if (cut == std::string_view::npos) return it->second;
    key.parent = it->second;
    start = cut + 1;
  }
}

size_t RegDocument::FindSection(std::string_view canonical) const {
  const size_t node = FindNode(canonical);
  return node == kNoNode ? kImplied : nodes_[node].section;
}

namespace {

// Canonical and folded in one go: the form the index is keyed by.
std::string FoldedKeyPath(std::string_view path) {
  std::string canonical = RegCanonicalKeyPath(path);
  for (char& c : canonical) c = FoldChar(c);
  return canonical;
}

}  // namespace

const std::vector<RegValue>* RegDocument::FindKey(std::string_view path) const {
  const std::string folded = FoldedKeyPath(path);
  if (folded.empty()) return nullptr;
  if (folded.find('\\') == std::string::npos) return &NoValues();  // a hive
  const size_t node = FindNode(folded);
  if (node == kNoNode) return nullptr;
  const size_t section = nodes_[node].section;
  return section == kImplied ? &NoValues() : &keys_[section].values;
}

bool RegDocument::KeyExists(std::string_view path) const { return FindKey(path) != nullptr; }

bool RegDocument::HasSubKeys(std::string_view path) const {
  const size_t node = FindNode(FoldedKeyPath(path));
  return node != kNoNode && nodes_[node].children > 0;
}

const RegValue* RegDocument::FindIn(const std::vector<RegValue>& values, std::string_view name) {
  for (const RegValue& value : values) {
    if (RegNamesEqual(value.name, name)) return &value;
  }
  return nullptr;
}

const RegValue* RegDocument::FindValue(std::string_view path, std::string_view name) const {
  const std::vector<RegValue>* values = FindKey(path);
  return values == nullptr ? nullptr : FindIn(*values, name);
}

const std::vector<RegValue>& RegDocument::Values(std::string_view path) const {
  const std::vector<RegValue>* values = FindKey(path);
  return values == nullptr ? NoValues() : *values;
}

bool RegDocument::CreateKey(std::string_view path) {
  const std::string canonical = RegCanonicalKeyPath(path);
  if (canonical.empty() || KeyExists(canonical)) return false;
  // A section for the key itself makes all of its parents exist.
  keys_.push_back(RegKey{canonical, {}});
  RebuildIndex();
  return true;
}

bool RegDocument::DeleteKey(std::string_view path) {
  const std::string canonical = RegCanonicalKeyPath(path);
  if (canonical.empty() || canonical.find('\\') == std::string::npos) return false;
  if (!KeyExists(canonical) || HasSubKeys(canonical)) return false;
  const size_t i = FindSection(canonical);
  if (i == kImplied) return false;  // cannot happen: an implied key has a sub key
  const std::string parent = canonical.substr(0, canonical.rfind('\\'));
  keys_.erase(keys_.begin() + static_cast<std::ptrdiff_t>(i));
  RebuildIndex();
  // The parent existed only because of this key; it must outlive it.
  if (!KeyExists(parent)) {
    keys_.insert(keys_.begin() + static_cast<std::ptrdiff_t>(i), RegKey{parent, {}});
    RebuildIndex();
  }
  return true;
}

bool RegDocument::SetValue(std::string_view path, std::string_view name, uint32_t type,
                           std::string data) {
  RegKey* key = SectionFor(RegCanonicalKeyPath(path));
  if (key == nullptr) return false;
  for (RegValue& value : key->values) {
    if (RegNamesEqual(value.name, name)) {
      value.type = type;
      value.data = std::move(data);
      return true;
    }
  }
  key->values.push_back(RegValue{std::string(name), type, std::move(data)});
  return true;
}

void RegDocument::SetKeys(std::vector<RegKey> keys) {
  keys_ = std::move(keys);
  RebuildIndex();
}

RegKey* RegDocument::SectionFor(std::string_view canonical) {
  if (canonical.empty() || !KeyExists(canonical)) return nullptr;
  size_t i = FindSection(canonical);
  if (i == kImplied) {
    // A hive or a key above other sections: give it a section just before its first
    // descendant so that the file still reads from the top down.
    const std::string prefix = RegFoldName(canonical) + '\\';
    i = 0;
    while (i < keys_.size() && !RegFoldName(keys_[i].path).starts_with(prefix)) ++i;
    keys_.insert(keys_.begin() + static_cast<std::ptrdiff_t>(i),
                 RegKey{std::string(canonical), {}});
    RebuildIndex();
  }
  return &keys_[i];
}

void RegDocument::RebuildIndex() {
  nodes_.assign(1, IndexNode{});
  children_.clear();
  for (size_t i = 0; i < keys_.size(); ++i) {
    const std::string folded = RegFoldName(keys_[i].path);
    if (folded.empty()) continue;
    // Every key above a section exists too: the walk down creates their nodes.
    size_t node = 0;
    for (size_t start = 0;;) {
      const size_t cut = folded.find('\\', start);
      const auto [it, added] = children_.try_emplace(
          ChildKey{node, folded.substr(start, cut == std::string::npos ? cut : cut - start)},
          nodes_.size());
      if (added) {
        ++nodes_[node].children;
        nodes_.push_back(IndexNode{});
      }
      node = it->second;
      if (cut == std::string::npos) break;
      start = cut + 1;
    }
    nodes_[node].section = i;
  }
}

}  // namespace kalvo
