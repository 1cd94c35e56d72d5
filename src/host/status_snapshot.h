// The figures the status endpoint publishes: one copy of the server's counters taken at the
// moment a request arrives.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kalvo {

// A plain value; the server fills one whenever the status endpoint asks for it.
struct StatusSnapshot {
  // The server's own port is in the listening state.
  bool listening = false;
  // The service is paused (it may still be listening).
  bool paused = false;
  // The server's own TCP port (not the status endpoint's).
  int32_t port = 0;
  // The start time as the server keeps it: Windows-1252 text in the system's date format.
  std::string server_start_time;
  // The same moment as seconds since 1970-01-01 UTC; 0 when unknown.
  int64_t start_time_unix = 0;
  // 32-bit counters; the server stops raising them at their limit rather than wrapping.
  int32_t bytes_sent = 0;
  int32_t bytes_received = 0;
  // Open connections, and those of them on which a token client has identified a token.
  int32_t connection_count = 0;
  int32_t token_connection_count = 0;
  // Requests handled since the start, by PackageID.
  std::map<int32_t, uint64_t> requests_by_package_id;
};

}  // namespace kalvo
