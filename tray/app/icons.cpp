#include "app/icons.h"

#include <QPainter>
#include <QPainterPath>

namespace kalvo::tray {

QPixmap DrawTrayPicture(TrayPicture picture, int size) {
  QPixmap pixmap(size, size);
  pixmap.fill(Qt::transparent);
  QPainter p(&pixmap);
  p.setRenderHint(QPainter::Antialiasing);
  p.scale(size / 32.0, size / 32.0);

  QColor body;
  switch (picture) {
    case TrayPicture::kInitial:
      body = QColor(0x8a, 0x8f, 0x98);
      break;
    case TrayPicture::kReady:
      body = QColor(0x2e, 0x9d, 0x4a);
      break;
    case TrayPicture::kUnreachable:
      body = QColor(0xc6, 0x2b, 0x2b);
      break;
  }
  // The card.
  QPainterPath card;
  card.addRoundedRect(QRectF(2, 6, 28, 20), 3.5, 3.5);
  p.fillPath(card, body);
  p.setPen(QPen(body.darker(140), 1.2));
  p.drawPath(card);
  // Its chip.
  p.setPen(QPen(QColor(0x6b, 0x55, 0x10), 0.8));
  p.setBrush(QColor(0xe8, 0xc5, 0x4a));
  p.drawRoundedRect(QRectF(6, 11, 8, 7), 1.5, 1.5);
  p.drawLine(QPointF(10, 11), QPointF(10, 18));
  p.drawLine(QPointF(6, 14.5), QPointF(14, 14.5));
  // Two lines of "print".
  p.setPen(QPen(QColor(255, 255, 255, 200), 1.6, Qt::SolidLine, Qt::RoundCap));
  p.drawLine(QPointF(18, 13), QPointF(26, 13));
  p.drawLine(QPointF(18, 17), QPointF(24, 17));
  if (picture == TrayPicture::kUnreachable) {
    p.setPen(QPen(Qt::white, 3.2, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(QPointF(19, 19), QPointF(29, 29));
    p.drawLine(QPointF(29, 19), QPointF(19, 29));
    p.setPen(QPen(QColor(0x7a, 0x10, 0x10), 1.8, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(QPointF(19, 19), QPointF(29, 29));
    p.drawLine(QPointF(29, 19), QPointF(19, 29));
  }
  return pixmap;
}

QIcon TrayIconPicture(TrayPicture picture) {
  QIcon icon;
  for (int size : {16, 22, 24, 32, 48, 64}) icon.addPixmap(DrawTrayPicture(picture, size));
  return icon;
}

}  // namespace kalvo::tray
