#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "quantities.h"
#include "tool.h"

namespace korvane_tool {

/// The latest values of a hand, for what shows it live. Values that change slowly are read by
/// turns, so that the fast ones keep their rate.
class Reading {
 public:
  /// Asks the hand for each value once, to learn what its model has.
  explicit Reading(const OpenedHand& hand);

  /// Positions and angles, and one of the others. The failure of any.
  Outcome<void> Refresh();

  /// Nothing if the model doesn't have it, or hasn't told it yet.
  const std::vector<double>* ValuesOf(const std::string& key) const;
  const std::vector<talvera::korvane::TactileSensorData>& Touch() const { return touch_; }
  /// How long the last request for all positions took, to the answer or the failure.
  std::chrono::steady_clock::duration RoundTrip() const { return round_trip_; }

 private:
  struct Row {
    const Quantity* quantity;
    std::vector<double> values;
  };

  Outcome<void> Refresh(Row& row);

  const OpenedHand& hand_;
  std::vector<Row> rows_;
  std::vector<talvera::korvane::TactileSensorData> touch_;
  std::size_t turn_ = 0;
  std::chrono::steady_clock::duration round_trip_{};
};

}  // namespace korvane_tool
