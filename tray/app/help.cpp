#include "app/help.h"

#include <QMessageBox>
#include <QProcess>
#include <QStringList>
#include <cstdio>

#include "core/desktop_association.h"

namespace kalvo::tray {
namespace {

QString Local(const std::string& text) { return QString::fromLocal8Bit(text); }

}  // namespace

qint64 OpenHelpDocument(const std::string& document, const QString& title, QWidget* parent) {
  const DocumentLaunch launch = PrepareOpenDocument(
      document, XdgDirs::FromEnvironment(ProcessEnvironment), ProcessEnvironment);
  QString problem;
  qint64 pid = -1;
  switch (launch.result) {
    case DocumentLaunchResult::kNoDocument:
      problem = QStringLiteral("The help document %1 was not found.").arg(Local(document));
      break;
    case DocumentLaunchResult::kNoApplication:
      problem = QStringLiteral(
                    "No application is set up to open PDF documents (application/pdf), so the "
                    "help document %1 cannot be shown.")
                    .arg(Local(document));
      break;
    case DocumentLaunchResult::kUnusableCommand:
      problem = QStringLiteral("The command line of %1 cannot be used to open %2.")
                    .arg(Local(launch.application), Local(document));
      break;
    case DocumentLaunchResult::kReady: {
      QStringList args;
      for (size_t i = 1; i < launch.args.size(); ++i) args << Local(launch.args[i]);
      if (!QProcess::startDetached(Local(launch.args.front()), args, QString(), &pid)) {
        pid = -1;
        problem = QStringLiteral("%1 (from %2) could not be started to open %3.")
                      .arg(Local(launch.args.front()), Local(launch.application), Local(document));
      }
      break;
    }
  }
  if (!problem.isEmpty()) {
    std::fprintf(stderr, "kalvotray: %s\n", problem.toLocal8Bit().constData());
    QMessageBox::warning(parent, title, problem);
    return -1;
  }
  return pid;
}

}  // namespace kalvo::tray
