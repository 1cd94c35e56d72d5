// What a request handler works with; every member outlives the dispatcher.
#pragma once

#include "db/database.h"
#include "db/schema.h"
#include "infra/log.h"
#include "infra/registry_store.h"
#include "infra/settings.h"
#include "net/peer_table.h"
#include "requests/server_state.h"

namespace kalvo {

class CertificateLibrary;
class JobPeers;

struct RequestContext {
  ServerState& state;
  PeerTable& peers;
  Log& log;
  Settings& settings;
  Database& database;
  // Texts of the server's language file (GENERAL/YES and NO in the token list).
  LanguageLookup language;
  CertificateLibrary& certificates;
  // The registry the settings came from; the configuration requests write to it.
  RegistryStore& registry;
  // For a request handled off the network thread: `peers` itself, which also records its
  // broadcasts (see RequestScheduler); null on the network thread.
  JobPeers* job = nullptr;
};

}  // namespace kalvo
