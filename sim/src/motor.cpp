#include "korvane_sim/motor.h"

#include <algorithm>
#include <cmath>

namespace talvera::korvane::sim {
namespace {

constexpr std::uint8_t kVelocityMode = 5;
constexpr double kStepSeconds = 1.0 / Motor::kStepsPerSecond;
constexpr double kPositionLag = 0.025;
constexpr double kVelocityLag = 0.006;
constexpr double kCurrentLag = 0.020;
constexpr double kThermalLag = 30.0;
constexpr double kFriction = 60.0;
constexpr double kCurrentAtTopSpeed = 140.0;
constexpr double kStallCurrent = 1200.0;
constexpr double kStallDistance = 200.0;
constexpr double kStallSeconds = 0.2;
constexpr double kMaxCurrent = 1000.0;
constexpr double kAmbient = 25.0;
constexpr double kHeatAtMaxCurrent = 60.0;
constexpr double kOverheatAt = 80.0;

double Decay(double seconds, double lag) { return 1.0 - std::exp(-seconds / lag); }

std::int16_t ToInt16(double value) {
  return static_cast<std::int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0)));
}

}  // namespace

void Motor::SetTarget(std::int16_t position) {
  target_ = std::clamp<double>(position, 0.0, max_position_);
}

void Motor::SetVelocity(std::int16_t velocity) {
  if (mode_ == kVelocityMode) {
    velocity_target_ = velocity;
  } else {
    speed_limit_ = std::abs(static_cast<double>(velocity));
  }
}

void Motor::SetMode(std::uint8_t mode) {
  if (mode != mode_) velocity_target_ = 0.0;
  mode_ = mode;
}

std::int16_t Motor::Position() const { return ToInt16(position_); }
std::int16_t Motor::Velocity() const { return ToInt16(velocity_); }
std::int16_t Motor::Current() const { return ToInt16(current_); }

std::uint16_t Motor::Temperature() const {
  return static_cast<std::uint16_t>(std::lround(std::clamp(temperature_, 0.0, 65535.0)));
}

std::uint16_t Motor::Errors() const {
  unsigned errors = fault_;
  if (pressing_seconds_ >= kStallSeconds) errors |= kStalled;
  if (temperature_ >= kOverheatAt) errors |= kOverheat;
  if (std::abs(current_) > kMaxCurrent) errors |= kOvercurrent;
  return static_cast<std::uint16_t>(errors);
}

void Motor::PlaceAt(double position) {
  position_ = std::clamp(position, 0.0, max_position_);
  target_ = position_;
  velocity_ = 0.0;
}

void Motor::SetFreeRange(double low, double high) {
  low_ = std::clamp(low, 0.0, max_position_);
  high_ = std::clamp(high, low_, max_position_);
}

void Motor::Advance(std::int64_t steps) {
  for (; steps > 0 && !IsStill(); --steps) Step();
  if (steps > 0) Rest(static_cast<double>(steps) * kStepSeconds);
}

double Motor::WantedVelocity() const {
  // Below the current that moving takes, the motor stays where it is.
  if (Limit() < kFriction + load_) return 0.0;
  if (mode_ == kVelocityMode) return velocity_target_;
  return std::clamp((target_ - position_) / kPositionLag, -speed_limit_, speed_limit_);
}

double Motor::CurrentGoal(double wanted) const {
  if (pressing_) {
    const double push = mode_ == kVelocityMode
                            ? 1.0
                            : std::min(1.0, std::abs(target_ - position_) / kStallDistance);
    return std::copysign(std::min(kStallCurrent * push, Limit()), wanted);
  }
  if (velocity_ == 0.0) return 0.0;
  const double effort = kFriction + load_ + kCurrentAtTopSpeed * std::abs(velocity_) / TopSpeed();
  return std::copysign(std::min(effort, Limit()), velocity_);
}

bool Motor::IsStill() const {
  const double wanted = WantedVelocity();
  const bool held =
      pressing_ && ((wanted < 0 && position_ <= low_) || (wanted > 0 && position_ >= high_));
  const bool idle = !pressing_ && wanted == 0.0;
  return velocity_ == 0.0 && (held || idle) && std::abs(current_ - CurrentGoal(wanted)) < 0.5;
}

void Motor::Step() {
  const double wanted = WantedVelocity();
  velocity_ += (wanted - velocity_) * kStepSeconds / kVelocityLag;
  const double next = position_ + velocity_ * kStepSeconds;
  // An obstacle that appears behind the motor doesn't move it.
  position_ = std::clamp(next, std::min(low_, position_), std::max(high_, position_));
  pressing_ = (wanted < 0 && position_ <= low_) || (wanted > 0 && position_ >= high_);
  if (pressing_) velocity_ = 0.0;
  const bool arrived = mode_ != kVelocityMode && std::abs(target_ - position_) < 0.5;
  if (arrived && std::abs(velocity_) < 25.0) {
    position_ = target_;
    velocity_ = 0.0;
    pressing_ = false;
  } else if (wanted == 0.0 && std::abs(velocity_) < 1.0) {
    velocity_ = 0.0;
  }
  pressing_seconds_ = pressing_ ? pressing_seconds_ + kStepSeconds : 0.0;
  current_ += (CurrentGoal(wanted) - current_) * kStepSeconds / kCurrentLag;
  Warm(kStepSeconds);
}

void Motor::Rest(double seconds) {
  current_ = CurrentGoal(WantedVelocity());
  if (pressing_) pressing_seconds_ += seconds;
  Warm(seconds);
}

void Motor::Warm(double seconds) {
  const double heat = kHeatAtMaxCurrent * (current_ / kMaxCurrent) * (current_ / kMaxCurrent);
  temperature_ += (kAmbient + heat - temperature_) * Decay(seconds, kThermalLag);
}

}  // namespace talvera::korvane::sim
