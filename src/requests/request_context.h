// What a request handler works with; every member outlives the dispatcher.
#pragma once

#include "db/database.h"
#include "infra/log.h"
#include "infra/settings.h"
#include "net/connection_table.h"
#include "requests/client_audit.h"
#include "requests/server_state.h"

namespace kalvo {

struct RequestContext {
  ServerState& state;
  ConnectionTable& connections;
  Log& log;
  Settings& settings;
  ClientAudit& audit;
  Database& database;
};

}  // namespace kalvo
