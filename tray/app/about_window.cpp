#include "app/about_window.h"

#include <QGridLayout>
#include <QLabel>

#include "app/captions.h"
#include "app/icons.h"
#include "infra/version.h"

namespace kalvo::tray {

AboutWindow::AboutWindow(const Captions& captions, QWidget* parent) : QDialog(parent) {
  setAttribute(Qt::WA_DeleteOnClose);
  setObjectName(QStringLiteral("AboutWindow"));
  setWindowTitle(captions.WindowTitle("DLG_INFO"));

  auto* picture = new QLabel(this);
  picture->setObjectName(QStringLiteral("pbZentaraKDX"));
  picture->setPixmap(DrawTrayPicture(TrayPicture::kReady, 64));
  // The picture holds the focus, so Escape reaches the window through it.
  picture->setFocusPolicy(Qt::StrongFocus);

  auto* version_title = new QLabel(captions.Text("DLG_INFO", "FILE_VERSION"), this);
  version_title->setObjectName(QStringLiteral("lbFileVersionTitle"));
  auto* version_value = new QLabel(FromCp1252(GetVersionText("FileVersion")), this);
  version_value->setObjectName(QStringLiteral("lbFileVersionValue"));
  version_value->setTextInteractionFlags(Qt::TextSelectableByMouse);
  auto* copyright = new QLabel(captions.Text("DLG_INFO", "COPYRIGHT"), this);
  copyright->setObjectName(QStringLiteral("lbCopyright"));

  auto* layout = new QGridLayout(this);
  layout->setHorizontalSpacing(16);
  layout->addWidget(picture, 0, 0, 2, 1, Qt::AlignTop);
  layout->addWidget(version_title, 0, 1);
  layout->addWidget(version_value, 0, 2);
  layout->addWidget(copyright, 1, 1, 1, 2);
  layout->setColumnStretch(2, 1);
  layout->setSizeConstraint(QLayout::SetFixedSize);
  picture->setFocus();
}

}  // namespace kalvo::tray
