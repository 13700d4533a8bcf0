#pragma once

#include <sys/types.h>

#include <vector>

#include "korvane_sim/simulated_hand.h"

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
};

/// Has every socket for CAN that is made while it lives lead where `near_end` leads, which stays
/// the caller's.
class LentSocket {
 public:
  explicit LentSocket(int near_end);
  ~LentSocket();
  LentSocket(const LentSocket&) = delete;
  LentSocket& operator=(const LentSocket&) = delete;
};

}  // namespace talvera::korvane::bench
