#include "kalvoctl/action_views.h"

#include <array>
#include <random>

#include "infra/arrays.h"
#include "infra/dates.h"
#include "infra/guid.h"
#include "infra/json_text.h"
#include "infra/numbers.h"
#include "infra/strings.h"
#include "infra/text_encoding.h"
#include "kalvoctl/print.h"
#include "kalvoctl/token_views.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {
namespace {

// Indexed by the period number 0 to 5.
constexpr std::array<std::string_view, 6> kPeriods = {"once",   "connect",  "daily",
                                                      "weekly", "biweekly", "monthly"};
// Indexed by the state number + 1 (-1 to 5).
constexpr std::array<std::string_view, 7> kStates = {"not found", "invalid", "waiting",  "active",
                                                     "stopped",   "expired", "completed"};

// A whole JSON number that fits 32 bits.
bool WholeNumber(const JsonValue& v, int32_t& out) {
  if (v.kind != JsonValue::Kind::kNumber) return false;
  const auto n = WholeNumberText(v.text);
  if (!n || *n < INT32_MIN || *n > INT32_MAX) return false;
  out = static_cast<int32_t>(*n);
  return true;
}

}  // namespace

std::optional<int32_t> ActionPeriod(std::string_view word) {
  if (const auto n = WholeNumberText(word); n && *n >= INT32_MIN && *n <= INT32_MAX) {
    return static_cast<int32_t>(*n);
  }
  for (size_t k = 0; k < kPeriods.size(); ++k) {
    if (EqualsNoCase(word, kPeriods[k])) return static_cast<int32_t>(k);
  }
  return std::nullopt;
}

std::string ActionPeriodName(std::string_view period) {
  const auto n = WholeNumberText(period);
  if (!n) return std::string(period);
  if (*n < 0) return "never";
  if (*n > 5) return "connect";
  return std::string(kPeriods[static_cast<size_t>(*n)]);
}

std::string ActionStateName(std::string_view state) {
  const auto n = WholeNumberText(state);
  if (!n || *n < -1 || *n > 5) return std::string(state);
  return std::string(kStates[static_cast<size_t>(*n + 1)]);
}

std::string ActionDraftProblem(const ActionDraft& d) {
  if (!IsGUID(d.guid)) return "not a GUID: " + Cp1252ToUtf8(d.guid);
  for (const std::string& m : d.members) {
    if (!IsGUID(m)) return "a member is not a GUID: " + Cp1252ToUtf8(m);
  }
  if (d.first_time.empty()) return "the action needs a first time";
  std::vector<std::string_view> fields = {d.name, d.first_time, d.last_time};
  for (const auto& [source, owner] : d.sources) {
    if (source.find('$') != std::string::npos || owner.find('$') != std::string::npos ||
        source.find("\r\n") != std::string::npos || owner.find("\r\n") != std::string::npos) {
      return "a data source or owner cannot hold \"$\" or a line break";
    }
    fields.push_back(source);
    fields.push_back(owner);
  }
  for (std::string_view f : fields) {
    if (f.find('|') != std::string_view::npos) {
      return "only the data may hold \"|\": " + Cp1252ToUtf8(f);
    }
    if (f.find('\'') != std::string_view::npos) {
      return "the server refuses an apostrophe in names, times and data sources: " +
             Cp1252ToUtf8(f);
    }
  }
  return "";
}

SocketDataStruct MakeDefineActionRequest(const ActionDraft& d, bool replace) {
  std::vector<std::string> sources;
  for (const auto& [source, owner] : d.sources) sources.push_back(source + "$" + owner);
  SocketDataStruct r;
  r.PackageID = kDefineActionRequest;
  r.Data = Join({d.guid, d.name, std::to_string(d.type), std::to_string(d.period),
                 std::to_string(d.priority), d.first_time, d.last_time, d.stopped ? "1" : "0",
                 Join(d.members, "$"), Join(sources, "\r\n"), d.data},
                "|");
  if (replace) r.Misc1 = "UPDATE";
  return r;
}

std::optional<std::string> ActionTime(std::string_view text) {
  if (text.empty()) return std::string();
  std::string stamp = FormatTimestamp(text);
  if (stamp.empty()) return std::nullopt;
  return stamp;
}

std::string NewGuid() {
  std::random_device device;
  std::mt19937_64 random((static_cast<uint64_t>(device()) << 32) ^ device());
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string guid;
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) guid += '-';
    int nibble = static_cast<int>(random() & 15);
    if (i == 12) nibble = 4;                 // version 4: random
    if (i == 16) nibble = 8 | (nibble & 3);  // the variant bits 10
    guid += kHex[nibble];
  }
  return guid;
}

