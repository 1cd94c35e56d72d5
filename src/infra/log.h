// The log file writer: one dated line per call, appended and closed at once, with a size
// limit and one backup generation. Level and limit are re-read from the registry for every
// line, so a change takes effect without a restart.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "infra/program_info.h"
#include "infra/reg_document.h"
#include "infra/registry_store.h"

namespace kalvo {

class CDebug;

// Thread-safe: lines written from several threads at once go into the file one after another.
class Log {
 public:
  // `registry` must outlive the Log. `log_path` is the full path of the log file; the
  // backup is the same path with ".bak" appended.
  Log(RegistryStore& registry, std::string log_path);

  // The log file of a program: its name + ".log" in the parent of its directory.
  static std::string LogPathFor(const ProgramInfo& program);

  // Appends "<date time> - <message>" when `LogLevel` (under
  // HKEY_LOCAL_MACHINE:Software, Orvanta, Zentara; default 0) is above 0, or is 0 and
  // `force` is set; nothing at all when it is negative. Rotates to ".log.bak" first when the
  // line would take the file past `LogMaxSize` MiB (default 5). With `trace`, the line (the
  // bare message when the file was skipped) also goes to the trace object, if one is set.
  // The file holds UTF-8 and is created with mode 0640. It is opened and closed for every
  // line, so renaming it away (log rotation) between two lines loses nothing: the next line
  // creates a new file. When `LogToJournal` (under the KDX key; default 0) is true and a
  // journal sink is set, every line that passes the level also goes to the sink, without
  // the date (the journal keeps its own), whether or not the file could be written. Never
  // throws: a failure loses this one line.
  void WriteLog(std::string_view message, bool force = false, bool trace = false);

  // Writes "Fehler: <number> - <description> (<procedure>) {<extra>}". Never throws.
  void LogError(int32_t number, std::string_view description, std::string_view procedure,
                std::string_view extra = "");

  // Where the log reports, once each, that writing its file started failing (with the reason)
  // and that it works again; standard error (the journal under systemd) unless set. Nothing is
  // reported per lost line.
  void SetProblemSink(std::function<void(const std::string&)> sink) {
    std::lock_guard lock(mutex_);
    problem_sink_ = std::move(sink);
  }

  // Where lines go when LogToJournal asks for it: called with the message in UTF-8, on the
  // writing thread. Nothing goes there while unset (the default).
  void SetJournalSink(std::function<void(std::string_view line)> sink) {
    journal_sink_ = std::move(sink);
  }

  // The trace object for lines written with `trace`; may be null. Must outlive its use here.
  void SetTrace(CDebug* trace) {
    std::lock_guard lock(mutex_);
    trace_ = trace;
  }

  const std::string& path() const { return path_; }

 private:
  // Reads LogLevel and LogMaxSize as the registry holds them now, and LogToJournal into
  // `to_journal_`.
  void ReadSettings(int32_t& level, int64_t& max_mib);
  // Reports a change between writing and failing to write (`problem` empty: written).
  void NoteWriteOutcome(const std::string& problem);

  RegistryStore& registry_;
  // The three settings as read from `settings_doc_`; read again whenever the store holds
  // another version of the registry than the one they came from.
  std::shared_ptr<const RegDocument> settings_doc_;
  int32_t level_ = 0;
  int64_t max_mib_ = 5;
  bool to_journal_ = false;
  std::string path_;
  std::string backup_path_;
  CDebug* trace_ = nullptr;
  std::mutex mutex_;  // guards everything below and the file
  bool failing_ = false;
  std::function<void(const std::string&)> problem_sink_;
  std::function<void(std::string_view)> journal_sink_;
};

// The present local date and time as the log writes it: "dd.mm.yyyy hh:mm:ss".
std::string LogTimestamp();

}  // namespace kalvo
