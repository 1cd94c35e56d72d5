#include "requests/certificate_requests.h"

#include "db/tokens.h"
#include "infra/dates.h"
#include "requests/certificates.h"

namespace kalvo {

void CreateTokenCertificate(Request& r) {
  Log& log = r.ctx.log;
  const std::string request_data = r.record().Data;
  const std::string guid = r.record().Misc1;
  std::string certificate;
  log.WriteLog("Calling CreateCertificate providing SocketDataStruct.data (" + request_data +
               ") and tmpString (" + certificate + ")");
  // A library that cannot be loaded throws here: the request then ends without an answer.
  if (!CreateCertificate(r.ctx.certificates, log, request_data, certificate)) {
    log.WriteLog("CreateCertificate returned false");
    r.SetReply(601, "");
    r.record().Misc1 = "1";
    r.ReplySilently();
    return;
  }
  log.WriteLog("CreateCertificate returned true");
  const std::string stored = CertificateRecord(request_data, FormatTimestamp(r.ctx.database.Now()),
                                               r.PeerAddress(), certificate);
  log.WriteLog("Setting certificate into database");
  const bool saved = DBSetCertificate(r.ctx.database, stored, guid);
  log.WriteLog(saved ? "DBSetCertificate returned true" : "DBSetCertificate returned false");
  r.SetReply(601, saved ? certificate : "");
  r.record().Misc1 = saved ? "0" : "2";
  r.ReplySilently();
}

void TokenHasCertificate(Request& r) {
  const bool has = DBTokenHasCertificate(r.ctx.database, r.record().Data) == 1;
  r.SetReply(602, has ? "True" : "False");
  r.ReplySilently();
}

void GetTokenCertificate(Request& r) {
  r.SetReply(603, DBGetCertificateData(r.ctx.database, r.record().Data));
  r.ReplySilently();
}

}  // namespace kalvo
