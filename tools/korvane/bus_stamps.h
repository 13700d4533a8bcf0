#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tool.h"

namespace korvane_tool {

/// A second socket on a CAN interface, which sees each frame with the time at which the kernel sent
/// or received it: what of a round trip is the host's, and what the bus's and the hand's.
class BusStamps {
 public:
  BusStamps(const std::string& interface, std::uint8_t hand_id);
  ~BusStamps();
  BusStamps(const BusStamps&) = delete;
  BusStamps& operator=(const BusStamps&) = delete;

  /// Why there are no stamps; empty if there are.
  const std::string& Problem() const { return problem_; }

  /// A request was made between `start` and `end`: reads what the socket saw of it.
  void EndRequest(std::chrono::steady_clock::time_point start,
                  std::chrono::steady_clock::time_point end, bool answered);

  /// seen, host_out, bus_and_hand, host_in: p50_us and p99_us of each.
  Json ToJson() const;

 private:
  /// When the next frame of the hand passed, by the system clock; 0 if there is none.
  std::int64_t NextStamp();

  int socket_ = -1;
  std::uint8_t hand_id_;
  std::string problem_;
  std::vector<double> out_us_, between_us_, in_us_;
};

}  // namespace korvane_tool
