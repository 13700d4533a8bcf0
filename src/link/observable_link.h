#pragma once

#include <atomic>
#include <functional>

#include "korvane_link.h"
#include "link/diagnostics.h"
#include "link/frame_tap.h"

namespace talvera::korvane {

/// How hands receive that are made from now on.
inline std::atomic<Receiving>& DefaultReceiving() {
  static std::atomic<Receiving> receiving{Receiving::AS_EVER};
  return receiving;
}

/// The bounds of a receive time-out.
inline constexpr int kMinFrameRecvTimeoutMs = 10;
inline constexpr int kMaxFrameRecvTimeoutMs = 1000;

/// What an application may see and choose of a link, whatever it is: its counts, its frames, and
/// how it waits. Any thread may use it while the link lives.
struct ObservableLink {
  LinkCounters counters_;
  FrameTap tap_;
  std::atomic<bool> by_events_{DefaultReceiving() == Receiving::BY_EVENTS};
  /// Has the receive thread look at `by_events_` and at its stop flag at once, if it may sleep.
  /// Set before that thread starts.
  std::function<void()> wake_receiver_;

  void SetReceiving(Receiving how) {
    by_events_ = how == Receiving::BY_EVENTS;
    WakeReceiver();
  }
  void WakeReceiver() const {
    if (wake_receiver_) wake_receiver_();
  }
};

/// By which free functions find what a hand records and the link that it has, whatever its class.
class ObservableHand {
 public:
  virtual const HandDiagnostics& Diagnostics() const = 0;
  /// Null for a hand without a link.
  virtual ObservableLink* Observable() const = 0;

 protected:
  ~ObservableHand() = default;
};

}  // namespace talvera::korvane
