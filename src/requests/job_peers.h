// What a request handled off the network thread sees of the connections, and what it hands
// back for the network thread to do: the connections as they were when it started, and its
// sends, broadcasts and tag changes in the order it made them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "net/packet.h"
#include "net/peer_table.h"

namespace kalvo {

struct JobEffect {
  enum class Kind { kSend, kBroadcast, kTag };
  Kind kind = Kind::kSend;
  int index = 0;            // kSend, kTag: the connection
  uint64_t connection = 0;  // kSend, kTag: its ConnectionId when the request started
  std::string text;         // kSend: the wire bytes; kTag: the new tag
  SocketDataStruct record;  // kBroadcast: what every console gets
};

// Not thread-safe: one request's, filled on the network thread before it runs and read there
// after it ran.
class JobPeers : public PeerTable {
 public:
  // Adds connection `index` as the request may see it.
  void Add(int index, uint64_t id, std::string address, std::string tag);

  // Records the bytes for the connection; false when the request saw no such connection.
  bool Send(int index, std::string bytes) override;
  std::string RemoteAddress(int index) const override;
  std::string ConnectionTag(int index) const override;
  // Records the change and shows it to the rest of the request.
  void SetConnectionTag(int index, std::string tag) override;
  std::vector<int> LoadedIndices() const override;
  uint64_t ConnectionId(int index) const override;

  // Records a broadcast of `record` to the consoles registered when it is applied.
  void Broadcast(const SocketDataStruct& record);

  const std::vector<JobEffect>& effects() const { return effects_; }

 private:
  struct Peer {
    uint64_t id = 0;
    std::string address, tag;
  };
  std::map<int, Peer> peers_;
  std::vector<JobEffect> effects_;
};

}  // namespace kalvo
