// The notification window's behaviour without a window: opacity, the fade and display
// timers, the hold while the cursor rests on it, the size caps and the placement on the
// desktop work area. Sizes are kept in twips (1/1440 inch) as the window's settings are
// given; the caller converts with the screen's twips per pixel.
//
// The window has five timers: fade in and fade out (10 ms each, off at load), close (the
// display time, off at load), update (10 ms, always on) and mouse (100 ms, always on). This
// class says which of the first three are on and with which interval; the caller runs
// them and calls the matching *Tick method.
#pragma once

#include <cstdint>

namespace kalvo::tray {

// Icon types; any other value shows the information picture.
enum MessageIcon : int32_t { kIconWarning = 2, kIconError = 4, kIconQuestion = 8 };

// Placement values; any other value centres the window.
enum MessagePlacement : int32_t {
  kPlaceTopLeft = 1,
  kPlaceTopRight = 2,
  kPlaceBottomLeft = 4,
  kPlaceBottomRight = 8,
};

// A rectangle in pixels, right and bottom exclusive as the system reports a work area.
struct PixelRect {
  int32_t left = 0, top = 0, right = 0, bottom = 0;
};

// A position in twips.
struct TwipsPoint {
  double left = 0, top = 0;
};

// Where a window of `width` x `height` twips goes on `work_area` with `placement`, given the
// twips per pixel `tx`, `ty`. The right and bottom placements measure from the work area's
// width and height, not from its right and bottom edges (so a work area that does not
// start at 0 shifts them); that is kept as designed.
TwipsPoint PlaceMessageWindow(int32_t placement, const PixelRect& work_area, double tx, double ty,
                              int32_t width, int32_t height);

class MessageFade {
 public:
  static constexpr int32_t kStepMs = 10;         // fade in, fade out and update ticks
  static constexpr int32_t kMouseCheckMs = 100;  // cursor watch
  static constexpr int32_t kAlphaStep = 3;
  static constexpr int32_t kMaxWidthTwips = 3500;
  static constexpr int32_t kMaxHeightTwips = 1500;

  // Settings. Each keeps the window's own rules:
  // display time = seconds x 1000, unchanged when that leaves the 32-bit range;
  void SetDisplayTime(int32_t seconds);
  // width and height = pixels x twips per pixel, rounded half to even, capped at 3500 and
  // 1500 twips;
  void SetHorizontalExtent(int32_t pixels, double twips_per_pixel);
  void SetVerticalExtent(int32_t pixels, double twips_per_pixel);
  // the maximum opacity is the value when it is below 256, else 255;
  void SetMaxAlpha(int32_t value) { max_alpha_ = value < 256 ? value : 255; }
  // the minimum opacity is the value when it is below 1, else 0: any positive value gives
  // 0, so the window always fades out completely (kept as designed);
  void SetMinAlpha(int32_t value) { min_alpha_ = value < 1 ? value : 0; }
  void SetPlacement(int32_t value) { placement_ = value; }
  void SetIconType(int32_t value) { icon_type_ = value; }
  // the next update tick applies title, message and icon.
  void SetUpdatePending(bool value) { update_pending_ = value; }

  // The window is shown: opacity 0, no cursor over it, fading in.
  void Load();
  // Fade in: while below the maximum, +3 (or 255 at once and stop when the cursor is over
  // it); at the maximum stops and starts the close timer with the display time.
  void FadeInTick();
  // Close timer: the display time is over; stops itself and starts fading out.
  void CloseTick();
  // Fade out: while above the minimum, -3 (or 255 and stop when the cursor is over it).
  // Gives true when the fade is complete and the window must go.
  bool FadeOutTick();
  // Cursor watch: inside holds the window opaque and stops the display time; leaving
  // after having been inside starts the fade-out at once.
  void MouseTick(bool cursor_inside);
  // Update: gives true when title, message and icon must be applied now; then the display
  // time starts again.
  bool UpdateTick();

  int32_t alpha() const { return alpha_; }
  bool mouse_over() const { return mouse_over_; }
  int32_t display_time_ms() const { return display_time_ms_; }
  int32_t width_twips() const { return width_; }
  int32_t height_twips() const { return height_; }
  int32_t max_alpha() const { return max_alpha_; }
  int32_t min_alpha() const { return min_alpha_; }
  int32_t placement() const { return placement_; }
  int32_t icon_type() const { return icon_type_; }
  bool update_pending() const { return update_pending_; }
  bool fading_in() const { return fade_in_; }
  bool fading_out() const { return fade_out_; }
  // The close timer is on and will fire: an interval of 0 never fires.
  bool close_running() const { return close_on_ && close_interval_ms_ > 0; }
  bool close_enabled() const { return close_on_; }
  int32_t close_interval_ms() const { return close_interval_ms_; }

 private:
  void StartClose();

  int32_t alpha_ = 0;
  bool mouse_over_ = false;
  int32_t display_time_ms_ = 0;
  int32_t width_ = 0;
  int32_t height_ = 0;
  int32_t max_alpha_ = 0;
  int32_t min_alpha_ = 0;
  int32_t placement_ = 0;
  int32_t icon_type_ = 0;
  bool update_pending_ = false;
  bool fade_in_ = false;
  bool fade_out_ = false;
  bool close_on_ = false;
  int32_t close_interval_ms_ = 0;
};

}  // namespace kalvo::tray
