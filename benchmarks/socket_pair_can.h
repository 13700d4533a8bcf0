#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "child_process.h"
#include "support/lent_sockets.h"

namespace talvera::korvane::bench {

enum class Buses : std::uint8_t {
  kSeparate,  ///< A bus for each hand.
  kOne,       ///< Each hand object hears what the others send and what all hands reply.
  kOnePaced,  ///< The same, with frames that take the time of 1 and 5 Mbit/s.
};

/// Brisas with the ids 1, 2, … for hand objects on SocketCAN, on a machine whose kernel may have no
/// CAN: the socket of the n-th hand object that is made leads to the n-th Brisa, whatever its
/// interface is called. The Brisas live in a process of their own, which sleeps while nobody asks.
/// One object at a time, made and destroyed while the process has one thread.
class SocketPairHands {
 public:
  explicit SocketPairHands(int count, Buses buses = Buses::kSeparate);
  ~SocketPairHands();
  SocketPairHands(const SocketPairHands&) = delete;
  SocketPairHands& operator=(const SocketPairHands&) = delete;

  /// What frames have taken of a paced bus up to now.
  std::chrono::nanoseconds BusyTime() const;

 private:
  struct Shared;
  Shared* shared_;
  std::vector<int> near_ends_;
  std::optional<ChildProcess> process_;
  std::optional<test::LentSockets> lent_;
};

}  // namespace talvera::korvane::bench
