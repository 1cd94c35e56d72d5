#include "requests/server_state.h"

#include <algorithm>

#include "net/receive_buffers.h"

namespace kalvo {

std::string ConnectionKey(int index) { return ReceiveBuffers::Key(index); }

bool KeyedIndexList::Add(int index) {
  if (Contains(index)) return false;
  indices_.push_back(index);
  return true;
}

void KeyedIndexList::Remove(int index) { std::erase(indices_, index); }

bool KeyedIndexList::Contains(int index) const {
  return std::find(indices_.begin(), indices_.end(), index) != indices_.end();
}

}  // namespace kalvo
