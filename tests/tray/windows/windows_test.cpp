// The status, about and notification windows and the tray controller on the offscreen
// platform, reading a stand-in status endpoint.
#include <QAction>
#include <QCursor>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QScreen>

#include "app/about_window.h"
#include "app/captions.h"
#include "app/message_window.h"
#include "app/status_client.h"
#include "app/status_window.h"
#include "app/tray_controller.h"
#include "infra/version.h"
#include "window_test_support.h"

namespace kalvo::tray {
namespace {

using testing::ListeningJson;
using testing::Pump;
using testing::WaitUntil;

// 2027-03-01 09:05:03 UTC.
constexpr int64_t kStart = 1803891903;

QString Label(const QWidget& window, const char* name) {
  const auto* label = window.findChild<QLabel*>(QLatin1String(name));
  return label != nullptr ? label->text() : QStringLiteral("(no label %1)").arg(name);
}

class WindowTest : public ::testing::Test {
 protected:
  WindowTest() : language_(ProgramInfo{program_.path(), "kalvotray"}, 0x09) {
    program_.WriteEnglishFile();
  }

  // A status window on the stand-in endpoint at the test's clock.
  QPointer<StatusWindow> OpenStatus(StatusClient& client) {
    auto* window = new StatusWindow(captions_, client, [this] { return now_; });
    window->show();
    return window;
  }

