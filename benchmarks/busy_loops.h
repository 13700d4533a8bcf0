#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace talvera::korvane::bench {

/// Processes that take what they get of the processors while the object lives.
class BusyLoops {
 public:
  explicit BusyLoops(unsigned for_each_processor) {
    const unsigned count = for_each_processor * std::thread::hardware_concurrency();
    for (unsigned i = 0; i < count; ++i) processes_.push_back(Start());
  }
  BusyLoops(const BusyLoops&) = delete;
  BusyLoops& operator=(const BusyLoops&) = delete;
  ~BusyLoops() {
    for (const pid_t process : processes_) {
      kill(process, SIGKILL);
      waitpid(process, nullptr, 0);
    }
  }

 private:
  static pid_t Start() {
    const pid_t process = fork();
    if (process != 0) return process;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (volatile unsigned n = 0;; n = n + 1) {
    }
  }

  std::vector<pid_t> processes_;
};

}  // namespace talvera::korvane::bench
