// Existence checks on file-system entries and joining of directory and file names. Paths are passed
// to the system as given (bytes).
#pragma once

#include <sys/types.h>

#include <string>

namespace kalvo {

// True when an entry exists at `path`: a file, a directory, or any other kind, also a
// symbolic link whose target is missing. False for "" and on any error.
bool FileExists(const std::string& path);

// `dir` with a "/" at its end ("" gives "/"), ready for a file name to be appended.
std::string WithTrailingSlash(std::string dir);

// True when `path` names an existing entry that is not a directory (symbolic links are
// followed). False for "", for directories, and on any error.
bool IsPlainFile(const std::string& path);

// Opens `path` for appending, creating it with `mode` (less the umask) when it is missing.
// A file that a process running as root creates gets the owner and group of the directory it
// lies in, so that a service account's log or trace stays writable by that account after an
// administrator ran the program by hand; a file that existed keeps its owner. Returns the
// descriptor (close-on-exec), or -1 with errno set.
int OpenForAppend(const std::string& path, mode_t mode);

}  // namespace kalvo
