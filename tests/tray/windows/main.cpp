// The window tests run on Qt's offscreen platform: no display is needed.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <QApplication>
#include <QString>

namespace {

QtMessageHandler default_handler = nullptr;

// The offscreen platform reports every window opacity and raise it cannot carry out; the
// windows do both many times a second.
void QuietHandler(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  if (message.startsWith(QStringLiteral("This plugin does not support"))) return;
  default_handler(type, context, message);
}

}  // namespace

int main(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  setenv("TZ", "UTC", 1);
  // The system number format with a point: the uptime's whole units are rounded.
  setenv("LC_ALL", "C", 1);
  default_handler = qInstallMessageHandler(QuietHandler);
  QApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
