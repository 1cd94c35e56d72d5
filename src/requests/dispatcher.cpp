#include "requests/dispatcher.h"

#include <algorithm>

#include "infra/runtime_error.h"
#include "requests/action_requests.h"
#include "requests/audit_requests.h"
#include "requests/backup_requests.h"
#include "requests/certificate_requests.h"
#include "requests/configuration_requests.h"
#include "requests/console_requests.h"
#include "requests/inventory_requests.h"
#include "requests/request_scheduler.h"
#include "requests/token_requests.h"

namespace kalvo {
namespace {

// Every request the server answers. Numbers not listed are ignored after the log line.
constexpr Route kRoutes[] = {
    // token client: token inserted (or a console's own token)
    {101, TokenLogon, kClient | kTokenList},
    {102, TokenRemoved, kClient},  // token client: token removed; also the close notice
    {115, StoreClientBackup, kClient},
    {116, RestoreClientBackup, kClient},
    {117, ListClientBackups, kClient},  // answered as 308
    {301, GetGroups, 0},                // groups with their members
    {302, SetGroups, kAlone},           // replace all groups
    {303, GroupNames, 0},               // distinct group names
    {304, TokenPersons, 0},             // distinct token persons
    {305, ReportSettings, 0},
    {306, UpdateSettings, kAlone},
    {307, GetTokenRightsAndGroups, 0},
    {308, ListTokenBackups, 0},
    {309, FetchTokenBackup, 0},  // the one reply with Reserved 1
    // person and description; answered by broadcast
    {310, SetTokenData, kAlone | kTokenList},
    {311, Echo, kNoDatabase},
    {312, ListDatabases, 0},
    {313, TestDatabase, 0},
    {314, RunSql, 0},
    {315, ListAllBackups, 0},
    {316, GetMemberChoices, 0},  // groups and tokens as possible action members
    {317, GetActionData, 0},
    {318, DefineAction, kAlone},  // Misc1 "UPDATE" replaces
    {319, ListActions, 0},
    {320, DeleteAction, kAlone},
    {322, StopAction, kAlone},
    {323, StartAction, kAlone},
    {324, GetActionDetails, 0},
    {325, GetTokenActions, 0},
    {326, TaskResult, kClient},   // token client: a task's result; answered with the next task
    {327, TaskHandout, kClient},  // token client: its due tasks, the first of them
    {328, DeleteTokens, kAlone | kTokenList},  // answered, then the list broadcast
    {329, QueryAudit, 0},
    {330, ClearAudit, kAlone},         // answered as 329
    {350, ReportDatabaseSettings, 0},  // silenced by AdminLoginFlag
    {351, ConfigureDatabase, 0},       // Misc1: sub-command 1 to 6 (6 runs alone)
    {401, ConsoleLogin, kTokenList},
    {501, AdminLogin, kNoDatabase},
    {601, CreateTokenCertificate, kAlone},
    {602, TokenHasCertificate, 0},
    {603, GetTokenCertificate, 0},
    {701, RunSql, 0},
};

}  // namespace

const Route* Dispatcher::Admit(int index, const SocketDataStruct& record) {
  const int32_t id = record.PackageID;
  ctx_.log.WriteLog("DoSocketAction: ID: " + std::to_string(id) +
                    " Socket: " + std::to_string(index));
  const auto route = std::find_if(std::begin(kRoutes), std::end(kRoutes),
                                  [id](const Route& r) { return r.package_id == id; });
  if (route == std::end(kRoutes)) return nullptr;
  if (index != 0 && (route->flags & kClient) == 0) {
    const std::string address = ctx_.peers.RemoteAddress(index);
    if (!ctx_.state.console_addresses.Allows(address)) {
      ctx_.log.WriteLog("DoSocketAction: console request " + std::to_string(id) + " from " +
                        address + " ignored: the address is not in AdminAllowedAddresses");
      return nullptr;
    }
  }
  // Only requests the server knows are counted: a peer sending random numbers must not
  // grow the table (or the metrics) without bound. The server's own notices are no requests.
  if (index != 0) ++ctx_.state.requests_by_package_id[id];
  return route;
}

void Dispatcher::Handle(const Route& route, int index) {
  try {
    Request request(ctx_, *this, index);
    route.handler(request);
  } catch (...) {
    LogCurrentException(ctx_.log, "DoSocketAction");
  }
}

void Dispatcher::DoSocketAction(int index) {
  try {
    if (const Route* route = Admit(index, ctx_.state.current)) Handle(*route, index);
  } catch (...) {
    LogCurrentException(ctx_.log, "DoSocketAction");
  }
}

void Dispatcher::Submit(int index, SocketDataStruct record) {
  try {
    const Route* route = Admit(index, record);
    if (route == nullptr) return;
    if (scheduler_ == nullptr ||
        ((route->flags & kNoDatabase) != 0 && !scheduler_->HasWork(index))) {
      ctx_.state.current = std::move(record);
      Handle(*route, index);
      // Nothing reads the record once it is handled; a backup left in it would stay in memory.
      SocketClearStruct(ctx_.state.current);
      return;
    }
    scheduler_->Submit(index, *route, std::move(record));
  } catch (...) {
    LogCurrentException(ctx_.log, "DoSocketAction");
  }
}

}  // namespace kalvo
