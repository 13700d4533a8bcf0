#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "korvane.h"
#include "private_korvane.h"
#include "support/recording_device.h"

// The commands of the service interface with their payloads, as both links carry them, and what
// each link makes of replies.

namespace talvera::korvane {

// Records as text, for ShowCall.
inline std::string Show(const SetAllAxisPosResponse& response) {
  using test::Show;
  return Show(response.pos) + "|" + Show(response.second) + "|" + Show(response.third) + "|" +
         Show(response.fourth);
}
inline std::string Show(const AxisLimitPos& limits) {
  return test::Show(limits.lower) + "|" + test::Show(limits.upper);
}
template <class Record>
inline std::string ShowBytes(const Record& record) {
  test::Bytes bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return test::Show(bytes);
}
inline std::string Show(const ProductSerialNumber& number) { return ShowBytes(number); }
inline std::string Show(const FwVersion& version) { return ShowBytes(version); }
inline std::string Show(const DeviceInfo& info) { return ShowBytes(info); }
inline std::string Show(const VendorInfo& info) {
  return info.product_model + "|" + info.serial_number + "|" + info.software_version.ToString() +
         "|" + info.hardware_version.ToString() + "|" + std::to_string(info.supply_voltage_mv) +
         "|" + std::to_string(info.active_dof);
}
inline std::string Show(const TactileSensorData& sensor) {
  return test::Show(sensor.finger) + ":" + test::Show(sensor.data) + ";";
}

namespace test {

/// An operation of a `Hand` as it is called, and what its failures are told under: its own name, or
/// another.
#define DOES(...)                                                                                 \
  [=](KorvaneBase& hand) {                                                                        \
    return ShowCall(dynamic_cast<Hand&>(hand), [=](Hand& called) { return called.__VA_ARGS__; }); \
  }
#define TOLD_AS(name, ...) name, DOES(__VA_ARGS__)
#define CALL(...) TOLD_AS(NameOf(#__VA_ARGS__), __VA_ARGS__)

inline std::string NameOf(const std::string& call) { return call.substr(0, call.find('(')); }

/// 0x1101, 0x1202 and so on, or their low bytes.
template <class Value>
std::vector<Value> Ramp(std::size_t count) {
  std::vector<Value> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    values[i] = static_cast<Value>((i + 17) << 8 | (i + 1));
  }
  return values;
}
template <class Row>
std::vector<Row> operator+(std::vector<Row> rows, const std::vector<Row>& more) {
  rows.insert(rows.end(), more.begin(), more.end());
  return rows;
}
inline Bytes RampBytes(std::size_t words) {
  Bytes bytes;
  for (const std::uint16_t word : Ramp<std::uint16_t>(words)) {
    bytes = bytes + Bytes{static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8)};
  }
  return bytes;
}

inline MixCtrl Target(int axis, int mode, short position, short velocity, short current) {
  MixCtrl target{};
  target.joint_index = axis & 31;
  target.mix_mode = mode & 7;
  target.position = position;
  target.velocity = velocity;
  target.current = current;
  return target;
}
/// The command for all axes at once, of whose 50 bytes some aren't zero.
inline Bytes MixedPayload(const std::map<std::size_t, int>& bytes) {
  Bytes payload(50);
  for (const auto& [at, value] : bytes) payload[at] = static_cast<std::uint8_t>(value);
  return Bytes{0x32} + payload;
}

/// What a mixed command for motors 1 and 10 sends in each of its modes.
inline std::vector<std::pair<int, Bytes>> MixedPayloads() {
  const std::map<std::size_t, int> positions{{0, 2}, {1, 1}, {18, 0xFE}, {19, 0xFF}, {40, 1}};
  std::map<std::size_t, int> speeds{{20, 4}, {21, 3}, {38, 0xFD}, {39, 0xFF}, {40, 1}};
  const Bytes of_speeds = MixedPayload(speeds);
  speeds.insert(positions.begin(), positions.end());
  return {{4, MixedPayload(positions)}, {5, of_speeds}, {6, MixedPayload(speeds)}};
}
/// One target more is for no motor, and currents are cut.
inline std::vector<MixCtrl> MixedTargets(int mode) {
  return {Target(1, mode, 0x102, 0x304, 256), Target(0, 0, 9, 9, 999), Target(10, 0, -2, -3, 255)};
}

struct ServiceCall {
  std::string name;
  std::function<std::string(KorvaneBase&)> call;
  /// The command and its payload.
  Bytes request = {};
};

/// What an operation makes of a reply: from that many bytes behind the command on, that text.
class Outcomes {
 public:
  Outcomes() = default;
  Outcomes(std::map<std::size_t, std::string> results) : results_(std::move(results)) {}

