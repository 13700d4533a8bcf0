#include "protocol/service/service_records.h"

#include "hand/mixed_targets.h"
#include "hand/tactile_layout.h"
#include "util/bytes.h"

namespace talvera::korvane {
namespace {

std::vector<std::uint8_t> Bytes(const std::uint8_t* data, std::size_t count) {
  return {data, data + count};
}

Version LoadShortVersion(const std::uint8_t* data) { return {data[0], data[1], data[2], 0}; }

/// The sensors from `first` to `last`, whose summaries are of one size, if the group holds them
/// all.
void AppendGroup(std::vector<TactileSensorData>& sensors, const std::vector<std::uint8_t>& group,
                 Finger first, Finger last) {
  const std::size_t size = SummaryBytesOf(first);
  const int count = static_cast<int>(last) - static_cast<int>(first) + 1;
  if (group.size() < size * static_cast<std::size_t>(count)) return;
  const std::uint8_t* data = group.data();
  for (int finger = static_cast<int>(first); finger <= static_cast<int>(last); ++finger) {
    sensors.push_back({static_cast<Finger>(finger), Bytes(data, size)});
    data += size;
  }
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
  AppendGroup(sensors, a, Finger::THUMB, Finger::MIDDLE);
  AppendGroup(sensors, b, Finger::RING, Finger::LITTLE);
  AppendGroup(sensors, c, Finger::PALM, Finger::DORSUM);
  return sensors;
}

std::size_t MaxMixedTargets(std::uint8_t mode) {
  if (mode == mix_mode::kPositionVelocityCurrent) return kMaxFullTargets;
  return mode == mix_mode::kPositionCurrent || mode == mix_mode::kVelocityCurrent ? kServiceAxes
                                                                                  : 0;
}

ServiceTargets ToServiceTargets(const std::vector<MixCtrl>& targets) {
  ServiceTargets all;
  if (targets.empty()) return all;
  const std::uint8_t mode = targets.front().mix_mode;
  for (const MixCtrl& target : targets) {
    const std::size_t axis = target.joint_index;
    if (axis < 1 || axis > kServiceAxes) continue;
    const auto position = TargetOf(target, MixTarget::kPosition);
    const auto velocity = TargetOf(target, MixTarget::kVelocity);
    const auto current = TargetOf(target, MixTarget::kCurrent);
    if (mode != mix_mode::kVelocityCurrent && position) {
      all.pos[axis - 1] = static_cast<std::uint16_t>(*position);
    }
    if (mode != mix_mode::kPositionCurrent && velocity) all.speed[axis - 1] = *velocity;
    if (current) {
      all.current[axis - 1] =
          *current < 256 ? std::uint8_t{0} : static_cast<std::uint8_t>(*current >> 8);
    }
  }
  return all;
}

}  // namespace talvera::korvane
