// Sending one record to every registered administration console.
#pragma once

#include "net/packet.h"
#include "requests/request_context.h"

namespace kalvo {

// Sends `record` unchanged to every index in AdminConnections, in registration order, and
// logs "SendToAllAdmins: ID: <id> Socket: <index> Daten gesendet" after each. An error ends
// the loop (the rest receive nothing) and is logged as "SendToAllAdmins". Gives false then,
// true otherwise; callers may ignore it.
bool SendToAllAdmins(RequestContext& ctx, const SocketDataStruct& record);

}  // namespace kalvo
