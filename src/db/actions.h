// Actions: tasks that administrators define for tokens and groups (properties, members, a
// payload stored in parts, data sources), the per-token state of their executions, and the
// scheduling rule that decides which of them a connecting token client receives.
//
// Operations that take a Database connect themselves ("Verbindungsherstellung zur Datenbank
// nicht erfolgreich!" when they cannot) and behave as RunOperation describes; those that take
// a DbConnection use the caller's. Each logs "<name> (OK)" at its end. Time stamps are texts
// "yyyy-mm-dd-hh-mm-ss" compared field by field with the database's clock.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "db/connection.h"

namespace kalvo {

// What DBGetActionState reports.
enum ActionState : int32_t {
  kActionNotFound = -1,  // no readable properties row
  kActionInvalid = 0,    // fails DBValidateAction
  kActionWaiting = 1,    // its first time lies ahead
  kActionActive = 2,
  kActionStopped = 3,    // stopped beats every other state
  kActionExpired = 4,    // its last time has passed
  kActionCompleted = 5,  // a once-action every member token ran successfully
};

// The type of action that carries no payload; every other type needs one.
inline constexpr int32_t kActionTypeWithoutData = 1;

// An action as a console defines it. `members`: token and group GUIDs joined by "$";
// `sources`: lines "source$owner" joined by CRLF; `data`: the payload, any bytes.
struct ActionDefinition {
  std::string guid, name;
  int32_t type = 0, period = 0, priority = 0;
  std::string first_time, last_time;
  int32_t stopped = 0;
  std::string members, sources, data;
};

// Stores a new action: its properties, members, payload parts of BLOBMaxSize characters and
// data sources. With `replace` the action of that GUID is deleted first (with its execution
// states) through DBDeleteAction. Every "$"-element of `members` is a member, an empty one
// too (an empty text has none); every line of `sources` is split at "$" into the source
// (field 0) and the owner (field 1). False when the GUID is taken, a statement fails or a
// source line has no owner field; what was written stays.
bool DBSetActionData(Database& database, const ActionDefinition& action, bool replace);

// Every action in name order: its eight property fields, its state and its members joined by
// ",", all joined by "$"; actions joined by "|". "" when there is none.
std::string DBGetAllActions(Database& database);

// The state of action `guid` (ActionState values).
int32_t DBGetActionStateConnect(Database& database, std::string_view guid);
int32_t DBGetActionState(DbConnection& connection, std::string_view guid);

// Deletes the action with its data sources, payload, members, properties and states. "OK" or
// "ERROR".
std::string DBDeleteAction(Database& database, std::string_view guid);
// The same on the open connection of a caller whose transaction it joins (an update of a
// definition), logged as an operation of its own.
std::string DBDeleteAction(DbConnection& connection, std::string_view guid);

// The payload (its parts in order), "|", then the data sources as "source$owner" lines
// joined by CRLF.
std::string DBGetActionObjectData(Database& database, std::string_view guid);

// Stops (`stop`) or starts the action. "OK" or "ERROR".
std::string DBStartAction(Database& database, std::string_view guid, bool stop);

// One line per member token of the action as DBSplitMemberGUIDsToTokenGUIDs gives them
// (groups expanded, a token there twice has two lines): token$person$last time$action
// counter$success counter, or token$person$0 without a state row; lines joined by CRLF.
std::string DBGetActionDetails(Database& database, std::string_view guid);

// One line per action of the token, highest priority first: action$name$period$action
// counter$success counter (0$0 without a state row); lines joined by CRLF. A token without
// an action has the one line of its own GUID, which DBGetTokenActionGUIDs puts in the list
// then: guid$$$0$0.
std::string DBGetTokenAction(Database& database, std::string_view token);

// The tasks due for the token now, highest priority first, each "action|type|payload data".
std::vector<std::string> DBGetTaskCollection(Database& database, std::string_view token);

// Records an execution of the action by the token at `time`. The first result of a token
// honours `result` (0 is success); every later one raises both counters, whatever its result
// (deliberately).
bool DBSetActionResult(Database& database, std::string_view action, std::string_view token,
                       std::string_view time, int16_t result);

// Deletes the execution states of the tokens that lose their membership when the action's
// members become `new_members` ("$"-joined; groups count by their tokens).
bool DBUpdateActionState(DbConnection& connection, std::string_view action,
                         std::string_view new_members);

// `members` with every group replaced by its tokens, in order; a token that is a member
// directly and through a group (or through two groups) is there each time.
std::vector<std::string> DBSplitMemberGUIDsToTokenGUIDs(DbConnection& connection,
                                                        const std::vector<std::string>& members);

// True when the action has a member, a first time that is a date, a last time that is empty
// or a date not before the first, and a payload exactly when its type needs one. `state` is
// the state being checked.
bool DBValidateAction(DbConnection& connection, std::string_view guid, int32_t state);

bool ActionHasData(DbConnection& connection, std::string_view guid);

// For a once-action (`period` "0"): true when every member token has a state row with a
// success. False at once for any other period.
bool DBAllMembersDone(DbConnection& connection, std::string_view guid, std::string_view period);

// The action's member GUIDs joined by `separator`.
std::string DBGetActionMember(DbConnection& connection, std::string_view guid,
                              std::string_view separator);

// The actions of the token (its own and its groups'), highest priority first, and with
// `types` their types. Without any, `actions` holds the token's own GUID alone
// (deliberately). False when a statement fails.
bool DBGetTokenActionGUIDs(DbConnection& connection, std::string_view token,
                           std::vector<std::string>& actions, std::vector<std::string>* types);

// The scheduling rule: whether the action is due for the token now. Once (0): while the token
// has no execution; 1: always; 2 to 5: when 1, 7, 14 or 30 days lie between the dates of the
// last execution and now, compared field by field (a new year or month is always due; hours
// do not count); above 5: always once a last time exists; negative: never.
bool DBActionShallExecute(DbConnection& connection, std::string_view action,
                          std::string_view token);

}  // namespace kalvo
