#include "app/status_window.h"

#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "app/captions.h"
#include "app/status_client.h"

namespace kalvo::tray {
namespace {

// A label with the object name the window's controls have always had, so that scripts
// and tests can find it.
QLabel* NamedLabel(const char* name, const QString& text, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setObjectName(QLatin1String(name));
  return label;
}

QLabel* ValueLabel(const char* name, QWidget* parent) {
  QLabel* label = NamedLabel(name, QString(), parent);
  label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  label->setMinimumWidth(150);
  return label;
}

}  // namespace

StatusWindow::StatusWindow(const Captions& captions, StatusClient& client, Clock clock,
                           QWidget* parent)
    : QDialog(parent), captions_(captions), client_(client), clock_(std::move(clock)) {
  setAttribute(Qt::WA_DeleteOnClose);
  setObjectName(QStringLiteral("StatusWindow"));
  setWindowTitle(captions.WindowTitle("DLG_STATE"));

  auto* connection = new QGroupBox(captions.Text("DLG_STATE", "FRAME_CONNECTION"), this);
  connection->setObjectName(QStringLiteral("frConnection"));
  auto* connection_grid = new QGridLayout(connection);
  state_value_ = ValueLabel("lbStateValue", connection);
  connected_value_ = ValueLabel("lbConnectedValue", connection);
  time_value_ = ValueLabel("lbTimeValue", connection);
  connection_count_value_ = ValueLabel("lbConnectionCountValue", connection);
  const struct {
    const char* name;
    const char* key;
    QLabel* value;
  } connection_rows[] = {
      {"lbState", "CONNECTION", state_value_},
      {"lbConnected", "CONNECTED", connected_value_},
      {"lbTime", "TIME", time_value_},
      {"lbConnectionCount", "CONNECTION_COUNT", connection_count_value_},
  };
  int row = 0;
  for (const auto& r : connection_rows) {
    connection_grid->addWidget(
        NamedLabel(r.name, captions.Text("DLG_STATE_SERVER", r.key), connection), row, 0);
    connection_grid->addWidget(r.value, row++, 1);
  }

  auto* activities = new QGroupBox(captions.Text("DLG_STATE", "FRAME_ACTIVITIES"), this);
  activities->setObjectName(QStringLiteral("frActivities"));
  auto* activity_grid = new QGridLayout(activities);
  sent_value_ = ValueLabel("lbSentValue", activities);
  received_value_ = ValueLabel("lbReceivedValue", activities);
  sent_value_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  received_value_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  activity_grid->addWidget(NamedLabel("lbSent", captions.Text("DLG_STATE", "SENT"), activities), 0,
                           0);
  activity_grid->addWidget(sent_value_, 0, 1);
  activity_grid->addWidget(
      NamedLabel("lbReceived", captions.Text("DLG_STATE", "RECEIVED"), activities), 1, 0);
  activity_grid->addWidget(received_value_, 1, 1);
  // One unit label beside both counts.
  activity_grid->addWidget(NamedLabel("lbBytes", captions.Text("DLG_STATE", "BYTES"), activities),
                           0, 2, 2, 1, Qt::AlignVCenter);
  activity_grid->setColumnStretch(1, 1);

  auto* close = new QPushButton(captions.Text("GENERAL", "BUTTON_CLOSE"), this);
  close->setObjectName(QStringLiteral("bnClose"));
  close->setDefault(true);
  connect(close, &QPushButton::clicked, this, &QDialog::close);
  auto* buttons = new QHBoxLayout;
  buttons->addStretch();
  buttons->addWidget(close);

  auto* layout = new QVBoxLayout(this);
  layout->addWidget(connection);
  layout->addWidget(activities);
  layout->addLayout(buttons);
  layout->setSizeConstraint(QLayout::SetFixedSize);

  connect(&client_, &StatusClient::Finished, this, &StatusWindow::ShowValues);
  refresh_timer_.setInterval(1000);
  connect(&refresh_timer_, &QTimer::timeout, this, &StatusWindow::RefreshStatus);
  refresh_timer_.start();
  RefreshStatus();
}

void StatusWindow::RefreshStatus() {
  // Until the first reading has finished there is nothing to show yet; afterwards the last
  // reading is shown with the present uptime while the next one is under way.
  if (client_.has_answered()) ShowValues();
  client_.Fetch();
}

void StatusWindow::ShowValues() {
  const StatusValues v = RefreshStatusValues(client_.last(), clock_(), captions_.ForStatus(),
                                             SystemDecimalSeparator());
  state_value_->setText(FromCp1252(v.state));
  connected_value_->setText(FromCp1252(v.connected));
  time_value_->setText(FromCp1252(v.time));
  connection_count_value_->setText(FromCp1252(v.connection_count));
  sent_value_->setText(FromCp1252(v.sent));
  received_value_->setText(FromCp1252(v.received));
}

}  // namespace kalvo::tray
