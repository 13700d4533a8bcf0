#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "util/clock.h"

namespace talvera::korvane::test {

/// Real time, but for long sleeps.
class ImpatientClock : public Clock {
 public:
  TimePoint Now() const override { return SystemClock().Now(); }
  void SleepFor(std::chrono::nanoseconds duration) override {
    SystemClock().SleepFor(std::min<std::chrono::nanoseconds>(duration, kLongest));
  }
  void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline) override {
    SystemClock().WaitUntil(lock, cv, deadline);
  }
  void NotifyAll(std::condition_variable& cv) override { SystemClock().NotifyAll(cv); }

 private:
  static constexpr std::chrono::milliseconds kLongest{100};
};

}  // namespace talvera::korvane::test
