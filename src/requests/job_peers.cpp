#include "requests/job_peers.h"

namespace kalvo {

void JobPeers::Add(int index, uint64_t id, std::string address, std::string tag) {
  peers_[index] = Peer{id, std::move(address), std::move(tag)};
}

bool JobPeers::Send(int index, std::string bytes) {
  const auto it = peers_.find(index);
  if (it == peers_.end()) return false;
  effects_.push_back(JobEffect{JobEffect::Kind::kSend, index, it->second.id, std::move(bytes), {}});
  return true;
}

std::string JobPeers::RemoteAddress(int index) const {
  const auto it = peers_.find(index);
  return it == peers_.end() ? std::string() : it->second.address;
}

std::string JobPeers::ConnectionTag(int index) const {
  const auto it = peers_.find(index);
  return it == peers_.end() ? std::string() : it->second.tag;
}

void JobPeers::SetConnectionTag(int index, std::string tag) {
  const auto it = peers_.find(index);
  if (it == peers_.end()) return;
  it->second.tag = tag;
  effects_.push_back(JobEffect{JobEffect::Kind::kTag, index, it->second.id, std::move(tag), {}});
}

std::vector<int> JobPeers::LoadedIndices() const {
  std::vector<int> indices;
  indices.reserve(peers_.size());
  for (const auto& [index, peer] : peers_) {
    if (index > 0) indices.push_back(index);
  }
  return indices;
}

uint64_t JobPeers::ConnectionId(int index) const {
  const auto it = peers_.find(index);
  return it == peers_.end() ? 0 : it->second.id;
}

void JobPeers::Broadcast(const SocketDataStruct& record) {
  effects_.push_back(JobEffect{JobEffect::Kind::kBroadcast, 0, 0, {}, record});
}

}  // namespace kalvo
