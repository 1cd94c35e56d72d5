#include "infra/registry.h"

#include <array>
#include <optional>

#include "infra/reg_document.h"
#include "infra/strings.h"

namespace kalvo {
namespace {

// The key a split address opens first: hive, the root path's first key, then `key`.
std::string SplitKeyPath(std::string_view root, std::string_view key) {
  std::string path(HiveName(RootKeyFromPath(root)));
  path += '\\';
  path += GetField(root, 2, ":");
  path += '\\';
  path += key;
  return path;
}

std::string SubKeyPath(const std::string& key_path, std::string_view sub_key) {
  return key_path + '\\' + std::string(sub_key);
}

// Data queried into a 4-byte integer: shorter data fill its low bytes, longer data do not
// fit and leave nothing (the query fails).
std::optional<int32_t> DwordOf(std::string_view data) {
  if (data.size() > 4) return std::nullopt;
  uint32_t number = 0;
  for (size_t i = data.size(); i-- > 0;) {
    number = (number << 8) | static_cast<unsigned char>(data[i]);
  }
  return static_cast<int32_t>(number);
}

}  // namespace

std::string_view HiveName(RegistryHive hive) {
  switch (hive) {
    case RegistryHive::kClassesRoot:
      return "HKEY_CLASSES_ROOT";
    case RegistryHive::kCurrentUser:
      return "HKEY_CURRENT_USER";
    case RegistryHive::kLocalMachine:
      return "HKEY_LOCAL_MACHINE";
    case RegistryHive::kUsers:
      return "HKEY_USERS";
    case RegistryHive::kInvalid:
      break;
  }
  return "";
}

RegistryHive RootKeyFromPath(std::string_view root) {
  const std::string hive = GetField(root, 1, ":");
  if (hive == "HKEY_LOCAL_MACHINE") return RegistryHive::kLocalMachine;
  if (hive == "HKEY_CURRENT_USER") return RegistryHive::kCurrentUser;
  // Everything else, abbreviations included, lands in HKEY_USERS on purpose.
  return RegistryHive::kUsers;
}

RegistryHive OpenRootKey(std::string_view path) {
  if (path.starts_with("\\\\")) return RegistryHive::kInvalid;  // no remote registry here
  const std::string hive = GetField(path, 1, "\\");
  if (hive == "HKEY_CLASSES_ROOT" || hive == "HKCR") return RegistryHive::kClassesRoot;
  if (hive == "HKEY_LOCAL_MACHINE" || hive == "HKLM") return RegistryHive::kLocalMachine;
  if (hive == "HKEY_CURRENT_USER" || hive == "HKCU") return RegistryHive::kCurrentUser;
  if (hive == "HKEY_USERS" || hive == "HKU") return RegistryHive::kUsers;
  return RegistryHive::kInvalid;
}

void CloseRootKey(RegistryHive) {}

RegistryValue RegistryRead(RegistryStore& store, std::string_view root, std::string_view key,
                           std::string_view sub_key, std::string_view value_name,
                           const RegistryValue& def) {
  try {
    const std::string key_path = SplitKeyPath(root, key);
    const std::string sub_path = SubKeyPath(key_path, sub_key);
    const auto doc = store.Snapshot();
    // An existing sub key implies its key: one lookup on the usual path.
    const std::vector<RegValue>* values = doc->FindKey(sub_path);
    if (values == nullptr) {
      // Deliberate: when the key opens but the sub key does not, the sub key is also
      // "deleted"; on a missing key the store does nothing.
      if (doc->KeyExists(key_path)) store.DeleteKey(sub_path);
      return def;
    }
    const RegValue* value = RegDocument::FindIn(*values, value_name);
    if (value == nullptr) return def;
    switch (value->type) {
      case kRegSz:
      case kRegMultiSz:
        return TrimNulls(value->data);
      case kRegDword:
        return DwordOf(value->data).value_or(0);
      default:
        return def;
    }
  } catch (...) {
    return def;
  }
}

void RegistryWrite(RegistryStore& store, std::string_view root, std::string_view key,
                   std::string_view sub_key, std::string_view value_name,
                   const RegistryValue& value) {
  try {
    const std::string key_path = SplitKeyPath(root, key);
    const std::string sub_path = SubKeyPath(key_path, sub_key);
    // An existing sub key implies its key (an empty sub key names the key itself).
    if (!store.Snapshot()->KeyExists(sub_path)) return;
    uint32_t type = kRegDword;
    std::string data;
    if (value.IsText()) {
      data = value.ToText();
      if (data.empty()) data = " ";  // an empty setting survives as a value
      type = data.find(std::string_view("\0\0", 2)) != std::string::npos ? kRegMultiSz : kRegSz;
    } else {
      const auto number = static_cast<uint32_t>(value.ToLong());
      for (int shift = 0; shift < 32; shift += 8) data += static_cast<char>(number >> shift);
    }
    store.Modify([&](RegDocument& doc) {
      const RegValue* old = doc.FindValue(sub_path, value_name);
      if (old != nullptr && old->type == type && old->data == data) return false;
      return doc.SetValue(sub_path, value_name, type, data);
    });
  } catch (...) {
    // Writes fail silently.
  }
}

RegistryValue RegistryEnumValues(RegistryStore& store, std::string_view root, std::string_view key,
                                 std::string_view sub_key) {
  try {
    const std::string key_path = SplitKeyPath(root, key);
    const std::string sub_path = SubKeyPath(key_path, sub_key);
    if (RegCanonicalKeyPath(sub_path).empty()) {
      // A sub key name that makes no usable path still leaves its key created.
      store.CreateKey(key_path);
      return {};
    }
    // Creating the sub key creates its key too, in one write.
    if (!store.CreateKey(sub_path)) return {};
    const auto doc = store.Snapshot();
    const std::vector<RegValue>& values = doc->Values(sub_path);
    RegistryTable table;
    for (size_t i = 0; i < values.size(); ++i) {
      const std::string name = CutAtNull(values[i].name);
      if (name.size() >= 256) break;  // does not fit the 256-character name buffer
      if (name.empty()) continue;     // the unnamed value: skipped, its column stays empty
      table.names.resize(i + 1);
      table.data.resize(i + 1);
      table.names[i] = name;
      table.data[i] = values[i].type == kRegSz
                          ? CutAtNull(values[i].data)
                          : std::to_string(DwordOf(values[i].data).value_or(0));
    }
    if (table.names.empty()) return {};
    return table;
  } catch (...) {
    return {};
  }
}

void RegistryQueryPath(RegistryStore& store, std::string_view path, std::string& type_name,
                       std::string& value_text) {
  try {
    const std::string p = NormalizeKeyPath(path);
    const int start = FindNth(p, "\\", p.starts_with("\\\\") ? 4 : 1);
    const size_t last = p.rfind('\\');
    if (start == 0 || last == std::string::npos) return;
    const std::string value_name = p.substr(last + 1);
    // The key lies between the hive's backslash and the last one (none when they coincide).
    const std::string key =
        last + 1 > static_cast<size_t>(start) ? p.substr(start, last - start) : "";
    const RegistryHive hive = OpenRootKey(p);
    if (hive == RegistryHive::kInvalid) return;

    std::vector<std::string> candidates;
    if (hive == RegistryHive::kClassesRoot) {
      candidates = {"HKEY_CURRENT_USER\\Software\\Classes\\" + key, "HKEY_CLASSES_ROOT\\" + key,
                    "HKEY_LOCAL_MACHINE\\Software\\Classes\\" + key};
    } else {
      candidates = {std::string(HiveName(hive)) + "\\" + key};
    }
    const auto doc = store.Snapshot();
    const RegValue* value = nullptr;
    for (const std::string& candidate : candidates) {
      value = doc->FindValue(candidate, value_name);
      if (value != nullptr) break;
    }
    CloseRootKey(hive);
    if (value == nullptr) return;
    switch (value->type) {
      case kRegSz:
      case kRegMultiSz:
      case kRegExpandSz:
        value_text = CutAtNullTrim(value->data);
        type_name = value->type == kRegSz        ? "REG_SZ"
                    : value->type == kRegMultiSz ? "REG_MULTI_SZ"
                                                 : "REG_EXPAND_SZ";
        break;
      case kRegDword:
        if (const auto number = DwordOf(value->data)) {
          value_text = std::to_string(*number);
          type_name = "REG_DWORD";
        }
        break;
      default:
        break;
    }
  } catch (...) {
    // Outputs stay as the caller preset them.
  }
}

std::string NormalizeKeyPath(std::string_view path) {
  std::string out(path);
  for (char& c : out) {
    if (c == ':' || c == '/') c = '\\';
  }
  return out;
}

std::string GetField(std::string_view text, int n, std::string_view separator) {
  if (n < 1) return "";
  if (separator.empty()) return n == 1 ? std::string(text) : "";
  size_t pos = std::string_view::npos;  // start of the (n-1)-th separator
  for (int i = 1; i < n; ++i) {
    pos = text.find(separator, pos == std::string_view::npos ? 0 : pos + 1);
    if (pos == std::string_view::npos) return "";
  }
  const size_t begin = pos == std::string_view::npos ? 0 : pos + separator.size();
  const size_t next = text.find(separator, pos == std::string_view::npos ? 0 : pos + 1);
  if (next == std::string_view::npos) return std::string(text.substr(std::min(begin, text.size())));
  if (next < begin) return "";  // overlapping separators leave no field
  return std::string(text.substr(begin, next - begin));
}

int FindNth(std::string_view text, std::string_view find, int n) {
  if (find.empty() || n < 1) return 0;
  const std::string haystack = RegFoldName(text);
  const std::string needle = RegFoldName(find);
  size_t pos = std::string::npos;
  for (int i = 0; i < n; ++i) {
    pos = haystack.find(needle, pos == std::string::npos ? 0 : pos + 1);
    if (pos == std::string::npos) return 0;
  }
  return static_cast<int>(pos) + 1;
}

std::string DropLeft(std::string_view text, int n) {
  if (n < 1) return std::string(text);
  if (static_cast<size_t>(n) >= text.size()) return "";
  return std::string(text.substr(static_cast<size_t>(n)));
}

std::string CutAtNull(std::string_view text) {
  return std::string(text.substr(0, text.find('\0')));
}

std::string CutAtNullTrim(std::string_view text) {
  std::string out = CutAtNull(text);
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

int32_t ToLong(const RegistryValue& value) { return value.ToLong(); }

}  // namespace kalvo
