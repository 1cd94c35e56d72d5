#include "db/actions.h"

#include <algorithm>

#include "db/backups.h"
#include "db/groups.h"
#include "db/operation.h"
#include "infra/arrays.h"
#include "infra/dates.h"
#include "infra/log.h"
#include "infra/numbers.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

constexpr std::string_view kCrLf = "\r\n";

// "<fixed>'<action>'": the many statements that select by action.
Statement ByAction(std::string_view fixed, std::string_view action) {
  Statement sql(fixed);
  sql.Sql("'").Value(action).Sql("'");
  return sql;
}

// "<fixed>'<action>' AND token_guid = '<token>'": an action's state row of one token.
Statement ByActionAndToken(std::string_view fixed, std::string_view action,
                           std::string_view token) {
  Statement sql = ByAction(fixed, action);
  sql.Sql(" AND token_guid = '").Value(token).Sql("'");
  return sql;
}

// The number a query gives, or `fallback` when it gives none.
long long NumberOf(DbConnection& c, const Statement& sql, long long fallback) {
  return WholeNumberText(QueryText(c, sql, "", " ", true, true)).value_or(fallback);
}

void Logged(DbConnection& c, std::string_view name) {
  c.database().log().WriteLog(std::string(name) + " (OK)");
}

// The token's state row as "last time$action counter$success counter", "" without one.
std::string StateRow(DbConnection& c, std::string_view fixed, std::string_view action,
                     std::string_view token) {
  return QueryText(c, ByActionAndToken(fixed, action, token), "$", "|", false, true);
}

std::string ObjectData(DbConnection& c, std::string_view guid) {
  const long long parts =
      NumberOf(c, ByAction("SELECT COUNT(*) FROM tbl_kdx_job_data WHERE action_guid = ", guid), 0);
  std::string result;
  for (long long part = 1; part <= parts; ++part) {
    Statement sql = ByAction("SELECT * FROM tbl_kdx_job_data WHERE action_guid = ", guid);
    sql.Sql(" AND action_data_order = ").Number(part);
    RecordSet rs;
    if (!DBExecuteSQLCommand(c, sql, rs, 1) || rs.Eof()) continue;
    result += rs.Field(0, "action_data").value_or("");
  }
  result += '|';
  result += QueryText(c,
                      ByAction("SELECT data_source, data_source_owner FROM tbl_kdx_job_data_source "
                               "WHERE action_guid = ",
                               guid),
                      "$", kCrLf, false, true);
  return result;
}

std::string DeleteAction(DbConnection& c, std::string_view guid) {
  static constexpr std::string_view kDeletes[] = {
      "DELETE FROM tbl_kdx_job_data_source WHERE action_guid = ",
      "DELETE FROM tbl_kdx_job_data WHERE action_guid = ",
      "DELETE FROM tbl_kdx_job_members WHERE action_guid = ",
      "DELETE FROM tbl_kdx_job_properties WHERE action_guid = ",
      "DELETE FROM tbl_kdx_job_state WHERE action_guid = ",
  };
  int failures = 0;
  for (std::string_view fixed : kDeletes) {
    if (!Execute(c, ByAction(fixed, guid))) ++failures;
  }
  return failures == 0 ? "OK" : "ERROR";
}

// Whether `text` is a time stamp that compares with now at all (either way round).
bool IsUsableTime(std::string_view text, const std::tm& now) {
  return IsNotBefore(SplitTimestamp(text, "-"), "", true, now) ||
         IsNotBefore(MakeDateRecord("", now), text, true, now);
}

}  // namespace

