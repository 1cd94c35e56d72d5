// The notification window's rules without a window: caps, fades, the cursor hold and the
// placement on the work area.
#include "core/message_fade.h"

#include <gtest/gtest.h>

namespace kalvo::tray {
namespace {

TEST(MessageFadeSettings, CapsAndConversions) {
  MessageFade f;
  f.SetMaxAlpha(300);
  EXPECT_EQ(f.max_alpha(), 255);
  f.SetMaxAlpha(255);
  EXPECT_EQ(f.max_alpha(), 255) << "255 is below 256";
  f.SetMinAlpha(50);
  EXPECT_EQ(f.min_alpha(), 0) << "every positive minimum becomes 0";
  f.SetHorizontalExtent(400, 15);  // 6000 twips
  EXPECT_EQ(f.width_twips(), 3500);
  f.SetVerticalExtent(99, 15);
  EXPECT_EQ(f.height_twips(), 1485);
  f.SetVerticalExtent(100, 15);
  EXPECT_EQ(f.height_twips(), 1500) << "exactly the cap";
  f.SetHorizontalExtent(3, 12.5);  // 37.5: half to even
  EXPECT_EQ(f.width_twips(), 38);
  f.SetDisplayTime(3);
  f.SetDisplayTime(3000000);  // 3e9 ms does not fit 32 bits: the old value stays
  EXPECT_EQ(f.display_time_ms(), 3000);
}

// A window with the usual settings, loaded.
MessageFade Loaded(int32_t display_seconds, int32_t max_alpha = 255) {
  MessageFade f;
  f.SetDisplayTime(display_seconds);
  f.SetMaxAlpha(max_alpha);
  f.SetMinAlpha(0);
  f.Load();
  return f;
}

// Runs fade-in ticks while fading in; gives their number.
int FadeIn(MessageFade& f) {
  int ticks = 0;
  while (f.fading_in() && ticks < 1000) {
    f.FadeInTick();
    ++ticks;
  }
  return ticks;
}

// Runs fade-out ticks until the window must go or the fade stops; gives their number.
int FadeOutUntilGone(MessageFade& f, bool* gone) {
  int ticks = 0;
  *gone = false;
  while (f.fading_out() && ticks < 1000) {
    ++ticks;
    if (f.FadeOutTick()) {
      *gone = true;
      break;
    }
  }
  return ticks;
}

TEST(MessageFade, FadesInStaysForTheDisplayTimeAndFadesOut) {
  MessageFade f = Loaded(5);
  EXPECT_EQ(f.alpha(), 0);
  EXPECT_TRUE(f.fading_in());
  EXPECT_FALSE(f.close_enabled());
  // 85 steps of 3 reach 255; the tick after them starts the display time.
  EXPECT_EQ(FadeIn(f), 86);
  EXPECT_EQ(f.alpha(), 255);
  EXPECT_TRUE(f.close_running());
  EXPECT_EQ(f.close_interval_ms(), 5000);

  f.CloseTick();
  EXPECT_FALSE(f.close_enabled());
  EXPECT_TRUE(f.fading_out());
  bool gone = false;
  EXPECT_EQ(FadeOutUntilGone(f, &gone), 86);
  EXPECT_TRUE(gone);
  EXPECT_EQ(f.alpha(), 0);
}

TEST(MessageFade, CursorDuringFadeOutHoldsAndLeavingFadesOutAtOnce) {
  MessageFade f = Loaded(2);
  FadeIn(f);
  f.CloseTick();
  for (int i = 0; i < 20; ++i) f.FadeOutTick();
  EXPECT_EQ(f.alpha(), 195);

  f.MouseTick(true);
  EXPECT_EQ(f.alpha(), 255);
  EXPECT_TRUE(f.mouse_over());
  EXPECT_FALSE(f.FadeOutTick()) << "the fade stops while the cursor is over the window";
  EXPECT_FALSE(f.fading_out());
  EXPECT_EQ(f.alpha(), 255);
  f.MouseTick(true);
  EXPECT_FALSE(f.fading_out()) << "resting on it keeps it";

  f.MouseTick(false);
  EXPECT_FALSE(f.mouse_over());
  EXPECT_TRUE(f.fading_out()) << "no new display time after the cursor leaves";
  EXPECT_FALSE(f.close_enabled());
  bool gone = false;
  FadeOutUntilGone(f, &gone);
  EXPECT_TRUE(gone);
}

TEST(MessageFade, CursorWhileShownStopsTheDisplayTime) {
  MessageFade f = Loaded(5);
  FadeIn(f);
  ASSERT_TRUE(f.close_running());
  f.MouseTick(true);
  EXPECT_FALSE(f.close_enabled()) << "the display time stops";
  f.MouseTick(false);
  EXPECT_TRUE(f.fading_out());
}

TEST(MessageFade, UpdateAppliesOnceAndRestartsTheDisplayTime) {
  MessageFade f = Loaded(4);
  EXPECT_FALSE(f.UpdateTick()) << "nothing pending";
  FadeIn(f);
  f.CloseTick();  // display time over, fading out
  f.SetUpdatePending(true);
  EXPECT_TRUE(f.UpdateTick());
  EXPECT_FALSE(f.update_pending());
  EXPECT_TRUE(f.close_running());
  EXPECT_EQ(f.close_interval_ms(), 4000);
  EXPECT_FALSE(f.UpdateTick());
}

TEST(PlaceMessageWindow, CornersAndCentreOfTheWorkArea) {
  const PixelRect area{0, 0, 1920, 1040};  // a taskbar of 40 pixels below
  const struct {
    int32_t placement;
    double left, top;
    const char* why;
  } cases[] = {
      {1, 0, 0, "top left"},
      {2, 28800 - 3500, 0, "top right"},
      {4, 0, 15600 - 1500, "bottom left"},
      {8, 28800 - 3500, 15600 - 1500, "bottom right, above the taskbar"},
      {3, 14400 - 1750, 7800 - 750, "3 is no placement: centred"},
      {0, 14400 - 1750, 7800 - 750, "centred"},
  };
  for (const auto& c : cases) {
    const TwipsPoint at = PlaceMessageWindow(c.placement, area, 15, 15, 3500, 1500);
    EXPECT_DOUBLE_EQ(at.left, c.left) << c.why;
    EXPECT_DOUBLE_EQ(at.top, c.top) << c.why;
  }
}

TEST(PlaceMessageWindow, RightAndBottomMeasureFromTheWorkAreaSize) {
  const PixelRect area{100, 50, 1920, 1080};  // panels at the left and at the top
  TwipsPoint at = PlaceMessageWindow(8, area, 15, 15, 3000, 1200);
  EXPECT_DOUBLE_EQ(at.left, 1820 * 15 - 3000) << "the width, not the right edge";
  EXPECT_DOUBLE_EQ(at.top, 1030 * 15 - 1200);
  at = PlaceMessageWindow(1, area, 15, 15, 3000, 1200);
  EXPECT_DOUBLE_EQ(at.left, 1500);
}

}  // namespace
}  // namespace kalvo::tray
