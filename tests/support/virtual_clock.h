#pragma once

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "util/clock.h"

namespace talvera::korvane::test {

/// Time that stands still while any of the threads that live by it works, and jumps to the next
/// deadline once all of them wait. Minutes of waiting pass in milliseconds, and what happens first
/// doesn't depend on the machine.
class VirtualClock : public Clock {
 public:
  /// `threads` is how many threads wait on this clock.
  explicit VirtualClock(std::size_t threads) : threads_(threads) {}

  TimePoint Now() const override {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  void SleepFor(std::chrono::nanoseconds duration) override {
    std::mutex mutex;
    std::condition_variable cv;
    std::unique_lock lock(mutex);
    const TimePoint deadline = Now() + duration;
    while (Now() < deadline) WaitUntil(lock, cv, deadline);
  }

  void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline) override {
    Waiter self{&cv, deadline};
    {
      const std::lock_guard guard(mutex_);
      if (deadline <= now_) return;
      waiters_.push_back(&self);
      JumpIfAllWait();
    }
    // Who wakes a waiter doesn't hold the waiter's own mutex, so the signal may come too early.
    while (!IsAwake(self)) cv.wait_for(lock, std::chrono::microseconds(200));
    const std::lock_guard guard(mutex_);
    waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &self));
  }

  void NotifyAll(std::condition_variable& cv) override {
    const std::lock_guard guard(mutex_);
    for (Waiter* waiter : waiters_) {
      if (waiter->cv == &cv) waiter->awake = true;
    }
    cv.notify_all();
  }

 private:
  struct Waiter {
    std::condition_variable* cv;
    TimePoint deadline;
    bool awake = false;
  };

  bool IsAwake(const Waiter& waiter) const {
    const std::lock_guard guard(mutex_);
    return waiter.awake;
  }

  void JumpIfAllWait() {
    const auto asleep = [](const Waiter* waiter) { return !waiter->awake; };
    if (static_cast<std::size_t>(std::count_if(waiters_.begin(), waiters_.end(), asleep)) <
        threads_) {
      return;
    }
    TimePoint next = TimePoint::max();
    for (const Waiter* waiter : waiters_) {
      if (asleep(waiter)) next = std::min(next, waiter->deadline);
    }
    now_ = std::max(now_, next);
    for (Waiter* waiter : waiters_) {
      if (waiter->deadline > now_) continue;
      waiter->awake = true;
      waiter->cv->notify_all();
    }
  }

  mutable std::mutex mutex_;
  const std::size_t threads_;
  TimePoint now_{};
  std::vector<Waiter*> waiters_;
};

}  // namespace talvera::korvane::test
