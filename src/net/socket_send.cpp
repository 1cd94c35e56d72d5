#include "net/socket_send.h"

#include "infra/log.h"
#include "infra/runtime_error.h"

namespace kalvo {

void PrepareForSending(SocketDataStruct& record, Log& log) {
  record.DataSize = static_cast<int32_t>(record.Data.size());
  record.PackageSize = SocketGetPackageSize(log, record);
}

bool SocketSendData(PeerTable& connections, int index, SocketDataStruct& record, bool clear,
                    Log& log) {
  try {
    if (!connections.Send(index, SocketStructToString(log, record))) return false;
    if (clear) SocketClearStruct(record);
    return true;
  } catch (...) {
    LogCurrentException(log, "SocketSendData");
    return false;
  }
}

}  // namespace kalvo