  bool Empty() const { return results_.empty(); }
  const std::string& Failed() const { return results_.begin()->second; }
  /// The least size that isn't a failure, and what comes of it.
  const std::pair<const std::size_t, std::string>& Good() const {
    return *std::next(results_.begin(), results_.size() > 1 ? 1 : 0);
  }
  /// Both ends of each range, the last one's of a reply of `most` bytes.
  std::vector<std::pair<std::size_t, std::string>> Cases(std::size_t most) const {
    std::vector<std::pair<std::size_t, std::string>> cases;
    for (const auto& [size, result] : results_) {
      if (size > 0) cases.emplace_back(size - 1, cases.back().second);
      cases.emplace_back(size, result);
    }
    if (!cases.empty()) cases.emplace_back(std::max(most, cases.back().first), cases.back().second);
    return cases;
  }

 private:
  std::map<std::size_t, std::string> results_;
};

inline Outcomes From(const std::string& failed, std::size_t size, const std::string& result) {
  return {{{0, failed}, {size, result}}};
}
inline Outcomes Only(const std::string& failed, std::size_t size, const std::string& result) {
  return {{{0, failed}, {size, result}, {size + 1, failed}}};
}

/// A reply of that many bytes behind the command: 1, 2 and so on.
inline Bytes Counting(std::uint8_t command, std::size_t size) {
  Bytes reply{command};
  for (std::size_t i = 1; i <= size; ++i) reply.push_back(static_cast<std::uint8_t>(i));
  return reply;
}
/// Words and bytes of such a reply from its byte `first` on, each so far from the one before.
inline std::string Words(std::size_t count, std::size_t first = 1, std::size_t step = 2) {
  std::vector<std::size_t> words(count);
  for (std::size_t i = 0; i < count; ++i) words[i] = 257 * (first + step * i) + 256;
  return Show(words);
}
inline std::string Numbers(std::size_t count, std::size_t first = 1) {
  std::vector<std::size_t> numbers(count);
  std::iota(numbers.begin(), numbers.end(), first);
  return Show(numbers);
}
inline std::string Zeros(std::size_t count) { return Show(Bytes(count)); }
/// Of a command for all axes at once.
inline std::string Block(std::size_t n) {
  return Words(n) + "|" + Words(n, 2 * n + 1) + "|" + Numbers(n, 4 * n + 1) + "|" +
         Numbers(n, 5 * n + 1);
}

/// At the limits of what is accepted, on a hand with so many axes that have a homing offset.
inline std::vector<ServiceCall> Settings(std::uint8_t axes, std::size_t overload_bytes) {
  using Hand = PrivateKorvane;
  const auto speeds = Ramp<std::int16_t>(10);
  const auto number = Ramp<std::uint8_t>(19);
  const auto overload = [=](std::uint8_t command, std::uint8_t axis, Bytes value) {
    value.resize(overload_bytes);
    return Bytes{command, axis} + value;
  };
  return {
      {CALL(SetPowerState(7)), {1, 7}},
      {CALL(SetAxisHoming(axes, -4095)), {3, axes, 0x01, 0xF0}},
      {CALL(SetAxisHoming(1, 4095)), {3, 1, 0xFF, 0x0F}},
      {CALL(SetId(1)), {4, 1, 0}},
      {CALL(SetId(2046)), {4, 0xFE, 7}},
      {CALL(SetId(0x27)), {4, 0x27, 0}},
      {CALL(SaveParam()), {5}},
      {CALL(ClearError()), {14}},
      {CALL(PlayAction(200)), {15, 200}},
      {CALL(SetRunMode(0, 255)), {21, 0, 255}},
      {CALL(SetAxisMinPos(1, 4096)), {27, 1, 0, 0x10}},
      {CALL(SetAxisMaxPos(12, 258)), {28, 12, 2, 1}},
      {CALL(ClearAllLimitPos()), {29}},
      {CALL(SetAllRunSpeed(speeds)), Bytes{32} + RampBytes(10)},
      {CALL(SetProtectedTorque(3, 100)), {35, 3, 100}},
      {CALL(SetMinTorque(12, 255)), {36, 12, 255}},
      {CALL(SetProtectiveCurrent(12, 3250)), {37, 12, 0xB2, 0x0C}},
      {CALL(SetAllAxisCvpUploadInterval(0x1234)), {40, 0x34, 0x12}},
      {CALL(SetRightOrLeft(1)), {49, 1}},
      {CALL(SetTemperatureThreshold(90)), {52, 90}},
      {CALL(SetControlSource(1)), {128, 1}},
      {CALL(SetProductSerialNumber(number)), Bytes{193} + number},
      {CALL(SetOverloadTorque(1, 300)), overload(33, 1, {44, 1})},
      {CALL(SetOverloadTorque(255, 1000)), overload(33, 255, {232, 3})},
      {CALL(SetOverloadProtectionTime(3, 0xABCD)), overload(34, 3, {0xCD, 0xAB})},
  };
}

