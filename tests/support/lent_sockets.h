#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <utility>
#include <vector>

namespace talvera::korvane::test {

/// Has the sockets for CAN that this process makes lead to ends of other sockets, whatever
/// interface is asked for, for a machine whose kernel may have no CAN: the first one that is made
/// to the first end, and so on, then to the first one again. The ends stay the caller's, for as
/// long as this object lives. One object at a time, in a program that links lent_sockets.cpp or
/// call_faults.cpp.
class LentSockets {
 public:
  explicit LentSockets(std::vector<int> ends) {
    ends_ = std::move(ends);
    asked_ = 0;
  }
  LentSockets(const LentSockets&) = delete;
  LentSockets& operator=(const LentSockets&) = delete;
  ~LentSockets() { ends_.clear(); }

  // For what stands in front of the C library's functions:

  static bool AreFor(int domain) { return domain == AF_CAN && !ends_.empty(); }
  /// A copy of the next end.
  static int Next() { return dup(ends_[asked_++ % ends_.size()]); }

 private:
  static inline std::vector<int> ends_;
  static inline std::atomic<std::size_t> asked_{0};
};

}  // namespace talvera::korvane::test
