#include "app/message_window.h"

#include <QCursor>
#include <QGuiApplication>
#include <QLabel>
#include <QPainter>
#include <QScreen>
#include <QStyle>
#include <algorithm>
#include <cmath>

namespace kalvo::tray {
namespace {

constexpr double kTwipsPerInch = 1440.0;
// The message label's margins in twips: room for the icon at the left.
constexpr double kLabelLeft = 960, kLabelTop = 240, kLabelRight = 240, kLabelBottom = 240;

QScreen* ScreenOf(const QWidget* widget) {
  QScreen* screen = widget->screen();
  return screen != nullptr ? screen : QGuiApplication::primaryScreen();
}

QStyle::StandardPixmap IconFor(int32_t type) {
  switch (type) {
    case kIconWarning:
      return QStyle::SP_MessageBoxWarning;
    case kIconError:
      return QStyle::SP_MessageBoxCritical;
    case kIconQuestion:
      return QStyle::SP_MessageBoxQuestion;
    default:
      return QStyle::SP_MessageBoxInformation;
  }
}

int Pixels(double twips, double twips_per_pixel) {
  return static_cast<int>(std::lround(twips / twips_per_pixel));
}

}  // namespace

MessageWindow::MessageWindow(QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus) {
  setAttribute(Qt::WA_DeleteOnClose);
  setAttribute(Qt::WA_ShowWithoutActivating);
  setObjectName(QStringLiteral("TransparentMessageWindow"));
  setAutoFillBackground(true);
  icon_ = new QLabel(this);
  icon_->setObjectName(QStringLiteral("pbIcon"));
  text_ = new QLabel(this);
  text_->setObjectName(QStringLiteral("lbMessage"));
  text_->setWordWrap(true);
  text_->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);

  for (QTimer* timer : {&fade_in_timer_, &fade_out_timer_, &update_timer_}) {
    timer->setInterval(MessageFade::kStepMs);
  }
  mouse_timer_.setInterval(MessageFade::kMouseCheckMs);
  close_timer_.setSingleShot(true);
  connect(&fade_in_timer_, &QTimer::timeout, this, &MessageWindow::OnFadeIn);
  connect(&fade_out_timer_, &QTimer::timeout, this, &MessageWindow::OnFadeOut);
  connect(&close_timer_, &QTimer::timeout, this, &MessageWindow::OnClose);
  connect(&update_timer_, &QTimer::timeout, this, &MessageWindow::OnUpdate);
  connect(&mouse_timer_, &QTimer::timeout, this, &MessageWindow::OnMouseMove);
  update_timer_.start();
  mouse_timer_.start();
}

double MessageWindow::twips_per_pixel_x() const {
  return kTwipsPerInch / ScreenOf(this)->logicalDotsPerInchX();
}

double MessageWindow::twips_per_pixel_y() const {
  return kTwipsPerInch / ScreenOf(this)->logicalDotsPerInchY();
}

void MessageWindow::SetHorizontalExtent(int32_t pixels) {
  fade_.SetHorizontalExtent(pixels, twips_per_pixel_x());
}

void MessageWindow::SetVerticalExtent(int32_t pixels) {
  fade_.SetVerticalExtent(pixels, twips_per_pixel_y());
}

void MessageWindow::Load() {
  const double tx = twips_per_pixel_x(), ty = twips_per_pixel_y();
  const int width = Pixels(fade_.width_twips(), tx);
  const int height = Pixels(fade_.height_twips(), ty);
  setFixedSize(width, height);
  text_->setGeometry(Pixels(kLabelLeft, tx), Pixels(kLabelTop, ty),
                     Pixels(fade_.width_twips() - kLabelLeft - kLabelRight, tx),
                     Pixels(fade_.height_twips() - kLabelTop - kLabelBottom, ty));
  const int icon_size = std::min(Pixels(kLabelLeft - kLabelRight, tx), 32);
  icon_->setGeometry(Pixels(kLabelRight, tx), Pixels(kLabelTop, ty), icon_size, icon_size);

  const QRect area = ScreenOf(this)->availableGeometry();
  const PixelRect work{area.left(), area.top(), area.left() + area.width(),
                       area.top() + area.height()};
  const TwipsPoint at = PlaceMessageWindow(fade_.placement(), work, tx, ty, fade_.width_twips(),
                                           fade_.height_twips());
  move(Pixels(at.left, tx), Pixels(at.top, ty));

  fade_.Load();
  ApplyAlpha();
  show();
  raise();
  SyncTimers();
}

void MessageWindow::paintEvent(QPaintEvent* event) {
  QWidget::paintEvent(event);
  QPainter painter(this);
  painter.setPen(palette().color(QPalette::Mid));
  painter.drawRect(rect().adjusted(0, 0, -1, -1));
}

void MessageWindow::ApplyAlpha() { setWindowOpacity(std::clamp(fade_.alpha(), 0, 255) / 255.0); }

void MessageWindow::SyncTimers() {
  auto sync = [](QTimer& timer, bool on) {
    if (on && !timer.isActive()) timer.start();
    if (!on) timer.stop();
  };
  sync(fade_in_timer_, fade_.fading_in());
  sync(fade_out_timer_, fade_.fading_out());
  // A display time of 0 never ends by itself (the window then stays until the cursor has
  // been on it and left): a zero-interval QTimer would fire at once, so it is not started.
  if (!fade_.close_running()) {
    close_timer_.stop();
  } else if (!close_timer_.isActive() || close_timer_.interval() != fade_.close_interval_ms()) {
    close_timer_.start(fade_.close_interval_ms());
  }
}

void MessageWindow::OnFadeIn() {
  const bool was_fading = fade_.fading_in();
  fade_.FadeInTick();
  ApplyAlpha();
  // The close timer is started anew whenever fading in ends.
  if (was_fading && !fade_.fading_in() && fade_.close_running()) close_timer_.stop();
  SyncTimers();
  if (!fade_.fading_in()) emit FadedIn();
}

void MessageWindow::OnClose() {
  fade_.CloseTick();
  SyncTimers();
}

void MessageWindow::OnFadeOut() {
  const bool done = fade_.FadeOutTick();
  ApplyAlpha();
  SyncTimers();
  if (done) close();
}

void MessageWindow::OnUpdate() {
  if (!fade_.UpdateTick()) return;
  setWindowTitle(title_);
  text_->setText(message_);
  const int size = icon_->width() > 0 ? icon_->width() : 32;
  icon_->setPixmap(style()->standardIcon(IconFor(fade_.icon_type())).pixmap(size, size));
  close_timer_.stop();  // the display time starts again
  SyncTimers();
}

void MessageWindow::OnMouseMove() {
  // The window's rectangle as its size in twips gives it, in pixels.
  const double left = pos().x(), top = pos().y();
  const double right = left + fade_.width_twips() / twips_per_pixel_x();
  const double bottom = top + fade_.height_twips() / twips_per_pixel_y();
  const QPoint cursor = QCursor::pos(ScreenOf(this));
  const bool inside =
      cursor.x() >= left && cursor.x() < right && cursor.y() >= top && cursor.y() < bottom;
  const bool was_over = fade_.mouse_over();
  fade_.MouseTick(inside);
  if (inside || was_over) {
    ApplyAlpha();
    SyncTimers();
  }
}

}  // namespace kalvo::tray
