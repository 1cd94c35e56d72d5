#include "requests/backup_requests.h"

#include "db/tokens.h"
#include "net/packet.h"

namespace kalvo {
namespace {

// Answers as 308 with the backups `names` of `guid` and its certificate flag; Misc1 stays as
// asked.
void ReplyBackupList(Request& r, const std::string& guid, std::string names) {
  const std::string type = r.record().Misc1;
  const int32_t has_certificate = DBTokenHasCertificate(r.ctx.database, guid);
  r.SetReply(308, std::move(names));
  r.record().Misc1 = type;
  r.record().Misc2 = std::to_string(has_certificate);
  r.Reply();
}

// The backups of `guid` of the type in Misc1.
std::string BackupNames(Request& r, const std::string& guid) {
  return DBGetTokenBackupNames(r.ctx.database, guid, ConvertToInt32(r.record().Misc1));
}

}  // namespace

BackupMaxima BackupMaximaFrom(const Settings& settings) {
  return {settings.backup_automatic, settings.backup_admin, settings.backup_client};
}

void StoreClientBackup(Request& r) {
  SocketDataStruct& record = r.record();
  // A backup is the token's key material: the log names its size, never its bytes.
  r.ctx.log.WriteLog("DoSocketAction: Misc1:" + record.Misc1 + " - Misc2: " + record.Misc2 +
                     " - Misc3: " + record.Misc3 +
                     " - Data: " + std::to_string(record.Data.size()) + " bytes");
  r.Audit(AuditAction::kBackup);
  const std::string type = record.Misc2;
  std::string error;
  const bool stored =
      DBSetTokenBackupData(r.ctx.database, BackupMaximaFrom(r.ctx.settings), r.TokenGuid(),
                           ConvertToInt32(type), record.Misc3, record.Data, error);
  r.SetReply(115, stored ? "OK" : error.empty() ? "Error" : error);
  record.Misc2 = type;
  r.Reply();
}

void RestoreClientBackup(Request& r) {
  r.Audit(AuditAction::kRestore);
  std::string time;
  std::string data = DBGetTokenBackupData(r.ctx.database, r.TokenGuid(), r.record().Misc1,
                                          ConvertToInt32(r.record().Misc2), time);
  r.SetReply(116, std::move(data));
  r.Reply();
}

void ListClientBackups(Request& r) {
  const std::string guid = r.TokenGuid();
  // An empty GUID would ask for the backups of every token.
  std::string names = guid.empty() ? std::string() : BackupNames(r, guid);
  ReplyBackupList(r, guid, std::move(names));
}

void ListTokenBackups(Request& r) {
  const std::string guid = r.record().Data;
  std::string names = BackupNames(r, guid);
  ReplyBackupList(r, guid, std::move(names));
}

void FetchTokenBackup(Request& r) {
  const std::string guid = r.record().Data;
  std::string time;
  std::string data = DBGetTokenBackupData(r.ctx.database, guid, r.record().Misc1,
                                          ConvertToInt32(r.record().Misc2), time);
  r.SetReply(309, std::move(data));
  r.record().Reserved = 1;
  r.record().Misc1 = time;
  r.record().Misc2 = guid;
  r.Reply();
}

void ListAllBackups(Request& r) {
  r.SetReply(315, DBGetTokenBackupNames(r.ctx.database, "", kAllBackupTypes));
  r.Reply();
}

}  // namespace kalvo
