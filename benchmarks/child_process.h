#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace talvera::korvane::bench {

/// A process that runs `work` until that returns, or until this object or the program goes.
class ChildProcess {
 public:
  template <class Work>
  explicit ChildProcess(const Work& work) : id_(fork()) {
    if (id_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    work();
    _exit(0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (id_ <= 0) return;
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }

 private:
  pid_t id_;
};

}  // namespace talvera::korvane::bench
