#include "protocol/serial/reply_cache.h"

#include <algorithm>

#include "hand/tactile_layout.h"
#include "protocol/service/service_command.h"

namespace talvera::korvane {
namespace {

/// Which reply leaves which bytes where. Hands send some replies in one size only, and longer ones
/// of the others are taken for what they begin with.
struct ReplyRow {
  ServiceCommand command;
  bool exact;
  std::uint8_t size;
  ReplySlot slot;
  std::uint8_t offset;
  std::uint8_t width;
};

using Command = ServiceCommand;

constexpr ReplyRow kReplies[] = {
    {Command::kGetPowerState, false, 1, ReplySlot::kPowerState, 0, 1},
    {Command::kSetSingleAxisPos, false, 3, ReplySlot::kAxisPosition, 1, 2},
    {Command::kGetSingleAxisPos, false, 3, ReplySlot::kAxisPosition, 1, 2},
    {Command::kSetAllAxisPos, true, 60, ReplySlot::kPositionResponse, 0, 60},
    {Command::kSetAllAxisPos, true, 60, ReplySlot::kPositions, 0, 20},
    {Command::kGetAllAxisPos, true, 20, ReplySlot::kPositions, 0, 20},
    {Command::kGetAllAxisCurrent, true, 20, ReplySlot::kCurrents, 0, 20},
    {Command::kGetAllAxisForce, true, 20, ReplySlot::kForces, 0, 20},
    {Command::kGetAllAxisTemp, false, 10, ReplySlot::kTemperatures, 0, 10},
    {Command::kGetErrorCode, true, 2, ReplySlot::kErrors, 0, 2},
    {Command::kGetAllAxisPosRange, false, 20, ReplySlot::kPositionRanges, 0, 20},
    {Command::kGetAllFingertipSensorA, false, 48, ReplySlot::kSensorsA, 0, 48},
    {Command::kGetAllFingertipSensorB, false, 32, ReplySlot::kSensorsB, 0, 32},
    {Command::kGetAllFingertipSensorC, false, 50, ReplySlot::kSensorsC, 0, 50},
    {Command::kSetAllActualAxisPos, false, 60, ReplySlot::kActualResponse, 0, 60},
    {Command::kGetAllActualAxisPos, false, 20, ReplySlot::kActualPositions, 0, 20},
    {Command::kGetAllLoadData, false, 20, ReplySlot::kLoads, 0, 20},
    {Command::kGetAllElectricMotorId, false, 10, ReplySlot::kMotorIds, 0, 10},
    {Command::kGetAllSensorId, false, 7, ReplySlot::kSensorIds, 0, 7},
    {Command::kGetAllAxisCvp, true, 60, ReplySlot::kCvp, 0, 60},
    {Command::kGetAxisLimitPos, false, 40, ReplySlot::kLimits, 0, 40},
    {Command::kSetPosSpeedCurData, true, 60, ReplySlot::kTargetResponse, 0, 60},
    {Command::kSetPosSpeedCurData, true, 60, ReplySlot::kPositions, 0, 20},
    {Command::kGetControlSource, false, 1, ReplySlot::kControlSource, 0, 1},
    {Command::kGetProductSerialNumber, false, 19, ReplySlot::kSerialNumber, 0, 19},
    {Command::kGetFwVersion, false, 10, ReplySlot::kDeviceInfo, 0, 10},
    {Command::kGetFwVersion, false, 10, ReplySlot::kVersion, 0, 10},
};

}  // namespace

ReplyCache::ReplyCache() {
  for (const ReplyRow& row : kReplies) At(row.slot).data.resize(row.width);
}

void ReplyCache::Store(std::uint8_t command, const std::uint8_t* data, std::size_t size) {
  const std::lock_guard lock(mutex_);
  if (static_cast<Command>(command) == Command::kGetFingertipSensor) StoreSensor(data, size);
  for (const ReplyRow& row : kReplies) {
    if (static_cast<Command>(command) != row.command) continue;
    if (row.exact ? size != row.size : size < row.size) continue;
    Cache& cache = At(row.slot);
    std::copy_n(data + row.offset, row.width, cache.data.begin());
    cache.fresh = true;
  }
}

/// Some hands put the sensor's number in front of the reading, others don't.
void ReplyCache::StoreSensor(const std::uint8_t* data, std::size_t size) {
  const bool with_number = size == 1 + kFingerSummaryBytes || size == 1 + kPalmSummaryBytes;
  if (!with_number && size != kFingerSummaryBytes && size != kPalmSummaryBytes) return;
  if (with_number && awaited_sensor_ == data[0]) {
    awaited_sensor_.reset();
    ++data;
    --size;
  }
  At(ReplySlot::kSensor) = {true, Bytes(data, data + size)};
}

std::optional<ReplyCache::Bytes> ReplyCache::Take(ReplySlot slot) {
  const std::lock_guard lock(mutex_);
  Cache& cache = At(slot);
  if (!cache.fresh) return std::nullopt;
  cache.fresh = false;
  return cache.data;
}

ReplyCache::Bytes ReplyCache::Last(ReplySlot slot) const {
  const std::lock_guard lock(mutex_);
  return caches_[static_cast<std::size_t>(slot)].data;
}

void ReplyCache::Forget(ReplySlot slot) {
  const std::lock_guard lock(mutex_);
  At(slot).fresh = false;
}

void ReplyCache::AwaitSensor(std::uint8_t number) {
  const std::lock_guard lock(mutex_);
  awaited_sensor_ = number;
}

}  // namespace talvera::korvane
