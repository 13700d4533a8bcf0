#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace talvera::korvane {

/// Time as the update runs and the simulator see it.
///
/// Everything that waits for long goes through this interface, so that a test can let five
/// minutes pass in milliseconds. All operations may be called from any thread.
class Clock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  virtual TimePoint Now() const = 0;

  /// Sleeps for the whole of `duration`; a signal doesn't shorten it.
  virtual void SleepFor(std::chrono::nanoseconds duration) = 0;

  /// Waits on `cv` until it is notified through NotifyAll or `deadline` has come. May return
  /// early: callers test their condition again.
  virtual void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                         TimePoint deadline) = 0;

  /// Wakes whoever waits on `cv`. The caller holds the mutex that belongs to `cv`.
  virtual void NotifyAll(std::condition_variable& cv) = 0;
};

/// The monotonic clock of the machine. Never destroyed.
Clock& SystemClock();

}  // namespace talvera::korvane
