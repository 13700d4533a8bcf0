#include "service_call.h"
#include "service_model.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::size_t kForceBytes = 5;

/// Actions that are stored in every hand: the motors that close, bit 0 for motor 1. They stand for
/// open, fist, pointing, pinch and victory of a hand with ten motors.
constexpr std::uint32_t kActions[] = {0x000, 0x2B4, 0x2A4, 0x014, 0x284};

// Commands that move the hand.

/// As far as power and limits allow. `position` is on the scale of the command.
void Move(const Call& call, std::size_t axis, int position) {
  if (!call.state.powered) return;
  const AxisSettings& settings = call.state.settings.axes[axis - 1];
  if (call.IsActual()) position -= settings.homing;
  const int target = std::clamp(position, settings.lower, settings.upper) + settings.homing;
  call.hand.JointMotor(axis).SetTarget(static_cast<std::int16_t>(target));
}

Bytes ReadOne(const Call& call) {
  const std::size_t axis = call.data[0];
  if (axis < 1 || axis > call.AxisCount()) return Accepted(false);
  return PositionReply(call, axis);
}

Bytes MoveOne(const Call& call) {
  const std::size_t axis = call.data[0];
  if (axis >= 1 && axis <= call.AxisCount()) Move(call, axis, call.I16At(1));
  return ReadOne(call);
}

Bytes MoveAll(const Call& call) {
  for (std::size_t i = 0; i < call.AxisCount(); ++i) Move(call, i + 1, call.I16At(2 * i));
  return StateOf(call);
}

/// Positions, speeds and currents of ten axes. Where one is zero it isn't meant: applications send
/// zeros for all that they leave alone. Only in velocity mode a speed of zero means to stop.
Bytes MoveMixed(const Call& call) {
  const std::size_t count = call.state.powered ? std::min(kTenAxes, call.AxisCount()) : 0;
  for (std::size_t i = 0; i < count; ++i) {
    Motor& motor = call.hand.JointMotor(i + 1);
    const int position = call.I16At(2 * i);
    const int speed = call.I16At(2 * (kTenAxes + i));
    const int current = std::min(call.data[4 * kTenAxes + i] << 8, 0x7FFF);
    const bool by_speed = motor.Mode() == kVelocityMode;
    if (current != 0) motor.SetThreshold(static_cast<std::int16_t>(current));
    if (speed != 0 || by_speed) motor.SetVelocity(static_cast<std::int16_t>(speed));
    if (!by_speed && (position | speed | current) != 0) Move(call, i + 1, position);
  }
  return StateOf(call);
}

Bytes SetSpeeds(const Call& call) {
  const std::size_t count = call.state.powered ? std::min(kTenAxes, call.AxisCount()) : 0;
  for (std::size_t i = 0; i < count; ++i) {
    call.hand.JointMotor(i + 1).SetVelocity(static_cast<std::int16_t>(call.I16At(2 * i)));
  }
  return Accepted(call.state.powered);
}

Bytes Play(const Call& call) {
  const std::size_t action = call.data[0];
  if (action < 1 || action > std::size(kActions) || !call.state.powered) return Accepted(false);
  for (std::size_t i = 0; i < call.AxisCount(); ++i) {
    Move(call, i + 1, (kActions[action - 1] >> i & 1U) != 0 ? 0 : kMaxPosition);
  }
  return Accepted(true);
}

/// A hand without power holds still and takes no motion.
Bytes SetPower(const Call& call) {
  call.state.powered = call.data[0] != 0;
  for (std::size_t i = 1; !call.state.powered && i <= call.AxisCount(); ++i) {
    Motor& motor = call.hand.JointMotor(i);
    motor.SetTarget(motor.Position());
    if (motor.Mode() == kVelocityMode) motor.SetVelocity(0);
  }
  return Accepted(true);
}

// Sensors, counted from 1.

std::size_t SummaryLength(const Call& call, std::size_t sensor) {
  const auto& sensors = call.hand.Model().tactile;
  return sensor >= 1 && sensor <= sensors.size() ? sensors[sensor - 1].summary_length : 0;
}

/// The readings of those sensors, each `length` bytes or as long as its summary.
Bytes Feel(const Call& call, std::size_t first, std::size_t last, std::size_t length = 0) {
  Bytes bytes;
  for (std::size_t sensor = first; sensor <= last; ++sensor) {
    const std::size_t summary = SummaryLength(call, sensor);
    if (summary == 0) continue;
    Append(bytes, call.hand.TactileBytes(sensor, length > 0 ? length : summary));
  }
  return bytes;
}

