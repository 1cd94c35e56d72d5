// The tray icon with its menu, the windows it opens, and the watch on the server that
// colours the icon and raises notifications.
#pragma once

#include <QMenu>
#include <QObject>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>
#include <memory>
#include <string>

#include "app/status_window.h"
#include "core/tray_requests.h"

class QAction;

namespace kalvo::tray {

class AboutWindow;
class Captions;
class MessageWindow;
class StatusClient;

// How the companion's notifications look: five seconds on the screen, bottom right of the
// work area, slightly translucent.
struct NotificationStyle {
  int32_t display_seconds = 5;
  int32_t width_pixels = 320;   // capped by the window to 3500 twips
  int32_t height_pixels = 100;  // capped to 1500 twips
  int32_t max_alpha = 230;
  int32_t placement = 8;
};

// Shows `text` in the notification window `current` when one is showing (its display time
// starts again), else in a new one that `current` then refers to; the reference clears
// itself when the window has faded out.
MessageWindow* ShowNotification(QPointer<MessageWindow>& current, const QString& title,
                                const QString& text, int32_t icon_type,
                                const NotificationStyle& style = {});

class TrayController : public QObject {
  Q_OBJECT

 public:
  // `captions` and `client` must outlive the controller. `tray_enabled` is the Taskbaricon
  // setting: without it no icon is ever shown, while the watch on the server and its
  // notifications still run. `help_document` is the path of Kalvo.pdf.
  TrayController(const Captions& captions, StatusClient& client, bool tray_enabled,
                 std::string help_document, StatusWindow::Clock clock, QObject* parent = nullptr);
  ~TrayController() override;

  // Starts the timers: the desktop check (1 s), the pending-request check (100 ms) and
  // the reading of the server (1 s, the first at once).
  void Start();
  // Removes the icon (one delete attempt, as at the program's end) and stops the timers.
  void Shutdown();

  // The menu entries: status (opens the status window or brings it forward), help, info.
  void ShowStatusWindow();
  void ShowAboutWindow();
  void OpenHelp();
  // A left click on the icon: closes the status window when it is open, else opens it.
  void ToggleStatusWindow();

  QMenu& menu() { return menu_; }
  const TrayRequests& requests() const { return requests_; }
  StatusWindow* status_window() const { return status_window_; }
  AboutWindow* about_window() const { return about_window_; }
  MessageWindow* message_window() const { return message_window_; }
  // The picture the icon shows (or would show) now.
  QString picture_name() const;

 private:
  class Shell;

  void OnCheckTick();
  void OnServerReading(bool reachable);
  void UpdatePicture();

  enum class Reachability { kUnknown, kReachable, kUnreachable };

  const Captions& captions_;
  StatusClient& client_;
  std::string help_document_;
  StatusWindow::Clock clock_;
  TrayRequests requests_;
  Reachability reachability_ = Reachability::kUnknown;
  QMenu menu_;
  QSystemTrayIcon icon_;
  std::unique_ptr<Shell> shell_;
  QTimer check_timer_;
  QTimer desktop_timer_;
  QTimer ready_timer_;
  QTimer watch_timer_;
  QPointer<StatusWindow> status_window_;
  QPointer<AboutWindow> about_window_;
  QPointer<MessageWindow> message_window_;
  QString picture_;  // the picture last given to the icon
};

}  // namespace kalvo::tray
