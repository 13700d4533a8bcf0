#include "service_call.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::uint8_t kRunMode = 0x15;
constexpr int kMaxU16 = 0xFFFF;

// Commands that set one value of one axis: the axis, then the value.

struct AxisRow {
  std::uint8_t command;
  std::size_t width;
  int min;
  int max;
  int AxisSettings::*field;
  void (*apply)(Motor&, int) = nullptr;  ///< Where it is the motor that has it.
  int (*read)(const Motor&) = nullptr;
};

constexpr AxisRow kAxisRows[] = {
    {0x03, 2, -4095, 4095, &AxisSettings::homing},
    {kRunMode, 1, 0, 7, &AxisSettings::mode,
     [](Motor& m, int value) { m.SetMode(static_cast<std::uint8_t>(value)); },
     [](const Motor& m) -> int { return m.Mode(); }},
    {0x1B, 2, 0, kMaxPosition, &AxisSettings::lower},
    {0x1C, 2, 0, kMaxPosition, &AxisSettings::upper},
    {0x21, 2, 0, 1000, &AxisSettings::overload_torque},
    {0x22, 2, 0, kMaxU16, &AxisSettings::overload_ms},
    {0x23, 1, 0, 100, &AxisSettings::protected_torque},
    {0x24, 1, 0, 255, &AxisSettings::min_torque},
    {0x25, 2, 0, 3250, &AxisSettings::current,
     [](Motor& m, int value) { m.SetThreshold(static_cast<std::int16_t>(value)); },
     [](const Motor& m) -> int { return m.Threshold(); }},
};

int ValueAt(const Call& call, std::size_t at, std::size_t width, bool is_signed) {
  if (width == 1 || at + 1 == call.data.size()) return call.data[at];
  return is_signed ? call.I16At(at) : LoadU16(call.data.data() + at);
}

Bytes Carry(const AxisRow& row, const Call& call) {
  // Over CAN the high byte of a value may be left out.
  if (!call.Has(call.IsSerial() ? 1 + row.width : 2)) return {};
  const std::size_t axis = call.data[0];
  const int value = ValueAt(call, 1, row.width, row.min < 0);
  if (axis < 1 || axis > call.AxisCount() || value < row.min || value > row.max) {
    return Accepted(false);
  }
  AxisSettings settings = call.state.settings.axes[axis - 1];
  settings.*row.field = value;
  if (settings.lower > settings.upper) return Accepted(false);
  call.state.settings.axes[axis - 1] = settings;
  if (row.apply != nullptr) row.apply(call.hand.JointMotor(axis), value);
  // A serial line tells which axis took which mode.
  return row.command == kRunMode && call.IsSerial() ? call.data : Accepted(true);
}

// Commands that set one value of the hand.

/// What the reply tells: whether the value was taken, or the value that there is then.
enum class Reply : std::uint8_t { kTaken, kValue };

struct HandRow {
  std::uint8_t command;
  Reply reply;
  std::uint8_t width;
  int min;
  int max;
  int ServiceSettings::*field;
};

constexpr HandRow kHandRows[] = {
    {0x04, Reply::kTaken, 2, 1, 2046, &ServiceSettings::device_id},
    {0x28, Reply::kTaken, 2, 0, kMaxU16, &ServiceSettings::upload_ms},
    {0x31, Reply::kTaken, 1, 0, 1, &ServiceSettings::side},
    {0x34, Reply::kTaken, 1, 0, 255, &ServiceSettings::temperature_threshold},
    {0x80, Reply::kValue, 1, 0, 1, &ServiceSettings::control_source},
};

Bytes Carry(const HandRow& row, const Call& call) {
  if (!call.Has(row.width)) return {};
  const int value = ValueAt(call, 0, row.width, false);
  const bool taken = value >= row.min && value <= row.max;
  int& setting = call.state.settings.*row.field;
  if (taken) setting = value;
  return row.reply == Reply::kValue ? Bytes{static_cast<std::uint8_t>(setting)} : Accepted(taken);
}

}  // namespace

std::optional<Bytes> AnswerSetting(const Call& call) {
  const auto answer = AnswerFrom(kAxisRows, call);
  return answer ? answer : AnswerFrom(kHandRows, call);
}

void ReadMotors(ServiceSettings& settings, const SimulatedHand& hand) {
  for (const AxisRow& row : kAxisRows) {
    for (std::size_t i = 0; row.read != nullptr && i < settings.axes.size(); ++i) {
      settings.axes[i].*row.field = row.read(hand.JointMotor(i + 1));
    }
  }
}

void WriteMotors(const ServiceSettings& settings, SimulatedHand& hand) {
  for (const AxisRow& row : kAxisRows) {
    for (std::size_t i = 0; row.apply != nullptr && i < settings.axes.size(); ++i) {
      row.apply(hand.JointMotor(i + 1), settings.axes[i].*row.field);
    }
  }
}

void Watch(ServiceSettings& settings, const SimulatedHand& hand) {
  for (std::size_t i = 0; i < settings.axes.size(); ++i) {
    const Motor& motor = hand.JointMotor(i + 1);
    settings.axes[i].errors |= motor.Errors();
    if (motor.Temperature() >= settings.temperature_threshold) settings.axes[i].errors |= kOverheat;
  }
}

void PublishSerialNumber(const ServiceSettings& settings, SimulatedHand& hand) {
  const auto& number = settings.serial_number;
  hand.GetIdentity().serial_number.assign(number.begin(),
                                          std::find(number.begin(), number.end(), 0));
}

}  // namespace talvera::korvane::sim
