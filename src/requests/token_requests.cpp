#include "requests/token_requests.h"

#include <unordered_map>

#include "db/groups.h"
#include "db/tokens.h"
#include "infra/guid.h"

namespace kalvo {
namespace {

// The peer kind a console names in a 101; anything else is a token client.
constexpr std::string_view kAdminWindow = "AdminWindow";
constexpr size_t kGuidLength = 36;

// Broadcasts the whole token list as a 401 with empty Misc fields.
void BroadcastTokenList(Request& r) {
  r.SetReply(401, TokenList(r.ctx));
  r.Broadcast();
}

}  // namespace

std::string TokenList(RequestContext& ctx) {
  // The addresses by the GUID their tag begins with, gathered once for the whole list.
  std::unordered_map<std::string, std::string> by_guid;
  for (int index : ctx.peers.LoadedIndices()) {
    const std::string tag = ctx.peers.ConnectionTag(index);
    if (tag.size() < kGuidLength) continue;
    std::string& addresses = by_guid[tag.substr(0, kGuidLength)];
    if (!addresses.empty()) addresses += ',';
    addresses += ctx.peers.RemoteAddress(index);
  }
  return DBGetTokenList(ctx.database, ctx.language, [&](std::string_view guid) {
    const auto found = by_guid.find(std::string(guid));
    return found == by_guid.end() ? std::string() : found->second;
  });
}

// A token was inserted at a workstation (or a console names its own token). The connection is
// tagged with the token, a client learns its settings and rights, the logon is stored and
// audited, and the consoles hear of it: the whole list for a new token, else the logon.
void TokenLogon(Request& r) {
  SocketDataStruct& record = r.record();
  const std::string guid = record.Data;
  if (!IsGUID(guid)) return;
  const std::string logon_name = record.Misc2;
  const std::string user_dn = record.Misc3;
  const bool from_console = record.Misc1 == kAdminWindow;
  r.ctx.peers.SetConnectionTag(r.index(), guid + '\0' + user_dn + '\0' + logon_name);
  const std::string string_max_size = std::to_string(r.ctx.settings.string_max_size);
  if (!from_console) {
    r.SetReply(101, guid);
    record.Misc1 = string_max_size;
    record.Misc2 = std::to_string(r.ctx.settings.log_client);
    record.Misc3 = std::to_string(DBGetTokenRights(r.ctx.database, guid));
    r.Reply();
  }
  const std::string address = r.PeerAddress();
  const std::string answer =
      DBSetLastTokenConnect(r.ctx.database, guid, logon_name, address, user_dn);
  r.Audit(AuditAction::kConnect);
  if (answer == "NEWTOKEN") {
    r.SetReply(401, TokenList(r.ctx));
    record.Misc2 = answer;
  } else {
    r.SetReply(101, guid);
    record.Misc2 = answer;
  }
  record.Misc1 = address;
  record.Misc3 = string_max_size;
  r.Broadcast();
}

// The token was taken out. The server's own notice for a closing connection (index 0)
// carries the closing connection's tag in Data and its address in Misc1: it skips the GUID
// check and writes no audit entry, so every console learns that the client has gone.
void TokenRemoved(Request& r) {
  const std::string guid = r.record().Data;
  const std::string address = r.index() == 0 ? r.record().Misc1 : r.PeerAddress();
  if (r.index() != 0) {
    if (!IsGUID(guid)) return;
    r.Audit(AuditAction::kRemove);
    r.ctx.peers.SetConnectionTag(r.index(), "");
  }
  r.SetReply(102, guid);
  r.record().Misc1 = address;
  r.Broadcast();
  // The server's own notice has nobody to answer: slot 0 is the listener.
  if (r.index() == 0) return;
  r.SetReply(102, "");
  r.ReplySilently();
}

void GetGroups(Request& r) {
  r.SetReply(301, DBGetGroupData(r.ctx.database));
  r.Reply();
}

void SetGroups(Request& r) {
  r.SetReply(302, DBSetGroupData(r.ctx.database, r.record().Data) ? "OK" : "ERROR");
  r.Reply();
}

void GetTokenRightsAndGroups(Request& r) {
  const std::string guid = r.record().Data;
  const int32_t rights = DBGetTokenRights(r.ctx.database, guid);
  r.SetReply(307, DBGetTokenData(r.ctx.database, guid));
  r.record().Misc1 = std::to_string(rights);
  r.Reply();
}

// A console changed a token's person and description: every console, the sender included,
// gets the new list instead of a reply.
void SetTokenData(Request& r) {
  DBSetTokenData(r.ctx.database, r.record().Misc1, r.record().Data);
  BroadcastTokenList(r);
}

void GetMemberChoices(Request& r) {
  r.SetReply(316, DBGetAllMemberGUIDs(r.ctx.database));
  r.Reply();
}

void DeleteTokens(Request& r) {
  r.SetReply(328, DBDeleteToken(r.ctx.database, r.record().Data));
  r.Reply();
  BroadcastTokenList(r);
}

}  // namespace kalvo
