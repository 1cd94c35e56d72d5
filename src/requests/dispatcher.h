// The request dispatcher: a table from PackageID to handler.
#pragma once

#include "requests/request_context.h"

namespace kalvo {

class Dispatcher {
 public:
  // `ctx` and everything it refers to must outlive the dispatcher.
  explicit Dispatcher(RequestContext ctx) : ctx_(ctx) {}

  // Handles the current record of the server state, which came from connection `index`
  // (0 for notices the server makes itself): logs "DoSocketAction: ID: <id> Socket:
  // <index>", runs the handler of the PackageID, which rewrites the record as its reply and
  // sends it. Unknown numbers do nothing more. Never throws: errors are logged as
  // "DoSocketAction" and end the call without a reply.
  void DoSocketAction(int index);

 private:
  RequestContext ctx_;
};

}  // namespace kalvo
