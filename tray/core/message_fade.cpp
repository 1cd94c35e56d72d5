#include "core/message_fade.h"

#include <cmath>
#include <limits>

namespace kalvo::tray {
namespace {

int32_t CappedTwips(int32_t pixels, double twips_per_pixel, int32_t cap) {
  const double twips = std::nearbyint(pixels * twips_per_pixel);
  return twips >= cap ? cap : static_cast<int32_t>(twips);
}

}  // namespace

TwipsPoint PlaceMessageWindow(int32_t placement, const PixelRect& area, double tx, double ty,
                              int32_t width, int32_t height) {
  const double area_width = tx * (area.right - area.left);
  const double area_height = ty * (area.bottom - area.top);
  switch (placement) {
    case kPlaceTopLeft:
      return {tx * area.left, ty * area.top};
    case kPlaceTopRight:
      return {area_width - width, ty * area.top};
    case kPlaceBottomLeft:
      return {tx * area.left, area_height - height};
    case kPlaceBottomRight:
      return {area_width - width, area_height - height};
    default:
      return {area_width / 2 - width / 2.0, area_height / 2 - height / 2.0};
  }
}

void MessageFade::SetDisplayTime(int32_t seconds) {
  const int64_t ms = static_cast<int64_t>(seconds) * 1000;
  if (ms < std::numeric_limits<int32_t>::min() || ms > std::numeric_limits<int32_t>::max()) {
    return;
  }
  display_time_ms_ = static_cast<int32_t>(ms);
}

void MessageFade::SetHorizontalExtent(int32_t pixels, double twips_per_pixel) {
  width_ = CappedTwips(pixels, twips_per_pixel, kMaxWidthTwips);
}

void MessageFade::SetVerticalExtent(int32_t pixels, double twips_per_pixel) {
  height_ = CappedTwips(pixels, twips_per_pixel, kMaxHeightTwips);
}

void MessageFade::Load() {
  alpha_ = 0;
  mouse_over_ = false;
  fade_in_ = true;
}

void MessageFade::StartClose() {
  close_interval_ms_ = display_time_ms_;
  close_on_ = true;
}

void MessageFade::FadeInTick() {
  if (alpha_ < max_alpha_) {
    if (mouse_over_) {
      alpha_ = 255;
      fade_in_ = false;
    } else {
      alpha_ += kAlphaStep;
    }
  } else {
    fade_in_ = false;
    StartClose();
  }
}

void MessageFade::CloseTick() {
  close_interval_ms_ = 0;
  close_on_ = false;
  fade_out_ = true;
}

bool MessageFade::FadeOutTick() {
  if (alpha_ > min_alpha_) {
    if (!mouse_over_) {
      alpha_ -= kAlphaStep;
    } else {
      alpha_ = 255;
      fade_out_ = false;
    }
    return false;
  }
  fade_out_ = false;
  return true;
}

void MessageFade::MouseTick(bool cursor_inside) {
  if (cursor_inside) {
    mouse_over_ = true;
    alpha_ = 255;
    close_on_ = false;
  } else {
    if (mouse_over_) fade_out_ = true;
    mouse_over_ = false;
  }
}

bool MessageFade::UpdateTick() {
  if (!update_pending_) return false;
  close_on_ = false;
  StartClose();
  update_pending_ = false;
  return true;
}

}  // namespace kalvo::tray
