#include "app/tray_controller.h"

#include <QAction>
#include <QGuiApplication>
#include <QScreen>
#include <ctime>

#include "app/about_window.h"
#include "app/captions.h"
#include "app/help.h"
#include "app/icons.h"
#include "app/message_window.h"
#include "app/status_client.h"

namespace kalvo::tray {
namespace {

// The tip of the icon in every state.
constexpr const char16_t* kTip = u"Vaultara - Server";

void BringForward(QWidget* window) {
  window->show();
  window->raise();
  window->activateWindow();
}

}  // namespace

// The system tray calls on Qt's tray icon. Adding fails while no system tray is available
// (the panel has not started yet), so the request is tried again on the next tick.
class TrayController::Shell : public TrayShell {
 public:
  explicit Shell(QSystemTrayIcon& icon) : icon_(icon) {}

  bool AddIcon() override {
    if (!QSystemTrayIcon::isSystemTrayAvailable()) return false;
    icon_.setToolTip(QString::fromUtf16(kTip));
    icon_.show();
    return icon_.isVisible();
  }
  bool ModifyIcon() override {
    if (!icon_.isVisible()) return false;
    return true;  // the picture follows from the new state in UpdatePicture()
  }
  bool DeleteIcon() override {
    icon_.hide();
    return true;
  }

