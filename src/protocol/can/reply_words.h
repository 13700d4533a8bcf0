#pragma once

#include <algorithm>
#include <vector>

#include "can/can_frame.h"
#include "util/bytes.h"

namespace talvera::korvane {

/// The data of a frame as 16-bit values, as many whole ones as its length says.
template <class Value>
std::vector<Value> WordsOf(const CanfdFrame& frame) {
  std::vector<Value> values(std::min(frame.len, kMaxPayload) / 2U);
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = static_cast<Value>(LoadU16(frame.data + 2 * i));
  }
  return values;
}

}  // namespace talvera::korvane
