// The registry store: a text file in the .reg format that regedit writes and reads, shared
// safely between processes. Readers re-read the file only when it changed on disk; writers
// rewrite it whole and atomically under an advisory lock, re-reading it first.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "infra/file_stamp.h"
#include "infra/reg_document.h"

namespace kalvo {

// Key paths passed to the store are full paths below a hive, joined by backslashes
// ("HKEY_LOCAL_MACHINE\Software\Orvanta\Zentara\KDX\DB"); names compare case-insensitively.
// Failures (unreadable file, unwritable directory, lock not had within 10 s) are not
// reported: reads see an empty registry, writes give false and leave the file as it was.
// Thread-safe; one object per file path and process is the intended use.
class RegistryStore {
 public:
  // Receives one English line of text (naming the file and the line number) for each
  // malformed line skipped while loading. Called without internal locks held, so it may
  // itself read the registry (the log writer does).
  using WarningSink = std::function<void(const std::string&)>;

  // `path` is the .reg file; it need not exist yet (an empty registry). A new file is
  // written as REGEDIT4 in Windows-1252 with CRLF line ends.
  explicit RegistryStore(std::string path);
  ~RegistryStore();
  RegistryStore(const RegistryStore&) = delete;
  RegistryStore& operator=(const RegistryStore&) = delete;

  const std::string& path() const { return path_; }
  // Sets the sink for load warnings (may be empty). Set it before the store is shared
  // between threads.
  void SetWarningSink(WarningSink sink) { warn_ = std::move(sink); }

  // The current content. The file is looked at (one stat()) at most once per check
  // interval, and re-read only when its identity, size or times changed (or changed too
  // recently to be told apart by its times). Changes made through this object are seen at
  // once; changes by other processes within the check interval. Never null; the document
  // stays valid and unchanged for as long as the caller holds it.
  std::shared_ptr<const RegDocument> Snapshot();

  // How often Snapshot() looks at the file. The default, 1 ms measured on the coarse clock
  // (in effect once per kernel tick, a few ms), keeps a read far below the cost of a stat()
  // on slow systems; zero looks at every call.
  void SetCheckInterval(std::chrono::nanoseconds interval);
  // Makes the next Snapshot() look at the file whatever the interval (for "settings
  // changed" notifications).
  void Invalidate();

  // Whether the key exists (a hive always does).
  bool KeyExists(std::string_view key_path);
  // A copy of the value, or nullopt when the key or the value is missing.
  std::optional<RegValue> GetValue(std::string_view key_path, std::string_view name);

  // Creates the key and any missing parents. True when it exists afterwards. Writes the
  // file only when something was missing.
  bool CreateKey(std::string_view key_path);
  // Deletes the key when it exists and has no sub keys (as RegDeleteKey does); its parent
  // stays. True when it was deleted. A missing key costs no write and no lock.
  bool DeleteKey(std::string_view key_path);
  // Sets a value of an existing key; never creates the key. True when written.
  bool SetValue(std::string_view key_path, std::string_view name, uint32_t type, std::string data);

  // Read-modify-write: under the lock, re-reads the file, calls `change` on its content and,
  // when `change` gives true, writes the result atomically (temporary file beside it, fsync,
  // rename, fsync of the directory). The file keeps its mode, owner and group; where this
  // process cannot give a new file that owner (the service writing root's file), the file is
  // rewritten in place instead of replaced. Gives true when the file was written. When the file
  // exists but cannot be read, gives false without calling `change`, so that a write never
  // replaces content it could not see. `change` must not call back into this store.
  bool Modify(const std::function<bool(RegDocument&)>& change);

 private:
  // Reads and parses the file, collecting warnings unless they were given for this version
  // already. Gives the stamp of what it read (one that does not exist for a missing file),
  // or nullopt, leaving `doc` empty, when the file is there but could not be opened, stat'ed
  // or read. Caller holds mutex_.
  std::optional<FileStamp> LoadLocked(RegDocument& doc, std::vector<std::string>& warnings);
  // Installs a freshly read document as the cached one. Caller holds mutex_.
  void CacheLocked(std::shared_ptr<const RegDocument> doc, const FileStamp& stamp);
  // Writes `doc` to the file atomically; caller holds mutex_ and the file lock.
  bool WriteLocked(const RegDocument& doc, const std::string& target);
  void Emit(const std::vector<std::string>& warnings) const;

  std::string path_;
  WarningSink warn_;
  std::mutex mutex_;
  std::shared_ptr<const RegDocument> doc_;
  FileStamp stamp_;
  bool checked_ = false;  // a stamp has been taken at least once
  std::chrono::nanoseconds check_interval_ = std::chrono::milliseconds(1);
  int64_t last_check_ns_ = 0;  // coarse monotonic time of the last stat()
  bool force_check_ = false;   // Invalidate() was called
  bool racy_ = false;          // the file changed so recently that its times cannot be trusted
  FileStamp warned_stamp_;
};

}  // namespace kalvo
