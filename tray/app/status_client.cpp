#include "app/status_client.h"

#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>

namespace kalvo::tray {

StatusClient::StatusClient(QUrl url, QObject* parent) : QObject(parent), url_(std::move(url)) {
  // The endpoint is on this machine; a proxy from the environment must not get in between.
  network_.setProxy(QNetworkProxy::NoProxy);
}

void StatusClient::Fetch() {
  if (busy()) return;
  QNetworkRequest request(url_);
  request.setTransferTimeout(kTimeoutMs);
  reply_ = network_.get(request);
  QNetworkReply* reply = reply_.data();
  connect(reply, &QNetworkReply::finished, this, [this, reply] { OnFinished(reply); });
}

void StatusClient::OnFinished(QNetworkReply* reply) {
  reply->deleteLater();
  reply_.clear();
  last_.reset();
  if (reply->error() == QNetworkReply::NoError) {
    const QByteArray body = reply->readAll();
    last_ = ParseStatusJson(std::string_view(body.constData(), static_cast<size_t>(body.size())));
  }
  answered_ = true;
  emit Finished(last_.has_value());
}

}  // namespace kalvo::tray
