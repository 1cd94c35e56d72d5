#include "db/database.h"

#include "infra/dates.h"

namespace kalvo {

std::tm Database::Now() const { return clock_ ? clock_() : LocalNow(); }

}  // namespace kalvo
