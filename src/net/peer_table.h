// The narrow view of the connections that request handling needs: send bytes to one of them,
// read its peer address and its tag, set the tag, and list them. The connection table is the
// real one; tests of the request handlers use one that records what was sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kalvo {

class PeerTable {
 public:
  virtual ~PeerTable() = default;
  // Queues `bytes` for connection `index`; false (nothing sent) when it is not connected.
  virtual bool Send(int index, std::string bytes) = 0;
  // The peer's dotted IPv4 address; "" for an index that is not loaded.
  virtual std::string RemoteAddress(int index) const = 0;
  // The text a token client's registration sets on its connection; "" when not loaded.
  virtual std::string ConnectionTag(int index) const = 0;
  virtual void SetConnectionTag(int index, std::string tag) = 0;
  // The loaded connection indices, ascending.
  virtual std::vector<int> LoadedIndices() const = 0;
  // What tells the connection at `index` from an earlier or later one at the same index (an
  // index is reused once its connection closed); 0 when none is loaded there. A table that
  // never reuses indices may give 0 for all.
  virtual uint64_t ConnectionId(int index) const {
    (void)index;
    return 0;
  }
};

}  // namespace kalvo
