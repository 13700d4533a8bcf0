#include "korvane_sim/service_face.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "wire.h"

namespace talvera::korvane::sim {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kRunMode = 0x15;
constexpr std::uint8_t kUpload = 0x29;
constexpr std::uint8_t kUpdateData = 0xF0;
constexpr std::uint8_t kUpdateRequest = 0xF1;
constexpr std::uint8_t kUpdateReply = 0xF2;

constexpr int kVelocityMode = 5;
constexpr std::size_t kTenAxes = 10;  ///< For which some records have room in every hand.
constexpr int kMaxPosition = 4096;
constexpr int kMaxU16 = 0xFFFF;
constexpr std::size_t kForceBytes = 5;

/// Actions that are stored in every hand: the motors that close, bit 0 for motor 1. They stand for
/// open, fist, pointing, pinch and victory of a hand with ten motors.
constexpr std::array<std::uint32_t, 5> kActions{0x000, 0x2B4, 0x2A4, 0x014, 0x284};

/// What is wrong with any of the axes.
unsigned AllErrors(const std::vector<AxisSettings>& axes) {
  int word = 0;
  for (const AxisSettings& axis : axes) word |= axis.errors;
  return static_cast<unsigned>(word);
}

/// The first axis with an error, and which one: the axis number plus 20 for each place of the bit.
unsigned FirstError(const std::vector<AxisSettings>& axes) {
  for (std::size_t i = 0; i < axes.size(); ++i) {
    for (unsigned bit = 0; bit < 5; ++bit) {
      if ((axes[i].errors >> bit & 1) != 0) return static_cast<unsigned>(i) + 1 + 20 * bit;
    }
  }
  return 0;
}

/// What tells one hand's service side from another's.
struct ServiceModel {
  std::string_view name;
  std::uint8_t product_code;
  bool serial_port;
  bool can;
  unsigned (*error_word)(const std::vector<AxisSettings>& axes);
};

constexpr std::array<ServiceModel, 3> kServiceModels{{{"brisa", 2, true, true, AllErrors},
                                                      {"lumen", 3, false, true, FirstError},
                                                      {"", 0, false, false, AllErrors}}};

const ServiceModel& ServiceModelOf(const ModelRow& model) {
  return *std::find_if(kServiceModels.begin(), kServiceModels.end() - 1,
                       [&](const ServiceModel& row) { return row.name == model.name; });
}

// Values of axes and how they are laid out.

struct Axis {
  int number;
  const Motor& motor;
  const AxisSettings& settings;
};

struct Column {
  std::size_t width = 0;  ///< Bytes on the wire.
  int (*value)(const Axis&) = nullptr;
};

int PositionOf(const Axis& axis) {
  return std::max(0, axis.motor.Position() - axis.settings.homing);
}
int AmountOf(const Axis& axis) { return std::abs(axis.motor.Current()); }
/// In thousandths of what the motor may draw.
int LoadOf(const Axis& axis) {
  return AmountOf(axis) * 1000 / std::max<int>(1, axis.motor.Threshold());
}

constexpr Column kPosition{2, PositionOf};
constexpr Column kActual{2, [](const Axis& a) -> int { return a.motor.Position(); }};
constexpr Column kVelocity{2, [](const Axis& a) -> int { return a.motor.Velocity(); }};
constexpr Column kCurrent{2, [](const Axis& a) -> int { return a.motor.Current(); }};
constexpr Column kForce{2, AmountOf};
constexpr Column kLoad{2, LoadOf};
/// A current in one byte is its high byte, both ways.
constexpr Column kCurrentHigh{1, [](const Axis& a) { return AmountOf(a) >> 8; }};
constexpr Column kErrors{1, [](const Axis& a) { return a.settings.errors; }};
constexpr Column kTemperature{
    1, [](const Axis& a) { return std::min<int>(255, a.motor.Temperature()); }};
constexpr Column kNumber{1, [](const Axis& a) { return a.number; }};
constexpr Column kLower{2, [](const Axis& a) { return a.settings.lower; }};
constexpr Column kUpper{2, [](const Axis& a) { return a.settings.upper; }};
constexpr Column kRange{2, [](const Axis& a) { return a.settings.upper - a.settings.lower; }};
constexpr Column kNothing{1, [](const Axis&) { return 0; }};

void Append(Bytes& bytes, int value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    bytes.push_back(static_cast<std::uint8_t>(static_cast<unsigned>(value) >> 8 * i));
  }
}

