// Registry access over the .reg file store: the four operations with the semantics of the
// Windows registry functions they stand for, and their support operations. None of them
// reports an error: a caller sees its default, an empty result or untouched outputs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "infra/registry_store.h"
#include "infra/registry_value.h"

namespace kalvo {

// Reads one value at root path ("HKEY_LOCAL_MACHINE:Software"), key ("Orvanta\Zentara"),
// sub key ("KDX\DB") and value name. REG_SZ and REG_MULTI_SZ come back as text (through
// TrimNulls), REG_DWORD as a number; anything else, or anything missing, gives `def`.
// A missing sub key is also deleted (a no-op on a missing key), as the original does.
RegistryValue RegistryRead(RegistryStore& store, std::string_view root, std::string_view key,
                           std::string_view sub_key, std::string_view value_name,
                           const RegistryValue& def);

// Writes one value; never creates a key. A text with two NULs in a row is REG_MULTI_SZ,
// another text REG_SZ ("" stored as " "), anything else a REG_DWORD of its ToLong().
void RegistryWrite(RegistryStore& store, std::string_view root, std::string_view key,
                   std::string_view sub_key, std::string_view value_name,
                   const RegistryValue& value);

// Lists the values of a key, creating the key and sub key when missing. Gives a table, or
// an empty value when no named value exists or the key cannot be opened.
RegistryValue RegistryEnumValues(RegistryStore& store, std::string_view root,
                                 std::string_view key, std::string_view sub_key);

// Reads the value addressed by one full path ("HKCR\.pdf\", "HKLM:Software/x\name"). On
// success sets `type_name` ("REG_SZ", "REG_EXPAND_SZ", "REG_MULTI_SZ", "REG_DWORD") and
// `value_text`; otherwise leaves both untouched. Remote paths ("\\machine\...") fail.
void RegistryQueryPath(RegistryStore& store, std::string_view path, std::string& type_name,
                       std::string& value_text);

// Support operations.
std::string NormalizeKeyPath(std::string_view path);
std::string GetField(std::string_view text, int n, std::string_view separator);
int FindNth(std::string_view text, std::string_view find, int n);
std::string DropLeft(std::string_view text, int n);
std::string CutAtNull(std::string_view text);
std::string CutAtNullTrim(std::string_view text);
int32_t ToLong(const RegistryValue& value);

}  // namespace kalvo
