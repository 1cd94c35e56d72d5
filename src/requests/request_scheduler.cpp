#include "requests/request_scheduler.h"

#include <boost/asio/post.hpp>
#include <optional>

#include "infra/guid.h"
#include "infra/runtime_error.h"
#include "requests/broadcast.h"
#include "requests/job_peers.h"
#include "requests/request.h"

namespace kalvo {
namespace {

constexpr size_t kGuidLength = 36;

// The GUID that a connection's tag begins with; "" for a connection without token.
std::string TagToken(const std::string& tag) {
  return tag.size() >= kGuidLength && IsGUID(tag.substr(0, kGuidLength))
             ? tag.substr(0, kGuidLength)
             : std::string();
}

}  // namespace

// One request (or one close) from its arrival until the network thread applied its results.
struct RequestScheduler::Job {
  uint64_t sequence = 0;
  uint64_t connection = 0;  // ConnectionId of the requester
  int index = 0;
  const Route* route = nullptr;  // null: a close
  SocketDataStruct record;
  bool alone = false;
  std::string token;
  // A close: its audit entries and whether the consoles are told.
  std::vector<AuditAction> audits;
  bool notify = false;

  // Made when it starts (network thread), used by the worker, read back by the network thread.
  ServerState state;
  std::optional<std::vector<std::string>> pending_before;
  bool login_flag_before = false;
  std::vector<int> consoles_before;
  Settings settings, settings_before;
  std::unique_ptr<Database> database;
  int32_t last_error_number_before = 0;
  std::string last_error_description_before;
  JobPeers peers;
};

RequestScheduler::RequestScheduler(boost::asio::io_context& io, Dispatcher& dispatcher)
    : io_(io), dispatcher_(dispatcher) {}

RequestScheduler::~RequestScheduler() { Stop(); }

void RequestScheduler::Start(int workers) {
  for (int i = 0; i < std::max(workers, 1); ++i) {
    threads_.emplace_back([this] { WorkerLoop(); });
  }
}

void RequestScheduler::Stop() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) {
    if (t.joinable()) t.join();
  }
  threads_.clear();
}

bool RequestScheduler::HasWork(int index) const {
  const uint64_t id = dispatcher_.context().peers.ConnectionId(index);
  return work_by_connection_.count(id) > 0;
}

void RequestScheduler::Submit(int index, const Route& route, SocketDataStruct record) {
  PeerTable& peers = dispatcher_.context().peers;
  auto job = std::make_unique<Job>();
  job->sequence = ++last_sequence_;
  job->connection = peers.ConnectionId(index);
  job->index = index;
  job->route = &route;
  job->alone = (route.flags & kAlone) != 0 || (route.package_id == 351 && record.Misc1 == "6");
  const std::string tag = peers.ConnectionTag(index);
  job->token = IsGUID(record.Data) ? record.Data : TagToken(tag);
  job->record = std::move(record);
  Known& known = known_[job->connection];
  known.index = index;
  known.address = peers.RemoteAddress(index);
  known.tag = tag;
  ++work_by_connection_[job->connection];
  waiting_.push_back(std::move(job));
  Pump();
}

void RequestScheduler::SubmitClose(int index, uint64_t id, std::string tag, std::string address,
                                   std::vector<AuditAction> audits, bool notify) {
  auto job = std::make_unique<Job>();
  job->sequence = ++last_sequence_;
  job->connection = id;
  job->index = index;
  job->token = TagToken(tag);
  job->audits = std::move(audits);
  job->notify = notify;
  known_[id] = Known{index, std::move(address), std::move(tag)};
  ++work_by_connection_[id];
  waiting_.push_back(std::move(job));
  Pump();
}

void RequestScheduler::Pump() {
  // Connections with an earlier request still waiting: their later ones wait too.
  std::set<uint64_t> blocked;
  for (auto it = waiting_.begin(); it != waiting_.end();) {
    if (alone_running_ || running_ >= workers()) return;
    Job& job = **it;
    const bool free = running_connections_.count(job.connection) == 0 &&
                      blocked.count(job.connection) == 0 &&
                      (job.token.empty() || running_tokens_.count(job.token) == 0);
    if (job.alone) {
      // It runs alone, and nothing that arrived after it starts before it.
      if (free && running_ == 0) {
        std::unique_ptr<Job> started = std::move(*it);
        waiting_.erase(it);
        Begin(std::move(started));
      }
      return;
    }
    if (!free) {
      blocked.insert(job.connection);
      ++it;
      continue;
    }
    std::unique_ptr<Job> started = std::move(*it);
    it = waiting_.erase(it);
    Begin(std::move(started));
  }
}