void Append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

/// The columns one behind the other, filled up with zeros to `count` axes.
template <class Columns>
Bytes Layout(const std::vector<Axis>& axes, const Columns& columns, std::size_t count) {
  Bytes bytes;
  for (const Column& column : columns) {
    for (std::size_t i = 0; i < count && column.value != nullptr; ++i) {
      Append(bytes, i < axes.size() ? column.value(axes[i]) : 0, column.width);
    }
  }
  return bytes;
}

std::vector<Axis> AxesOf(const SimulatedHand& hand, const ServiceState& state) {
  std::vector<Axis> axes;
  axes.reserve(state.settings.axes.size());
  for (const AxisSettings& settings : state.settings.axes) {
    const std::size_t number = axes.size() + 1;
    axes.push_back({static_cast<int>(number), hand.JointMotor(number), settings});
  }
  return axes;
}

/// One command on its way to its answer. An answer without bytes is none.
struct Call {
  ServiceState& state;
  SimulatedHand& hand;
  ServiceLink link;
  std::uint8_t command;
  const Bytes& data;

  std::size_t AxisCount() const { return state.settings.axes.size(); }
  bool IsSerial() const { return link == ServiceLink::kSerial; }
  /// A CAN FD frame brings more bytes than the payload has, with the lengths that there are.
  bool Has(std::size_t size) const {
    return IsSerial() ? data.size() == size : data.size() >= size;
  }
  int I16At(std::size_t at) const { return static_cast<std::int16_t>(LoadU16(data.data() + at)); }
};

Bytes Accepted(bool yes) { return {static_cast<std::uint8_t>(yes ? 1 : 0)}; }

// Commands that read values of all axes.

struct Report {
  std::uint8_t command;
  bool on_serial;
  bool on_can;
  bool ten_axes;
  std::array<Column, 2> columns;
};

constexpr std::array<Report, 10> kReports{{
    {0x09, true, true, false, {kPosition}},
    {0x0A, true, true, true, {kCurrent}},
    {0x0B, true, false, true, {kForce}},
    {0x0B, false, true, true, {kVelocity}},
    {0x0C, true, true, true, {kTemperature}},
    {0x10, true, true, false, {kRange}},
    {0x19, true, true, false, {kActual}},
    {0x1A, true, true, true, {kLoad}},
    {0x26, true, true, true, {kNumber}},
    {0x30, true, true, false, {{kLower, kUpper}}},
}};

Bytes Carry(const Report& report, const Call& call) {
  if (!call.Has(0)) return {};
  return Layout(AxesOf(call.hand, call.state), report.columns,
                report.ten_axes ? kTenAxes : call.AxisCount());
}

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

constexpr std::array<AxisRow, 9> kAxisRows{{
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
}};

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

struct HandRow {
  std::uint8_t command;
  std::size_t width;
  int min;
  int max;
  int ServiceSettings::*field;
  bool tells_value;  ///< In the reply, instead of whether it was taken.
};

constexpr std::array<HandRow, 5> kHandRows{{
    {0x04, 2, 1, 2046, &ServiceSettings::device_id, false},
    {0x28, 2, 0, kMaxU16, &ServiceSettings::upload_ms, false},
    {0x31, 1, 0, 1, &ServiceSettings::side, false},
    {0x34, 1, 0, 255, &ServiceSettings::temperature_threshold, false},
    {0x80, 1, 0, 1, &ServiceSettings::control_source, true},
}};

Bytes Carry(const HandRow& row, const Call& call) {
  if (!call.Has(row.width)) return {};
  const int value = ValueAt(call, 0, row.width, false);
  const bool taken = value >= row.min && value <= row.max;
  int& setting = call.state.settings.*row.field;
  if (taken) setting = value;
  return row.tells_value ? Bytes{static_cast<std::uint8_t>(setting)} : Accepted(taken);
}

