// Runs the requests that reach the database on a small pool of worker threads, so that no peer
// waits for another peer's database work, while what peers can observe keeps its order:
//  - the requests of one connection run one after another, in the order they arrived;
//  - two requests for the same token (the GUID a request names, else its connection's token)
//    never run at once;
//  - a request that changes shared tables (a route flagged kAlone, and 351 sub-command 6) runs
//    with no other beside it, and no request that arrived after it starts before it.
// Each request runs on its own copy of the record and of the state its handler reads (the
// settings, the request state of the server, its connections as they were when it started,
// a database object of its own) and hands back what it did; the network thread applies that,
// in this order: the consoles it registered, its sends, broadcasts and tag changes as it made
// them, then its changes of the pending tasks, AdminLoginFlag, the request counts, the
// settings and the last database error. A reply for a connection that has closed meanwhile
// is dropped, also when its index was given to another connection.
//
// Everything but the worker threads runs on the network thread (the io_context's): Submit,
// SubmitClose and HasWork are called there and the results are applied there.
#pragma once

#include <boost/asio/io_context.hpp>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "db/audit.h"
#include "requests/dispatcher.h"

namespace kalvo {

class RequestScheduler {
 public:
  // `io` and `dispatcher` (with everything its context refers to) must outlive the scheduler.
  RequestScheduler(boost::asio::io_context& io, Dispatcher& dispatcher);
  // Stops the workers (see Stop).
  ~RequestScheduler();
  RequestScheduler(const RequestScheduler&) = delete;
  RequestScheduler& operator=(const RequestScheduler&) = delete;

  // Starts `workers` threads (at least one).
  void Start(int workers);
  // Lets the requests that run finish and ends the threads; what still waits is dropped.
  void Stop();
  int workers() const { return static_cast<int>(threads_.size()); }

  // Queues `record`, of `route`, which came from connection `index`.
  void Submit(int index, const Route& route, SocketDataStruct record);
  // Queues what the close of connection `index` (its ConnectionId `id`, its last tag and
  // address) leaves to do, behind the requests it sent: the audit entries `audits`, then, with
  // `notify`, the notice to the consoles that the client has gone (a 102 of the server's own).
  void SubmitClose(int index, uint64_t id, std::string tag, std::string address,
                   std::vector<AuditAction> audits, bool notify);
  // True while requests of the connection at `index` wait or run.
  bool HasWork(int index) const;

  // Called on the network thread with the settings a request changed (306, 351).
  std::function<void(const Settings&)> on_settings_changed;

 private:
  struct Job;
  struct Known {
    int index = 0;
    std::string address, tag;
  };
  void Pump();
  void Begin(std::unique_ptr<Job> job);
  void Finish(Job& job);
  void WorkerLoop();
  static void Run(Job& job, RequestContext& server);

  boost::asio::io_context& io_;
  Dispatcher& dispatcher_;
  uint64_t last_sequence_ = 0;
  std::deque<std::unique_ptr<Job>> waiting_;               // in arrival order
  std::map<uint64_t, std::unique_ptr<Job>> running_jobs_;  // by sequence number
  std::map<uint64_t, int> work_by_connection_;             // waiting or running, by ConnectionId
  std::map<uint64_t, Known> known_;                        // the connections that have work
  std::set<uint64_t> running_connections_;
  std::multiset<std::string> running_tokens_;
  int running_ = 0;
  bool alone_running_ = false;

  std::mutex mutex_;  // guards ready_ and stop_
  std::condition_variable wake_;
  std::deque<Job*> ready_;  // started, for a worker to take
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace kalvo
