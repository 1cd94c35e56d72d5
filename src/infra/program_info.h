// Where the program lies and what it is called: the base of the language file name, the
// log file name and the directories both are found in.
#pragma once

#include <string>

namespace kalvo {

struct ProgramInfo {
  std::string dir;   // directory of the executable, without trailing "/"
  std::string name;  // executable name without directory ("kalvosrv")

  // Directory of the log file: the parent of `dir` ("/" when `dir` is a root).
  std::string LogDir() const;
};

// The running executable, from /proc/self/exe. Falls back to the current directory and
// "kalvosrv" when that link cannot be read.
ProgramInfo CurrentProgram();

}  // namespace kalvo