/// Just beyond those limits.
inline std::vector<ServiceCall> RefusedSettings(std::uint8_t axes) {
  using Hand = PrivateKorvane;
  const auto past = static_cast<std::uint8_t>(axes + 1);
  // clang-format off
  return {
      {CALL(SetAxisHoming(0, 0))}, {CALL(SetAxisHoming(past, 0))}, {CALL(SetAxisHoming(1, 4096))},
      {CALL(SetAxisHoming(1, -4096))}, {CALL(SetId(0))}, {CALL(SetId(2047))},
      {CALL(SetAxisMinPos(0, 0))}, {CALL(SetAxisMinPos(13, 0))}, {CALL(SetAxisMinPos(1, 4097))},
      {CALL(SetAxisMaxPos(0, 0))}, {CALL(SetAxisMaxPos(13, 0))}, {CALL(SetAxisMaxPos(1, 4097))},
      {CALL(SetAllRunSpeed(Ramp<short>(9)))}, {CALL(SetAllRunSpeed(Ramp<short>(11)))},
      {CALL(SetOverloadTorque(1, 1001))}, {CALL(SetProtectedTorque(1, 101))},
      {CALL(SetMinTorque(0, 1))}, {CALL(SetMinTorque(13, 1))}, {CALL(SetProtectiveCurrent(0, 1))},
      {CALL(SetProtectiveCurrent(13, 1))}, {CALL(SetProtectiveCurrent(1, 3251))},
      {CALL(SetRightOrLeft(2))}, {CALL(SetProductSerialNumber(Ramp<std::uint8_t>(18)))},
      {CALL(SetProductSerialNumber(Ramp<std::uint8_t>(20)))}, {CALL(SetControlSource(2))}};
  // clang-format on
}

struct ServiceRead {
  ServiceCall call;
  Outcomes can;
  /// None where the serial link asks in another way.
  Outcomes serial = {};
  /// Behind "get", on the standard output stream of the serial link.
  std::string what = {};

  std::string Text() const { return what.empty() ? "" : "get " + what + "\n"; }
};

/// The service operations that read, and those of motion, of a hand with so many axes.
inline std::vector<ServiceRead> ServiceReads(std::uint8_t axes) {
  using Hand = PrivateKorvane;
  const std::size_t n = axes;
  const auto words = Ramp<std::uint16_t>(n);
  const auto ten = Ramp<std::uint16_t>(10);
  const auto speeds = Ramp<std::int16_t>(10);
  const auto bytes = Ramp<std::uint8_t>(10);
  const Bytes targets = RampBytes(10);
  const auto numbers = [](std::size_t size, bool zeros = false) {
    return From(zeros ? Zeros(size) : "", size, Numbers(size));
  };
  const auto all_words = [=](const std::string& failed) { return From(failed, 2 * n, Words(n)); };
  const Outcomes byte = From("0", 1, "1"), position = From("0", 3, Words(1, 2));
  const Outcomes block = Only("|||", 60, Block(10)), ten_only = Only("", 20, Words(10));
  const Outcomes ten_words = From(Zeros(10), 20, Words(10));
  const std::string limits = Words(n) + "|" + Words(n, 2 * n + 1);
  // Brisas may have twelve axes there, and Lumens tell the positions alone too.
  const Outcomes all_limits(
      {{0, "|"},
       {4 * n, limits},
       {n == 4 ? 4 * n : 48, n == 4 ? limits : Words(12) + "|" + Words(12, 25)}});
  const Outcomes echo = n == 4 ? Outcomes({{0, "|||"}, {8, Words(4) + "|||"}, {24, Block(4)}})
                               : From("|||", 60, Block(10));
  const std::string version = "1 2 3 0 4 5 6 0 7 8 9 0 10";
  const std::string posi = "all joint motor posi failed",
                    temperature = "all motor temprature failed";
  // clang-format off
  return {
      {{CALL(GetPowerState()), {2}}, byte, byte},
      {{CALL(SetSingleAxisPos(1, 0)), {6, 1, 0, 0}}, position},
      {{CALL(GetSingleAxisPos(2)), {7, 2}}, position, From("65535", 3, Words(1, 2)),
       "joint motor posi failed, joint_motor_index: 2"},
      {{CALL(SetAllAxisPos(words)), Bytes{8} + RampBytes(n)}, echo, block},
      {{CALL(GetAllAxisPos()), {9}}, all_words(""), Only(Zeros(10), 20, Words(10)), posi},
      {{CALL(GetAllAxisCurrent()), {10}}, ten_words, ten_only, "all motor current failed."},
      {{CALL(GetAllAxisVelocity()), {11}}, ten_words},
      {{CALL(GetAllAxisTemp()), {12}}, numbers(10, true), numbers(10), temperature},
      {{CALL(GetErrorCode()), {13}}, From("0", 2, "513"), Only("0", 2, "1023"),
       "error report failed"},
      {{CALL(GetAllAxisPosRange()), {16}}, all_words(Zeros(n)), all_words("")},
      {{CALL(SetSingleActualAxisPos(10, 4096)), {22, 10, 0, 0x10}}, position},
      {{CALL(SetSingleActualAxisPos(1, 0)), {22, 1, 0, 0}}, position},
      {{CALL(GetSingleActualAxisPos(10)), {23, 10}}, position},
      {{CALL(SetAllActualAxisPos(words)), Bytes{24} + RampBytes(n)}, all_words(""),
       From("", 60, Words(10))},
      {{CALL(GetAllActualAxisPos()), {25}}, all_words(Zeros(n)), all_words("")},
      {{CALL(GetAllLoadData()), {26}}, ten_words, From("", 20, Words(10))},
      {{CALL(GetAllElectricMotorId()), {38}}, numbers(10, true), numbers(10)},
      {{CALL(GetAllSensorId()), {39}}, numbers(7, true), numbers(7)},
      {{CALL(GetAllAxisCvp()), {41}}, numbers(60), Only("", 60, Numbers(60))},
      {{CALL(GetAxisLimitPos()), {48}}, all_limits, From("|", 40, limits)},
      {{CALL(SetPosSpeedCurData(ten, speeds, bytes)), Bytes{50} + targets + targets + bytes},
       From("|||", 6 * n, Block(n)), block},
      {{CALL(GetFingerTactileForce()), {51}}, numbers(35)},
      {{CALL(GetControlSource()), {129}}, byte, byte},
      {{CALL(GetProductSerialNumber()), {194}}, numbers(19, true), numbers(19, true)},
      {{CALL(GetFwVersion()), {205}},
       Outcomes({{0, Zeros(13)}, {10, "1 0 0 0 3 4 5 0 6 7 8 0 9"}, {11, version}}),
       From(Zeros(13), 10, version)}};
  // clang-format on
}

