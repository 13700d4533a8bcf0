#pragma once

#include <linux/can.h>

#include <algorithm>

#include "korvane_sim/frame.h"

// Frames of simulated hands, as a socket for CAN carries them.

namespace talvera::korvane::test {

inline sim::Frame ToSimFrame(const canfd_frame& raw) {
  sim::Frame frame;
  frame.id = raw.can_id & CAN_EFF_MASK;
  frame.len = raw.len;
  std::copy_n(raw.data, raw.len, frame.data.begin());
  return frame;
}

inline canfd_frame ToSocketFrame(const sim::Frame& frame) {
  canfd_frame raw{};
  raw.can_id = frame.id | CAN_EFF_FLAG;
  raw.len = frame.len;
  std::copy_n(frame.data.begin(), frame.len, raw.data);
  return raw;
}

}  // namespace talvera::korvane::test
