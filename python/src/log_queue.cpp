#include "log_queue.h"

#include <korvane_log.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string_view>

namespace korvane_python {
namespace {

namespace kv = talvera::korvane;

constexpr std::size_t kMostLines = 10'000;

class Queue {
 public:
  void Add(kv::LogLevel level, std::string_view line) {
    const std::lock_guard lock(mutex_);
    if (lines_.size() == kMostLines) lines_.pop_front();
    lines_.push_back({static_cast<int>(level), std::string(line)});
    came_.notify_one();
  }

  std::deque<LogLine> Take(std::chrono::milliseconds at_most) {
    std::unique_lock lock(mutex_);
    came_.wait_for(lock, at_most, [this] { return ended_ || !lines_.empty(); });
    return std::exchange(lines_, {});
  }

  void End() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    came_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable came_;
  std::deque<LogLine> lines_;
  bool ended_ = false;
};

/// Never destroyed: library threads write lines while the process ends.
std::atomic<Queue*>& TheQueue() {
  static std::atomic<Queue*> queue = new Queue;
  return queue;
}

}  // namespace

void CollectLogLines() {
  kv::SetLogSink(
      [](kv::LogLevel level, std::string_view line) { TheQueue().load()->Add(level, line); });
}

std::deque<LogLine> TakeLogLines(std::chrono::milliseconds at_most) {
  return TheQueue().load()->Take(at_most);
}

void EndLogLines() { TheQueue().load()->End(); }

void RenewLogLines() { TheQueue() = new Queue; }

}  // namespace korvane_python
