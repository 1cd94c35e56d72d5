// The status window: whether the server listens, since when and for how long, its
// connections and the bytes it sent and received, refreshed once a second.
#pragma once

#include <QDialog>
#include <QTimer>
#include <cstdint>
#include <functional>

class QLabel;

namespace kalvo::tray {

class Captions;
class StatusClient;

class StatusWindow : public QDialog {
  Q_OBJECT

 public:
  // Seconds since the epoch; tests pass a fixed clock.
  using Clock = std::function<int64_t()>;

  // Fills every caption and starts refreshing: a reading of `client` at once and every
  // second, the values shown again after each reading and each second. `captions` and
  // `client` must outlive the window. Escape, the close button and the frame close it; it
  // deletes itself when closed.
  StatusWindow(const Captions& captions, StatusClient& client, Clock clock,
               QWidget* parent = nullptr);

  // Shows the values for the client's last reading at the clock's present time, and asks
  // for a new reading.
  void RefreshStatus();

 private:
  void ShowValues();

  const Captions& captions_;
  StatusClient& client_;
  Clock clock_;
  QTimer refresh_timer_;
  QLabel* state_value_;
  QLabel* connected_value_;
  QLabel* time_value_;
  QLabel* connection_count_value_;
  QLabel* sent_value_;
  QLabel* received_value_;
};

}  // namespace kalvo::tray
