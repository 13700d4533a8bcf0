#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <list>
#include <mutex>

#include "util/clock.h"

namespace talvera::korvane {

/// A clock that stands still until the test moves it.
///
/// Whoever waits on it is counted, so that a test can let time pass exactly when a thread has come
/// to its wait. All operations may be called from any thread.
class ManualClock final : public Clock {
 public:
  TimePoint Now() const override {
    const std::lock_guard<std::mutex> lock(mutex_);
    return now_;
  }

  void SleepFor(std::chrono::nanoseconds duration) override {
    std::unique_lock<std::mutex> lock(mutex_);
    WaitFor(lock, Register(nullptr, now_ + duration));
  }

  void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline) override {
    {
      std::unique_lock<std::mutex> own(mutex_);
      // Registered before the caller's mutex is free: no notification can fall between.
      const auto waiter = Register(&cv, deadline);
      lock.unlock();
      WaitFor(own, waiter);
    }
    lock.lock();
  }

  void NotifyAll(std::condition_variable& cv) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (Waiter& waiter : waiters_) waiter.notified |= waiter.cv == &cv;
    changed_.notify_all();
  }

  void Advance(std::chrono::nanoseconds duration) {
    const std::lock_guard<std::mutex> lock(mutex_);
    now_ += duration;
    changed_.notify_all();
  }

  /// Returns once at least `count` threads sleep or wait with their deadline still to come.
  void AwaitWaiters(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return Waiting() >= count; });
  }

  /// Moves the time to the earliest deadline that anybody waits for. False if nobody waits.
  bool AdvanceToNextDeadline() {
    const std::lock_guard<std::mutex> lock(mutex_);
    TimePoint next = TimePoint::max();
    for (const Waiter& waiter : waiters_) {
      if (IsWaiting(waiter)) next = std::min(next, waiter.deadline);
    }
    if (next == TimePoint::max()) return false;
    now_ = next;
    changed_.notify_all();
    return true;
  }

 private:
  struct Waiter {
    const std::condition_variable* cv;
    TimePoint deadline;
    bool notified = false;
  };
  using Waiters = std::list<Waiter>;

  bool IsWaiting(const Waiter& waiter) const { return !waiter.notified && waiter.deadline > now_; }

  std::size_t Waiting() const {
    return static_cast<std::size_t>(std::count_if(
        waiters_.begin(), waiters_.end(), [this](const Waiter& w) { return IsWaiting(w); }));
  }

  Waiters::iterator Register(const std::condition_variable* cv, TimePoint deadline) {
    waiters_.push_back({cv, deadline});
    changed_.notify_all();
    return std::prev(waiters_.end());
  }

  void WaitFor(std::unique_lock<std::mutex>& lock, Waiters::iterator waiter) {
    changed_.wait(lock, [&] { return !IsWaiting(*waiter); });
    waiters_.erase(waiter);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  TimePoint now_{std::chrono::hours(1)};  // Early times stay clear of the epoch.
  Waiters waiters_;
};

}  // namespace talvera::korvane
