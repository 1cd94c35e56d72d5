#include "core/tray_requests.h"

namespace kalvo::tray {

void TrayRequests::DesktopTick(bool desktop_present) {
  if (!enabled_) return;
  if (desktop_present && !session_) {
    session_ = true;
    request_ = kTrayAdded;
  } else if (!desktop_present && session_) {
    session_ = false;
    request_ = kTrayDeleted;
  }
}

void TrayRequests::CheckTick(TrayShell& shell) {
  if (!enabled_ || done_ == request_) return;
  switch (request_) {
    case kTrayAdded:
      if (shell.AddIcon()) icon_state_ = kTrayAdded;
      break;
    case kTrayReady:
      if (shell.ModifyIcon()) icon_state_ = kTrayReady;
      break;
    case kTrayDeleted:
      if (shell.DeleteIcon()) icon_state_ = kTrayDeleted;
      break;
  }
  // A failed call leaves icon_state_ as it was, so done_ still differs from request_ and
  // the next tick tries again.
  done_ = icon_state_;
  is_ready_ = done_ == kTrayReady;
  if (ready_interval_ms_ == 0 && done_ == kTrayAdded) ready_interval_ms_ = kReadyDelayMs;
}

void TrayRequests::ReadyTick() {
  if (!enabled_) return;
  request_ = kTrayReady;
  ready_interval_ms_ = 0;
}

}  // namespace kalvo::tray
