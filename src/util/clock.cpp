#include "util/clock.h"

#include <thread>

namespace talvera::korvane {
namespace {

class MonotonicClock final : public Clock {
 public:
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }

  void SleepFor(std::chrono::nanoseconds duration) override {
    std::this_thread::sleep_for(duration);
  }

  void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline) override {
    cv.wait_until(lock, deadline);
  }

  void NotifyAll(std::condition_variable& cv) override { cv.notify_all(); }
};

}  // namespace

Clock& SystemClock() {
  // Hands with static storage may sleep while the process ends, so this object outlives them.
  static auto* const clock = new MonotonicClock;
  return *clock;
}

}  // namespace talvera::korvane
