// Actions: consoles define, list, stop, start and delete them and read how they ran; a token
// client asks for its due tasks (327), runs them one by one and reports each result (326),
// which hands it the next. The tasks handed out to a connection are kept until it closes.
#pragma once

#include "requests/request.h"

namespace kalvo {

// 317: Data the action. Data its payload, "|", its data sources.
void GetActionData(Request& r);
// 318: Data the definition (see ActionFromFields); Misc1 "UPDATE" replaces the action of that
// GUID. Misc1 "OK" or "ERROR", Data every action.
void DefineAction(Request& r);
// 319: Data every action.
void ListActions(Request& r);
// 320: Data the action. Misc1 "OK" or "ERROR", Data every action.
void DeleteAction(Request& r);
// 322 stops, 323 starts the action in Data. Misc1 "OK" or "ERROR", Data its state.
void StopAction(Request& r);
void StartAction(Request& r);
// 324: Data the action. Data its member tokens with their counters.
void GetActionDetails(Request& r);
// 325: Data the token. Data its actions with its counters.
void GetTokenActions(Request& r);
// 326 (client): the result of the task handed out last; answered with the next task (327),
// or not at all after the last one or after an error.
void TaskResult(Request& r);
// 327 (client): Data the token. The first due task, or "NONE".
void TaskHandout(Request& r);

}  // namespace kalvo
