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
#include "requests/token_requests.h"

namespace kalvo {
namespace {

struct Route {
  int32_t package_id;
  void (*handler)(Request&);
};

// Every request the server answers. Numbers not listed are ignored after the log line.
constexpr Route kRoutes[] = {
    {101, TokenLogon},    // token client: token inserted (or a console's own token)
    {102, TokenRemoved},  // token client: token removed; also the close notice
    {115, StoreClientBackup},
    {116, RestoreClientBackup},
    {117, ListClientBackups},  // answered as 308
    {301, GetGroups},          // groups with their members
    {302, SetGroups},          // replace all groups
    {303, GroupNames},         // distinct group names
    {304, TokenPersons},       // distinct token persons
    {305, ReportSettings},
    {306, UpdateSettings},
    {307, GetTokenRightsAndGroups},
    {308, ListTokenBackups},
    {309, FetchTokenBackup},  // the one reply with Reserved 1
    {310, SetTokenData},      // person and description; answered by broadcast
    {311, Echo},
    {312, ListDatabases},
    {313, TestDatabase},
    {314, RunSql},
    {315, ListAllBackups},
    {316, GetMemberChoices},  // groups and tokens as possible action members
    {317, GetActionData},
    {318, DefineAction},  // Misc1 "UPDATE" replaces
    {319, ListActions},
    {320, DeleteAction},
    {322, StopAction},
    {323, StartAction},
    {324, GetActionDetails},
    {325, GetTokenActions},
    {326, TaskResult},    // token client: a task's result; answered with the next task
    {327, TaskHandout},   // token client: its due tasks, the first of them
    {328, DeleteTokens},  // answered, then the list broadcast
    {329, QueryAudit},
    {330, ClearAudit},              // answered as 329
    {350, ReportDatabaseSettings},  // silenced by AdminLoginFlag
    {351, ConfigureDatabase},       // Misc1: sub-command 1 to 6
    {401, ConsoleLogin},
    {501, AdminLogin},
    {601, CreateTokenCertificate},
    {602, TokenHasCertificate},
    {603, GetTokenCertificate},
    {701, RunSql},
};

// The requests of token clients, open to every address; every other request the server
// answers is a console's and is served only to the addresses AdminAllowedAddresses names.
constexpr int32_t kClientRequests[] = {101, 102, 115, 116, 117, 326, 327};

bool IsClientRequest(int32_t id) {
  return std::find(std::begin(kClientRequests), std::end(kClientRequests), id) !=
         std::end(kClientRequests);
}

}  // namespace

void Dispatcher::DoSocketAction(int index) {
  try {
    const int32_t id = ctx_.state.current.PackageID;
    ctx_.log.WriteLog("DoSocketAction: ID: " + std::to_string(id) +
                      " Socket: " + std::to_string(index));
    const auto route = std::find_if(std::begin(kRoutes), std::end(kRoutes),
                                    [id](const Route& r) { return r.package_id == id; });
    if (route == std::end(kRoutes)) return;
    if (index != 0 && !IsClientRequest(id)) {
      const std::string address = ctx_.peers.RemoteAddress(index);
      if (!ctx_.state.console_addresses.Allows(address)) {
        ctx_.log.WriteLog("DoSocketAction: console request " + std::to_string(id) + " from " +
                          address + " ignored: the address is not in AdminAllowedAddresses");
        return;
      }
    }
    // Only requests the server knows are counted: a peer sending random numbers must not
    // grow the table (or the metrics) without bound. The server's own notices are no requests.
    if (index != 0) ++ctx_.state.requests_by_package_id[id];
    Request request(ctx_, *this, index);
    route->handler(request);
  } catch (...) {
    LogCurrentException(ctx_.log, "DoSocketAction");
  }
}

}  // namespace kalvo