// Commands that move the hand.

/// Those that speak of actual positions, which homing doesn't shift.
bool IsActual(const Call& call) { return call.command >= 0x16 && call.command <= 0x18; }

/// As far as power and limits allow. `position` is on the scale of the command.
void Move(const Call& call, std::size_t axis, int position) {
  if (!call.state.powered) return;
  const AxisSettings& settings = call.state.settings.axes[axis - 1];
  if (IsActual(call)) position -= settings.homing;
  const int target = std::clamp(position, settings.lower, settings.upper) + settings.homing;
  call.hand.JointMotor(axis).SetTarget(static_cast<std::int16_t>(target));
}

Bytes ReadOne(const Call& call) {
  const std::size_t axis = call.data[0];
  if (axis < 1 || axis > call.AxisCount()) return Accepted(false);
  const Column& column = IsActual(call) ? kActual : kPosition;
  Bytes reply{call.data[0]};
  Append(reply, column.value(AxesOf(call.hand, call.state)[axis - 1]), column.width);
  return reply;
}

Bytes MoveOne(const Call& call) {
  const std::size_t axis = call.data[0];
  if (axis >= 1 && axis <= call.AxisCount()) Move(call, axis, call.I16At(1));
  return ReadOne(call);
}

Bytes StateOf(const Call& call, const Column& position) {
  const std::array<Column, 4> columns{position, kVelocity, kCurrentHigh, kErrors};
  return Layout(AxesOf(call.hand, call.state), columns, call.AxisCount());
}

