#include "requests/dispatcher.h"

#include "db/schema.h"
#include "infra/runtime_error.h"
#include "net/socket_send.h"
#include "requests/broadcast.h"
#include "requests/guid.h"

namespace kalvo {

Dispatcher::Dispatcher(RequestContext ctx) : ctx_(ctx) {
  handlers_ = {
      {102, [this](int i) { TokenRemoved(i); }},
      {311, [this](int i) { Echo(i); }},
      {401, [this](int i) { ConsoleLogin(i); }},
      {501, [this](int i) { AdminLogin(i); }},
  };
}

void Dispatcher::DoSocketAction(int index) {
  try {
    SocketDataStruct& record = ctx_.state.current;
    ctx_.log.WriteLog("DoSocketAction: ID: " + std::to_string(record.PackageID) +
                      " Socket: " + std::to_string(index));
    const auto handler = handlers_.find(record.PackageID);
    if (handler == handlers_.end()) return;
    // Only requests the server knows are counted: a peer sending random numbers must not
    // grow the table (or the metrics) without bound. The server's own notices are no requests.
    if (index != 0) ++ctx_.state.requests_by_package_id[record.PackageID];
    handler->second(index);
  } catch (...) {
    LogCurrentException(ctx_.log, "DoSocketAction");
  }
}

void Dispatcher::SetReply(int32_t package_id, std::string data) {
  SocketDataStruct& record = ctx_.state.current;
  record.PackageID = package_id;
  record.Reserved = 0;
  record.Misc1.clear();
  record.Misc2.clear();
  record.Misc3.clear();
  record.Data = std::move(data);
}

void Dispatcher::Reply(int index) {
  ReplySilently(index);
  ctx_.log.WriteLog("DoSocketAction: ID: " + std::to_string(ctx_.state.current.PackageID) +
                    " Socket: " + std::to_string(index) + " Daten gesendet");
}

void Dispatcher::ReplySilently(int index) {
  PrepareForSending(ctx_.state.current, ctx_.log);
  SocketSendData(ctx_.connections, index, ctx_.state.current, false, ctx_.log);
}

// The token was taken out. The server's own notice for a closing connection (index 0)
// carries the closing connection's tag: it skips the GUID check and writes no audit entry,
// so every console learns that the client has gone.
void Dispatcher::TokenRemoved(int index) {
  SocketDataStruct& record = ctx_.state.current;
  const std::string guid = record.Data;
  const std::string address = ctx_.connections.RemoteAddress(index);
  if (index != 0) {
    if (!IsGUID(guid)) return;
    ctx_.audit.DBLogClientAction(ctx_.connections.ConnectionTag(index), AuditAction::kRemove,
                                 address, "");
    ctx_.connections.SetConnectionTag(index, "");
  }
  SetReply(102, guid);
  record.Misc1 = address;
  SendToAllAdmins(ctx_, record);
  // The server's own notice has nobody to answer: slot 0 is the listener.
  if (index == 0) return;
  SetReply(102, "");
  ReplySilently(index);
}

void Dispatcher::Echo(int index) {
  SetReply(311, "");
  Reply(index);
}

void Dispatcher::AdminLogin(int) { ctx_.state.admin_login_flag = true; }

// A console registers: it is added once to the consoles that receive every broadcast and
// gets the token list and the state of the database. When it names its own token (and is
// not merely refreshing), that token is then registered like a client's.
void Dispatcher::ConsoleLogin(int index) {
  SocketDataStruct& record = ctx_.state.current;
  const std::string own_token = record.Data;
  const bool refresh = record.Misc1 == "UPDATE";
  ctx_.state.admin_connections.Add(index);
  // The token list joins this reply once the token operations exist.
  SetReply(401, "");
  record.Misc1 = std::to_string(static_cast<int32_t>(DBIsDatabaseUpToDate(ctx_.database)));
  record.Misc3 = std::to_string(ctx_.settings.string_max_size);
  Reply(index);
  if (!refresh && !own_token.empty()) {
    SetReply(101, own_token);
    DoSocketAction(index);
  }
}

}  // namespace kalvo
