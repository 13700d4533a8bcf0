#pragma once

#include <deque>
#include <thread>

#include "child_process.h"

namespace talvera::korvane::bench {

/// Processes that take what they get of the processors while the object lives.
class BusyLoops {
 public:
  explicit BusyLoops(unsigned for_each_processor) {
    const unsigned count = for_each_processor * std::thread::hardware_concurrency();
    for (unsigned i = 0; i < count; ++i) {
      processes_.emplace_back([] {
        for (volatile unsigned n = 0;; n = n + 1) {
        }
      });
    }
  }

 private:
  std::deque<ChildProcess> processes_;
};

}  // namespace talvera::korvane::bench
