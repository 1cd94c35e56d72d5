#include "requests/broadcast.h"

#include "infra/runtime_error.h"
#include "net/socket_send.h"

namespace kalvo {

bool SendToAllAdmins(RequestContext& ctx, SocketDataStruct& record) {
  try {
    if (ctx.state.admin_connections.Count() == 0) return true;
    PrepareForSending(record, ctx.log);
    const std::string wire = SocketStructToString(ctx.log, record);
    // A copy of the list: a send never re-enters here, but the list must not change under
    // the loop whatever a later change to sending does.
    const std::vector<int> consoles = ctx.state.admin_connections.Indices();
    for (int index : consoles) {
      ctx.peers.Send(index, wire);
      ctx.log.WriteLog("SendToAllAdmins: ID: " + std::to_string(record.PackageID) +
                       " Socket: " + std::to_string(index) + " Daten gesendet");
    }
    return true;
  } catch (...) {
    LogCurrentException(ctx.log, "SendToAllAdmins");
    return false;
  }
}

}  // namespace kalvo
