#include "korvane_sim/worn_joint.h"

#include <algorithm>
#include <cmath>

namespace talvera::korvane::sim {
namespace {

constexpr std::int64_t kMotionMs = 6000;
constexpr double kTurn = 2 * 3.14159265358979;
constexpr double kMiddle = 0.5;
constexpr double kReach = 0.35;
constexpr double kSmallestRange = 1.0;

}  // namespace

WornJoint::WornJoint(double max_position, double phase)
    : max_position_(max_position), phase_(phase) {
  Advance(0);
}

std::int16_t WornJoint::Position() const {
  const double share = (sensor_ - minimum_) / (maximum_ - minimum_);
  return static_cast<std::int16_t>(std::lround(max_position_ * std::clamp(share, 0.0, 1.0)));
}

/// Nothing says that the maximum has the higher sensor value: that is how a sensor that runs the
/// other way is put right.
void WornJoint::Teach(End end) {
  const double other = end == End::kMinimum ? maximum_ : minimum_;
  if (std::abs(sensor_ - other) < kSmallestRange) return;
  (end == End::kMinimum ? minimum_ : maximum_) = sensor_;
}

void WornJoint::Hold(double sensor) {
  sensor_ = std::clamp(sensor, 0.0, max_position_);
  held_ = true;
}

void WornJoint::Advance(std::int64_t milliseconds) {
  time_ms_ = (time_ms_ + milliseconds) % kMotionMs;
  if (held_) return;
  const double turns = static_cast<double>(time_ms_) / static_cast<double>(kMotionMs) + phase_;
  sensor_ = max_position_ * (kMiddle + kReach * std::cos(kTurn * turns));
}

}  // namespace talvera::korvane::sim