bool DBSetActionData(Database& database, const ActionDefinition& a, bool replace) {
  return RunOperation(
      database, "DBSetActionData", ConnectFailure::kBang, false, [&](DbConnection& c, bool& ok) {
        // The delete of the definition it replaces, its row, members, data and sources are one
        // unit: a crash or a failed statement leaves the previous definition whole. The delete
        // logs as the delete operation of its own that it is.
        Transaction transaction(c);
        if (replace && DBDeleteAction(c, a.guid) != "OK") {
          throw RuntimeError(kErrInvalidCall, "the action to replace could not be deleted");
        }
        if (NumberOf(c,
                     ByAction("SELECT COUNT(*) FROM tbl_kdx_job_properties WHERE action_guid = ",
                              a.guid),
                     1) > 0) {
          return;
        }
        Statement insert("INSERT INTO tbl_kdx_job_properties VALUES ('");
        insert.Value(a.guid).Sql("','").Value(a.name).Sql("',").Number(a.type).Sql(",");
        insert.Number(a.period).Sql(",").Number(a.priority).Sql(",'").Value(a.first_time);
        insert.Sql("','").Value(a.last_time).Sql("',").Number(a.stopped).Sql(")");
        MustExecute(c, insert);
        // Every element is a member, an empty one too; an empty text splits into none.
        for (const std::string& member : Split(a.members, "$")) {
          Statement sql("INSERT INTO tbl_kdx_job_members VALUES ('");
          MustExecute(c, sql.Value(a.guid).Sql("','").Value(member).Sql("')"));
        }
        if (!a.data.empty()) {
          ForEachDataPart(
              database.log(), a.data, database.settings().blob_max_size,
              [&](int32_t part, std::string_view text) {
                Statement row("INSERT INTO tbl_kdx_job_data VALUES ('");
                MustExecute(c, row.Value(a.guid).Sql("','',0)"));
                // The bytes and the part number go into the row just inserted, the one still
                // numbered 0.
                Statement where = ByAction("WHERE action_guid = ", a.guid);
                where.Sql(" AND action_data_order = 0");
                Statement update(
                    "UPDATE tbl_kdx_job_data SET action_data = ?, action_data_order = ");
                update.Number(part).Sql(" ").Append(where).BindBinary(text);
                Statement select("SELECT * FROM tbl_kdx_job_data ");
                if (!UpdateSelectedRows(c, update, select.Append(where))) {
                  throw RuntimeError(kErrInvalidCall, "the action's data could not be written");
                }
                return true;
              });
        }
        // Each line is split at "$": field 0 the source, field 1 the owner; a line without
        // field 1 is a subscript error that ends the operation.
        for (const std::string& line : Split(a.sources, kCrLf)) {
          const std::vector<std::string> fields = Split(line, "$");
          Statement sql("INSERT INTO tbl_kdx_job_data_source VALUES ('");
          sql.Value(a.guid).Sql("','").Value(ElementAt(fields, 0)).Sql("','");
          sql.Value(ElementAt(fields, 1)).Sql("')");
          MustExecute(c, sql);
        }
        ok = transaction.Commit("DBSetActionData");
      });
}

std::string DBGetAllActions(Database& database) {
  return RunOperation(
      database, "DBGetAllActions", ConnectFailure::kBang, std::string(),
      [&](DbConnection& c, std::string& result) {
        RecordSet rs;
        if (!DBExecuteSQLCommand(
                c, Statement("SELECT * FROM tbl_kdx_job_properties ORDER BY action_name"), rs) ||
            rs.Eof()) {
          return;
        }
        std::vector<std::string> actions;
        for (size_t i = 0; i < rs.rows.size(); ++i) {
          std::string line;
          for (size_t k = 0; k < rs.rows[i].size(); ++k) {
            if (k > 0) line += '$';
            line += rs.rows[i][k].value_or("");
          }
          const std::string guid = rs.rows[i].empty() ? "" : rs.rows[i][0].value_or("");
          line += '$';
          line += std::to_string(DBGetActionState(c, guid));
          line += '$';
          line += DBGetActionMember(c, guid, ",");
          actions.push_back(std::move(line));
        }
        result = Join(actions, "|");
      });
}

int32_t DBGetActionStateConnect(Database& database, std::string_view guid) {
  return RunOperation(database, "DBGetActionStateConnect", ConnectFailure::kBang,
                      int32_t{kActionNotFound},
                      [&](DbConnection& c, int32_t& state) { state = DBGetActionState(c, guid); });
}

int32_t DBGetActionState(DbConnection& c, std::string_view guid) {
  const std::string row = QueryText(
      c,
      ByAction("SELECT action_stopped, action_last_time, action_first_time, action_period "
               "FROM tbl_kdx_job_properties WHERE action_guid = ",
               guid),
      "$", "|", false, true);
  const std::vector<std::string> f = Split(row, "$");
  int32_t state = kActionNotFound;
  if (f.size() == 4) {
    const std::string &stopped = f[0], &last = f[1], &first = f[2], &period = f[3];
    const std::tm now = c.database().Now();
    const DateRecord now_record = MakeDateRecord("", now);
    const bool first_ahead = IsNotBefore(SplitTimestamp(first, "-"), "", false, now);
    if (stopped != "0") {
      state = kActionStopped;
    } else if (!last.empty() && IsNotBefore(now_record, last, false, now)) {
      state = kActionExpired;
    } else if (first_ahead) {
      state = kActionWaiting;
    } else {
      state = DBAllMembersDone(c, guid, period) ? kActionCompleted : kActionActive;
    }
    if (state != kActionStopped && !DBValidateAction(c, guid, state)) state = kActionInvalid;
  }
  Logged(c, "DBGetActionState");
  return state;
}