bool ReadActionDraft(const JsonValue& doc, ActionDraft& d, std::string& error) {
  if (doc.kind != JsonValue::Kind::kObject) {
    error = "the definition must be a JSON object";
    return false;
  }
  for (const auto& [key, v] : doc.members) {
    const auto text = [&](std::string& out) {
      if (v.kind != JsonValue::Kind::kString) return false;
      out = Utf8ToCp1252(v.text);
      return true;
    };
    bool ok = false;
    if (key == "guid" || key == "name" || key == "data") {
      ok = text(key == "guid" ? d.guid : key == "name" ? d.name : d.data);
    } else if (key == "type") {
      ok = WholeNumber(v, d.type);
    } else if (key == "priority") {
      ok = WholeNumber(v, d.priority);
    } else if (key == "period") {
      const bool word_or_number =
          v.kind == JsonValue::Kind::kString || v.kind == JsonValue::Kind::kNumber;
      const auto period = word_or_number ? ActionPeriod(v.text) : std::nullopt;
      if (period) d.period = *period;
      ok = period.has_value();
    } else if (key == "first" || key == "last") {
      const auto time = v.kind == JsonValue::Kind::kString ? ActionTime(v.text) : std::nullopt;
      if (time) (key == "first" ? d.first_time : d.last_time) = *time;
      ok = time.has_value() || (key == "last" && v.kind == JsonValue::Kind::kNull);
    } else if (key == "stopped") {
      ok = v.kind == JsonValue::Kind::kBool;
      d.stopped = v.boolean;
    } else if (key == "members") {
      ok = v.kind == JsonValue::Kind::kArray;
      d.members.clear();
      for (const JsonValue& m : v.items) {
        ok = ok && m.kind == JsonValue::Kind::kString;
        d.members.push_back(Utf8ToCp1252(m.text));
      }
    } else if (key == "sources") {
      ok = v.kind == JsonValue::Kind::kArray;
      d.sources.clear();
      for (const JsonValue& s : v.items) {
        const auto source = s.members.find("source");
        const auto owner = s.members.find("owner");
        ok = ok && s.kind == JsonValue::Kind::kObject && source != s.members.end() &&
             source->second.kind == JsonValue::Kind::kString &&
             (owner == s.members.end() || owner->second.kind == JsonValue::Kind::kString);
        if (!ok) break;
        d.sources.emplace_back(Utf8ToCp1252(source->second.text),
                               owner == s.members.end() ? "" : Utf8ToCp1252(owner->second.text));
      }
    } else {
      error = "unknown member \"" + key + "\"";
      return false;
    }
    if (!ok) {
      error = "the member \"" + key + "\" has no usable value";
      return false;
    }
  }
  return true;
}

std::vector<ActionRow> ParseActionList(std::string_view data) {
  std::vector<ActionRow> rows;
  for (const std::string& record : SplitRecords(data, "|", "$")) {
    const std::vector<std::string> f = SplitFields(record, "$", 10, 1);
    ActionRow row{f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8], {}};
    if (!f[9].empty()) row.members = Split(f[9], ",");
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<ActionDetailRow> ParseActionDetails(std::string_view data) {
  std::vector<ActionDetailRow> rows;
  for (const std::string& record : SplitRecords(data, kCrlf, "$")) {
    std::vector<std::string> f = SplitFields(record, "$", 5, 1);
    // A token that never ran it: token$person$0.
    if (f[3].empty() && f[4].empty() && f[2] == "0") f = {f[0], f[1], "", "0", "0"};
    rows.push_back({f[0], f[1], f[2], f[3], f[4]});
  }
  return rows;
}

std::string FormatActionTable(const std::vector<ActionRow>& rows) {
  if (rows.empty()) return "No actions.\n";
  std::vector<std::vector<std::string>> cells;
  for (const ActionRow& r : rows) {
    cells.push_back({r.guid, r.name, ActionStateName(r.state), r.type, ActionPeriodName(r.period),
                     NumberForPeople(r.priority), TimestampForPeople(r.first_time),
                     TimestampForPeople(r.last_time), std::to_string(r.members.size())});
  }
  return FormatTable(
      {"GUID", "NAME", "STATE", "TYPE", "PERIOD", "PRIORITY", "FIRST", "LAST", "MEMBERS"}, cells);
}

std::string FormatActionJson(const std::vector<ActionRow>& rows) {
  return JsonArray(rows,
                   [](const ActionRow& r) {
                     return JsonObject({{"guid", JsonString(r.guid)},
                                        {"name", JsonString(r.name)},
                                        {"type", JsonNumberOrNull(r.type)},
                                        {"period", JsonNumberOrNull(r.period)},
                                        {"priority", JsonNumberOrNull(r.priority)},
                                        {"first", JsonTimeOrNull(r.first_time)},
                                        {"last", JsonTimeOrNull(r.last_time)},
                                        {"stopped", r.stopped == "0" ? "false" : "true"},
                                        {"state", JsonNumberOrNull(r.state)},
                                        {"stateName", JsonString(ActionStateName(r.state))},
                                        {"members", JsonArray(r.members, JsonString)}});
                   }) +
         "\n";
}

std::string FormatActionDetailsTable(const std::vector<ActionDetailRow>& rows) {
  if (rows.empty()) return "No member tokens.\n";
  std::vector<std::vector<std::string>> cells;
  for (const ActionDetailRow& r : rows) {
    cells.push_back({r.token, r.person, TimestampForPeople(r.last_time), NumberForPeople(r.runs),
                     NumberForPeople(r.successes)});
  }
  return FormatTable({"TOKEN", "PERSON", "LAST RUN", "RUNS", "SUCCESSES"}, cells);
}

std::string FormatActionDetailsJson(std::string_view guid,
                                    const std::vector<ActionDetailRow>& rows) {
  return JsonObject({{"action", JsonString(guid)},
                     {"tokens", JsonArray(rows,
                                          [](const ActionDetailRow& r) {
                                            return JsonObject(
                                                {{"token", JsonString(r.token)},
                                                 {"person", JsonString(r.person)},
                                                 {"lastRun", JsonTimeOrNull(r.last_time)},
                                                 {"runs", JsonNumberOrNull(r.runs)},
                                                 {"successes", JsonNumberOrNull(r.successes)}});
                                          })}}) +
         "\n";
}

}  // namespace kalvo::ctl
