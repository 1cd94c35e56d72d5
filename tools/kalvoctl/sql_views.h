// The administrator's view of a free SQL statement (request 701): the server's answer read
// into columns and rows, an acknowledgement or a driver error, and shown as a table for people
// or JSON for programs. Pure: no sockets, no output. Packet texts are Windows-1252; every
// Format* function gives UTF-8 ending in "\n".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo::ctl {

inline constexpr int32_t kSqlRequest = 701;  // Data: the statement; answered as 701

// What a statement gave.
struct SqlResult {
  enum class Kind {
    kData,   // a result set: `columns` and `rows`
    kOk,     // a statement without result set: the server's text in `text`
    kError,  // the driver refused: `number` (its text; "" when the answer had none) and `text`
  };
  Kind kind = Kind::kError;
  std::vector<std::string> columns;
  std::vector<std::vector<std::string>> rows;
  std::string number;
  std::string text;
  // Rows whose value count differs from the column count: a value held "|" or "$", which the
  // answer cannot tell from its separators.
  size_t misshapen_rows = 0;
};

// Reads a 701 answer: "Data:" + column names joined by "|", then, when there are rows, "$"
// and the rows joined by "$", values by "|"; "OK:" + a text; "Error:" + number + "|" +
// message. Any other answer (an empty one when the server's database call failed) is an error
// without number whose message says so.
SqlResult ParseSqlResult(std::string_view data);

// A result set as a table with the column names as header, "(no rows)" under it when empty;
// an acknowledgement as "OK: " and the server's text; an error as "error N: message" (the
// line the command prints on standard error).
std::string FormatSqlText(const SqlResult& result);

// {"columns":[..],"rows":[[..],..]}, {"ok":text} or {"error":{"number":N,"message":text}}
// (number null when the answer had none). Values are JSON strings, control bytes escaped.
std::string FormatSqlJson(const SqlResult& result);

}  // namespace kalvo::ctl
