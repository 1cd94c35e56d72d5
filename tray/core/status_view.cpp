#include "core/status_view.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>
#include <algorithm>

#include "core/date_pattern.h"
#include "infra/dates.h"

namespace kalvo::tray {
namespace {

int32_t Int32Field(const QJsonObject& object, const char* name) {
  const QJsonValue value = object.value(QLatin1String(name));
  if (!value.isDouble()) return 0;
  return static_cast<int32_t>(std::clamp(value.toDouble(), -2147483648.0, 2147483647.0));
}

// The start time as a local broken-down time and as seconds since the epoch.
std::optional<std::pair<std::tm, int64_t>> StartTime(const StatusReport& report) {
  if (report.start_time_unix != 0) {
    const std::time_t t = static_cast<std::time_t>(report.start_time_unix);
    std::tm local{};
    if (localtime_r(&t, &local) == nullptr) return std::nullopt;
    return std::make_pair(local, report.start_time_unix);
  }
  std::optional<std::tm> parsed = ParseDateText(report.server_start_time);
  if (!parsed) return std::nullopt;
  std::tm copy = *parsed;
  const std::time_t t = std::mktime(&copy);  // also fills in the weekday
  if (t == static_cast<std::time_t>(-1)) return std::nullopt;
  return std::make_pair(copy, static_cast<int64_t>(t));
}

}  // namespace

std::optional<StatusReport> ParseStatusJson(std::string_view json) {
  const QJsonDocument doc =
      QJsonDocument::fromJson(QByteArray(json.data(), static_cast<qsizetype>(json.size())));
  if (!doc.isObject()) return std::nullopt;
  const QJsonObject object = doc.object();
  const QJsonValue listening = object.value(QLatin1String("listening"));
  if (!listening.isBool()) return std::nullopt;
  StatusReport report;
  report.listening = listening.toBool();
  if (const QJsonValue start = object.value(QLatin1String("startTimeUnix")); start.isDouble()) {
    report.start_time_unix = static_cast<int64_t>(start.toDouble());
  }
  report.server_start_time =
      object.value(QLatin1String("serverStartTime")).toString().toLatin1().toStdString();
  report.bytes_sent = Int32Field(object, "bytesSent");
  report.bytes_received = Int32Field(object, "bytesReceived");
  report.connection_count = Int32Field(object, "connectionCount");
  report.token_connection_count = Int32Field(object, "tokenConnectionCount");
  return report;
}

StatusValues RefreshStatusValues(const std::optional<StatusReport>& report, int64_t now,
                                 const StatusCaptions& captions, char decimal_separator) {
  if (!report || !report->listening) {
    return {captions.state_inactive, "-", "00:00:00", "0/0", "0", "0"};
  }
  StatusValues values;
  values.state = captions.state_active;
  int64_t uptime = 0;
  if (const auto start = StartTime(*report)) {
    values.connected =
        FormatDatePattern(start->first, captions.format_time + " " + captions.format_date);
    uptime = std::max<int64_t>(0, now - start->second);
  }
  values.time = FormatUptime(uptime, captions.days, decimal_separator);
  values.connection_count = std::to_string(report->connection_count) + "/" +
                            std::to_string(report->token_connection_count);
  values.sent = std::to_string(report->bytes_sent);
  values.received = std::to_string(report->bytes_received);
  return values;
}

}  // namespace kalvo::tray
