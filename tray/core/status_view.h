// What the status window shows, computed from one reading of the server's status endpoint.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "core/uptime_text.h"

namespace kalvo::tray {

// The figures of GET /status that the window uses.
struct StatusReport {
  bool listening = false;
  // Seconds since 1970-01-01 UTC; 0 when the server did not say.
  int64_t start_time_unix = 0;
  // The start time as the server writes it ("dd.mm.yyyy hh:mm:ss"), used when
  // start_time_unix is 0.
  std::string server_start_time;
  int32_t bytes_sent = 0;
  int32_t bytes_received = 0;
  int32_t connection_count = 0;
  int32_t token_connection_count = 0;
};

// Reads the JSON document of GET /status (UTF-8). Nothing when it is not a JSON object or
// "listening" is not a boolean; other missing or mistyped fields keep their defaults.
std::optional<StatusReport> ParseStatusJson(std::string_view json);

// The language texts the values are made with (Windows-1252).
struct StatusCaptions {
  std::string state_active;    // "DLG_STATE_SERVER", "STATE_ACTIVE"
  std::string state_inactive;  // "DLG_STATE_SERVER", "STATE_INACTIVE"
  std::string format_time;     // "GENERAL", "FORMAT_TIME"
  std::string format_date;     // "GENERAL", "FORMAT_DATE"
  DayWords days;               // "DLG_STATE_SERVER", "TIME_DAY" / "TIME_DAYS"
};

// The six value labels of the status window (Windows-1252).
struct StatusValues {
  std::string state, connected, time, connection_count, sent, received;
  bool operator==(const StatusValues&) const = default;
};

// The values for `report` at `now` (seconds since the epoch). A server that is listening
// shows the active state, the start time written with the time pattern, a blank and the
// date pattern (local time), the uptime (FormatUptime of the whole seconds since the start,
// 0 when the clock says the start lies ahead), the two byte counts as plain decimals and
// "connections/token connections". No report (the server did not answer) or a server that
// is not listening shows the inactive state with "-", "00:00:00", "0", "0" and "0/0".
StatusValues RefreshStatusValues(const std::optional<StatusReport>& report, int64_t now,
                                 const StatusCaptions& captions, char decimal_separator);

}  // namespace kalvo::tray
