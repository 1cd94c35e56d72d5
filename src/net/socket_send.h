// Sending one packet on a connection.
#pragma once

#include "net/packet.h"
#include "net/peer_table.h"

namespace kalvo {

class Log;

// Sets `DataSize` to the length of `Data` and `PackageSize` from all fields: what every
// reply needs just before it is sent.
void PrepareForSending(SocketDataStruct& record, Log& log);

// Queues the wire text of `record` on slot `index` when it is connected, then clears
// `record` when `clear` is set, and gives true. Gives false and sends nothing otherwise
// (also for index 0, the listener). Errors are logged as "SocketSendData" and give false.
bool SocketSendData(PeerTable& connections, int index, SocketDataStruct& record, bool clear,
                    Log& log);

}  // namespace kalvo
