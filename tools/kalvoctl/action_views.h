// The administrator's views of actions: the definition a console sends (from options or a
// JSON file), the lists the server answers (actions, details per token) as rows, and the rows
// as tables for people or JSON for programs. Pure: no sockets, no output. Packet texts are
// Windows-1252; every Format* function gives UTF-8 ending in "\n".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kalvoctl/json_reader.h"
#include "net/packet.h"

namespace kalvo::ctl {

inline constexpr int32_t kDefineActionRequest = 318;  // Misc1 "UPDATE" replaces
inline constexpr int32_t kActionListRequest = 319;
inline constexpr int32_t kDeleteActionRequest = 320;
inline constexpr int32_t kStopActionRequest = 322;
inline constexpr int32_t kStartActionRequest = 323;
inline constexpr int32_t kActionDetailsRequest = 324;

// The period a word names: a number, or once, connect (every connection), daily, weekly,
// biweekly (14 days), monthly (30 days), any case.
std::optional<int32_t> ActionPeriod(std::string_view word);
// The word of a period number for people ("daily"); "never" below 0, "connect" above 5.
std::string ActionPeriodName(std::string_view period);
// The word of a state the server reports ("active", "stopped", ...); the text otherwise.
std::string ActionStateName(std::string_view state);

// An action as an administrator describes it. Texts are Windows-1252; times are timestamp
// texts "yyyy-mm-dd-hh-mm-ss" (last may be "").
struct ActionDraft {
  std::string guid, name;
  int32_t type = 2, period = 0, priority = 0;
  std::string first_time, last_time;
  bool stopped = false;
  std::vector<std::string> members;                          // token and group GUIDs
  std::vector<std::pair<std::string, std::string>> sources;  // source, owner
  std::string data;                                          // the payload, any bytes
};

// "" when the draft can travel in a 318, else why not: a GUID that is none, a "|" in a field
// before the payload, an apostrophe the server refuses, a "$" in a member, source or owner,
// a missing first time.
std::string ActionDraftProblem(const ActionDraft& draft);

// The 318 request of the draft.
SocketDataStruct MakeDefineActionRequest(const ActionDraft& draft, bool replace);

// Reads a definition file: an object with "guid", "name", "type", "period" (number or word),
// "priority", "first", "last" (date texts that ParseDateText reads), "stopped" (boolean),
// "members" (array of GUIDs), "sources" (array of {"source", "owner"}) and "data" (text).
// Members absent keep the draft's values. False with the reason in `error`.
bool ReadActionDraft(const JsonValue& document, ActionDraft& draft, std::string& error);

// A date as the server stores it: any form ParseDateText reads; "" stays "". Nothing when
// the text is no date.
std::optional<std::string> ActionTime(std::string_view text);

// A new random GUID in the server's form (upper case).
std::string NewGuid();

// One action of the list (319, 318, 320).
struct ActionRow {
  std::string guid, name, type, period, priority, first_time, last_time, stopped, state;
  std::vector<std::string> members;
};

// Actions joined by "|", fields by "$" in the order of ActionRow, members joined by ",". The
// free-text field is the name.
std::vector<ActionRow> ParseActionList(std::string_view data);

// One member token of an action (324).
struct ActionDetailRow {
  std::string token, person, last_time, runs, successes;
};

// Lines joined by CRLF: token$person$last time$runs$successes, or token$person$0 for a token
// that never ran the action.
std::vector<ActionDetailRow> ParseActionDetails(std::string_view data);

std::string FormatActionTable(const std::vector<ActionRow>& rows);
std::string FormatActionJson(const std::vector<ActionRow>& rows);
std::string FormatActionDetailsTable(const std::vector<ActionDetailRow>& rows);
std::string FormatActionDetailsJson(std::string_view guid,
                                    const std::vector<ActionDetailRow>& rows);

}  // namespace kalvo::ctl