 private:
  QSystemTrayIcon& icon_;
};

MessageWindow* ShowNotification(QPointer<MessageWindow>& current, const QString& title,
                                const QString& text, int32_t icon_type,
                                const NotificationStyle& style) {
  const bool fresh = current.isNull();
  if (fresh) current = new MessageWindow;
  MessageWindow& window = *current;
  window.SetTitle(title);
  window.SetMessage(text);
  window.SetIconType(icon_type);
  window.SetUpdatePending(true);
  if (fresh) {
    window.SetDisplayTime(style.display_seconds);
    window.SetHorizontalExtent(style.width_pixels);
    window.SetVerticalExtent(style.height_pixels);
    window.SetMaxAlpha(style.max_alpha);
    window.SetMinAlpha(0);
    window.SetPlacementValue(style.placement);
    window.Load();
  }
  return current;
}

TrayController::TrayController(const Captions& captions, StatusClient& client, bool tray_enabled,
                               std::string help_document, StatusWindow::Clock clock,
                               QObject* parent)
    : QObject(parent),
      captions_(captions),
      client_(client),
      help_document_(std::move(help_document)),
      clock_(std::move(clock)),
      requests_(tray_enabled),
      shell_(std::make_unique<Shell>(icon_)) {
  QAction* status = menu_.addAction(captions.Text("MENU_SERVER", "STATUS"));
  status->setObjectName(QStringLiteral("mnStatus"));
  QAction* help = menu_.addAction(captions.Text("MENU_SERVER", "HELP"));
  help->setObjectName(QStringLiteral("mnHelp"));
  menu_.addSeparator()->setObjectName(QStringLiteral("mnTrenner"));
  QAction* info = menu_.addAction(captions.Text("MENU_SERVER", "INFO"));
  info->setObjectName(QStringLiteral("mnInfo"));
  connect(status, &QAction::triggered, this, &TrayController::ShowStatusWindow);
  connect(help, &QAction::triggered, this, &TrayController::OpenHelp);
  connect(info, &QAction::triggered, this, &TrayController::ShowAboutWindow);

  icon_.setContextMenu(&menu_);  // right click
  connect(&icon_, &QSystemTrayIcon::activated, this,
          [this](QSystemTrayIcon::ActivationReason reason) {
            if (reason == QSystemTrayIcon::Trigger) ToggleStatusWindow();
          });
  UpdatePicture();

  check_timer_.setInterval(TrayRequests::kCheckIntervalMs);
  desktop_timer_.setInterval(TrayRequests::kDesktopIntervalMs);
  ready_timer_.setSingleShot(true);
  watch_timer_.setInterval(1000);
  connect(&check_timer_, &QTimer::timeout, this, &TrayController::OnCheckTick);
  connect(&desktop_timer_, &QTimer::timeout, this,
          [this] { requests_.DesktopTick(QGuiApplication::primaryScreen() != nullptr); });
  connect(&ready_timer_, &QTimer::timeout, this, [this] { requests_.ReadyTick(); });
  connect(&watch_timer_, &QTimer::timeout, &client_, &StatusClient::Fetch);
  connect(&client_, &StatusClient::Finished, this, &TrayController::OnServerReading);
}

TrayController::~TrayController() {
  // Windows without a parent are this controller's to close.
  for (QWidget* window :
       {static_cast<QWidget*>(status_window_.data()), static_cast<QWidget*>(about_window_.data()),
        static_cast<QWidget*>(message_window_.data())}) {
    delete window;
  }
}

void TrayController::Start() {
  if (requests_.enabled()) {
    check_timer_.start();
    desktop_timer_.start();
  }
  watch_timer_.start();
  client_.Fetch();
}

void TrayController::Shutdown() {
  requests_.Request(kTrayDeleted);
  OnCheckTick();
  for (QTimer* timer : {&check_timer_, &desktop_timer_, &ready_timer_, &watch_timer_}) {
    timer->stop();
  }
}

void TrayController::OnCheckTick() {
  requests_.CheckTick(*shell_);
  if (requests_.ready_interval_ms() > 0 && !ready_timer_.isActive()) {
    ready_timer_.start(requests_.ready_interval_ms());
  }
  UpdatePicture();
}

void TrayController::OnServerReading(bool reachable) {
  const Reachability before = reachability_;
  reachability_ = reachable ? Reachability::kReachable : Reachability::kUnreachable;
  const QString title = captions_.Text("MAINWIN_SERVER", "TITLE");
  const QString status = captions_.Text("DLG_STATE", "TITLE") + QStringLiteral(": ");
  if (!reachable && before != Reachability::kUnreachable) {
    ShowNotification(message_window_, title,
                     status + captions_.Text("DLG_STATE_SERVER", "STATE_INACTIVE"), kIconWarning);
  } else if (reachable && before == Reachability::kUnreachable) {
    ShowNotification(message_window_, title,
                     status + captions_.Text("DLG_STATE_SERVER", "STATE_ACTIVE"), 0);
  }
  UpdatePicture();
}

QString TrayController::picture_name() const {
  if (reachability_ == Reachability::kUnreachable) return QStringLiteral("unreachable");
  return requests_.icon_state() == kTrayReady ? QStringLiteral("ready") : QStringLiteral("initial");
}

void TrayController::UpdatePicture() {
  const QString name = picture_name();
  if (picture_ == name) return;
  picture_ = name;
  if (name == QStringLiteral("unreachable")) {
    icon_.setIcon(TrayIconPicture(TrayPicture::kUnreachable));
  } else if (name == QStringLiteral("ready")) {
    icon_.setIcon(TrayIconPicture(TrayPicture::kReady));
  } else {
    icon_.setIcon(TrayIconPicture(TrayPicture::kInitial));
  }
}

void TrayController::ShowStatusWindow() {
  if (status_window_.isNull()) status_window_ = new StatusWindow(captions_, client_, clock_);
  BringForward(status_window_);
}

void TrayController::ToggleStatusWindow() {
  if (!status_window_.isNull()) {
    status_window_->close();
    return;
  }
  ShowStatusWindow();
}

void TrayController::ShowAboutWindow() {
  if (about_window_.isNull()) about_window_ = new AboutWindow(captions_);
  BringForward(about_window_);
}

void TrayController::OpenHelp() {
  OpenHelpDocument(help_document_, captions_.Text("MAINWIN_SERVER", "TITLE"), nullptr);
}

}  // namespace kalvo::tray
