// The request dispatcher: a table from PackageID to handler.
#pragma once

#include <cstdint>
#include <functional>
#include <map>

#include "requests/request_context.h"

namespace kalvo {

class Dispatcher {
 public:
  // `ctx` and everything it refers to must outlive the dispatcher.
  explicit Dispatcher(RequestContext ctx);

  // Handles the current record of the server state, which came from connection `index`
  // (0 for notices the server makes itself): logs "DoSocketAction: ID: <id> Socket:
  // <index>", runs the handler of the PackageID, which rewrites the record as its reply and
  // sends it. Unknown numbers do nothing more. Never throws: errors are logged as
  // "DoSocketAction" and end the call without a reply.
  void DoSocketAction(int index);

 private:
  using Handler = std::function<void(int index)>;

  // Rewrites the current record as the reply `package_id` with empty Misc fields, Reserved 0
  // and `data`; the sizes are set when it is sent.
  void SetReply(int32_t package_id, std::string data);
  // Sends the current record to `index` and logs "... Daten gesendet".
  void Reply(int index);
  // Sends the current record to `index` without the log line.
  void ReplySilently(int index);

  void TokenRemoved(int index);  // 102
  void Echo(int index);          // 311
  void ConsoleLogin(int index);  // 401
  void AdminLogin(int index);    // 501

  RequestContext ctx_;
  std::map<int32_t, Handler> handlers_;
};

}  // namespace kalvo
