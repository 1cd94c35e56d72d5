// Sending one record to every registered administration console.
#pragma once

#include "net/packet.h"
#include "requests/request_context.h"

namespace kalvo {

// Sets the sizes of `record` and sends the same bytes to every index in AdminConnections, in
// registration order, logging "SendToAllAdmins: ID: <id> Socket: <index> Daten gesendet"
// after each. An error ends the loop (the rest receive nothing) and is logged as
// "SendToAllAdmins". Gives false then, true otherwise; callers may ignore it.
bool SendToAllAdmins(RequestContext& ctx, SocketDataStruct& record);

}  // namespace kalvo
