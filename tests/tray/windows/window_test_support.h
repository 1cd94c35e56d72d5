// Test support for the companion's windows: a stand-in status endpoint on 127.0.0.1, a
// language file in a temporary program directory, and waiting on the event loop.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

namespace kalvo::tray::testing {

// Runs the event loop until `done` holds or `ms` milliseconds have passed; gives `done()`.
inline bool WaitUntil(const std::function<bool()>& done, int ms = 5000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < ms) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
  return done();
}

// Lets the event loop run for `ms` milliseconds.
inline void Pump(int ms) {
  WaitUntil([] { return false; }, ms);
}

// Answers every HTTP request on 127.0.0.1 with `body` (status 200, JSON) and closes the
// connection. Listens from construction until Stop(); Listen() again on the same port.
class StandInEndpoint : public QObject {
 public:
  StandInEndpoint() { EXPECT_TRUE(Listen(0)); }

  bool Listen(quint16 port) {
    connect(&server_, &QTcpServer::newConnection, this, &StandInEndpoint::Serve,
            Qt::UniqueConnection);
    if (!server_.listen(QHostAddress::LocalHost, port)) return false;
    port_ = server_.serverPort();
    return true;
  }
  void Stop() { server_.close(); }

  quint16 port() const { return port_; }
  QString url() const { return QStringLiteral("http://127.0.0.1:%1/status").arg(port_); }

  std::string body;

 private:
  void Serve() {
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
      auto buffer = std::make_shared<QByteArray>();
      connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
        *buffer += socket->readAll();
        if (!buffer->contains("\r\n\r\n")) return;
        buffer->clear();
        const QByteArray payload = QByteArray::fromStdString(body);
        socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                      QByteArray::number(payload.size()) + "\r\nConnection: close\r\n\r\n" +
                      payload);
        socket->disconnectFromHost();
      });
      connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
  }

  QTcpServer server_;
  quint16 port_ = 0;
};

// The /status document of a listening server.
inline std::string ListeningJson(int64_t start, int sent, int received, int connections,
                                 int tokens) {
  return "{\"listening\":true,\"paused\":false,\"port\":15243,\"serverStartTime\":\"x\","
         "\"startTimeUnix\":" +
         std::to_string(start) + ",\"bytesSent\":" + std::to_string(sent) +
         ",\"bytesReceived\":" + std::to_string(received) +
         ",\"connectionCount\":" + std::to_string(connections) +
         ",\"tokenConnectionCount\":" + std::to_string(tokens) + ",\"requestsByPackageId\":{}}";
}

// A temporary program directory "kalvotray" would run from, holding an English language
// file (UTF-8, with characters that only a real Windows-1252 decode gets right).
class ProgramDir {
 public:
  ProgramDir() {
    char pattern[] = "/tmp/kalvotray_win_XXXXXX";
    EXPECT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  ~ProgramDir() { std::filesystem::remove_all(dir_); }

  void WriteEnglishFile() {
    std::ofstream(dir_ + "/kalvo.409", std::ios::binary) << R"([MAINWIN_SERVER]
TITLE=Vaultara - Server Component
[MENU_SERVER]
STATUS=Status
INFO=About
HELP=Help
[DLG_STATE]
TITLE=Server status
FRAME_CONNECTION=Connection
FRAME_ACTIVITIES=Activities
SENT=Sent:
RECEIVED=Received:
BYTES=bytes (€)
[DLG_STATE_SERVER]
CONNECTION=State:
CONNECTED=Ready since:
TIME=Uptime:
CONNECTION_COUNT=Connections (total/tokens):
STATE_ACTIVE=Active
STATE_INACTIVE=Inactive
TIME_DAY=day
TIME_DAYS=days
[DLG_INFO]
TITLE=About
FILE_VERSION=File version:
COPYRIGHT=© Orvanta – all rights reserved
[GENERAL]
BUTTON_CLOSE=Close
FORMAT_DATE=dd.mm.yyyy
FORMAT_TIME=hh:nn:ss
)";
  }

  const std::string& path() const { return dir_; }

 private:
  std::string dir_;
};

}  // namespace kalvo::tray::testing
