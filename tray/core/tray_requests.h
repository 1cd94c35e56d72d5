// The request/acknowledge scheme of the tray icon. The icon is wanted in one of three states
// (added with the initial picture, modified to the ready picture, deleted); a 100 ms tick
// carries out the wanted state and repeats a failed attempt on the next tick, a one-shot
// 5 s timer turns a freshly added icon to the ready state, and a 1 s tick asks for the icon
// once a desktop session is there. This class holds the states and the timer intervals;
// the caller runs the timers and supplies the system tray calls.
#pragma once

#include <cstdint>

namespace kalvo::tray {

// The states of the icon, with their historical numbers.
enum TrayState : int32_t { kTrayAdded = 1, kTrayReady = 2, kTrayDeleted = 4 };

// The system tray calls. Each gives true when the tray carried it out.
class TrayShell {
 public:
  virtual ~TrayShell() = default;
  virtual bool AddIcon() = 0;     // shows the icon with the initial picture
  virtual bool ModifyIcon() = 0;  // switches it to the ready picture
  virtual bool DeleteIcon() = 0;  // removes it
};

class TrayRequests {
 public:
  static constexpr int32_t kCheckIntervalMs = 100;
  static constexpr int32_t kDesktopIntervalMs = 1000;
  static constexpr int32_t kReadyDelayMs = 5000;

  // `enabled` is the Taskbaricon setting; when false no tick does anything.
  explicit TrayRequests(bool enabled) : enabled_(enabled) {}

  // The 1 s tick: when a desktop session is there and the icon has not been asked for in
  // it yet, asks for the icon to be added; when the session has gone, asks for it to be
  // deleted, so that the next session adds it again.
  void DesktopTick(bool desktop_present);

  // The 100 ms tick: when a request is pending, carries it out through `shell` and records
  // the state reached; a failed call leaves the request pending. Arms the ready timer
  // (ready_interval_ms() becomes 5000) when the icon has just been added and the timer is
  // not armed.
  void CheckTick(TrayShell& shell);

  // The ready timer's tick: asks for the ready state and disarms the timer (it fires once
  // per add).
  void ReadyTick();

  // Sets the wanted state directly (the program's end asks for kTrayDeleted and runs
  // CheckTick once).
  void Request(TrayState state) { request_ = state; }

  bool enabled() const { return enabled_; }
  TrayState request() const { return request_; }
  TrayState request_done() const { return done_; }
  TrayState icon_state() const { return icon_state_; }
  bool is_ready() const { return is_ready_; }
  bool pending() const { return enabled_ && done_ != request_; }
  // 0 while the ready timer is disarmed, else its interval.
  int32_t ready_interval_ms() const { return ready_interval_ms_; }

 private:
  bool enabled_;
  bool session_ = false;  // the icon was asked for in the present desktop session
  TrayState request_ = kTrayDeleted;
  TrayState done_ = kTrayDeleted;
  TrayState icon_state_ = kTrayDeleted;
  bool is_ready_ = false;
  int32_t ready_interval_ms_ = 0;
};

}  // namespace kalvo::tray
