#include "requests/inventory_requests.h"

#include "db/inventory.h"

namespace kalvo {

void GroupNames(Request& r) {
  r.SetReply(303, DBGetColumnData(r.ctx.database, "tbl_kdx_groups", "group_name", "|", true));
  r.Reply();
}

void TokenPersons(Request& r) {
  r.SetReply(304, DBGetColumnData(r.ctx.database, "tbl_kdx_token", "token_person", "|", true));
  r.Reply();
}

}  // namespace kalvo
