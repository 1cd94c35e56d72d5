// The notification window: a small borderless window that fades in on the desktop's work
// area, stays for its display time, fades out and deletes itself. While the cursor rests on
// it, it is fully opaque and stays; when the cursor leaves, it fades out at once.
#pragma once

#include <QPointer>
#include <QString>
#include <QTimer>
#include <QWidget>

#include "core/message_fade.h"

class QLabel;

namespace kalvo::tray {

class MessageWindow : public QWidget {
  Q_OBJECT

 public:
  explicit MessageWindow(QWidget* parent = nullptr);

  // The settings, before or while the window shows (see MessageFade for their rules).
  // Title, message and icon take effect at the next update tick after SetUpdatePending.
  void SetDisplayTime(int32_t seconds) { fade_.SetDisplayTime(seconds); }
  void SetMessage(const QString& text) { message_ = text; }
  void SetTitle(const QString& text) { title_ = text; }
  void SetIconType(int32_t type) { fade_.SetIconType(type); }
  void SetHorizontalExtent(int32_t pixels);
  void SetVerticalExtent(int32_t pixels);
  void SetMaxAlpha(int32_t value) { fade_.SetMaxAlpha(value); }
  void SetMinAlpha(int32_t value) { fade_.SetMinAlpha(value); }
  void SetPlacementValue(int32_t value) { fade_.SetPlacement(value); }
  void SetUpdatePending(bool value) { fade_.SetUpdatePending(value); }

  // Sizes and places the window on its screen's work area, shows it without taking the
  // focus and starts fading in.
  void Load();

  const MessageFade& fade() const { return fade_; }
  // The screen's twips per pixel (1440 / logical dots per inch).
  double twips_per_pixel_x() const;
  double twips_per_pixel_y() const;

 signals:
  // Fading in has reached the maximum opacity.
  void FadedIn();

 protected:
  // A thin frame, since the window has none of its own.
  void paintEvent(QPaintEvent* event) override;

 private:
  void OnFadeIn();
  void OnClose();
  void OnFadeOut();
  void OnUpdate();
  void OnMouseMove();
  void ApplyAlpha();
  // Starts and stops the fade and close timers as the model says.
  void SyncTimers();

  MessageFade fade_;
  QString message_;
  QString title_;
  QLabel* icon_;
  QLabel* text_;
  QTimer fade_in_timer_;
  QTimer fade_out_timer_;
  QTimer close_timer_;
  QTimer update_timer_;
  QTimer mouse_timer_;
};

}  // namespace kalvo::tray
