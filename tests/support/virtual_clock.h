#pragma once

#include <algorithm>
#include <condition_variable>
#include <list>
#include <mutex>

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
    const std::lock_guard own(mutex_);
    return now_;
  }

  void SleepFor(std::chrono::nanoseconds duration) override {
    std::unique_lock own(mutex_);
    Wait(own, nullptr, now_ + duration);
  }

  void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline) override {
    std::unique_lock own(mutex_);
    lock.unlock();  // No notification can fall between.
    Wait(own, &cv, deadline);
    own.unlock();
    lock.lock();
  }

  void NotifyAll(std::condition_variable& cv) override {
    const std::lock_guard own(mutex_);
    for (Waiter& waiter : waiters_) waiter.awake |= waiter.cv == &cv;
    changed_.notify_all();
  }

 private:
  struct Waiter {
    const std::condition_variable* cv;
    TimePoint deadline;
    bool awake;
  };

  void Wait(std::unique_lock<std::mutex>& own, const std::condition_variable* cv,
            TimePoint deadline) {
    const auto self = waiters_.insert(waiters_.end(), {cv, deadline, deadline <= now_});
    std::size_t waiting = 0;
    TimePoint next = TimePoint::max();
    for (const Waiter& waiter : waiters_) {
      if (waiter.awake) continue;
      ++waiting;
      next = std::min(next, waiter.deadline);
    }
    if (waiting >= threads_) now_ = next;
    for (Waiter& waiter : waiters_) waiter.awake |= waiter.deadline <= now_;
    changed_.notify_all();
    changed_.wait(own, [&] { return self->awake; });
    waiters_.erase(self);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  const std::size_t threads_;
  TimePoint now_{};
  std::list<Waiter> waiters_;
};

}  // namespace talvera::korvane::test
