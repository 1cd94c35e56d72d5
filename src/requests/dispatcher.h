// The request dispatcher: a table from PackageID to handler, with what each request needs
// (who may send it, whether it reaches the database, whether it must run alone).
#pragma once

#include <cstdint>

#include "requests/request_context.h"

namespace kalvo {

class RequestScheduler;
class Request;

// One request the server answers.
struct Route {
  int32_t package_id;
  void (*handler)(Request&);
  uint8_t flags;
};

// Route flags.
inline constexpr uint8_t kClient = 1;      // a token client's: open to every address
inline constexpr uint8_t kNoDatabase = 2;  // answered without the database, on arrival
inline constexpr uint8_t kAlone = 4;       // changes shared tables: runs with no other request
inline constexpr uint8_t kTokenList = 8;   // may build the token list (needs every connection)

class Dispatcher {
 public:
  // `ctx` and everything it refers to must outlive the dispatcher.
  explicit Dispatcher(RequestContext ctx) : ctx_(ctx) {}

  // Handles the current record of the server state, which came from connection `index`
  // (0 for notices the server makes itself), here and now: Admit, then Handle. Never throws:
  // errors are logged as "DoSocketAction" and end the call without a reply.
  void DoSocketAction(int index);

  // Hands `record`, which came from connection `index`, to the scheduler when one is attached
  // (see RequestScheduler), else handles it here as DoSocketAction does. Never throws.
  void Submit(int index, SocketDataStruct record);
  // The scheduler that runs requests reaching the database; null: everything runs here.
  void set_scheduler(RequestScheduler* scheduler) { scheduler_ = scheduler; }

  // Logs "DoSocketAction: ID: <id> Socket: <index>" and gives the route of `record` when the
  // server answers it from that connection: known numbers only, console requests only from the
  // addresses AdminAllowedAddresses names. Counts what it admits.
  const Route* Admit(int index, const SocketDataStruct& record);
  // Runs the handler of `route` on the current record, which rewrites the record as its reply
  // and sends it. Never throws.
  void Handle(const Route& route, int index);

  RequestContext& context() { return ctx_; }

 private:
  RequestContext ctx_;
  RequestScheduler* scheduler_ = nullptr;
};

}  // namespace kalvo