/// Those that a Brisa alone has.
inline std::vector<ServiceRead> FingertipReads() {
  using Hand = PrivateKorvane;
  const auto same = [](auto call, std::size_t size) {
    const Outcomes outcomes = From("", size, Numbers(size));
    return ServiceRead{std::move(call), outcomes, outcomes};
  };
  return {{{CALL(GetFingertipSensor(5)), {17, 5}}, From("", 17, Numbers(17))},
          {{CALL(GetFingertipSensor(6)), {17, 6}}, From("", 26, Numbers(26))},
          same(ServiceCall{CALL(GetAllFingertipSensorA()), {18}}, 48),
          same(ServiceCall{CALL(GetAllFingertipSensorB()), {19}}, 32),
          same(ServiceCall{CALL(GetAllFingertipSensorC()), {20}}, 50)};
}

/// Motions just beyond what is accepted, with what they return: of one axis that, others nothing.
inline std::vector<std::pair<ServiceCall, std::string>> RefusedMotions(std::uint8_t axes,
                                                                       const char* single) {
  using Hand = PrivateKorvane;
  const auto few = Ramp<std::uint16_t>(axes - 1U), many = Ramp<std::uint16_t>(axes + 1U);
  const auto nine = Ramp<std::uint16_t>(9), ten = Ramp<std::uint16_t>(10);
  const auto speeds = Ramp<short>(10), eleven = Ramp<short>(11);
  const auto currents = Ramp<std::uint8_t>(10), few_currents = Ramp<std::uint8_t>(9);
  return {{{CALL(SetSingleAxisPos(0, 1))}, single},
          {{CALL(SetSingleAxisPos(13, 1))}, single},
          {{CALL(SetSingleAxisPos(1, 4097))}, single},
          {{CALL(SetSingleActualAxisPos(0, 1))}, single},
          {{CALL(SetSingleActualAxisPos(11, 1))}, single},
          {{CALL(SetSingleActualAxisPos(1, 4097))}, single},
          {{CALL(SetAllAxisPos(few))}, "|||"},
          {{CALL(SetAllAxisPos(many))}, "|||"},
          {{CALL(SetAllActualAxisPos(few))}, ""},
          {{CALL(SetAllActualAxisPos(many))}, ""},
          {{CALL(SetPosSpeedCurData(nine, speeds, currents))}, "|||"},
          {{CALL(SetPosSpeedCurData(ten, eleven, currents))}, "|||"},
          {{CALL(SetPosSpeedCurData(ten, speeds, few_currents))}, "|||"}};
}

}  // namespace test
}  // namespace talvera::korvane
