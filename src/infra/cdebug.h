// The debug trace: copies lines to standard error (the debugger output), to its own bounded
// file and to syslog (the event log), each target switched separately.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kalvo {

class CDebug {
 public:
  // `program_dir` is where the trace file goes (`ProgName` + ".log").
  explicit CDebug(std::string program_dir = ".");

  void SetProgName(std::string name) { prog_name_ = std::move(name); }
  void SetProgTitle(std::string title) { prog_title_ = std::move(title); }
  void SetToFile(bool on) { to_file_ = on; }
  void SetToDebugger(bool on) { to_debugger_ = on; }
  void SetToEventLog(bool on) { to_event_log_ = on; }
  void SetMaxFileSize(int32_t bytes) { max_file_size_ = bytes; }

  const std::string& ProgName() const { return prog_name_; }
  const std::string& ProgTitle() const { return prog_title_; }
  bool ToFile() const { return to_file_; }
  bool ToDebugger() const { return to_debugger_; }
  bool ToEventLog() const { return to_event_log_; }
  int32_t MaxFileSize() const { return max_file_size_; }

  // Formats a trace line. At a line start: "dd.mm-hh:mm:ss - <ProgName> - <text>", else the
  // text alone. With `end_of_line`, a continued line gets " (<elapsed>ms)" and every line
  // gets CRLF. The next call continues the line when `end_of_line` was false.
  std::string FormatLine(std::string_view text, bool end_of_line);

  // Formats with FormatLine and sends the line to every enabled target. Throws when the
  // trace file cannot be written.
  void Write(std::string_view text, bool end_of_line);

  // Reports a whole line, line breaks removed, to syslog under `ProgTitle`.
  void WriteEventLog(std::string_view text, int event_type, int category, int event_id);

  // `path` with the directory separator appended unless it already ends with one.
  static std::string AddBackslash(std::string path);
  // Every carriage return and line feed replaced by a blank.
  static std::string RemoveLineBreaks(std::string text);

 private:
  void WriteToFile(std::string_view line);

  std::string program_dir_;
  std::string prog_name_ = "progname";
  std::string prog_title_ = "progtitle";
  bool to_file_ = false;
  bool to_debugger_ = false;
  bool to_event_log_ = false;
  int32_t max_file_size_ = 102400;
  bool line_start_ = true;
  int64_t start_tick_ = 0;
  int64_t end_tick_ = 0;
};

}  // namespace kalvo
