#include "db/groups.h"

#include "db/operation.h"
#include "infra/arrays.h"
#include "infra/numbers.h"

namespace kalvo {
namespace {

constexpr std::string_view kCrLf = "\r\n";

// Inserts group `fields` (guid, name, description, abilities, members) and its memberships.
void InsertGroup(DbConnection& c, const std::vector<std::string>& fields) {
  if (fields.size() < 5) throw RuntimeError(kErrSubscript, "Subscript out of range");
  const std::string& guid = fields[0];
  const int32_t abilities = fields[3].empty() ? 0 : NumericTextToInt32(fields[3]);
  if (!Execute(c,
               Statement("INSERT INTO tbl_kdx_groups VALUES ('").Value(guid).Sql("','','',0)"))) {
    throw RuntimeError(1, "Gruppe konnte nicht angelegt werden");
  }
  // Name and description go in as bound values: an apostrophe in them is no problem there.
  Statement fields_update(
      "UPDATE tbl_kdx_groups SET group_name = ?, group_description = ?, group_abilities = ? "
      "WHERE group_guid = '");
  fields_update.Value(guid).Sql("'");
  fields_update.BindText(fields[1]).BindText(fields[2]).BindNumber(abilities);
  // A value the column cannot take ends the replacement like a failed insert.
  MustExecute(c, fields_update);
  if (fields[4].empty()) return;
  for (const std::string& member : Split(fields[4], "$")) {
    // Entries may be "guid,person" as DBGetGroupData writes them.
    const std::string token = member.size() > 36 ? member.substr(0, 36) : member;
    Statement join("INSERT INTO tbl_kdx_token_groups VALUES ('");
    join.Value(token).Sql("','").Value(guid).Sql("')");
    Execute(c, join);
  }
}

// Removes action members that name neither a token nor a group.
void RemoveOrphanedActionMembers(DbConnection& c) {
  const std::string members =
      QueryText(c, Statement("SELECT member_guid FROM tbl_kdx_job_members"), "", "|", false, true);
  if (members.empty()) return;
  for (const std::string& guid : Split(members, "|")) {
    if (DBIsItemInTable(c, "tbl_kdx_token", "token_guid", guid) ||
        DBIsItemInTable(c, "tbl_kdx_groups", "group_guid", guid)) {
      continue;
    }
    Execute(
        c, Statement("DELETE FROM tbl_kdx_job_members WHERE member_guid = '").Value(guid).Sql("'"));
  }
}

}  // namespace

std::string DBGetGroupData(Database& database) {
  return RunOperation(
      database, "DBGetGroupData", ConnectFailure::kPlain, std::string(),
      [&](DbConnection& c, std::string& result) {
        RecordSet rs;
        if (!DBExecuteSQLCommand(c, Statement("SELECT * FROM tbl_kdx_groups"), rs) || rs.Eof()) {
          return;
        }
        std::vector<std::string> rows =
            DBGetArrayFromRecordSet(database, rs, "|", kCrLf, false, true);
        for (std::string& row : rows) {
          Statement members(
              "SELECT tbl_kdx_token.token_guid, tbl_kdx_token.token_person "
              "FROM tbl_kdx_token, tbl_kdx_token_groups "
              "WHERE tbl_kdx_token.token_guid = tbl_kdx_token_groups.token_guid "
              "AND tbl_kdx_token_groups.group_guid = '");
          members.Value(row.substr(0, 36)).Sql("'");
          row += '|';
          row += QueryText(c, members, ",", "$", false, true);
        }
        result = Join(rows, kCrLf);
      });
}

bool DBSetGroupData(Database& database, std::string_view data) {
  return RunOperation(
      database, "DBSetGroupData", ConnectFailure::kPlain, false,
      [&](DbConnection& c, bool& result) {
        // The groups are replaced as one unit: others never see them half written, and a crash
        // or a failed statement leaves the previous groups.
        Transaction transaction(c);
        if (!Execute(c, Statement("DELETE FROM tbl_kdx_groups WHERE group_guid IS NOT NULL")) ||
            !Execute(c,
                     Statement("DELETE FROM tbl_kdx_token_groups WHERE group_guid IS NOT NULL"))) {
          return;
        }
        if (!data.empty()) {
          for (const std::string& group : Split(data, kCrLf)) InsertGroup(c, Split(group, "|"));
        }
        RemoveOrphanedActionMembers(c);
        result = transaction.Commit("DBSetGroupData");
      });
}

std::string DBGetAllMemberGUIDs(Database& database) {
  return RunOperation(database, "DBGetAllMemberGUIDs", ConnectFailure::kBang, std::string(),
                      [&](DbConnection& c, std::string& result) {
                        const std::string groups = QueryText(
                            c, Statement("SELECT group_name, group_guid FROM tbl_kdx_groups"), "$",
                            "|", true, true);
                        const std::string tokens = QueryText(
                            c, Statement("SELECT token_person, token_guid FROM tbl_kdx_token"), "$",
                            "|", true, true);
                        result = groups + std::string(kCrLf) + tokens;
                      });
}

bool DBGetGroupMembers(DbConnection& connection, std::vector<std::string>& tokens,
                       std::string_view member_guid) {
  tokens.clear();
  Statement name_sql("SELECT group_name FROM tbl_kdx_groups WHERE group_guid = '");
  name_sql.Value(member_guid).Sql("'");
  const bool is_group = !QueryText(connection, name_sql, "", " ", true, false).empty();
  if (is_group) {
    Statement members("SELECT token_guid FROM tbl_kdx_token_groups WHERE group_guid = '");
    members.Value(member_guid).Sql("'");
    const std::string text = QueryText(connection, members, "", "|", false, true);
    if (!text.empty()) tokens = Split(text, "|");
  }
  connection.database().log().WriteLog("DBGetGroupMembers (OK)");
  return is_group;
}

}  // namespace kalvo
