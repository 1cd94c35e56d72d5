#include "infra/cdebug.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "infra/dates.h"
#include "infra/files.h"
#include "infra/text_encoding.h"

namespace kalvo {
namespace {

int64_t TickCount() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int SyslogPriority(int event_type) {
  switch (event_type) {
    case 1:
      return LOG_ERR;
    case 2:
      return LOG_WARNING;
    default:
      return LOG_INFO;
  }
}

}  // namespace

CDebug::CDebug(std::string program_dir) : program_dir_(std::move(program_dir)) {}

std::string CDebug::FormatLine(std::string_view text, bool end_of_line) {
  std::string line;
  const bool continued = !line_start_;
  if (line_start_) {
    start_tick_ = TickCount();
    const std::tm tm = LocalNow();
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%d.%m-%H:%M:%S", &tm);
    line = std::string(stamp) + " - " + prog_name_ + " - ";
  }
  line += text;
  if (end_of_line) {
    end_tick_ = TickCount();
    if (continued) line += " (" + std::to_string(end_tick_ - start_tick_) + "ms)";
    line += "\r\n";
  }
  line_start_ = end_of_line;
  return line;
}

void CDebug::Write(std::string_view text, bool end_of_line) {
  const std::string line = FormatLine(text, end_of_line);
  if (to_debugger_) {
    const std::string utf8 = Cp1252ToUtf8(line);
    std::fwrite(utf8.data(), 1, utf8.size(), stderr);
    std::fflush(stderr);
  }
  if (to_file_) WriteToFile(line);
  if (to_event_log_) WriteEventLog(line, 4, 0, 0);
}

void CDebug::WriteToFile(std::string_view line) {
  namespace fs = std::filesystem;
  const std::string path = AddBackslash(program_dir_) + prog_name_ + ".log";
  std::error_code ec;
  const auto size = fs::file_size(path, ec);
  if (!ec && size >= static_cast<uintmax_t>(std::max<int32_t>(max_file_size_, 0))) {
    fs::remove(path + ".bak", ec);
    fs::rename(path, path + ".bak", ec);
  }
  std::ofstream out(path, std::ios::binary | std::ios::app);
  const std::string utf8 = Cp1252ToUtf8(line);
  out.write(utf8.data(), static_cast<std::streamsize>(utf8.size()));
  if (!out) throw std::runtime_error("cannot write the trace file " + path);
}

void CDebug::WriteEventLog(std::string_view text, int event_type, int category, int event_id) {
  (void)category;
  (void)event_id;
  const std::string line = Cp1252ToUtf8(RemoveLineBreaks(std::string(text)));
  openlog(prog_title_.c_str(), LOG_PID, LOG_DAEMON);
  syslog(SyslogPriority(event_type), "%s", line.c_str());
  closelog();
}

std::string CDebug::AddBackslash(std::string path) { return WithTrailingSlash(std::move(path)); }

std::string CDebug::RemoveLineBreaks(std::string text) {
  for (char& c : text) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  return text;
}

}  // namespace kalvo
