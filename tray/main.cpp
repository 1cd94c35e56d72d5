// kalvotray: the desktop companion of the Vaultara server component. A tray icon with the status,
// help and about entries, notifications when the server stops or starts answering, and single
// windows on request for scripts and screenshots.
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QApplication>
#include <QLabel>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "app/about_window.h"
#include "app/captions.h"
#include "app/message_window.h"
#include "app/status_client.h"
#include "app/status_window.h"
#include "app/tray_controller.h"
#include "core/command_line.h"
#include "core/tray_settings.h"
#include "infra/files.h"
#include "infra/language.h"
#include "infra/program_info.h"
#include "infra/text_encoding.h"
#include "infra/version.h"

namespace {

using kalvo::tray::CommandLine;

int signal_pipe[2] = {-1, -1};

void OnSignal(int) {
  const char byte = 1;
  [[maybe_unused]] const ssize_t n = ::write(signal_pipe[1], &byte, 1);
}

// SIGTERM (the session ends), SIGINT and SIGHUP end the event loop in order, so that the
// tray icon is removed as at any other end of the program.
void QuitOnSignals(QApplication& app) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signal_pipe) != 0) return;
  auto* notifier = new QSocketNotifier(signal_pipe[0], QSocketNotifier::Read, &app);
  QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
    char byte = 0;
    [[maybe_unused]] const ssize_t n = ::read(signal_pipe[0], &byte, 1);
    QCoreApplication::quit();
  });
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(sig, &action, nullptr);
}

int64_t Now() { return static_cast<int64_t>(std::time(nullptr)); }

// Writes `window` as a PNG image to `path` and its labels ("lbStateValue: Active") to
// standard output; false when the image cannot be written.
bool WriteScreenshot(QWidget& window, const std::string& path) {
  for (const QLabel* label : window.findChildren<QLabel*>()) {
    if (!label->objectName().startsWith(QStringLiteral("lb"))) continue;
    std::printf("%s: %s\n", label->objectName().toLocal8Bit().constData(),
                label->text().toLocal8Bit().constData());
  }
  std::fflush(stdout);
  const QString file = QString::fromLocal8Bit(path);
  if (window.grab().save(file, "PNG")) return true;
  std::fprintf(stderr, "kalvotray: could not write %s\n", path.c_str());
  return false;
}

// Takes the screenshot once `ready` has fired, then ends the program with its result.
template <typename Sender, typename Signal>
void ScreenshotWhen(QWidget* window, const std::string& path, Sender* sender, Signal ready) {
  QObject::connect(sender, ready, window, [window, path] {
    // Let the window lay out and paint the new values before it is grabbed.
    QTimer::singleShot(50, window, [window, path] {
      QCoreApplication::exit(WriteScreenshot(*window, path) ? 0 : 1);
    });
  });
}

// Qt ends the process when it cannot reach a display; say so plainly instead.
bool HaveDisplay() {
  for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string error;
  const std::optional<CommandLine> line = kalvo::tray::ParseCommandLine(args, &error);
  if (!line) {
    std::fprintf(stderr, "kalvotray: %s\n%s\n", error.c_str(), kalvo::tray::UsageLine().c_str());
    return 2;
  }
  if (line->help) {
    std::fputs(kalvo::tray::HelpText().c_str(), stdout);
    return 0;
  }
  if (line->version) {
    std::printf("kalvotray %s\n%s\n", kalvo::GetVersionText("FileVersion").c_str(),
                kalvo::Cp1252ToUtf8(kalvo::GetVersionText("LegalCopyright")).c_str());
    return 0;
  }

  if (!HaveDisplay()) {
    std::fprintf(stderr,
                 "kalvotray: no display (DISPLAY, WAYLAND_DISPLAY and QT_QPA_PLATFORM "
                 "are not set)\n");
    return 1;
  }
  QApplication app(argc, argv);
  QApplication::setApplicationName(QStringLiteral("kalvotray"));
  QuitOnSignals(app);

  const kalvo::ProgramInfo program = kalvo::CurrentProgram();
  kalvo::Language language(program, kalvo::LanguageIdFromLocale());
  const kalvo::tray::Captions captions(language, program.name);
  const kalvo::tray::TraySettings settings =
      kalvo::tray::ReadTraySettings(kalvo::tray::TrayRegistryPath(line->registry));
  const std::string url = line->status_url.empty()
                              ? kalvo::tray::DefaultStatusUrl(settings.status_port)
                              : line->status_url;
  kalvo::tray::StatusClient client(QUrl(QString::fromLocal8Bit(url)));

  switch (line->show) {
    case CommandLine::Show::kStatus: {
      auto* window = new kalvo::tray::StatusWindow(captions, client, Now);
      if (!line->screenshot.empty()) {
        ScreenshotWhen(window, line->screenshot, &client, &kalvo::tray::StatusClient::Finished);
      }
      window->show();
      return app.exec();
    }
    case CommandLine::Show::kAbout: {
      auto* window = new kalvo::tray::AboutWindow(captions);
      window->show();
      if (!line->screenshot.empty()) {
        QTimer::singleShot(200, window, [window, path = line->screenshot] {
          QCoreApplication::exit(WriteScreenshot(*window, path) ? 0 : 1);
        });
      }
      return app.exec();
    }
    case CommandLine::Show::kNotify: {
      QPointer<kalvo::tray::MessageWindow> current;
      kalvo::tray::MessageWindow* window =
          kalvo::tray::ShowNotification(current, captions.Text("MAINWIN_SERVER", "TITLE"),
                                        QString::fromLocal8Bit(line->notify_text), 0);
      QObject::connect(window, &QObject::destroyed, &app, &QCoreApplication::quit);
      if (!line->screenshot.empty()) {
        ScreenshotWhen(window, line->screenshot, window, &kalvo::tray::MessageWindow::FadedIn);
      }
      return app.exec();
    }
    case CommandLine::Show::kTray:
      break;
  }

  QApplication::setQuitOnLastWindowClosed(false);
  kalvo::tray::TrayController tray(captions, client, settings.tray_enabled,
                                   kalvo::WithTrailingSlash(program.dir) + "Kalvo.pdf", Now);
  QObject::connect(&app, &QCoreApplication::aboutToQuit, &tray,
                   &kalvo::tray::TrayController::Shutdown);
  tray.Start();
  return app.exec();
}
