// The tray icon's request/acknowledge scheme, driven tick by tick against a fake tray.
#include "core/tray_requests.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kalvo::tray {
namespace {

// Records every call; `available` says whether the tray accepts them.
class FakeShell : public TrayShell {
 public:
  bool AddIcon() override { return Call("add"); }
  bool ModifyIcon() override { return Call("modify"); }
  bool DeleteIcon() override { return Call("delete"); }

  bool available = true;
  std::vector<std::string> calls;

 private:
  bool Call(const char* name) {
    calls.emplace_back(name);
    return available;
  }
};

// Runs the 100 ms tick `n` times.
void Checks(TrayRequests& tray, FakeShell& shell, int n) {
  for (int i = 0; i < n; ++i) tray.CheckTick(shell);
}

TEST(TrayRequests, DesktopSessionAddsTheIconThenReadyAfterTheDelay) {
  TrayRequests tray(true);
  FakeShell shell;
  Checks(tray, shell, 5);
  EXPECT_TRUE(shell.calls.empty()) << "nothing is wanted before a desktop is seen";

  tray.DesktopTick(true);
  EXPECT_EQ(tray.request(), kTrayAdded);
  Checks(tray, shell, 3);
  EXPECT_EQ(shell.calls, std::vector<std::string>{"add"});
  EXPECT_EQ(tray.request_done(), kTrayAdded);
  EXPECT_FALSE(tray.is_ready());
  EXPECT_EQ(tray.ready_interval_ms(), 5000);

  tray.DesktopTick(true);  // the same session: no second add
  Checks(tray, shell, 3);
  EXPECT_EQ(shell.calls.size(), 1u);

  tray.ReadyTick();
  EXPECT_EQ(tray.ready_interval_ms(), 0) << "fires once per add";
  Checks(tray, shell, 3);
  EXPECT_EQ(shell.calls, (std::vector<std::string>{"add", "modify"}));
  EXPECT_TRUE(tray.is_ready());
  EXPECT_EQ(tray.icon_state(), kTrayReady);
  EXPECT_EQ(tray.ready_interval_ms(), 0) << "not armed again once ready";
}

TEST(TrayRequests, AddIsRepeatedEveryTickUntilTheTrayAcceptsIt) {
  TrayRequests tray(true);
  FakeShell shell;
  shell.available = false;
  tray.DesktopTick(true);
  Checks(tray, shell, 4);
  EXPECT_EQ(shell.calls, std::vector<std::string>(4, "add"));
  EXPECT_TRUE(tray.pending());
  EXPECT_EQ(tray.icon_state(), kTrayDeleted);
  EXPECT_EQ(tray.ready_interval_ms(), 0) << "the ready delay starts only after the add";

  shell.available = true;
  Checks(tray, shell, 3);
  EXPECT_EQ(shell.calls.size(), 5u);
  EXPECT_FALSE(tray.pending());
  EXPECT_EQ(tray.ready_interval_ms(), 5000);
}

TEST(TrayRequests, EndWhileReadyDeletesOnce) {
  TrayRequests tray(true);
  FakeShell shell;
  tray.DesktopTick(true);
  tray.CheckTick(shell);
  tray.ReadyTick();
  tray.CheckTick(shell);
  ASSERT_TRUE(tray.is_ready());

  tray.Request(kTrayDeleted);
  Checks(tray, shell, 3);
  EXPECT_EQ(shell.calls, (std::vector<std::string>{"add", "modify", "delete"}));
  EXPECT_FALSE(tray.is_ready());
}

TEST(TrayRequests, SwitchedOffNothingHappens) {
  TrayRequests tray(false);
  FakeShell shell;
  tray.DesktopTick(true);
  tray.ReadyTick();
  Checks(tray, shell, 10);
  tray.Request(kTrayDeleted);
  tray.CheckTick(shell);
  EXPECT_TRUE(shell.calls.empty());
  EXPECT_EQ(tray.request_done(), kTrayDeleted);
  EXPECT_EQ(tray.ready_interval_ms(), 0);
}

}  // namespace
}  // namespace kalvo::tray
