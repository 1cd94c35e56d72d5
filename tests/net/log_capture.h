// A real Log writing into a temporary directory, with a registry that raises the log level so
// that every line reaches the file, and a reader for the lines written.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "infra/log.h"
#include "infra/registry_store.h"

namespace kalvo::testing {

class LogCapture {
 public:
  LogCapture()
      : dir_(MakeDir()), registry_(WriteRegistry(dir_)), log_(registry_, dir_ + "/test.log") {}
  ~LogCapture() {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  Log& log() { return log_; }

  // The messages written so far (the timestamp prefix removed), in order; as UTF-8.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::ifstream in(dir_ + "/test.log", std::ios::binary);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      // "dd.mm.yyyy hh:mm:ss - "
      lines.push_back(line.size() >= 22 ? line.substr(22) : line);
    }
    return lines;
  }

  int Count(const std::string& message) const {
    int n = 0;
    for (const auto& l : Lines()) n += l == message ? 1 : 0;
    return n;
  }

  // True when lines reach the file at all: the registry store must honour LogLevel. Probes
  // with a line of its own and forgets it again.
  bool Works() {
    log_.WriteLog("probe");
    const bool ok = !Lines().empty();
    std::filesystem::remove(dir_ + "/test.log");
    return ok;
  }

 private:
  static std::string MakeDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kalvo-net-XXXXXX").string();
    return ::mkdtemp(tmpl.data());
  }
  static std::string WriteRegistry(const std::string& dir) {
    const std::string path = dir + "/registry.reg";
    std::ofstream(path) << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
                           "\"LogLevel\"=dword:00000001\r\n\r\n";
    return path;
  }

  std::string dir_;
  RegistryStore registry_;
  Log log_;
};

}  // namespace kalvo::testing