Bytes MoveAll(const Call& call) {
  for (std::size_t i = 0; i < call.AxisCount(); ++i) Move(call, i + 1, call.I16At(2 * i));
  return StateOf(call, IsActual(call) ? kActual : kPosition);
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
  return StateOf(call, kPosition);
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
  if (action < 1 || action > kActions.size() || !call.state.powered) return Accepted(false);
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

/// The public protocol tells the same number.
void PublishSerialNumber(const ServiceSettings& settings, SimulatedHand& hand) {
  const auto& number = settings.serial_number;
  hand.GetIdentity().serial_number.assign(number.begin(),
                                          std::find(number.begin(), number.end(), 0));
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

Bytes UploadOf(const SimulatedHand& hand, const ServiceState& state) {
  constexpr std::array<Column, 4> kRecord{kPosition, kVelocity, kCurrentHigh, kNothing};
  Bytes bytes;
  for (const Axis& axis : AxesOf(hand, state)) Append(bytes, Layout({axis}, kRecord, 1));
  bytes.resize(kTenAxes * 6);
  return bytes;
}

/// All other commands, by the size of their payload: so many bytes, and so many for each axis.
struct Operation {
  std::uint8_t command;
  std::size_t size;
  std::size_t per_axis;
  Bytes (*answer)(const Call&);
};

constexpr std::array<Operation, 26> kOperations{{
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
}};

Bytes Carry(const Operation& row, const Call& call) {
  return call.Has(row.size + row.per_axis * call.AxisCount()) ? row.answer(call) : Bytes{};
}

bool IsOn(const Report& row, ServiceLink link) {
  return link == ServiceLink::kSerial ? row.on_serial : row.on_can;
}
template <class Row>
bool IsOn(const Row&, ServiceLink) {
  return true;
}

/// The answer of the row for that command, if the table has one.
template <class Rows>
std::optional<Bytes> AnswerFrom(const Rows& rows, const Call& call) {
  const auto row = std::find_if(rows.begin(), rows.end(), [&](const auto& candidate) {
    return candidate.command == call.command && IsOn(candidate, call.link);
  });
  if (row == rows.end()) return std::nullopt;
  return Carry(*row, call);
}

Bytes AnswerTo(const Call& call) {
  std::optional<Bytes> answer = AnswerFrom(kReports, call);
  if (!answer) answer = AnswerFrom(kAxisRows, call);
  if (!answer) answer = AnswerFrom(kHandRows, call);
  if (!answer) answer = AnswerFrom(kOperations, call);
  return answer.value_or(Bytes{});
}

/// The settings that the motors have themselves.
void ReadMotors(ServiceSettings& settings, const SimulatedHand& hand) {
  for (const AxisRow& row : kAxisRows) {
    for (std::size_t i = 0; row.read != nullptr && i < settings.axes.size(); ++i) {
      settings.axes[i].*row.field = row.read(hand.JointMotor(i + 1));
    }
  }
}

/// Errors stay in the error word until they are cleared.
void Watch(ServiceSettings& settings, const SimulatedHand& hand) {
  for (std::size_t i = 0; i < settings.axes.size(); ++i) {
    const Motor& motor = hand.JointMotor(i + 1);
    settings.axes[i].errors |= motor.Errors();
    if (motor.Temperature() >= settings.temperature_threshold) settings.axes[i].errors |= kOverheat;
  }
}

Frame ServiceFrame(const ServiceMessage& message) {
  Frame frame;
  frame.id = kServiceIdentifier;
  frame.data[0] = message.command;
  const std::size_t size = std::min(message.data.size(), frame.data.size() - 1);
  std::copy_n(message.data.begin(), size, frame.data.begin() + 1);
  frame.len = PaddedLength(1 + size);
  return frame;
}

std::vector<Frame> Frames(const std::vector<ServiceMessage>& messages) {
  std::vector<Frame> frames(messages.size());
  std::transform(messages.begin(), messages.end(), frames.begin(), ServiceFrame);
  return frames;
}

/// As much of an id as the public protocol has room for.
std::uint8_t PublicId(int device_id) { return static_cast<std::uint8_t>(device_id & 0x7F); }

}  // namespace

bool HasSerialPort(const ModelRow& model) { return ServiceModelOf(model).serial_port; }
bool HasServiceOnCan(const ModelRow& model) { return ServiceModelOf(model).can; }

UpdateChecksum SerialChecksum(const std::array<std::uint8_t, 4>& version) {
  const unsigned major = version[0];
  const bool plain = version[1] == 0 && version[2] == 0;
  const bool first = major == 0 || (major == 1 && plain);
  const bool modbus = major == 15 ? plain : major < 15 && !first;
  return modbus ? UpdateChecksum::kModbus : UpdateChecksum::kXmodem;
}

ServiceFace::ServiceFace(const SimulatedHand& hand, ServiceLink link)
    : link_(link), restarts_(hand.Restarts()) {
  ServiceSettings& settings = state_.settings;
  settings.device_id = hand.DeviceId();
  const std::string& number = hand.GetIdentity().serial_number;
  std::copy_n(number.begin(), std::min(number.size(), settings.serial_number.size()),
              settings.serial_number.begin());
  AxisSettings axis;
  axis.upper = hand.Model().max_position;
  settings.axes.assign(hand.Model().motors, axis);
  ReadMotors(settings, hand);
  state_.saved = settings;
}

std::vector<ServiceMessage> ServiceFace::Handle(SimulatedHand& hand, const ServiceMessage& request,
                                                TimePoint now) {
  Follow(hand, now);
  if (hand.IsSilent(now)) return {};
  if (request.command == kUpdateData || request.command == kUpdateRequest) {
    return HandleUpdate(hand, request, now);
  }
  Bytes reply = AnswerTo({state_, hand, link_, request.command, request.data});
  hand.SetDeviceId(PublicId(Settings().device_id));
  ArmUploads(now);
  if (reply.empty()) return {};
  return {{request.command, std::move(reply)}};
}

std::vector<Frame> ServiceFace::Handle(SimulatedHand& hand, const Frame& request, TimePoint now) {
  if (request.len == 0 || request.len > request.data.size()) return {};
  const auto data = request.data.begin();
  return Frames(Handle(hand, ServiceMessage{*data, {data + 1, data + request.len}}, now));
}

std::vector<Frame> ServiceFace::TakeDueFrames(SimulatedHand& hand, TimePoint now) {
  return Frames(TakeDue(hand, now));
}

std::vector<ServiceMessage> ServiceFace::TakeDue(SimulatedHand& hand, TimePoint now) {
  Follow(hand, now);
  if (!upload_due_ || *upload_due_ > now) return {};
  const std::chrono::milliseconds interval(armed_ms_);
  *upload_due_ += interval;
  if (*upload_due_ <= now) upload_due_ = now + interval;
  if (hand.IsSilent(now)) return {};
  return {Upload(hand)};
}

ServiceMessage ServiceFace::Upload(const SimulatedHand& hand) const {
  return {kUpload, UploadOf(hand, state_)};
}

void ServiceFace::Restart(SimulatedHand& hand, TimePoint now) {
  hand.Restart(now);
  Follow(hand, now);
}

void ServiceFace::Follow(SimulatedHand& hand, TimePoint now) {
  hand.Advance(now);
  // The public protocol has no command to save: an id that it gave is permanent.
  if (hand.DeviceId() != PublicId(Settings().device_id)) {
    state_.settings.device_id = state_.saved.device_id = hand.DeviceId();
  }
  if (restarts_ != hand.Restarts()) Restore(hand);
  ReadMotors(state_.settings, hand);
  Watch(state_.settings, hand);
  ArmUploads(now);
}

/// After a restart, which leaves only what was saved.
void ServiceFace::Restore(SimulatedHand& hand) {
  restarts_ = hand.Restarts();
  state_.settings = state_.saved;
  state_.powered = true;
  hand.SetDeviceId(PublicId(Settings().device_id));
  PublishSerialNumber(Settings(), hand);
  for (const AxisRow& row : kAxisRows) {
    for (std::size_t i = 0; row.apply != nullptr && i < Settings().axes.size(); ++i) {
      row.apply(hand.JointMotor(i + 1), Settings().axes[i].*row.field);
    }
  }
}

void ServiceFace::ArmUploads(TimePoint now) {
  if (armed_ms_ == Settings().upload_ms) return;
  armed_ms_ = Settings().upload_ms;
  upload_due_.reset();
  if (armed_ms_ > 0) upload_due_ = now + std::chrono::milliseconds(armed_ms_);
}

/// Frames of an update, each with its child first; over CAN packet data have no child.
std::vector<ServiceMessage> ServiceFace::HandleUpdate(SimulatedHand& hand,
                                                      const ServiceMessage& request,
                                                      TimePoint now) {
  const bool is_request = request.command == kUpdateRequest;
  const bool serial = link_ == ServiceLink::kSerial;
  const std::size_t head = serial || is_request ? 1 : 0;
  Frame frame;
  if (request.data.size() < head || request.data.size() - head > frame.data.size()) return {};
  frame.len = static_cast<std::uint8_t>(request.data.size() - head);
  std::copy(request.data.begin() + static_cast<std::ptrdiff_t>(head), request.data.end(),
            frame.data.begin());
  const unsigned child = head > 0 ? request.data[0] : 0;
  // A command takes a byte of the CAN frame, while serial frames bring as much as public ones.
  const std::size_t room = frame.data.size() - (serial ? 0 : 1);
  FirmwarePartition& firmware = hand.Firmware();
  if (serial) firmware.SetChecksum(SerialChecksum(hand.GetIdentity().software_version));
  std::vector<FirmwarePartition::Reply> answers;
  if (!is_request && child == 0) answers = firmware.HandleData(frame, room);
  if (is_request && child < static_cast<unsigned>(UpdateChild::kResult)) {
    answers = firmware.HandleRequest(static_cast<UpdateChild>(child), frame);
  }
  std::vector<ServiceMessage> replies;
  for (const auto& answer : answers) {
    Bytes data{static_cast<std::uint8_t>(answer.child)};
    Append(data, static_cast<int>(answer.status), answer.len);
    replies.push_back({kUpdateReply, std::move(data)});
  }
  if (firmware.TakeRestart()) Restart(hand, now);
  return replies;
}

}  // namespace talvera::korvane::sim
