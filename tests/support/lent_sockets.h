#pragma once

#include <vector>

namespace talvera::korvane::test {

/// Has the sockets for CAN that this process makes lead to ends of other sockets, whatever
/// interface is asked for, for a machine whose kernel may have no CAN: the first one that is made
/// to the first end, and so on, then to the first one again. The ends stay the caller's, for as
/// long as this object lives. One object at a time.
class LentSockets {
 public:
  explicit LentSockets(std::vector<int> ends);
  ~LentSockets();
  LentSockets(const LentSockets&) = delete;
  LentSockets& operator=(const LentSockets&) = delete;
};

}  // namespace talvera::korvane::test