std::string DBDeleteAction(Database& database, std::string_view guid) {
  return RunOperation(
      database, "DBDeleteAction", ConnectFailure::kBang, std::string("ERROR"),
      [&](DbConnection& c, std::string& result) { result = DeleteAction(c, guid); });
}

std::string DBDeleteAction(DbConnection& connection, std::string_view guid) {
  return RunOperationOn(
      connection, "DBDeleteAction", std::string("ERROR"),
      [&](DbConnection& c, std::string& result) { result = DeleteAction(c, guid); });
}

std::string DBGetActionObjectData(Database& database, std::string_view guid) {
  return RunOperation(database, "DBGetActionObjectData", ConnectFailure::kBang, std::string(),
                      [&](DbConnection& c, std::string& result) { result = ObjectData(c, guid); });
}

std::string DBStartAction(Database& database, std::string_view guid, bool stop) {
  return RunOperation(database, "DBStartAction", ConnectFailure::kBang, std::string("ERROR"),
                      [&](DbConnection& c, std::string& result) {
                        Statement sql("UPDATE tbl_kdx_job_properties SET action_stopped = ");
                        sql.Sql(stop ? "1" : "0").Sql(" WHERE action_guid = '").Value(guid);
                        sql.Sql("'");
                        result = Execute(c, sql) ? "OK" : "ERROR";
                      });
}

std::string DBGetActionDetails(Database& database, std::string_view guid) {
  return RunOperation(
      database, "DBGetActionDetails", ConnectFailure::kBang, std::string(),
      [&](DbConnection& c, std::string& result) {
        if (QueryText(
                c,
                ByAction("SELECT action_period FROM tbl_kdx_job_properties WHERE action_guid = ",
                         guid),
                "", " ", true, true)
                .empty()) {
          return;
        }
        const std::vector<std::string> tokens =
            DBSplitMemberGUIDsToTokenGUIDs(c, Split(DBGetActionMember(c, guid, "|"), "|"));
        std::vector<std::string> lines;
        for (const std::string& token : tokens) {
          Statement person("SELECT token_person FROM tbl_kdx_token WHERE token_guid = '");
          person.Value(token).Sql("'");
          std::string state = StateRow(c,
                                       "SELECT last_time,action_counter,success_counter "
                                       "FROM tbl_kdx_job_state WHERE action_guid = ",
                                       guid, token);
          if (state.empty()) state = "0";
          lines.push_back(token + "$" + QueryText(c, person, "", " ", false, true) + "$" + state);
        }
        result = Join(lines, kCrLf);
      });
}

std::string DBGetTokenAction(Database& database, std::string_view token) {
  return RunOperation(
      database, "DBGetTokenAction", ConnectFailure::kBang, std::string(),
      [&](DbConnection& c, std::string& result) {
        std::vector<std::string> actions;
        if (!DBGetTokenActionGUIDs(c, token, actions, nullptr)) return;
        std::vector<std::string> lines;
        for (const std::string& action : actions) {
          std::string properties =
              QueryText(c,
                        ByAction("SELECT action_name, action_period FROM tbl_kdx_job_properties "
                                 "WHERE action_guid = ",
                                 action),
                        "$", "|", false, true);
          // The token's own GUID stands in the list when it has no action; like any entry
          // without a definition it reads with an empty name and period.
          if (properties.empty()) properties = "$";
          std::string counters = StateRow(c,
                                          "SELECT action_counter, success_counter "
                                          "FROM tbl_kdx_job_state WHERE action_guid = ",
                                          action, token);
          if (counters.empty()) counters = "0$0";
          lines.push_back(action + "$" + properties + "$" + counters);
        }
        result = Join(lines, kCrLf);
      });
}

std::vector<std::string> DBGetTaskCollection(Database& database, std::string_view token) {
  return RunOperation(database, "DBGetTaskCollection", ConnectFailure::kBang,
                      std::vector<std::string>(),
                      [&](DbConnection& c, std::vector<std::string>& tasks) {
                        std::vector<std::string> actions, types;
                        if (!DBGetTokenActionGUIDs(c, token, actions, &types)) return;
                        for (size_t i = 0; i < actions.size() && i < types.size(); ++i) {
                          if (DBGetActionState(c, actions[i]) != kActionActive) continue;
                          if (!DBActionShallExecute(c, actions[i], token)) continue;
                          tasks.push_back(actions[i] + "|" + types[i] + "|" +
                                          DBGetActionObjectData(database, actions[i]));
                        }
                      });
}