  testing::ProgramDir program_;
  Language language_;
  Captions captions_{language_, "kalvotray"};
  testing::StandInEndpoint endpoint_;
  int64_t now_ = kStart + 183845;
};

TEST_F(WindowTest, StatusWindowShowsTheListeningServersFigures) {
  endpoint_.body = ListeningJson(kStart, 1234, 56, 2, 1);
  StatusClient client{QUrl(endpoint_.url())};
  QPointer<StatusWindow> window = OpenStatus(client);
  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbStateValue") == "Active"; }));
  EXPECT_EQ(Label(*window, "lbConnectedValue"), "09:05:03 01.03.2027");
  EXPECT_EQ(Label(*window, "lbTimeValue"), "2 days 03:04:05");
  EXPECT_EQ(Label(*window, "lbConnectionCountValue"), "2/1");
  EXPECT_EQ(Label(*window, "lbSentValue"), "1234");
  EXPECT_EQ(Label(*window, "lbReceivedValue"), "56");

  EXPECT_EQ(window->windowTitle(), "Server status (kalvotray)");
  EXPECT_EQ(Label(*window, "lbState"), "State:");
  EXPECT_EQ(Label(*window, "lbConnectionCount"), "Connections (total/tokens):");
  EXPECT_EQ(Label(*window, "lbBytes"), QString::fromUtf16(u"bytes (\u20ac)"))
      << "Windows-1252 0x80 is the euro sign";
  EXPECT_EQ(window->findChild<QPushButton*>("bnClose")->text(), "Close");
  delete window;
}

TEST_F(WindowTest, StatusWindowShowsTheFixedTextsWhenNotListeningOrNotAnswering) {
  endpoint_.body = R"({"listening":false,"connectionCount":5,"bytesSent":7})";
  StatusClient client{QUrl(endpoint_.url())};
  QPointer<StatusWindow> window = OpenStatus(client);
  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbStateValue") == "Inactive"; }));
  const QStringList fixed{"-", "00:00:00", "0/0", "0", "0"};
  auto values = [&](const QWidget& w) {
    return QStringList{Label(w, "lbConnectedValue"), Label(w, "lbTimeValue"),
                       Label(w, "lbConnectionCountValue"), Label(w, "lbSentValue"),
                       Label(w, "lbReceivedValue")};
  };
  EXPECT_EQ(values(*window), fixed);
  delete window;

  endpoint_.Stop();  // nobody answers on the port any more
  StatusClient gone{QUrl(endpoint_.url())};
  window = OpenStatus(gone);
  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbStateValue") == "Inactive"; }));
  EXPECT_EQ(values(*window), fixed);
  delete window;
}

TEST_F(WindowTest, StatusWindowRefreshesEverySecond) {
  endpoint_.body = ListeningJson(kStart, 10, 20, 2, 1);
  StatusClient client{QUrl(endpoint_.url())};
  QPointer<StatusWindow> window = OpenStatus(client);
  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbConnectionCountValue") == "2/1"; }));
  endpoint_.body = ListeningJson(kStart, 99, 20, 3, 2);
  now_ += 1;
  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbConnectionCountValue") == "3/2"; }, 3000));
  EXPECT_EQ(Label(*window, "lbSentValue"), "99");
  EXPECT_EQ(Label(*window, "lbTimeValue"), "2 days 03:04:06");

  endpoint_.body = R"({"listening":false})";
  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbStateValue") == "Inactive"; }, 3000));
  delete window;
}

TEST_F(WindowTest, EscapeAndTheCloseButtonCloseTheWindow) {
  endpoint_.body = ListeningJson(kStart, 0, 0, 0, 0);
  StatusClient client{QUrl(endpoint_.url())};
  QPointer<StatusWindow> window = OpenStatus(client);
  QPushButton* close = window->findChild<QPushButton*>("bnClose");
  QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
  QCoreApplication::sendEvent(close, &escape);
  EXPECT_TRUE(WaitUntil([&] { return window.isNull(); }, 2000)) << "Escape on the button";

  window = OpenStatus(client);
  window->findChild<QPushButton*>("bnClose")->click();
  EXPECT_TRUE(WaitUntil([&] { return window.isNull(); }, 2000)) << "the close button";
}

TEST_F(WindowTest, AboutWindowShowsVersionAndCopyright) {
  QPointer<AboutWindow> window = new AboutWindow(captions_);
  EXPECT_EQ(window->windowTitle(), "About (kalvotray)");
  EXPECT_EQ(Label(*window, "lbFileVersionTitle"), "File version:");
  EXPECT_EQ(Label(*window, "lbFileVersionValue").toStdString(), GetVersionText("FileVersion"));
  EXPECT_FALSE(Label(*window, "lbFileVersionValue").isEmpty());
  EXPECT_EQ(Label(*window, "lbCopyright"),
            QString::fromUtf16(u"\u00a9 Orvanta \u2013 all rights reserved"))
      << "Windows-1252 0x96 is the en dash";
  delete window;

  // Without a language file the labels are empty; the version still shows.
  testing::ProgramDir empty;
  Language none(ProgramInfo{empty.path(), "kalvotray"}, 0x07);
  const Captions no_captions(none, "kalvotray");
  window = new AboutWindow(no_captions);
  EXPECT_EQ(Label(*window, "lbFileVersionTitle"), "");
  EXPECT_EQ(Label(*window, "lbCopyright"), "");
  EXPECT_EQ(Label(*window, "lbFileVersionValue").toStdString(), GetVersionText("FileVersion"));
  delete window;
}

// The notification window of the usual style, on the offscreen screen.
QPointer<MessageWindow> Notify(QPointer<MessageWindow>& current, int32_t seconds,
                               int32_t placement = 8) {
  NotificationStyle style;
  style.display_seconds = seconds;
  style.width_pixels = 400;  // beyond the caps
  style.height_pixels = 300;
  style.placement = placement;
  return ShowNotification(current, "Title", "Server status: Inactive", kIconWarning, style);
}

TEST_F(WindowTest, NotificationSitsBottomRightFadesAndGoes) {
  QPointer<MessageWindow> current;
  QPointer<MessageWindow> window = Notify(current, 1);
  const double tx = window->twips_per_pixel_x();
  EXPECT_EQ(window->width(), qRound(3500 / tx)) << "capped at 3500 twips";
  EXPECT_EQ(window->height(), qRound(1500 / window->twips_per_pixel_y()));
  const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
  EXPECT_NEAR(window->x() + window->width(), area.width(), 1);
  EXPECT_NEAR(window->y() + window->height(), area.height(), 1);
  EXPECT_EQ(window->windowOpacity(), 0.0);

  ASSERT_TRUE(WaitUntil([&] { return Label(*window, "lbMessage") == "Server status: Inactive"; }));
  EXPECT_EQ(window->windowTitle(), "Title");
  ASSERT_TRUE(WaitUntil([&] { return !window.isNull() && !window->fade().fading_in(); }, 3000));
  EXPECT_EQ(window->fade().alpha(), 231) << "the first step of 3 at or above 230";
  // One second of display time, then about 0.8 s of fading out.
  EXPECT_TRUE(WaitUntil([&] { return current.isNull(); }, 6000));
  EXPECT_TRUE(window.isNull());
}

TEST_F(WindowTest, NotificationIsHeldWhileTheCursorRestsOnIt) {
  const QPoint away(400, 300);  // the window goes to the top left corner
  QCursor::setPos(away);
  QPointer<MessageWindow> current;
  QPointer<MessageWindow> window = Notify(current, 0, 1);  // no display time
  ASSERT_TRUE(WaitUntil([&] { return !window.isNull() && !window->fade().fading_in(); }, 3000));
  Pump(1200);
  ASSERT_FALSE(window.isNull()) << "a display time of 0 never ends by itself";

  QCursor::setPos(window->geometry().center());
  ASSERT_TRUE(WaitUntil([&] { return !window.isNull() && window->fade().mouse_over(); }, 1000));
  EXPECT_EQ(window->fade().alpha(), 255);
  QCursor::setPos(away);
  EXPECT_TRUE(WaitUntil([&] { return window.isNull(); }, 3000)) << "leaving fades it out";
}

class TrayControllerTest : public WindowTest {};

TEST_F(TrayControllerTest, MenuOpensOneWindowOfEachKindAndTheIconTogglesStatus) {
  endpoint_.body = ListeningJson(kStart, 0, 0, 0, 0);
  StatusClient client{QUrl(endpoint_.url())};
  TrayController tray(captions_, client, true, program_.path() + "/Kalvo.pdf",
                      [this] { return now_; });
  const QList<QAction*> actions = tray.menu().actions();
  ASSERT_EQ(actions.size(), 4);
  EXPECT_EQ(actions[0]->text(), "Status");
  EXPECT_EQ(actions[1]->text(), "Help");
  EXPECT_TRUE(actions[2]->isSeparator());
  EXPECT_EQ(actions[3]->text(), "About");

  actions[0]->trigger();
  QPointer<StatusWindow> first = tray.status_window();
  ASSERT_FALSE(first.isNull());
  tray.ShowStatusWindow();
  EXPECT_EQ(tray.status_window(), first) << "a second request brings the same window forward";

  tray.ToggleStatusWindow();  // left click while open
  EXPECT_TRUE(WaitUntil([&] { return first.isNull(); }, 2000));
  tray.ToggleStatusWindow();  // and again
  EXPECT_NE(tray.status_window(), nullptr);

  actions[3]->trigger();
  QPointer<AboutWindow> about = tray.about_window();
  ASSERT_FALSE(about.isNull());
  tray.ShowAboutWindow();
  EXPECT_EQ(tray.about_window(), about);
}

TEST_F(TrayControllerTest, ServerGoingAwayAndComingBackRaisesNotifications) {
  endpoint_.body = ListeningJson(kStart, 0, 0, 1, 0);
  StatusClient client{QUrl(endpoint_.url())};
  TrayController tray(captions_, client, true, program_.path() + "/Kalvo.pdf",
                      [this] { return now_; });
  tray.Start();
  ASSERT_TRUE(WaitUntil([&] { return client.last().has_value(); }));
  EXPECT_EQ(tray.message_window(), nullptr) << "reachable from the start: nothing to say";
  EXPECT_NE(tray.picture_name(), "unreachable");

  const quint16 port = endpoint_.port();
  endpoint_.Stop();
  ASSERT_TRUE(WaitUntil([&] { return tray.message_window() != nullptr; }, 4000));
  QPointer<MessageWindow> message = tray.message_window();
  ASSERT_TRUE(WaitUntil([&] { return Label(*message, "lbMessage") == "Server status: Inactive"; }));
  EXPECT_EQ(message->windowTitle(), "Vaultara - Server Component");
  EXPECT_EQ(tray.picture_name(), "unreachable");

  ASSERT_TRUE(endpoint_.Listen(port));
  ASSERT_TRUE(WaitUntil(
      [&] {
        return tray.message_window() != nullptr &&
               Label(*tray.message_window(), "lbMessage") == "Server status: Active";
      },
      4000));
  EXPECT_NE(tray.picture_name(), "unreachable");
  tray.Shutdown();
}

}  // namespace
}  // namespace kalvo::tray
