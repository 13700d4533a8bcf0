#pragma once

#include <cstdint>

#include "korvane_sim/export.h"

namespace talvera::korvane::sim {

/// One joint of a hand that someone wears: it opens and closes slowly, without ever using the whole
/// range of its sensor, until it is held.
///
/// The host reads 0 (closed) to `max_position` (open). Until it is taught the ends of the wearer's
/// range, that is the range of the sensor. Not thread-safe.
class KORVANE_SIM_EXPORT WornJoint {
 public:
  enum class End : std::uint8_t { kMinimum, kMaximum };

  /// `phase` is how far into its motion the joint starts, 0 to 1.
  WornJoint(double max_position, double phase);

  /// Where the joint stands between its ends; beyond them it reads as the end.
  std::int16_t Position() const;

  /// The joint is at that end now. Ignored if it would leave no range between the two.
  void Teach(End end);

  /// Puts the joint to a value of its sensor, 0 to `max_position`, where it stays until Release.
  void Hold(double sensor);
  void Release() { held_ = false; }

  /// 0 open, 1 closed, whatever it was taught.
  double Closure() const { return 1.0 - sensor_ / max_position_; }

  /// Lets that many milliseconds pass.
  void Advance(std::int64_t milliseconds);

 private:
  double max_position_;
  double phase_;
  double sensor_ = 0.0;
  double minimum_ = 0.0;
  double maximum_ = max_position_;
  std::int64_t time_ms_ = 0;  ///< In the motion, which repeats itself.
  bool held_ = false;
};

}  // namespace talvera::korvane::sim