bool DBSetActionResult(Database& database, std::string_view action, std::string_view token,
                       std::string_view time, int16_t result) {
  return RunOperation(
      database, "DBSetActionResult", ConnectFailure::kBang, false, [&](DbConnection& c, bool& ok) {
        const Statement count = ByActionAndToken(
            "SELECT COUNT(*) FROM tbl_kdx_job_state WHERE action_guid = ", action, token);
        if (NumericTextToInt32(QueryText(c, count, "", " ", true, true)) < 1) {
          Statement insert("INSERT INTO tbl_kdx_job_state VALUES ('");
          insert.Value(action).Sql("','").Value(token).Sql("','").Value(time).Sql("',1,");
          insert.Sql(result == 0 ? "1" : "0").Sql(")");
          ok = Execute(c, insert);
          return;
        }
        Statement update("UPDATE tbl_kdx_job_state SET last_time = '");
        update.Value(time).Sql(
            "', action_counter = action_counter + 1, success_counter = success_counter + 1 ");
        update.Append(ByActionAndToken("WHERE action_guid = ", action, token));
        ok = Execute(c, update);
      });
}

bool DBUpdateActionState(DbConnection& c, std::string_view action, std::string_view new_members) {
  const std::vector<std::string> wanted =
      DBSplitMemberGUIDsToTokenGUIDs(c, Split(new_members, "$"));
  const std::string current_text = QueryText(
      c,
      ByAction("SELECT member_guid FROM tbl_kdx_job_members WHERE action_guid = ", action).Sql(" "),
      "", "|", false, true);
  std::vector<std::string> lost = DBSplitMemberGUIDsToTokenGUIDs(c, Split(current_text, "|"));
  std::erase_if(lost, [&](const std::string& token) {
    return std::find(wanted.begin(), wanted.end(), token) != wanted.end();
  });
  bool ok = true;
  if (!lost.empty()) {
    Statement sql = ByAction("DELETE FROM tbl_kdx_job_state WHERE action_guid = ", action);
    for (size_t i = 0; i < lost.size(); ++i) {
      sql.Sql(i == 0 ? " AND (token_guid = '" : "OR token_guid = '").Value(lost[i]).Sql("' ");
    }
    ok = Execute(c, sql.Sql(")"));
  }
  Logged(c, "DBUpdateActionState");
  return ok;
}

std::vector<std::string> DBSplitMemberGUIDsToTokenGUIDs(DbConnection& c,
                                                        const std::vector<std::string>& members) {
  std::vector<std::string> tokens;
  for (const std::string& member : members) {
    if (member.empty()) continue;
    std::vector<std::string> group;
    if (DBGetGroupMembers(c, group, member)) {
      tokens.insert(tokens.end(), group.begin(), group.end());
    } else {
      tokens.push_back(member);
    }
  }
  Logged(c, "DBSplitMemberGUIDsToTokenGUIDs");
  return tokens;
}

bool DBValidateAction(DbConnection& c, std::string_view guid, int32_t /*state*/) {
  bool valid = false;
  RecordSet rs;
  if (!DBGetActionMember(c, guid, ",").empty() &&
      DBExecuteSQLCommand(c,
                          ByAction("SELECT action_type, action_first_time, action_last_time "
                                   "FROM tbl_kdx_job_properties WHERE action_guid = ",
                                   guid),
                          rs) &&
      !rs.Eof()) {
    const std::vector<std::vector<std::string>> matrix =
        DBGetMatrixFromRecordSet(c.database(), rs, "$", "|", false, true);
    if (!matrix.empty() && matrix[0].size() >= 3) {
      const std::string &type = matrix[0][0], &first = matrix[0][1], &last = matrix[0][2];
      const std::tm now = c.database().Now();
      const bool span_ok =
          IsUsableTime(first, now) &&
          (last.empty() ||
           (IsUsableTime(last, now) && IsNotBefore(SplitTimestamp(last, "-"), first, true, now)));
      const bool needs_data = type != std::to_string(kActionTypeWithoutData);
      valid = span_ok && ActionHasData(c, guid) == needs_data;
    }
  }
  Logged(c, "DBValidateAction");
  return valid;
}

bool ActionHasData(DbConnection& c, std::string_view guid) {
  const bool has = NumberOf(c,
                            ByAction("SELECT COUNT(action_guid) FROM tbl_kdx_job_data "
                                     "WHERE action_guid = ",
                                     guid),
                            0) > 0;
  Logged(c, "ActionHasData");
  return has;
}

