#include "infra/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "infra/cdebug.h"
#include "infra/dates.h"
#include "infra/files.h"
#include "infra/registry.h"
#include "infra/runtime_error.h"
#include "infra/settings.h"
#include "infra/text_encoding.h"
#include "infra/unique_fd.h"

namespace kalvo {
namespace {

constexpr std::string_view kRoot = "HKEY_LOCAL_MACHINE:Software";
constexpr std::string_view kMaker = "Orvanta";
constexpr std::string_view kProduct = "Zentara";
// The log may name users, addresses and statements: readable by the service's group (the
// creating process's group, or the directory's when root creates it) for its administrators,
// by nobody else.
constexpr mode_t kLogFileMode = 0640;

}  // namespace

std::string LogTimestamp() {
  const std::tm tm = LocalNow();
  char buf[32];
  std::strftime(buf, sizeof buf, "%d.%m.%Y %H:%M:%S", &tm);
  return buf;
}

Log::Log(RegistryStore& registry, std::string log_path)
    : registry_(registry), path_(std::move(log_path)), backup_path_(path_ + ".bak") {}

std::string Log::LogPathFor(const ProgramInfo& program) {
  return WithTrailingSlash(program.LogDir()) + program.name + ".log";
}

void Log::ReadSettings(int32_t& level, int64_t& max_mib) {
  // Reading both values costs far more than a line; they can only have changed when the
  // store holds a new version of the registry file.
  std::shared_ptr<const RegDocument> doc = registry_.Snapshot();
  if (doc != settings_doc_) {
    level_ = RegistryRead(registry_, kRoot, kMaker, kProduct, "LogLevel", 0).ToLong();
    max_mib_ = RegistryRead(registry_, kRoot, kMaker, kProduct, "LogMaxSize", 5).ToLong();
    try {
      to_journal_ = SettingBoolean(
          RegistryRead(registry_, kSettingsRoot, kSettingsKey, "KDX", "LogToJournal", 0));
    } catch (const RuntimeError&) {
      to_journal_ = false;  // a value that is no Boolean asks for nothing
    }
    settings_doc_ = std::move(doc);
  }
  level = level_;
  max_mib = max_mib_;
}

void Log::WriteLog(std::string_view message, bool force, bool trace) {
  // One line at a time: the database workers write beside the network thread, and a line must
  // neither interleave with another nor rotate the file twice.
  std::lock_guard lock(mutex_);
  try {
    int32_t level;
    int64_t max_mib;
    ReadSettings(level, max_mib);
    if (level == 0 && force) level = 1;
    std::string line(message);
    if (level > 0 && to_journal_ && journal_sink_) journal_sink_(Cp1252ToUtf8(line));
    if (level > 0) {
      // The size computation is 32-bit: a limit that overflows it loses the line.
      const int64_t limit = max_mib * 1024 * 1024;
      if (limit > INT32_MAX || limit < INT32_MIN) return;

      line = LogTimestamp() + " - " + line;
      const std::string bytes = Cp1252ToUtf8(line) + "\r\n";
      // What failed, with the system's reason; empty once the line is written.
      auto failed = [&](std::string_view what) {
        return std::string(what) + " " + path_ + ": " + std::strerror(errno);
      };
      std::string problem;
      UniqueFd fd(OpenForAppend(path_, kLogFileMode));
      struct stat st {};
      if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) {
        problem = failed("cannot open");
      } else {
        // The write position is the file's length + 1 (1 for a new, empty file).
        const int64_t position = static_cast<int64_t>(st.st_size) + 1;
        if (static_cast<int64_t>(bytes.size() - 2) + position > limit && st.st_size > 0) {
          // The backup is always the last full generation.
          fd.Close();
          ::unlink(backup_path_.c_str());
          if (::rename(path_.c_str(), backup_path_.c_str()) != 0) {
            problem = failed("cannot rotate");
          } else {
            fd = UniqueFd(OpenForAppend(path_, kLogFileMode));
            if (fd.get() < 0) problem = failed("cannot open");
          }
        }
        if (problem.empty() && !WriteAll(fd.get(), bytes)) problem = failed("cannot write to");
      }
      NoteWriteOutcome(problem);
      if (!problem.empty()) return;
    }
    if (trace && trace_ != nullptr) trace_->Write(line, true);
  } catch (...) {
    // A failure loses this one line and nothing else.
  }
}

void Log::NoteWriteOutcome(const std::string& problem) {
  if (problem.empty() == !failing_) return;
  failing_ = !problem.empty();
  const std::string text = failing_ ? "kalvosrv: the log is not written (" + problem +
                                          "); log lines are lost until it works again"
                                    : "kalvosrv: the log file " + path_ + " is written again";
  try {
    if (problem_sink_) {
      problem_sink_(text);
    } else {
      std::fprintf(stderr, "%s\n", text.c_str());
    }
  } catch (...) {
  }
}

void Log::LogError(int32_t number, std::string_view description, std::string_view procedure,
                   std::string_view extra) {
  std::string line = "Fehler: ";
  line += std::to_string(number);
  line += " - ";
  line += description;
  line += " (";
  line += procedure;
  line += ") {";
  line += extra;
  line += "}";
  WriteLog(line);
}

}  // namespace kalvo
