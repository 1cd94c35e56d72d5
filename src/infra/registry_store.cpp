#include "infra/registry_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <thread>
#include <utility>

#include "infra/reg_file.h"
#include "infra/unique_fd.h"

namespace kalvo {
namespace {

// How long a writer waits for another process's lock before it gives up.
constexpr auto kLockTimeout = std::chrono::seconds(10);
// A file whose change time is this close to now may change again within the same clock
// tick without its times changing; it is re-read until it is older than that.
constexpr int64_t kRacyWindowNs = 20'000'000;

// An exclusive flock on the lock file beside the registry file, held while alive. The lock
// lives on its own file because every write replaces the registry file's inode.
class FileLock {
 public:
  explicit FileLock(const std::string& lock_path) : fd_(OpenLockFile(lock_path)) {
    if (fd_.get() < 0) return;
    const auto deadline = std::chrono::steady_clock::now() + kLockTimeout;
    auto pause = std::chrono::microseconds(100);
    while (true) {
      if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) {
        locked_ = true;
        return;
      }
      if (errno != EWOULDBLOCK && errno != EINTR) return;
      if (std::chrono::steady_clock::now() >= deadline) return;
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, std::chrono::microseconds(2000));
    }
  }
  bool locked() const { return locked_; }

 private:
  // flock works on a read-only descriptor too: a lock file created by another user will do.
  static int OpenLockFile(const std::string& lock_path) {
    const int fd = ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    return fd >= 0 ? fd : ::open(lock_path.c_str(), O_RDONLY | O_CLOEXEC);
  }

  UniqueFd fd_;  // the flock goes with the descriptor
  bool locked_ = false;
};

int64_t Nanos(const timespec& t) { return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec; }

// The file that a write must replace: the target of a symbolic link, not the link.
std::string WriteTarget(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) != nullptr) return resolved;
  }
  return path;
}

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

RegistryStore::RegistryStore(std::string path)
    : path_(std::move(path)), doc_(std::make_shared<RegDocument>()) {}

RegistryStore::~RegistryStore() = default;

std::optional<FileStamp> RegistryStore::LoadLocked(RegDocument& doc,
                                                   std::vector<std::string>& warnings) {
  doc = RegDocument();
  UniqueFd fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  // Only a missing file is an empty registry; one that is there but unreadable is not.
  if (fd.get() < 0) return errno == ENOENT ? std::optional(FileStamp{}) : std::nullopt;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return std::nullopt;
  const FileStamp stamp = FileStampOf(st);
  std::string bytes;
  if (!ReadAll(fd.get(), bytes)) return std::nullopt;
  const bool warn = !(stamp == warned_stamp_);
  warned_stamp_ = stamp;
  doc = ParseRegFile(bytes, [&](size_t line, const std::string& message) {
    if (warn) {
      warnings.push_back("registry file " + path_ + ", line " + std::to_string(line) + ": " +
                         message);
    }
  });
  return stamp;
}

void RegistryStore::CacheLocked(std::shared_ptr<const RegDocument> doc, const FileStamp& stamp) {
  doc_ = std::move(doc);
  stamp_ = stamp;
  checked_ = true;
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  racy_ =
      stamp.exists && Nanos(now) - std::max(Nanos(stamp.mtime), Nanos(stamp.ctime)) < kRacyWindowNs;
}

void RegistryStore::Emit(const std::vector<std::string>& warnings) const {
  if (!warn_) return;
  for (const std::string& w : warnings) warn_(w);
}

std::shared_ptr<const RegDocument> RegistryStore::Snapshot() {
  std::vector<std::string> warnings;
  std::shared_ptr<const RegDocument> result;
  {
    std::lock_guard guard(mutex_);
    timespec clock{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &clock);
    const int64_t now_ns = Nanos(clock);
    if (checked_ && !force_check_ && now_ns - last_check_ns_ < check_interval_.count()) {
      return doc_;
    }
    last_check_ns_ = now_ns;
    force_check_ = false;
    struct stat st {};
    FileStamp now;
    if (::stat(path_.c_str(), &st) == 0) now = FileStampOf(st);
    if (!checked_ || racy_ || !(now == stamp_)) {
      auto doc = std::make_shared<RegDocument>();
      // After a failed read the empty document is cached as "no file", so that the next
      // look, finding the file there, tries again.
      const std::optional<FileStamp> read = LoadLocked(*doc, warnings);
      CacheLocked(std::move(doc), read.value_or(FileStamp{}));
    }
    result = doc_;
  }
  Emit(warnings);
  return result;
}

