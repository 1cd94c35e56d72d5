// Requests of consoles that look into the database: 303, 304, 312, 313, 314 and 701.
#pragma once

#include "requests/request.h"

namespace kalvo {

void GroupNames(Request& r);     // 303
void TokenPersons(Request& r);   // 304
void ListDatabases(Request& r);  // 312
void TestDatabase(Request& r);   // 313
void RunSql(Request& r);         // 314 and 701, answered with their own number

}  // namespace kalvo
