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
// When the key exists but the sub key does not, the store is asked to delete that sub key
// (RegDeleteKey semantics: only a key without sub keys; on a missing key nothing happens).
RegistryValue RegistryRead(RegistryStore& store, std::string_view root, std::string_view key,
                           std::string_view sub_key, std::string_view value_name,
                           const RegistryValue& def);

// Writes one value; never creates a key. A text with two NULs in a row is REG_MULTI_SZ,
// another text REG_SZ ("" stored as " "), its bytes without a terminating NUL; anything else
// a 4-byte REG_DWORD of its ToLong(). Does nothing when the key or sub key is missing or the
// file cannot be written. Rewriting a value with the same type and data leaves the file alone.
void RegistryWrite(RegistryStore& store, std::string_view root, std::string_view key,
                   std::string_view sub_key, std::string_view value_name,
                   const RegistryValue& value);

// Lists the values of a key, creating the key and sub key when missing (persisted). Gives a
// table whose column i holds the name and data text of the value at enumeration index i
// (names[i], data[i]); the unnamed default value is skipped but keeps its column, empty.
// REG_SZ data are cut at their first NUL; other types give the decimal text of their first
// four bytes read as a little-endian 32-bit integer ("0" when longer). Gives an empty value
// when no named value exists or the key cannot be created.
RegistryValue RegistryEnumValues(RegistryStore& store, std::string_view root, std::string_view key,
                                 std::string_view sub_key);

// Reads the value addressed by one full path ("HKCR\.pdf\", "HKLM:Software/x\name"). On
// success sets `type_name` ("REG_SZ", "REG_EXPAND_SZ", "REG_MULTI_SZ", "REG_DWORD") and
// `value_text`; otherwise leaves both untouched. Remote paths ("\\machine\...") fail.
// Texts are cut at their first NUL and stripped of trailing blanks, so a multi-string gives
// its first item and an expandable string its unexpanded text. Under HKEY_CLASSES_ROOT the
// value is looked up as in the merged view Windows gives of that hive: in
// HKEY_CURRENT_USER\Software\Classes first, then in a literal HKEY_CLASSES_ROOT section,
// then in HKEY_LOCAL_MACHINE\Software\Classes; the first place holding it wins.
void RegistryQueryPath(RegistryStore& store, std::string_view path, std::string& type_name,
                       std::string& value_text);

// The hives an address can name. kInvalid stands for the invalid handle: every open below
// it fails.
enum class RegistryHive { kInvalid, kClassesRoot, kCurrentUser, kLocalMachine, kUsers };

// The full name of a hive as the store's key paths begin with it ("HKEY_USERS"); "" for
// kInvalid.
std::string_view HiveName(RegistryHive hive);

// The hive of a split root path ("HKEY_LOCAL_MACHINE:Software"), from its first ":"-field
// compared exactly: "HKEY_LOCAL_MACHINE" and "HKEY_CURRENT_USER" name themselves, any other
// text (also "HKLM") gives kUsers. Never kInvalid.
RegistryHive RootKeyFromPath(std::string_view root);

// The hive of a normalised full path ("HKCR\.pdf\"): the full names and the abbreviations
// HKCR, HKLM, HKCU, HKU, compared exactly. Gives kInvalid for anything else and for a remote
// path ("\\machine\..."): this store holds no other machine's registry, so a remote path
// fails like an unreachable machine.
RegistryHive OpenRootKey(std::string_view path);

// Releases what OpenRootKey gave; nothing to release for a local hive, kept for symmetry.
void CloseRootKey(RegistryHive hive);

// Support operations.

// `path` with every ":" and "/" replaced by "\", wherever they stand.
std::string NormalizeKeyPath(std::string_view path);
// Field `n` (from 1) of `text` split at `separator` (exact comparison); "" when there are
// fewer than n - 1 separators or n < 1. The next separator is searched from one character
// after the start of the previous one.
std::string GetField(std::string_view text, int n, std::string_view separator);
// 1-based position of the n-th occurrence of `find` in `text`, case-insensitive, each search
// starting one character after the previous hit; 0 when there are fewer, or `find` is "".
int FindNth(std::string_view text, std::string_view find, int n);
// `text` without its first `n` characters; "" when n is not less than its length, the whole
// text when n < 1.
std::string DropLeft(std::string_view text, int n);
// The part of `text` before its first NUL, or all of it.
std::string CutAtNull(std::string_view text);
// CutAtNull, then trailing blanks removed.
std::string CutAtNullTrim(std::string_view text);
// The value as a 32-bit integer; 0 when the conversion fails.
int32_t ToLong(const RegistryValue& value);

}  // namespace kalvo