void RegistryStore::SetCheckInterval(std::chrono::nanoseconds interval) {
  std::lock_guard guard(mutex_);
  check_interval_ = interval;
}

void RegistryStore::Invalidate() {
  std::lock_guard guard(mutex_);
  force_check_ = true;
}

bool RegistryStore::KeyExists(std::string_view key_path) { return Snapshot()->KeyExists(key_path); }

std::optional<RegValue> RegistryStore::GetValue(std::string_view key_path, std::string_view name) {
  const auto doc = Snapshot();
  const RegValue* value = doc->FindValue(key_path, name);
  if (value == nullptr) return std::nullopt;
  return *value;
}

bool RegistryStore::CreateKey(std::string_view key_path) {
  if (RegCanonicalKeyPath(key_path).empty()) return false;
  if (KeyExists(key_path)) return true;
  Modify([&](RegDocument& doc) { return doc.CreateKey(key_path); });
  return KeyExists(key_path);
}

bool RegistryStore::DeleteKey(std::string_view key_path) {
  if (!KeyExists(key_path)) return false;
  return Modify([&](RegDocument& doc) { return doc.DeleteKey(key_path); });
}

bool RegistryStore::SetValue(std::string_view key_path, std::string_view name, uint32_t type,
                             std::string data) {
  return Modify([&](RegDocument& doc) { return doc.SetValue(key_path, name, type, data); });
}

bool RegistryStore::Modify(const std::function<bool(RegDocument&)>& change) {
  std::vector<std::string> warnings;
  bool written = false;
  {
    std::lock_guard guard(mutex_);
    const std::string target = WriteTarget(path_);
    FileLock lock(target + ".lock");
    if (!lock.locked()) return false;
    auto doc = std::make_shared<RegDocument>();
    const std::optional<FileStamp> read = LoadLocked(*doc, warnings);
    if (!read) return false;  // writing the change alone would lose what could not be read
    if (change(*doc)) {
      written = WriteLocked(*doc, target);
      if (written) {
        // What was just written is known: cache it under the stamp of the new file.
        struct stat st {};
        FileStamp stamp;
        if (::stat(path_.c_str(), &st) == 0) stamp = FileStampOf(st);
        warned_stamp_ = stamp;
        CacheLocked(std::move(doc), stamp);
      }
    } else {
      CacheLocked(std::move(doc), *read);
    }
  }
  Emit(warnings);
  return written;
}

bool RegistryStore::WriteLocked(const RegDocument& doc, const std::string& target) {
  // One fixed temporary name is enough under the lock; a leftover of a writer killed midway
  // is simply overwritten by the next one.
  const std::string temp = target + ".tmp";
  const std::string bytes = FormatRegFile(doc);
  struct stat old {};
  const bool had_file = ::stat(target.c_str(), &old) == 0;
  UniqueFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (fd.get() < 0) return false;
  bool same_owner = true;
  if (had_file) {
    // Keep the permissions (settings hold credentials) and the owner: root may give the file
    // to anyone, others at least to a group they belong to.
    ::fchmod(fd.get(), old.st_mode & 07777);
    if (::fchown(fd.get(), old.st_uid, old.st_gid) != 0) {
      // Checked below through what the new file holds.
    }
    struct stat made {};
    same_owner =
        ::fstat(fd.get(), &made) == 0 && made.st_uid == old.st_uid && made.st_gid == old.st_gid;
  }
  if (!WriteAll(fd.get(), bytes) || ::fsync(fd.get()) != 0 || !fd.Close()) {
    ::unlink(temp.c_str());
    return false;
  }
  if (!same_owner) {
    // The service may write the administrator's file (root:kalvosrv, mode 0660) but not make
    // a new one of that owner: replacing it would hand it to the service. It is rewritten in
    // place instead; the complete new content stays in the temporary file until that is done,
    // so a writer killed midway leaves it to be recovered by hand.
    UniqueFd in_place(::open(target.c_str(), O_WRONLY | O_CLOEXEC));
    const bool ok = in_place.get() >= 0 && WriteAll(in_place.get(), bytes) &&
                    ::ftruncate(in_place.get(), static_cast<off_t>(bytes.size())) == 0 &&
                    ::fsync(in_place.get()) == 0 && in_place.Close();
    ::unlink(temp.c_str());
    return ok;
  }
  if (::rename(temp.c_str(), target.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  // Make the rename itself durable.
  UniqueFd dir(::open(DirectoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
  return true;
}

}  // namespace kalvo
