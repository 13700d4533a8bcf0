#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "private_korvane.h"
#include "support/recording_device.h"

// The settings of the service interface, as both links carry them: a command and its payload.

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

namespace test {

/// An operation as it is called, and what its failures are told under: its own name, or another.
#define TOLD_AS(name, ...) \
  name, [=](Hand& hand) { return ShowCall(hand, [=](Hand& called) { return called.__VA_ARGS__; }); }
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
inline Bytes operator+(Bytes bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
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

template <class Hand>
struct ServiceCall {
  std::string name;
  std::function<std::string(Hand&)> call;
  /// The command and its payload.
  Bytes request = {};
};

/// At the limits of what is accepted, on a hand with so many axes that have a homing offset.
template <class Hand>
std::vector<ServiceCall<Hand>> Settings(std::uint8_t axes, std::size_t overload_bytes) {
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
      {CALL(SetProductSerialNumber(number)), Bytes{193} + number},
      {CALL(SetOverloadTorque(1, 300)), overload(33, 1, {44, 1})},
      {CALL(SetOverloadTorque(255, 1000)), overload(33, 255, {232, 3})},
      {CALL(SetOverloadProtectionTime(3, 0xABCD)), overload(34, 3, {0xCD, 0xAB})},
  };
}

/// Just beyond those limits.
template <class Hand>
std::vector<ServiceCall<Hand>> RefusedSettings(std::uint8_t axes) {
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
      {CALL(SetProductSerialNumber(Ramp<std::uint8_t>(20)))}};
  // clang-format on
}

}  // namespace test
}  // namespace talvera::korvane