bool DBAllMembersDone(DbConnection& c, std::string_view guid, std::string_view period) {
  bool done = period == "0";
  if (done) {
    const std::string members = QueryText(
        c, ByAction("SELECT member_guid FROM tbl_kdx_job_members WHERE action_guid = ", guid), "",
        "|", false, true);
    Statement succeeded = ByAction("action_guid = ", guid);
    succeeded.Sql(" AND success_counter > 0");
    for (const std::string& member : Split(members, "|")) {
      Statement sql("SELECT token_guid FROM tbl_kdx_token_groups WHERE group_guid = '");
      const std::string group = QueryText(c, sql.Value(member).Sql("'"), "", "$", false, true);
      const std::vector<std::string> tokens =
          group.empty() ? std::vector<std::string>{member} : Split(group, "$");
      done = std::all_of(tokens.begin(), tokens.end(), [&](const std::string& token) {
        return DBIsItemInTable(c, "tbl_kdx_job_state", "token_guid", token, succeeded);
      });
      if (!done) break;
    }
  }
  Logged(c, "DBAllMembersDone");
  return done;
}

std::string DBGetActionMember(DbConnection& c, std::string_view guid, std::string_view separator) {
  const std::string members = QueryText(
      c, ByAction("SELECT member_guid FROM tbl_kdx_job_members WHERE action_guid = ", guid), "",
      separator, false, true);
  Logged(c, "DBGetActionMember");
  return members;
}

bool DBGetTokenActionGUIDs(DbConnection& c, std::string_view token,
                           std::vector<std::string>& actions, std::vector<std::string>* types) {
  actions.assign(1, std::string(token));
  Statement groups_sql("SELECT group_guid FROM tbl_kdx_token_groups WHERE token_guid = '");
  groups_sql.Value(token).Sql("'");
  const std::string groups = QueryText(c, groups_sql, "", kCrLf, false, true);
  Statement sql(
      "SELECT DISTINCT(tbl_kdx_job_members.action_guid), tbl_kdx_job_properties.action_type, "
      "tbl_kdx_job_properties.action_priority FROM tbl_kdx_job_members, tbl_kdx_job_properties "
      "WHERE tbl_kdx_job_properties.action_guid = tbl_kdx_job_members.action_guid "
      "AND (tbl_kdx_job_members.member_guid = '");
  sql.Value(token).Sql(
      "' AND tbl_kdx_job_members.action_guid = tbl_kdx_job_properties.action_guid");
  for (const std::string& group : Split(groups, kCrLf)) {
    sql.Sql(" OR tbl_kdx_job_members.member_guid = '").Value(group).Sql("'");
  }
  sql.Sql(") ORDER BY tbl_kdx_job_properties.action_priority DESC");
  RecordSet rs;
  if (!DBExecuteSQLCommand(c, sql, rs)) return false;
  if (!rs.Eof()) {
    actions.clear();
    if (types != nullptr) types->clear();
    for (const auto& row : DBGetMatrixFromRecordSet(c.database(), rs, "|", kCrLf, false, true)) {
      actions.push_back(row.size() > 0 ? row[0] : "");
      if (types != nullptr) types->push_back(row.size() > 1 ? row[1] : "");
    }
  }
  Logged(c, "DBGetTokenActionGUIDs");
  return true;
}

bool DBActionShallExecute(DbConnection& c, std::string_view action, std::string_view token) {
  const long long period = NumberOf(
      c, ByAction("SELECT action_period FROM tbl_kdx_job_properties WHERE action_guid = ", action),
      -1);
  bool due = false;
  if (period == 0) {
    const std::string counter = StateRow(
        c, "SELECT action_counter FROM tbl_kdx_job_state WHERE action_guid = ", action, token);
    due = WholeNumberText(counter).value_or(0) == 0;
  } else if (period == 1) {
    due = true;
  } else if (period > 1) {
    static constexpr int kDays[] = {1, 7, 14, 30};
    const long long days = period <= 5 ? kDays[period - 2] : 0;
    const std::string last =
        StateRow(c, "SELECT last_time FROM tbl_kdx_job_state WHERE action_guid = ", action, token);
    if (last.empty()) {
      due = true;
    } else {
      const DateRecord d =
          DiffDateRecord(MakeDateRecord("", c.database().Now()), SplitTimestamp(last, "-"));
      const std::optional<long long> y = WholeNumberText(d[DateRecord::kYear]),
                                     m = WholeNumberText(d[DateRecord::kMonth]),
                                     day = WholeNumberText(d[DateRecord::kDay]);
      // A date that does not compare (a field that is no number) is never due.
      due =
          y && m && day && (*y > 0 || (*y == 0 && *m > 0) || (*y == 0 && *m == 0 && *day >= days));
    }
  }
  Logged(c, "DBActionShallExecute");
  return due;
}

}  // namespace kalvo
