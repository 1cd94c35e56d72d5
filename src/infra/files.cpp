#include "infra/files.h"

#include <sys/stat.h>

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

}  // namespace kalvo
