// Reads the server's status endpoint.
#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <optional>

#include "core/status_view.h"

class QNetworkReply;

namespace kalvo::tray {

// One GET of the /status document at a time; each reading either gives a report or counts
// as "not reachable" (no connection, no answer within the time limit, an HTTP error or a
// document that cannot be read).
class StatusClient : public QObject {
  Q_OBJECT

 public:
  static constexpr int kTimeoutMs = 900;  // below the one-second refresh

  StatusClient(QUrl url, QObject* parent = nullptr);

  // Starts a reading unless one is under way.
  void Fetch();
  bool busy() const { return !reply_.isNull(); }

  // The report of the last finished reading; nothing when it failed or none has finished.
  const std::optional<StatusReport>& last() const { return last_; }
  // Whether any reading has finished yet.
  bool has_answered() const { return answered_; }
  const QUrl& url() const { return url_; }

 signals:
  // A reading has finished; `reachable` tells whether it gave a report.
  void Finished(bool reachable);

 private:
  void OnFinished(QNetworkReply* reply);

  QUrl url_;
  QNetworkAccessManager network_;
  QPointer<QNetworkReply> reply_;
  std::optional<StatusReport> last_;
  bool answered_ = false;
};

}  // namespace kalvo::tray
