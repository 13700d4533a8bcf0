#include "protocol/serial/reply_cache.h"

#include <algorithm>
#include <iterator>

#include "hand/tactile_layout.h"

namespace talvera::korvane {
namespace {

/// What of the reply to a command is kept, and where. Hands send some replies in one size only;
/// those of the others that are longer count by what they begin with.
struct ReplyRow {
  ServiceCommand command;
  ReplySlot slot;
  std::uint8_t size = 0;
  bool exact = false;
  std::uint8_t offset = 0;
  std::uint8_t width = 0;

  constexpr ReplyRow AtLeast(std::uint8_t bytes) const {
    return {command, slot, bytes, /*exact=*/false, /*offset=*/0, /*width=*/bytes};
  }
  constexpr ReplyRow Exactly(std::uint8_t bytes) const {
    return {command, slot, bytes, /*exact=*/true, /*offset=*/0, /*width=*/bytes};
  }
  /// All of the size is kept unless a row names a part of it.
  constexpr ReplyRow Part(std::uint8_t first, std::uint8_t bytes) const {
    return {command, slot, size, exact, first, bytes};
  }

  bool Accepts(std::size_t received) const { return exact ? received == size : received >= size; }
};

using Command = ServiceCommand;

// clang-format off
constexpr ReplyRow kReplies[] = {
    ReplyRow{Command::kGetPowerState, ReplySlot::kPowerState}.AtLeast(1),
    ReplyRow{Command::kSetSingleAxisPos, ReplySlot::kAxisPosition}.AtLeast(3).Part(1, 2),
    ReplyRow{Command::kGetSingleAxisPos, ReplySlot::kAxisPosition}.AtLeast(3).Part(1, 2),
    ReplyRow{Command::kSetAllAxisPos, ReplySlot::kPositionResponse}.Exactly(60),
    ReplyRow{Command::kSetAllAxisPos, ReplySlot::kPositions}.Exactly(60).Part(0, 20),
    ReplyRow{Command::kGetAllAxisPos, ReplySlot::kPositions}.Exactly(20),
    ReplyRow{Command::kGetAllAxisCurrent, ReplySlot::kCurrents}.Exactly(20),
    ReplyRow{Command::kGetAllAxisForce, ReplySlot::kForces}.Exactly(20),
    ReplyRow{Command::kGetAllAxisTemp, ReplySlot::kTemperatures}.AtLeast(10),
    ReplyRow{Command::kGetErrorCode, ReplySlot::kErrors}.Exactly(2),
    ReplyRow{Command::kGetAllAxisPosRange, ReplySlot::kPositionRanges}.AtLeast(20),
    ReplyRow{Command::kGetAllFingertipSensorA, ReplySlot::kSensorsA}.AtLeast(48),
    ReplyRow{Command::kGetAllFingertipSensorB, ReplySlot::kSensorsB}.AtLeast(32),
    ReplyRow{Command::kGetAllFingertipSensorC, ReplySlot::kSensorsC}.AtLeast(50),
    ReplyRow{Command::kSetAllActualAxisPos, ReplySlot::kActualResponse}.AtLeast(60),
    ReplyRow{Command::kGetAllActualAxisPos, ReplySlot::kActualPositions}.AtLeast(20),
    ReplyRow{Command::kGetAllLoadData, ReplySlot::kLoads}.AtLeast(20),
    ReplyRow{Command::kGetAllElectricMotorId, ReplySlot::kMotorIds}.AtLeast(10),
    ReplyRow{Command::kGetAllSensorId, ReplySlot::kSensorIds}.AtLeast(7),
    ReplyRow{Command::kGetAllAxisCvp, ReplySlot::kCvp}.Exactly(60),
    ReplyRow{Command::kGetAxisLimitPos, ReplySlot::kLimits}.AtLeast(40),
    ReplyRow{Command::kSetPosSpeedCurData, ReplySlot::kTargetResponse}.Exactly(60),
    ReplyRow{Command::kSetPosSpeedCurData, ReplySlot::kPositions}.Exactly(60).Part(0, 20),
    ReplyRow{Command::kGetControlSource, ReplySlot::kControlSource}.AtLeast(1),
    ReplyRow{Command::kGetProductSerialNumber, ReplySlot::kSerialNumber}.AtLeast(19),
    ReplyRow{Command::kGetFwVersion, ReplySlot::kDeviceInfo}.AtLeast(10),
    ReplyRow{Command::kGetFwVersion, ReplySlot::kVersion}.AtLeast(10),
};
// clang-format on

}  // namespace

ReplySlot SlotOf(ServiceCommand command) {
  if (command == Command::kGetFingertipSensor) return ReplySlot::kSensor;
  return std::find_if(std::begin(kReplies), std::end(kReplies),
                      [&](const ReplyRow& row) { return row.command == command; })
      ->slot;
}

ReplyCache::ReplyCache() {
  for (const ReplyRow& row : kReplies) At(row.slot).data.resize(row.width);
}

void ReplyCache::Store(std::uint8_t command, const std::uint8_t* data, std::size_t size) {
  const MutexLock lock(mutex_);
  if (static_cast<Command>(command) == Command::kGetFingertipSensor) StoreSensor(data, size);
  for (const ReplyRow& row : kReplies) {
    if (static_cast<Command>(command) != row.command) continue;
    if (!row.Accepts(size)) continue;
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
  const MutexLock lock(mutex_);
  Cache& cache = At(slot);
  if (!cache.fresh) return std::nullopt;
  cache.fresh = false;
  return cache.data;
}

ReplyCache::Bytes ReplyCache::Last(ReplySlot slot) const {
  const MutexLock lock(mutex_);
  return caches_[static_cast<std::size_t>(slot)].data;
}

void ReplyCache::Forget(ReplySlot slot) {
  const MutexLock lock(mutex_);
  At(slot).fresh = false;
}

void ReplyCache::AwaitSensor(std::uint8_t number) {
  const MutexLock lock(mutex_);
  awaited_sensor_ = number;
}

}  // namespace talvera::korvane
