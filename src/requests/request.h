// One packet being handled: the current record, the connection it came from, and the ways to
// answer it. Handlers rewrite the record in place as their reply.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "db/audit.h"
#include "net/packet.h"
#include "requests/request_context.h"

namespace kalvo {

class Dispatcher;

class Request {
 public:
  // `ctx` and `dispatcher` must outlive the request. `index` is the connection the packet came
  // from; 0 for the server's own notices.
  Request(RequestContext& ctx, Dispatcher& dispatcher, int index)
      : ctx(ctx), dispatcher_(dispatcher), index_(index) {}

  RequestContext& ctx;

  SocketDataStruct& record() const { return ctx.state.current; }
  int index() const { return index_; }
  // The dotted address of the requesting connection.
  std::string PeerAddress() const { return ctx.peers.RemoteAddress(index_); }
  std::string ConnectionTag() const { return ctx.peers.ConnectionTag(index_); }
  // The token GUID of the connection: the tag's first field, "" before its 101.
  std::string TokenGuid() const;

  // Rewrites the record as reply `package_id`: Reserved 0, empty Misc fields, `data`.
  void SetReply(int32_t package_id, std::string data);
  // Sends the record to the requester and logs "DoSocketAction: ID: <id> Socket: <index>
  // Daten gesendet".
  void Reply();
  // Sends the record to the requester without the log line.
  void ReplySilently();
  // Sends the record to every registered console.
  void Broadcast();
  // Handles the record (rewritten as another request) again for the same connection.
  void DispatchAgain();
  // Writes the audit entry of `action` for the requesting connection's tag and address.
  void Audit(AuditAction action, std::string_view action_guid = "");

 private:
  Dispatcher& dispatcher_;
  int index_;
};

// The audit settings as the server holds them.
AuditSettings AuditSettingsFrom(const Settings& settings);

}  // namespace kalvo
