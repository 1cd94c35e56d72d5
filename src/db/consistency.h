// Data that the server's own operations cannot work with although every table is complete:
// the default group stored more than once (a second initialisation of a filled database adds
// it again, since no key forbids that), and membership rows holding several GUIDs in one
// field (what a new token's registration stores while the default group is doubled). The
// check finds them; the repair puts them right.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/connection.h"

namespace kalvo {

// The problems found, one English sentence each naming what is wrong and how many rows;
// empty when there is none. Gives one problem saying so when a query failed (for example on
// a database whose tables are incomplete). Opens its own connection.
std::vector<std::string> DBFindDataProblems(Database& database);

// Keeps one row of the default group (the first, with its name, description and rights) and
// splits every membership row holding several GUIDs into one row per token and group, leaving
// out pairs that exist already. Gives the number of rows deleted, or -1 when a statement
// failed (what was done before it stays; running the repair again goes on from there).
int32_t DBRepairData(Database& database);

}  // namespace kalvo
