#include "requests/audit_requests.h"

#include "infra/numbers.h"

namespace kalvo {
namespace {

// Runs the query, then rewrites the record as the 329 answer with `misc1` and sends it.
void AnswerAudit(Request& r, const AuditQuery& query, std::string misc1) {
  // The request's Misc3 is the out argument: it goes back unchanged when the database cannot
  // be reached.
  std::string total = r.record().Misc3;
  std::string entries =
      DBGetLoggingInformation(r.ctx.database, r.ctx.settings.audit_display_max_count, query, total);
  r.SetReply(329, std::move(entries));
  r.record().Misc1 = std::move(misc1);
  r.record().Misc3 = std::move(total);
  r.ReplySilently();
}

}  // namespace

void QueryAudit(Request& r) {
  AuditQuery query;
  // An empty mask is no filter, like 0; any other text that is no number ends the request.
  query.mask = r.record().Misc1.empty() ? 0 : NumericTextToInt32(r.record().Misc1);
  query.text_filters = r.record().Misc2;
  query.time_filters = r.record().Misc3;
  AnswerAudit(r, query, "");
}

void ClearAudit(Request& r) {
  const std::string deleted = DBDeleteLoggingInformation(r.ctx.database, true, false, 0, false, 0);
  AnswerAudit(r, AuditQuery{}, "Delete=" + deleted);
}

}  // namespace kalvo
