#include "kalvoctl/sql_views.h"

#include "infra/arrays.h"
#include "infra/json_text.h"
#include "infra/text_encoding.h"
#include "kalvoctl/print.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {
namespace {

constexpr std::string_view kDataPrefix = "Data:";
constexpr std::string_view kOkPrefix = "OK:";
constexpr std::string_view kErrorPrefix = "Error:";

// A list of values that was written out always holds at least one, even when that one is
// empty: a single empty column or value leaves no text, unlike a missing list.
std::vector<std::string> SplitValues(std::string_view text, std::string_view separator) {
  if (text.empty()) return {std::string()};
  return Split(text, separator);
}

std::string JsonStrings(const std::vector<std::string>& values) {
  return JsonArray(values, [](const std::string& v) { return JsonString(v); });
}

}  // namespace

SqlResult ParseSqlResult(std::string_view data) {
  SqlResult result;
  if (data.starts_with(kDataPrefix)) {
    result.kind = SqlResult::Kind::kData;
    const std::string_view body = data.substr(kDataPrefix.size());
    const size_t rows_start = body.find('$');
    result.columns = SplitValues(body.substr(0, rows_start), "|");
    if (rows_start == std::string_view::npos) return result;
    for (const std::string& row : SplitValues(body.substr(rows_start + 1), "$")) {
      result.rows.push_back(SplitValues(row, "|"));
      if (result.rows.back().size() != result.columns.size()) ++result.misshapen_rows;
    }
  } else if (data.starts_with(kOkPrefix)) {
    result.kind = SqlResult::Kind::kOk;
    result.text = data.substr(kOkPrefix.size());
  } else if (data.starts_with(kErrorPrefix)) {
    // The driver's message may hold "|" itself: it takes the rest.
    const std::vector<std::string> f = SplitFields(data.substr(kErrorPrefix.size()), "|", 2, 1);
    result.number = f[0];
    result.text = f[1];
  } else if (data.empty()) {
    result.text = "the server gave no result (see its log)";
  } else {
    result.text = "not a result: " + std::string(data);
  }
  return result;
}

std::string FormatSqlText(const SqlResult& result) {
  switch (result.kind) {
    case SqlResult::Kind::kData: {
      std::string out = FormatTable(result.columns, result.rows);
      if (result.rows.empty()) out += "(no rows)\n";
      return out;
    }
    case SqlResult::Kind::kOk:
      return "OK: " + Cp1252ToUtf8(result.text) + "\n";
    case SqlResult::Kind::kError:
      break;
  }
  if (result.number.empty()) return Cp1252ToUtf8(result.text) + "\n";
  return "error " + Cp1252ToUtf8(result.number) + ": " + Cp1252ToUtf8(result.text) + "\n";
}

std::string FormatSqlJson(const SqlResult& result) {
  switch (result.kind) {
    case SqlResult::Kind::kData:
      return JsonObject({{"columns", JsonStrings(result.columns)},
                         {"rows", JsonArray(result.rows, JsonStrings)}}) +
             "\n";
    case SqlResult::Kind::kOk:
      return JsonObject({{"ok", JsonString(result.text)}}) + "\n";
    case SqlResult::Kind::kError:
      break;
  }
  return JsonObject({{"error", JsonObject({{"number", JsonNumberOrNull(result.number)},
                                           {"message", JsonString(result.text)}})}}) +
         "\n";
}

}  // namespace kalvo::ctl
