// Requests that read the database's contents for the consoles' choice lists.
#pragma once

#include "requests/request.h"

namespace kalvo {

void GroupNames(Request& r);    // 303: the distinct group names, joined by "|"
void TokenPersons(Request& r);  // 304: the distinct token persons, joined by "|"

}  // namespace kalvo