/// On a serial line their numbers begin with 0.
Bytes ReadSensor(const Call& call) {
  const std::size_t sensor = call.data[0] + (call.IsSerial() ? 1U : 0U);
  if (SummaryLength(call, sensor) == 0) return {};
  Bytes reply{call.data[0]};
  Append(reply, Feel(call, sensor, sensor));
  return reply;
}

Bytes ReadSensorIds(const Call& call) {
  Bytes reply;
  for (std::size_t sensor = 1; sensor <= call.hand.Model().tactile.size(); ++sensor) {
    Append(reply, SummaryLength(call, sensor) > 0 ? static_cast<int>(sensor) : 0, 1);
  }
  return reply;
}

// The rest.

/// What still holds comes back at once.
Bytes ClearErrors(const Call& call) {
  for (std::size_t i = 0; i < call.AxisCount(); ++i) {
    call.state.settings.axes[i].errors = 0;
    call.hand.JointMotor(i + 1).SetFault(0);
  }
  return Accepted(true);
}

Bytes ReadErrors(const Call& call) {
  Bytes reply;
  const auto error_word = ServiceModelOf(call.hand.Model()).error_word;
  Append(reply, static_cast<int>(error_word(call.state.settings.axes)), 2);
  return reply;
}

Bytes ClearLimits(const Call& call) {
  for (AxisSettings& axis : call.state.settings.axes) {
    axis.lower = 0;
    axis.upper = call.hand.Model().max_position;
  }
  return Accepted(true);
}

Bytes Save(const Call& call) {
  call.state.saved = call.state.settings;
  return Accepted(true);
}

Bytes SetSerialNumber(const Call& call) {
  auto& number = call.state.settings.serial_number;
  std::copy_n(call.data.begin(), number.size(), number.begin());
  PublishSerialNumber(call.state.settings, call.hand);
  return Accepted(true);
}

Bytes ReadVersion(const Call& call) {
  const Identity& identity = call.hand.GetIdentity();
  Bytes reply{ServiceModelOf(call.hand.Model()).product_code, 0, 0};
  for (const auto& version : {identity.software_version, identity.hardware_version}) {
    reply.insert(reply.end(), version.begin(), version.begin() + 3);
  }
  reply.push_back(identity.active_dof);
  return reply;
}

/// All other commands, by the size of their payload: so many bytes, and so many for each axis.
struct Operation {
  std::uint8_t command;
  std::size_t size;
  std::size_t per_axis;
  Bytes (*answer)(const Call&);
};

constexpr Operation kOperations[] = {
    {0x01, 1, 0, SetPower},
    {0x02, 0, 0, [](const Call& c) { return Accepted(c.state.powered); }},
    {0x05, 0, 0, Save},
    {0x06, 3, 0, MoveOne},
    {0x07, 1, 0, ReadOne},
    {0x08, 0, 2, MoveAll},
    {0x0D, 0, 0, ReadErrors},
    {0x0E, 0, 0, ClearErrors},
    {0x0F, 1, 0, Play},
    {0x11, 1, 0, ReadSensor},
    {0x12, 0, 0, [](const Call& c) { return Feel(c, 1, 3); }},
    {0x13, 0, 0, [](const Call& c) { return Feel(c, 4, 5); }},
    {0x14, 0, 0, [](const Call& c) { return Feel(c, 6, 7); }},
    {0x16, 3, 0, MoveOne},
    {0x17, 1, 0, ReadOne},
    {0x18, 0, 2, MoveAll},
    {0x1D, 0, 0, ClearLimits},
    {0x20, 2 * kTenAxes, 0, SetSpeeds},
    {0x27, 0, 0, ReadSensorIds},
    {kUpload, 0, 0, [](const Call& c) { return UploadOf(c.hand, c.state); }},
    {0x32, 5 * kTenAxes, 0, MoveMixed},
    {0x33, 0, 0, [](const Call& c) { return Feel(c, 1, 7, kForceBytes); }},
    {0x81, 0, 0,
     [](const Call& c) {
       return Bytes{static_cast<std::uint8_t>(c.state.settings.control_source)};
     }},
    {0xC1, 19, 0, SetSerialNumber},
    {0xC2, 0, 0,
     [](const Call& c) {
       const auto& number = c.state.settings.serial_number;
       return Bytes{number.begin(), number.end()};
     }},
    {0xCD, 0, 0, ReadVersion},
};

Bytes Carry(const Operation& row, const Call& call) {
  return call.Has(row.size + row.per_axis * call.AxisCount()) ? row.answer(call) : Bytes{};
}

}  // namespace

std::optional<Bytes> AnswerOperation(const Call& call) { return AnswerFrom(kOperations, call); }

}  // namespace talvera::korvane::sim
