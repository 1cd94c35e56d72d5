#include "requests/console_requests.h"

#include "requests/token_requests.h"

namespace kalvo {

void Echo(Request& r) {
  r.SetReply(311, "");
  r.Reply();
}

// A console registers: it is added once to the consoles that receive every broadcast and
// gets the token list and the state of the database. When it names its own token (and is
// not merely refreshing), that token is then registered like a client's: the record becomes a
// 101 with empty Misc fields, which is not "AdminWindow", so the console gets the direct 101
// reply too.
void ConsoleLogin(Request& r) {
  const std::string own_token = r.record().Data;
  const bool refresh = r.record().Misc1 == "UPDATE";
  r.ctx.state.admin_connections.Add(r.index());
  r.SetReply(401, TokenList(r.ctx));
  r.record().Misc1 = std::to_string(static_cast<int32_t>(DBIsDatabaseUpToDate(r.ctx.database)));
  r.record().Misc3 = std::to_string(r.ctx.settings.string_max_size);
  r.Reply();
  if (!refresh && !own_token.empty()) {
    r.SetReply(101, own_token);
    r.DispatchAgain();
  }
}

void AdminLogin(Request& r) { r.ctx.state.admin_login_flag = true; }

}  // namespace kalvo
