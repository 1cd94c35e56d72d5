#include "db/tokens.h"

#include <unordered_map>

#include "db/operation.h"
#include "infra/arrays.h"
#include "infra/dates.h"
#include "infra/numbers.h"

namespace kalvo {
namespace {

constexpr std::string_view kCrLf = "\r\n";

// The statement that selects the token's row, the one its certificate is written into.
Statement SelectToken(std::string_view guid) {
  Statement sql("SELECT * FROM tbl_kdx_token WHERE token_guid = '");
  sql.Value(guid).Sql("'");
  return sql;
}

// The statement that tells whether the token `guid` has a certificate.
Statement CertificateProbe(std::string_view guid) {
  Statement sql = SelectToken(guid);
  sql.Sql(" AND token_certificate <> ''");
  return sql;
}

// For every token row, whether the probe for its GUID would find a certificate, in one
// statement: the GUID index serves each row's EXISTS, so the list costs no statement per
// token. Keyed by the GUID exactly as stored; duplicates share one answer.
std::unordered_map<std::string, bool> CertificateFlags(DbConnection& c) {
  std::unordered_map<std::string, bool> flags;
  RecordSet rs;
  const Statement sql(
      "SELECT token_guid, CASE WHEN EXISTS (SELECT * FROM tbl_kdx_token kalvo_other "
      "WHERE kalvo_other.token_guid = tbl_kdx_token.token_guid "
      "AND kalvo_other.token_certificate <> '') THEN 1 ELSE 0 END FROM tbl_kdx_token");
  if (!DBExecuteSQLCommand(c, sql, rs)) return flags;
  for (const auto& row : rs.rows) {
    if (row.size() < 2 || !row[0]) continue;
    flags.emplace(*row[0], row[1].value_or("0") == "1");
  }
  return flags;
}

}  // namespace

std::string DBSetLastTokenConnect(Database& database, std::string_view guid,
                                  std::string_view logon_name, std::string_view ip,
                                  std::string_view user_dn) {
  return RunOperation(
      database, "DBSetLastTokenConnect", ConnectFailure::kPlain, std::string(),
      [&](DbConnection& c, std::string& result) {
        const std::string now = FormatTimestamp(database.Now());
        Statement count("SELECT COUNT(*) FROM tbl_kdx_token WHERE token_guid = '");
        count.Value(guid).Sql("'");
        std::string known = QueryText(c, count, "", " ", true, false);
        if (known.empty()) known = "0";
        if (known != "0") {
          Statement update("UPDATE tbl_kdx_token SET token_last_use = '");
          update.Value(now).Sql("', token_last_ip = '").Value(ip).Sql("' , token_user_dn = '");
          update.Value(user_dn).Sql("' WHERE token_guid = '").Value(guid).Sql("'");
          if (Execute(c, update)) result = now + '\0' + std::string(user_dn);
          return;
        }
        const std::string person =
            logon_name.empty() ? std::string() : "unknown (" + std::string(logon_name) + ")";
        Statement insert("INSERT INTO tbl_kdx_token VALUES ('");
        insert.Value(guid).Sql("','").Value(person).Sql("','','").Value(now).Sql("','");
        insert.Value(now).Sql("','").Value(ip).Sql("','','").Value(user_dn).Sql("')");
        Log& log = database.log();
        if (!Execute(c, insert)) {
          log.LogError(0, "Token nicht in DB hinzugefügt", "DBSetLastTokenConnect");
          return;
        }
        RecordSet group;
        if (!DBExecuteSQLCommand(
                c, Statement("SELECT group_guid FROM tbl_kdx_groups WHERE group_name = 'Jeder'"),
                group)) {
          log.LogError(0, "GUID von Jeder nicht ermittelbar", "DBSetLastTokenConnect");
          return;
        }
        if (group.Eof()) {
          log.LogError(0, "GUID von Jeder nicht ermittelt", "DBSetLastTokenConnect");
          return;
        }
        const std::string group_guid =
            DBGetStringFromRecordSet(database, group, "", " ", true, false);
        Statement join("INSERT INTO tbl_kdx_token_groups VALUES ('");
        join.Value(guid).Sql("','").Value(group_guid).Sql("')");
        if (Execute(c, join)) result = "NEWTOKEN";
      });
}

bool DBSetTokenData(Database& database, std::string_view guid, std::string_view data) {
  return RunOperation(database, "DBSetTokenData", ConnectFailure::kPlain, false,
                      [&](DbConnection& c, bool& result) {
                        const std::vector<std::string> fields = Split(data, "|");
                        Statement sql("UPDATE tbl_kdx_token SET token_person = '");
                        sql.Value(ElementAt(fields, 0)).Sql("', token_description = '");
                        sql.Value(ElementAt(fields, 1)).Sql("' WHERE token_guid = '");
                        sql.Value(guid).Sql("'");
                        result = Execute(c, sql);
                      });
}

std::string DBGetTokenData(Database& database, std::string_view guid) {
  return RunOperation(database, "DBGetTokenData", ConnectFailure::kPlain, std::string(),
                      [&](DbConnection& c, std::string& result) {
                        Statement sql(
                            "SELECT DISTINCT tbl_kdx_groups.group_name, tbl_kdx_groups.group_guid "
                            "FROM tbl_kdx_token_groups, tbl_kdx_groups "
                            "WHERE tbl_kdx_token_groups.group_guid = tbl_kdx_groups.group_guid "
                            "AND tbl_kdx_token_groups.token_guid = '");
                        sql.Value(guid).Sql("'");
                        // Name and GUID of a group are separated by the line break, the groups by
                        // "|".
                        result = QueryText(c, sql, kCrLf, "|", true, true);
                      });
}

std::string DBGetTokenList(Database& database, const LanguageLookup& language,
                           const TokenAddresses& addresses) {
  return RunOperation(
      database, "DBGetTokenList", ConnectFailure::kPlain, std::string(),
      [&](DbConnection& c, std::string& result) {
        RecordSet rs;
        const Statement sql(
            "SELECT token_guid, token_person, token_description, token_creation, token_last_use, "
            "token_last_ip, token_user_dn FROM tbl_kdx_token");
        if (!DBExecuteSQLCommand(c, sql, rs) || rs.Eof()) return;
        const std::string yes = language ? language("GENERAL", "YES") : "";
        const std::string no = language ? language("GENERAL", "NO") : "";
        std::vector<std::string> rows = DBGetArrayFromRecordSet(database, rs, "$", "|", true, true);
        const std::unordered_map<std::string, bool> flags = CertificateFlags(c);
        for (std::string& row : rows) {
          // The GUID is the row text's first 36 characters. Where that is no stored GUID (a
          // shorter one, or a bar inside a field that split the row) or the probe could not be
          // sent, the probe itself runs, so the answer stays the probe's in every case.
          const std::string guid = row.substr(0, 36);
          const auto known = flags.find(guid);
          const bool has_certificate =
              known != flags.end() && !CertificateProbe(guid).Problem(c.dialect())
                  ? known->second
                  : DBTokenHasCertificate(c, guid);
          row += '$';
          row += has_certificate ? yes : no;
          row += '$';
          if (addresses) row += addresses(guid);
        }
        result = Join(rows, "|");
      });
}

bool DBTokenHasCertificate(DbConnection& connection, std::string_view guid) {
  RecordSet rs;
  return DBExecuteSQLCommand(connection, CertificateProbe(guid), rs, 1) && !rs.Eof();
}

int32_t DBTokenHasCertificate(Database& database, std::string_view guid) {
  return RunOperation(
      database, "DBTokenHasCertificate", ConnectFailure::kPlain, int32_t{0},
      [&](DbConnection& c, int32_t& result) { result = DBTokenHasCertificate(c, guid) ? 1 : 0; });
}

std::string DBDeleteToken(Database& database, std::string_view list) {
  static constexpr std::string_view kDeletes[] = {
      "DELETE FROM tbl_kdx_token WHERE token_guid = '",
      "DELETE FROM tbl_kdx_token_groups WHERE token_guid = '",
      "DELETE FROM tbl_kdx_backup WHERE token_guid = '",
      "DELETE FROM tbl_kdx_job_members WHERE member_guid = '",
      "DELETE FROM tbl_kdx_job_state WHERE token_guid = '",
      "DELETE FROM tbl_kdx_logging_client WHERE token_guid = '",
  };
  return RunOperation(database, "DBDeleteToken", ConnectFailure::kBang, std::string("ERROR"),
                      [&](DbConnection& c, std::string& result) {
                        // All rows of all listed tokens go as one unit, or none does.
                        Transaction transaction(c);
                        for (const std::string& guid : Split(list, kCrLf)) {
                          for (std::string_view fixed : kDeletes) {
                            if (!Execute(c, Statement(fixed).Value(guid).Sql("'"))) return;
                          }
                        }
                        if (transaction.Commit("DBDeleteToken")) result = "OK";
                      });
}

int32_t DBGetTokenRights(Database& database, std::string_view guid) {
  return RunOperation(
      database, "DBGetTokenRights", ConnectFailure::kBang, int32_t{0},
      [&](DbConnection& c, int32_t& result) {
        Statement sql(
            "SELECT tbl_kdx_groups.group_abilities "
            "FROM tbl_kdx_groups, tbl_kdx_token_groups WHERE token_guid = '");
        sql.Value(guid).Sql("' AND tbl_kdx_token_groups.group_guid = tbl_kdx_groups.group_guid");
        result = DBGetMaxValue(QueryText(c, sql, "", "$", false, true), "$");
      });
}

int32_t DBGetMaxValue(std::string_view text, std::string_view separator) {
  if (text.empty()) return 0;
  const std::vector<std::string> values = Split(text, separator);
  // One group keeps every bit; several give only the five ability bits (deliberately).
  if (values.size() == 1) return NumericTextToInt32(values[0]);
  int32_t sum = 0;
  for (const std::string& value : values) {
    const int32_t bits = NumericTextToInt32(value);
    for (int32_t bit = 1; bit <= 16; bit <<= 1) {
      if ((bits & bit) != 0 && (sum & bit) == 0) sum += bit;
    }
  }
  return sum;
}

bool DBSetCertificate(Database& database, std::string_view certificate, std::string_view guid) {
  return RunOperation(database, "DBSetCertificate", ConnectFailure::kPlain, false,
                      [&](DbConnection& c, bool& result) {
                        Statement sql("UPDATE tbl_kdx_token SET token_certificate = ? ");
                        sql.Sql("WHERE token_guid = '").Value(guid).Sql("'");
                        sql.BindBinary(certificate);
                        result = UpdateSelectedRows(c, sql, SelectToken(guid));
                      });
}

std::string DBGetCertificateData(Database& database, std::string_view guid) {
  return RunOperation(database, "DBGetCertificateData", ConnectFailure::kPlain, std::string(),
                      [&](DbConnection& c, std::string& result) {
                        RecordSet rs;
                        if (!DBExecuteSQLCommand(c, SelectToken(guid), rs, 1)) return;
                        result = rs.Field(0, "token_certificate").value_or("");
                      });
}

}  // namespace kalvo
