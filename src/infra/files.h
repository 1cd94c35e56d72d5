// Existence checks on file-system entries and joining of directory and file names. Paths are passed
// to the system as given (bytes).
#pragma once

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

}  // namespace kalvo
