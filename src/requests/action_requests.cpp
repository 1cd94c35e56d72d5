#include "requests/action_requests.h"

#include <ctime>
#include <optional>

#include "db/actions.h"
#include "db/backups.h"
#include "infra/arrays.h"
#include "infra/guid.h"
#include "infra/numbers.h"
#include "requests/backup_requests.h"

namespace kalvo {
namespace {

constexpr std::string_view kUpdate = "UPDATE";
constexpr std::string_view kError = "ERROR";
constexpr std::string_view kBackupTask = "1";
// A 318 definition: GUID|name|type|period|priority|first|last|stopped|members|sources|payload.
constexpr size_t kDefinitionFields = 11;

// The definition of a 318, or nothing when it has too few fields or a number field is none.
// Everything after the tenth "|" is the payload, which may hold "|" itself.
std::optional<ActionDefinition> ActionFromFields(std::string_view data) {
  std::vector<std::string> f = Split(data, "|");
  if (f.size() < kDefinitionFields) return std::nullopt;
  std::vector<std::string> payload(f.begin() + kDefinitionFields - 1, f.end());
  ActionDefinition a;
  const auto number = [&](size_t k, int32_t& out) {
    const auto value = WholeNumberText(f[k]);
    if (!value || *value < INT32_MIN || *value > INT32_MAX) return false;
    out = static_cast<int32_t>(*value);
    return true;
  };
  if (!number(2, a.type) || !number(3, a.period) || !number(4, a.priority) ||
      !number(7, a.stopped)) {
    return std::nullopt;
  }
  a.guid = f[0];
  a.name = f[1];
  a.first_time = f[5];
  a.last_time = f[6];
  a.members = f[8];
  a.sources = f[9];
  a.data = Join(payload, "|");
  return a;
}

// Answers with Misc1 `answer` and the list of every action.
void ReplyWithAllActions(Request& r, int32_t id, std::string_view answer) {
  r.SetReply(id, DBGetAllActions(r.ctx.database));
  r.record().Misc1 = answer;
  r.Reply();
}

void ReplyStopped(Request& r, int32_t id, bool stop) {
  const std::string guid = r.record().Data;
  const std::string answer = DBStartAction(r.ctx.database, guid, stop);
  r.SetReply(id, std::to_string(DBGetActionStateConnect(r.ctx.database, guid)));
  r.record().Misc1 = answer;
  r.Reply();
}

// The name of a backup that a task made: "Backup vom dd.mm.yyyy um hh-mm-ss".
std::string BackupTaskName(const std::tm& now) {
  char date[16], time[16];
  std::strftime(date, sizeof date, "%d.%m.%Y", &now);
  std::strftime(time, sizeof time, "%H-%M-%S", &now);
  return std::string("Backup vom ") + date + " um " + time;
}

}  // namespace

void GetActionData(Request& r) {
  r.SetReply(317, DBGetActionObjectData(r.ctx.database, r.record().Data));
  r.Reply();
}

void DefineAction(Request& r) {
  const std::optional<ActionDefinition> action = ActionFromFields(r.record().Data);
  const bool replace = r.record().Misc1 == kUpdate;
  const bool stored = action && DBSetActionData(r.ctx.database, *action, replace);
  ReplyWithAllActions(r, 318, stored ? "OK" : kError);
}

void ListActions(Request& r) {
  r.SetReply(319, DBGetAllActions(r.ctx.database));
  r.Reply();
}

void DeleteAction(Request& r) {
  ReplyWithAllActions(r, 320, DBDeleteAction(r.ctx.database, r.record().Data));
}

void StopAction(Request& r) { ReplyStopped(r, 322, true); }

void StartAction(Request& r) { ReplyStopped(r, 323, false); }

void GetActionDetails(Request& r) {
  r.SetReply(324, DBGetActionDetails(r.ctx.database, r.record().Data));
  r.Reply();
}

void GetTokenActions(Request& r) {
  r.SetReply(325, DBGetTokenAction(r.ctx.database, r.record().Data));
  r.Reply();
}

void TaskResult(Request& r) {
  SocketDataStruct& record = r.record();
  // Action, token, task type and time stamp of the execution.
  const std::vector<std::string> parts = Split(record.Misc3, "$");
  r.Audit(AuditAction::kExecute, ElementAt(parts, 0));
  if (record.Misc1.empty() && ElementAt(parts, 2) == kBackupTask) {
    std::string error;
    if (!DBSetTokenBackupData(r.ctx.database, BackupMaximaFrom(r.ctx.settings), r.TokenGuid(),
                              kAutomaticBackup, BackupTaskName(r.ctx.database.Now()), record.Data,
                              error)) {
      record.Misc1 = kError;
      record.Misc2 = error.empty() ? "Error" : error;
    }
  }
  const bool failed = record.Misc1 == kError;
  DBSetActionResult(r.ctx.database, ElementAt(parts, 0), ElementAt(parts, 1), ElementAt(parts, 3),
                    failed ? 1 : 0);
  // After an error the client gets nothing more.
  if (failed) return;
  auto& pending = r.ctx.state.pending_task_collections;
  const auto tasks = pending.find(ConnectionKey(r.index()));
  if (tasks == pending.end()) return;
  if (!tasks->second.empty()) tasks->second.erase(tasks->second.begin());
  if (tasks->second.empty()) {
    pending.erase(tasks);
    return;
  }
  r.SetReply(327, tasks->second.front());
  r.Reply();
}

void TaskHandout(Request& r) {
  const std::string guid = r.record().Data;
  if (!IsGUID(guid)) return;
  auto& pending = r.ctx.state.pending_task_collections;
  const std::string key = ConnectionKey(r.index());
  pending.erase(key);
  std::vector<std::string> tasks = DBGetTaskCollection(r.ctx.database, guid);
  if (tasks.empty()) {
    r.SetReply(327, "NONE");
  } else {
    r.SetReply(327, tasks.front());
    pending[key] = std::move(tasks);
  }
  r.Reply();
}

}  // namespace kalvo
