#include "infra/program_info.h"

#include <filesystem>
#include <system_error>

namespace kalvo {

std::string ProgramInfo::LogDir() const {
  const auto slash = dir.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return dir.substr(0, slash);
}

ProgramInfo CurrentProgram() {
  std::error_code ec;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return {std::filesystem::current_path(ec).string(), "kalvosrv"};
  std::string dir = exe.parent_path().string();
  if (dir.empty()) dir = "/";
  return {dir, exe.filename().string()};
}

}  // namespace kalvo
