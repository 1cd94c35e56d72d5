// The request-handling state of the server that outlives one packet: the current record,
// the registered consoles, the tasks handed out, the console login flag and request counts.
// Changed on the network thread only; a request on a database worker gets a copy (see
// RequestScheduler).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "net/address_filter.h"
#include "net/packet.h"

namespace kalvo {

// The key of a connection in the per-connection collections: index 3 gives "3Socket".
std::string ConnectionKey(int index);

// Socket indices in the order they were added, each at most once (AdminConnections).
class KeyedIndexList {
 public:
  // Adds `index` unless its key is already present. Gives true when added.
  bool Add(int index);
  // Removes `index`; a missing key is no error.
  void Remove(int index);
  bool Contains(int index) const;
  const std::vector<int>& Indices() const { return indices_; }
  size_t Count() const { return indices_.size(); }

 private:
  std::vector<int> indices_;
};

struct ServerState {
  // The record of a request handled where it arrived (311 and 501 on the network thread; every
  // request in a job's own copy of this state), rewritten as its reply.
  SocketDataStruct current;
  KeyedIndexList admin_connections;
  // Task texts handed to a token client, by connection key; item 1 is the front.
  std::map<std::string, std::vector<std::string>> pending_task_collections;
  bool admin_login_flag = false;
  std::map<int32_t, uint64_t> requests_by_package_id;
  // The addresses whose console requests are served (AdminAllowedAddresses).
  AddressFilter console_addresses;
};

}  // namespace kalvo
