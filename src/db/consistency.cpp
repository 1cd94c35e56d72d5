#include "db/consistency.h"

#include "db/operation.h"
#include "db/schema.h"
#include "infra/arrays.h"

namespace kalvo {
namespace {

// A GUID is 36 characters: a longer field holds several, joined by blanks.
constexpr std::string_view kJoinedMemberships =
    "SELECT token_guid, group_guid FROM tbl_kdx_token_groups "
    "WHERE LENGTH(group_guid) > 36 OR LENGTH(token_guid) > 36";

Statement CountDefaultGroups() {
  Statement sql("SELECT COUNT(*) FROM tbl_kdx_groups WHERE group_guid = '");
  sql.Value(kEveryoneGroupGuid).Sql("'");
  return sql;
}

// The GUIDs of a field that holds several of them.
std::vector<std::string> GuidsIn(const std::string& field) {
  std::vector<std::string> guids;
  for (const std::string& part : Split(field, " ")) {
    if (part.size() == kEveryoneGroupGuid.size()) guids.push_back(part);
  }
  return guids;
}

}  // namespace

std::vector<std::string> DBFindDataProblems(Database& database) {
  return RunOperation(
      database, "DBFindDataProblems", ConnectFailure::kPlain,
      std::vector<std::string>{"the data could not be checked (see the log)"},
      [&](DbConnection& c, std::vector<std::string>& result) {
        result.clear();
        RecordSet groups;
        RecordSet members;
        if (!DBExecuteSQLCommand(c, CountDefaultGroups(), groups) ||
            !DBExecuteSQLCommand(c, Statement(kJoinedMemberships), members)) {
          result.push_back("the data could not be checked (see the log)");
          return;
        }
        const std::string count = groups.Field(0, groups.column_names.at(0)).value_or("0");
        if (count != "0" && count != "1") {
          result.push_back("the default group \"Jeder\" (" + std::string(kEveryoneGroupGuid) +
                           ") is stored " + count +
                           " times: new tokens are stored with several group GUIDs in one "
                           "membership row and get no rights");
        }
        if (!members.rows.empty()) {
          result.push_back(std::to_string(members.rows.size()) +
                           " membership row(s) of tbl_kdx_token_groups hold several GUIDs in one "
                           "field: those tokens are in no group");
        }
      });
}

int32_t DBRepairData(Database& database) {
  return RunOperation(
      database, "DBRepairData", ConnectFailure::kBang, int32_t{-1},
      [&](DbConnection& c, int32_t& result) {
        // The result stays -1 unless every step succeeds.
        int32_t deleted = 0;
        RecordSet groups;
        Statement select(
            "SELECT group_name, group_description, group_abilities FROM "
            "tbl_kdx_groups WHERE group_guid = '");
        select.Value(kEveryoneGroupGuid).Sql("'");
        if (!DBExecuteSQLCommand(c, select, groups)) return;
        if (groups.rows.size() > 1) {
          Statement remove("DELETE FROM tbl_kdx_groups WHERE group_guid = '");
          remove.Value(kEveryoneGroupGuid).Sql("'");
          Statement insert("INSERT INTO tbl_kdx_groups VALUES ('");
          insert.Value(kEveryoneGroupGuid).Sql("', '");
          insert.Value(groups.Field(0, "group_name").value_or("")).Sql("', '");
          insert.Value(groups.Field(0, "group_description").value_or("")).Sql("', ");
          insert.Number(groups.Field(0, "group_abilities").value_or("0")).Sql(")");
          if (!Execute(c, remove) || !Execute(c, insert)) return;
          deleted += static_cast<int32_t>(groups.rows.size()) - 1;
        }
        RecordSet members;
        if (!DBExecuteSQLCommand(c, Statement(kJoinedMemberships), members)) return;
        for (size_t row = 0; row < members.rows.size(); ++row) {
          const std::string tokens = members.Field(row, "token_guid").value_or("");
          const std::string group_field = members.Field(row, "group_guid").value_or("");
          for (const std::string& token : GuidsIn(tokens)) {
            for (const std::string& group : GuidsIn(group_field)) {
              Statement exists("SELECT COUNT(*) FROM tbl_kdx_token_groups WHERE token_guid = '");
              exists.Value(token).Sql("' AND group_guid = '").Value(group).Sql("'");
              if (QueryText(c, exists, "", " ", true, false) != "0") continue;
              Statement insert("INSERT INTO tbl_kdx_token_groups VALUES ('");
              insert.Value(token).Sql("','").Value(group).Sql("')");
              if (!Execute(c, insert)) return;
            }
          }
          Statement remove("DELETE FROM tbl_kdx_token_groups WHERE token_guid = '");
          remove.Value(tokens).Sql("' AND group_guid = '").Value(group_field).Sql("'");
          if (!Execute(c, remove)) return;
          ++deleted;
        }
        result = deleted;
      });
}

}  // namespace kalvo
