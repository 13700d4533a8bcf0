#include <cstdlib>

#include "service_call.h"

namespace talvera::korvane::sim {
namespace {

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

// Commands that read values of all axes.

enum class Links : std::uint8_t { kBoth, kSerial, kCan };
/// Of how many axes: as many as the hand has, or ten in every hand.
enum class Axes : std::uint8_t { kOfHand, kTen };

struct Report {
  std::uint8_t command;
  Links links;
  Axes axes;
  std::array<Column, 2> columns;
};

constexpr Report kReports[] = {
    {0x09, Links::kBoth, Axes::kOfHand, {kPosition}},
    {0x0A, Links::kBoth, Axes::kTen, {kCurrent}},
    {0x0B, Links::kSerial, Axes::kTen, {kForce}},
    {0x0B, Links::kCan, Axes::kTen, {kVelocity}},
    {0x0C, Links::kBoth, Axes::kTen, {kTemperature}},
    {0x10, Links::kBoth, Axes::kOfHand, {kRange}},
    {0x19, Links::kBoth, Axes::kOfHand, {kActual}},
    {0x1A, Links::kBoth, Axes::kTen, {kLoad}},
    {0x26, Links::kBoth, Axes::kTen, {kNumber}},
    {0x30, Links::kBoth, Axes::kOfHand, {{kLower, kUpper}}},
};

Bytes Carry(const Report& report, const Call& call) {
  if (!call.Has(0)) return {};
  return Layout(AxesOf(call.hand, call.state), report.columns,
                report.axes == Axes::kTen ? kTenAxes : call.AxisCount());
}

bool IsOn(const Report& row, ServiceLink link) {
  return row.links != (link == ServiceLink::kSerial ? Links::kCan : Links::kSerial);
}

const Column& PositionColumn(const Call& call) { return call.IsActual() ? kActual : kPosition; }

}  // namespace

std::optional<Bytes> AnswerReport(const Call& call) { return AnswerFrom(kReports, call); }

Bytes PositionReply(const Call& call, std::size_t axis) {
  const Column& column = PositionColumn(call);
  Bytes reply{static_cast<std::uint8_t>(axis)};
  Append(reply, column.value(AxesOf(call.hand, call.state)[axis - 1]), column.width);
  return reply;
}

Bytes StateOf(const Call& call) {
  const std::array<Column, 4> columns{PositionColumn(call), kVelocity, kCurrentHigh, kErrors};
  return Layout(AxesOf(call.hand, call.state), columns, call.AxisCount());
}

Bytes UploadOf(const SimulatedHand& hand, const ServiceState& state) {
  constexpr std::array<Column, 4> kRecord{kPosition, kVelocity, kCurrentHigh, kNothing};
  Bytes bytes;
  for (const Axis& axis : AxesOf(hand, state)) Append(bytes, Layout({axis}, kRecord, 1));
  bytes.resize(kTenAxes * 6);
  return bytes;
}

}  // namespace talvera::korvane::sim