void RequestScheduler::Begin(std::unique_ptr<Job> job) {
  RequestContext& server = dispatcher_.context();
  // What the handler may read, as it is now.
  job->state.admin_connections = server.state.admin_connections;
  job->consoles_before = server.state.admin_connections.Indices();
  const std::string key = ConnectionKey(job->index);
  if (const auto found = server.state.pending_task_collections.find(key);
      found != server.state.pending_task_collections.end() &&
      server.peers.ConnectionId(job->index) == job->connection) {
    job->state.pending_task_collections[key] = found->second;
    job->pending_before = found->second;
  }
  job->state.admin_login_flag = job->login_flag_before = server.state.admin_login_flag;
  job->state.console_addresses = server.state.console_addresses;
  job->settings = job->settings_before = server.settings;
  job->database = std::make_unique<Database>(server.database);
  job->last_error_number_before = server.database.last_error_number();
  job->last_error_description_before = server.database.last_error_description();
  // The requester as it is now, or as it was when it closed.
  const Known& known = known_[job->connection];
  if (server.peers.ConnectionId(job->index) == job->connection && job->connection != 0) {
    job->peers.Add(job->index, job->connection, server.peers.RemoteAddress(job->index),
                   server.peers.ConnectionTag(job->index));
  } else {
    job->peers.Add(job->index, job->connection, known.address, known.tag);
  }
  if (job->route != nullptr && (job->route->flags & kTokenList) != 0) {
    for (int index : server.peers.LoadedIndices()) {
      if (index == job->index) continue;
      job->peers.Add(index, server.peers.ConnectionId(index), server.peers.RemoteAddress(index),
                     server.peers.ConnectionTag(index));
    }
  }
  ++running_;
  alone_running_ = job->alone;
  running_connections_.insert(job->connection);
  if (!job->token.empty()) running_tokens_.insert(job->token);
  Job* raw = job.get();
  running_jobs_.emplace(job->sequence, std::move(job));
  {
    std::lock_guard lock(mutex_);
    ready_.push_back(raw);
  }
  wake_.notify_one();
}

void RequestScheduler::WorkerLoop() {
  for (;;) {
    Job* job = nullptr;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stop_ || !ready_.empty(); });
      if (stop_) return;
      job = ready_.front();
      ready_.pop_front();
    }
    Run(*job, dispatcher_.context());
    boost::asio::post(io_, [this, sequence = job->sequence] {
      const auto it = running_jobs_.find(sequence);
      if (it == running_jobs_.end()) return;
      std::unique_ptr<Job> done = std::move(it->second);
      running_jobs_.erase(it);
      Finish(*done);
    });
  }
}

void RequestScheduler::Run(Job& job, RequestContext& server) {
  RequestContext ctx{job.state,           job.peers,       server.log,
                     job.settings,        *job.database,   server.language,
                     server.certificates, server.registry, &job.peers};
  Dispatcher dispatcher(ctx);
  try {
    if (job.route != nullptr) {
      job.state.current = std::move(job.record);
      dispatcher.Handle(*job.route, job.index);
    } else {
      const std::string tag = job.peers.ConnectionTag(job.index);
      const std::string address = job.peers.RemoteAddress(job.index);
      for (AuditAction action : job.audits) {
        DBLogClientAction(*job.database, AuditSettingsFrom(job.settings), tag, action, address, "");
      }
      if (job.notify) {
        // Tell the consoles that the client has gone: the notice carries the closing
        // connection's tag and its address.
        SocketClearStruct(job.state.current);
        job.state.current.PackageID = 102;
        job.state.current.Data = tag;
        job.state.current.Misc1 = address;
        dispatcher.DoSocketAction(0);
      }
    }
  } catch (...) {
    LogCurrentException(server.log, "DoSocketAction");
  }
  // Nothing reads the record once it is handled; a backup left in it would stay in memory
  // until the results are applied.
  SocketClearStruct(job.state.current);
}

void RequestScheduler::Finish(Job& job) {
  RequestContext& server = dispatcher_.context();
  try {
    const auto same = [&](int index, uint64_t id) {
      return server.peers.ConnectionId(index) == id;
    };
    for (int index : job.state.admin_connections.Indices()) {
      const auto& before = job.consoles_before;
      if (std::find(before.begin(), before.end(), index) == before.end() &&
          same(index, job.peers.ConnectionId(index))) {
        server.state.admin_connections.Add(index);
      }
    }
    for (const JobEffect& effect : job.peers.effects()) {
      switch (effect.kind) {
        case JobEffect::Kind::kSend:
          if (same(effect.index, effect.connection)) server.peers.Send(effect.index, effect.text);
          break;
        case JobEffect::Kind::kBroadcast: {
          SocketDataStruct record = effect.record;
          SendToAllAdmins(server, record);
          break;
        }
        case JobEffect::Kind::kTag:
          if (same(effect.index, effect.connection)) {
            server.peers.SetConnectionTag(effect.index, effect.text);
          }
          if (auto k = known_.find(effect.connection); k != known_.end())
            k->second.tag = effect.text;
          break;
      }
    }
    const std::string key = ConnectionKey(job.index);
    const auto pending = job.state.pending_task_collections.find(key);
    const std::optional<std::vector<std::string>> pending_after =
        pending == job.state.pending_task_collections.end() ? std::nullopt
                                                            : std::optional(pending->second);
    if (pending_after != job.pending_before && same(job.index, job.connection)) {
      if (pending_after) {
        server.state.pending_task_collections[key] = *pending_after;
      } else {
        server.state.pending_task_collections.erase(key);
      }
    }
    if (job.state.admin_login_flag != job.login_flag_before) {
      server.state.admin_login_flag = job.state.admin_login_flag;
    }
    for (const auto& [id, count] : job.state.requests_by_package_id) {
      server.state.requests_by_package_id[id] += count;
    }
    if (job.database->last_error_number() != job.last_error_number_before ||
        job.database->last_error_description() != job.last_error_description_before) {
      server.database.SetLastError(job.database->last_error_number(),
                                   job.database->last_error_description());
    }
    if (job.settings != job.settings_before && on_settings_changed) {
      on_settings_changed(job.settings);
    }
  } catch (...) {
    LogCurrentException(server.log, "DoSocketAction");
  }
  --running_;
  if (job.alone) alone_running_ = false;
  running_connections_.erase(job.connection);
  if (!job.token.empty()) running_tokens_.erase(running_tokens_.find(job.token));
  if (--work_by_connection_[job.connection] == 0) {
    work_by_connection_.erase(job.connection);
    known_.erase(job.connection);
  }
  Pump();
}

}  // namespace kalvo
