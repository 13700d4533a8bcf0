#pragma once

#include <atomic>

#include "util/wake_event.h"

namespace talvera::korvane {

/// Who reads a descriptor at present: the receive thread, or a caller that waits for its reply and
/// reads for itself, so that no thread has to wake another. Nobody waits for the turn: whoever
/// doesn't get it leaves the reading to the one that has it.
///
/// The receive thread sleeps on a watch of the kernel's (epoll). While a caller has the turn the
/// watch passes over the descriptor, so that the receive thread sleeps on. Where the system has no
/// watch to give, it doesn't sleep at all, and reads alone.
class ReadingTurn {
 public:
  ReadingTurn() = default;
  ReadingTurn(const ReadingTurn&) = delete;
  ReadingTurn& operator=(const ReadingTurn&) = delete;
  ~ReadingTurn();

  /// Before any other thread knows this object.
  void Open();

  /// The descriptor that is read from now on; Unwatch before it is closed.
  void Watch(int descriptor);
  void Unwatch();

  /// Sleeps until the descriptor has something to read or an error, unless a caller has the turn,
  /// or until Wake. For the receive thread.
  void Sleep() const;
  void Wake() const { wake_.Signal(); }

  /// False if the turn is somebody else's, also if the calling thread has it already.
  bool Take() { return !taken_.exchange(true); }
  void GiveBack() { taken_ = false; }

  /// The same for a caller. False also if the receive thread must go on reading.
  bool TakeForCaller();
  /// Wakes the receive thread if there is something to read.
  void GiveBackByCaller();

 private:
  void WatchFor(unsigned events) const;

  std::atomic<bool> taken_{false};
  /// What is watched, a descriptor or one of these.
  static constexpr int kNothing = -1;
  static constexpr int kNoWatch = -2;
  std::atomic<int> watched_{kNothing};
  int watch_ = -1;
  /// Wake ends a Sleep.
  bool wakes_ = false;
  WakeEvent wake_;
};

}  // namespace talvera::korvane
