#include "infra/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kalvo {

bool FileExists(const std::string& path) {
  if (path.empty()) return false;
  struct stat info {};
  // lstat: the entry itself counts, even when it is a link pointing nowhere.
  return ::lstat(path.c_str(), &info) == 0;
}

std::string WithTrailingSlash(std::string dir) {
  if (!dir.ends_with('/')) dir += '/';
  return dir;
}

bool IsPlainFile(const std::string& path) {
  if (path.empty()) return false;
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

int OpenForAppend(const std::string& path, mode_t mode) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CLOEXEC;
  const int fd = ::open(path.c_str(), kFlags);
  if (fd >= 0 || errno != ENOENT) return fd;
  const int created = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, mode);
  // Another writer may have made it between the two opens; then it is theirs.
  if (created < 0) return errno == EEXIST ? ::open(path.c_str(), kFlags) : -1;
  if (::geteuid() == 0) {
    const size_t slash = path.rfind('/');
    const std::string dir =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    struct stat info {};
    if (::stat(dir.c_str(), &info) == 0 && (info.st_uid != 0 || info.st_gid != 0)) {
      // When this fails the file stays root's; it is still written.
      if (::fchown(created, info.st_uid, info.st_gid) != 0) errno = 0;
    }
  }
  return created;
}

}  // namespace kalvo
