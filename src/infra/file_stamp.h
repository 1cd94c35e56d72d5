// What tells two versions of a file apart without reading it, for caches that re-read a
// file only when it changed on disk.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>

namespace kalvo {

// A file's identity, size and times as stat() gives them. The default value stands for
// "no file". A rewrite that keeps the size within one tick of the file system's clock can
// leave a stamp unchanged: callers that must see such writes re-read young files.
struct FileStamp {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtime{};
  timespec ctime{};

  bool operator==(const FileStamp& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec &&
           ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
  }
};

// The stamp of an existing file from its stat() or fstat() result.
inline FileStamp FileStampOf(const struct stat& st) {
  return FileStamp{true, st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

}  // namespace kalvo
