#include "requests/broadcast.h"

#include "infra/runtime_error.h"
#include "net/socket_send.h"

namespace kalvo {

bool SendToAllAdmins(RequestContext& ctx, const SocketDataStruct& record) {
  try {
    // A copy of the list: a send never re-enters here, but the list must not change under
    // the loop whatever a later change to sending does.
    const std::vector<int> consoles = ctx.state.admin_connections.Indices();
    for (int index : consoles) {
      SocketDataStruct copy = record;
      SocketSendData(ctx.connections, index, copy, false, ctx.log);
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
