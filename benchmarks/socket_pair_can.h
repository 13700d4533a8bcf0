#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

#include "korvane_sim/simulated_hand.h"
#include "support/lent_sockets.h"

namespace talvera::korvane::bench {

/// Brisas with the ids 1, 2, … for hand objects on SocketCAN, on a machine whose kernel may have no
/// CAN: the socket of the n-th hand object that is made leads to the n-th Brisa, whatever its
/// interface is called. The Brisas live in a process of their own, which sleeps while nobody asks.
/// One object at a time, made and destroyed while the process has one thread.
class SocketPairHands {
 public:
  explicit SocketPairHands(int count);
  ~SocketPairHands();
  SocketPairHands(const SocketPairHands&) = delete;
  SocketPairHands& operator=(const SocketPairHands&) = delete;

 private:
  pid_t process_ = -1;
  std::vector<int> near_ends_;
  std::optional<test::LentSockets> lent_;
};

}  // namespace talvera::korvane::bench
