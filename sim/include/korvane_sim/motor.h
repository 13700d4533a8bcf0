#pragma once

#include <cstdint>

#include "korvane_sim/export.h"

namespace talvera::korvane::sim {

/// Bits of an error report.
enum MotorError : std::uint16_t {
  kStalled = 0x01,
  kOverheat = 0x02,
  kOvercurrent = 0x04,
  kMotorException = 0x08,
  kCommunicationException = 0x10,
};

/// One motor with its gear, its stops and its sensors.
///
/// It follows its target with a speed limit and a first-order lag, draws current for friction, load
/// and pressing against a stop, warms up with that current, and reports a stall when it has pressed
/// for a while. Positions are actuator units (0, closed, to the maximum, where it starts),
/// velocities actuator units per second, currents milliamperes, temperatures degrees Celsius. Not
/// thread-safe.
class KORVANE_SIM_EXPORT Motor {
 public:
  static constexpr std::int64_t kStepsPerSecond = 1000;

  explicit Motor(double max_position) : max_position_(max_position) {}

  // What the host commands.
  void SetTarget(std::int16_t position);
  /// A target in velocity mode (5), which may be negative; in every other mode the speed limit.
  void SetVelocity(std::int16_t velocity);
  void SetThreshold(std::int16_t threshold) { threshold_ = threshold; }
  void SetMode(std::uint8_t mode);

  // What the host reads.
  std::int16_t Position() const;
  std::int16_t Velocity() const;
  std::int16_t Current() const;
  std::int16_t Threshold() const { return threshold_; }
  std::uint8_t Mode() const { return mode_; }
  std::uint16_t Temperature() const;
  std::uint16_t Errors() const;

  // The world around the motor.
  void PlaceAt(double position);
  void SetTemperature(double celsius) { temperature_ = celsius; }
  /// Error bits that stand in addition to those that the motor finds itself.
  void SetFault(std::uint16_t error_bits) { fault_ = error_bits; }
  /// Current that moving takes in addition to friction.
  void SetLoad(double milliamperes) { load_ = milliamperes; }
  /// Something in the way: the motor can't leave this range.
  void SetFreeRange(double low, double high);

  /// 0 open, 1 closed.
  double Closure() const { return 1.0 - position_ / max_position_; }

  /// Lets that many milliseconds pass.
  void Advance(std::int64_t steps);

 private:
  double WantedVelocity() const;
  double CurrentGoal(double wanted) const;
  double TopSpeed() const { return 2 * max_position_; }
  double Limit() const { return threshold_ > 0 ? threshold_ : 0.0; }
  bool IsStill() const;
  void Step();
  void Rest(double seconds);
  void Warm(double seconds);

  double max_position_;
  double position_ = max_position_;
  double velocity_ = 0.0;
  double current_ = 0.0;
  double temperature_ = 25.0;
  double target_ = max_position_;
  double speed_limit_ = TopSpeed();
  double velocity_target_ = 0.0;
  double load_ = 0.0;
  double low_ = 0.0;
  double high_ = max_position_;
  double pressing_seconds_ = 0.0;
  std::int16_t threshold_ = 800;
  std::uint16_t fault_ = 0;
  std::uint8_t mode_ = 4;
  bool pressing_ = false;
};

}  // namespace talvera::korvane::sim
