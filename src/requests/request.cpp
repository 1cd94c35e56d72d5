#include "requests/request.h"

#include <algorithm>

#include "net/socket_send.h"
#include "requests/broadcast.h"
#include "requests/dispatcher.h"
#include "requests/job_peers.h"

namespace kalvo {

std::string Request::TokenGuid() const {
  std::string tag = ConnectionTag();
  tag.resize(std::min(tag.size(), tag.find('\0')));
  return tag;
}

void Request::SetReply(int32_t package_id, std::string data) {
  SocketDataStruct& r = record();
  r.PackageID = package_id;
  r.Reserved = 0;
  r.Misc1.clear();
  r.Misc2.clear();
  r.Misc3.clear();
  r.Data = std::move(data);
}

void Request::Reply() {
  ReplySilently();
  ctx.log.WriteLog("DoSocketAction: ID: " + std::to_string(record().PackageID) +
                   " Socket: " + std::to_string(index_) + " Daten gesendet");
}

void Request::ReplySilently() {
  PrepareForSending(record(), ctx.log);
  SocketSendData(ctx.peers, index_, record(), false, ctx.log);
}

void Request::Broadcast() {
  if (ctx.job != nullptr) {
    ctx.job->Broadcast(record());
  } else {
    SendToAllAdmins(ctx, record());
  }
}

void Request::DispatchAgain() { dispatcher_.DoSocketAction(index_); }

void Request::Audit(AuditAction action, std::string_view action_guid) {
  DBLogClientAction(ctx.database, AuditSettingsFrom(ctx.settings), ConnectionTag(), action,
                    PeerAddress(), action_guid);
}

AuditSettings AuditSettingsFrom(const Settings& s) {
  AuditSettings a;
  a.is_active = s.audit_is_active;
  a.is_limited = s.audit_is_limited;
  a.is_save_max_count = s.audit_is_save_max_count;
  a.save_max_count = s.audit_save_max_count;
  a.is_save_max_days = s.audit_is_save_max_days;
  a.save_max_days = s.audit_save_max_days;
  return a;
}

}  // namespace kalvo
