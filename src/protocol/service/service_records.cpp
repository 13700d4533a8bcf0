#include "protocol/service/service_records.h"

#include <cstring>

#include "util/bytes.h"

namespace talvera::korvane {
namespace {

constexpr std::uint8_t kPositionMode = 4;
constexpr std::uint8_t kVelocityMode = 5;
constexpr std::uint8_t kPositionVelocityMode = 6;
constexpr std::size_t kAxes = 10;
constexpr std::size_t kFullTargets = 8;

std::vector<std::uint8_t> Bytes(const std::uint8_t* data, std::size_t count) {
  return {data, data + count};
}

Version LoadShortVersion(const std::uint8_t* data) { return {data[0], data[1], data[2], 0}; }

void AppendGroup(std::vector<TactileSensorData>& sensors, const std::vector<std::uint8_t>& group,
                 int first, int last, std::size_t block) {
  if (group.size() < block * static_cast<std::size_t>(last - first + 1)) return;
  const std::uint8_t* data = group.data();
  for (int finger = first; finger <= last; ++finger, data += block) {
    sensors.push_back({static_cast<Finger>(finger), Bytes(data, block)});
  }
}

/// A packed record's optional isn't aligned, so it is read through a copy.
std::optional<short> Target(const MixCtrl& record, std::size_t offset) {
  std::optional<short> target;
  std::memcpy(&target, reinterpret_cast<const std::uint8_t*>(&record) + offset, sizeof target);
  return target;
}

}  // namespace

template <class Value>
std::vector<Value> ServiceWords(const std::uint8_t* data, std::size_t count) {
  std::vector<Value> words(count);
  for (std::size_t i = 0; i < count; ++i) words[i] = static_cast<Value>(LoadU16(data + 2 * i));
  return words;
}

template std::vector<std::uint16_t> ServiceWords(const std::uint8_t*, std::size_t);
template std::vector<short> ServiceWords(const std::uint8_t*, std::size_t);

SetAllAxisPosResponse LoadAxisResponse(const std::uint8_t* data, std::size_t axes) {
  return {ServiceWords<std::uint16_t>(data, axes),
          ServiceWords<std::uint16_t>(data + 2 * axes, axes), Bytes(data + 4 * axes, axes),
          Bytes(data + 5 * axes, axes)};
}

AxisLimitPos LoadAxisLimits(const std::uint8_t* data, std::size_t axes) {
  return {ServiceWords<std::uint16_t>(data, axes),
          ServiceWords<std::uint16_t>(data + 2 * axes, axes)};
}

ProductSerialNumber LoadProductSerialNumber(const std::uint8_t* data) {
  return {LoadU16(data),     data[2],           LoadU32(data + 3),
          LoadU16(data + 7), LoadU32(data + 9), LoadU16(data + 13),
          LoadU32(data + 15)};
}

FwVersion LoadFwVersion(const std::uint8_t* data) {
  return {LoadShortVersion(data), LoadShortVersion(data + 3), LoadShortVersion(data + 6), data[9]};
}

std::vector<TactileSensorData> SplitFingertipGroups(const std::vector<std::uint8_t>& a,
                                                    const std::vector<std::uint8_t>& b,
                                                    const std::vector<std::uint8_t>& c) {
  std::vector<TactileSensorData> sensors;
  AppendGroup(sensors, a, 1, 3, 16);
  AppendGroup(sensors, b, 4, 5, 16);
  AppendGroup(sensors, c, 6, 7, 25);
  return sensors;
}

std::size_t MaxMixedTargets(std::uint8_t mode) {
  if (mode == kPositionVelocityMode) return kFullTargets;
  return mode == kPositionMode || mode == kVelocityMode ? kAxes : 0;
}

ServiceTargets ToServiceTargets(const std::vector<MixCtrl>& targets) {
  ServiceTargets all;
  if (targets.empty()) return all;
  const std::uint8_t mode = targets.front().mix_mode;
  for (const MixCtrl& target : targets) {
    const std::size_t axis = target.joint_index;
    if (axis < 1 || axis > kAxes) continue;
    const auto position = Target(target, offsetof(MixCtrl, position));
    const auto velocity = Target(target, offsetof(MixCtrl, velocity));
    const auto current = Target(target, offsetof(MixCtrl, current));
    if (mode != kVelocityMode && position) {
      all.pos[axis - 1] = static_cast<std::uint16_t>(*position);
    }
    if (mode != kPositionMode && velocity) all.speed[axis - 1] = *velocity;
    if (current) {
      all.current[axis - 1] =
          *current < 256 ? std::uint8_t{0} : static_cast<std::uint8_t>(*current >> 8);
    }
  }
  return all;
}

}  // namespace talvera::korvane
