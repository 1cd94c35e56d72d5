#include "requests/inventory_requests.h"

#include "db/inventory.h"
#include "infra/arrays.h"
#include "security/encryption.h"

namespace kalvo {

void GroupNames(Request& r) {
  r.SetReply(303, DBGetColumnData(r.ctx.database, "tbl_kdx_groups", "group_name", "|", true));
  r.Reply();
}

void TokenPersons(Request& r) {
  r.SetReply(304, DBGetColumnData(r.ctx.database, "tbl_kdx_token", "token_person", "|", true));
  r.Reply();
}

void ListDatabases(Request& r) {
  r.SetReply(312, DBGetDatabases(r.ctx.database, "|"));
  r.Reply();
}

// The test of a configuration the console is about to use: DSN | encrypted user | encrypted
// password | StringType | StringMaxSize | NumberType | BLOBType. The answer is the report
// of the test's steps and whether its tables could be removed again.
void TestDatabase(Request& r) {
  const std::vector<std::string> f = Split(r.record().Data, "|");
  std::string result;
  if (f.size() < 7) {
    result = "unzureichende Konfigurationseinstellungen erhalten";
  } else {
    result = DBCheckDatabase(r.ctx.database, f, DecryptCredentialText) + "\r\n";
    result += DBCleanupCheckDatabase(r.ctx.database, f[0], DecryptCredentialText(f[1]),
                                     DecryptCredentialText(f[2]))
                  ? "Das Entfernen der angelegten Tabellen war erfolgreich!"
                  : "Das Entfernen der angelegten Tabellen war nicht erfolgreich!";
  }
  r.SetReply(313, std::move(result));
  r.Reply();
}

void RunSql(Request& r) {
  const int32_t id = r.record().PackageID;
  r.SetReply(id, DBGetSQLResults(r.ctx.database, r.record().Data, "", "$", "|"));
  r.Reply();
}

}  // namespace kalvo
