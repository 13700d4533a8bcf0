#include "protocol/serial/reply_cache.h"

#include <algorithm>
#include <cassert>
#include <iterator>

#include "hand/tactile_layout.h"
#include "protocol/service/reading_rows.h"

namespace talvera::korvane {
namespace {

/// What of the reply to a command is kept, and where. Hands send some replies in one size only;
/// those of the others that are longer count by what they begin with.
struct ReplyRow {
  ServiceCommand command;
  ReplySlot slot;
  bool exact = false;
  std::size_t size = 0;
  std::size_t offset = 0;
  std::size_t width = 0;

  constexpr ReplyRow AtLeast(std::size_t bytes) const {
    return {command, slot, /*exact=*/false, bytes, /*offset=*/0, /*width=*/bytes};
  }
  constexpr ReplyRow Exactly(std::size_t bytes) const {
    return {command, slot, /*exact=*/true, bytes, /*offset=*/0, /*width=*/bytes};
  }
  /// All of the size is kept unless a row names a part of it.
  constexpr ReplyRow Part(std::size_t first, std::size_t bytes) const {
    return {command, slot, exact, size, first, bytes};
  }

  bool Accepts(std::size_t received) const { return exact ? received == size : received >= size; }
};

using Command = ServiceCommand;

/// A value of two bytes for each axis, and the blocks of LoadAxisResponse.
constexpr std::size_t kWords = 2 * kServiceAxes;
constexpr std::size_t kAxisResponse = 6 * kServiceAxes;

// clang-format off
constexpr ReplyRow kReplies[] = {
    ReplyRow{Command::kGetPowerState, ReplySlot::kPowerState}.AtLeast(1),
    ReplyRow{Command::kSetSingleAxisPos, ReplySlot::kAxisPosition}.AtLeast(3).Part(1, 2),
    ReplyRow{Command::kGetSingleAxisPos, ReplySlot::kAxisPosition}.AtLeast(3).Part(1, 2),
    ReplyRow{Command::kSetAllAxisPos, ReplySlot::kPositionResponse}.Exactly(kAxisResponse),
    ReplyRow{Command::kSetAllAxisPos, ReplySlot::kPositions}.Exactly(kAxisResponse).Part(0, kWords),
    ReplyRow{Command::kGetAllAxisPos, ReplySlot::kPositions}.Exactly(kWords),
    ReplyRow{Command::kGetAllAxisCurrent, ReplySlot::kCurrents}.Exactly(kWords),
    ReplyRow{Command::kGetAllAxisForce, ReplySlot::kForces}.Exactly(kWords),
    ReplyRow{Command::kGetAllAxisTemp, ReplySlot::kTemperatures}.AtLeast(reading::kAxisTemp.count),
    ReplyRow{Command::kGetErrorCode, ReplySlot::kErrors}.Exactly(2),
    ReplyRow{Command::kGetAllAxisPosRange, ReplySlot::kPositionRanges}.AtLeast(kWords),
    ReplyRow{Command::kGetAllFingertipSensorA, ReplySlot::kSensorsA}.AtLeast(reading::kFingertipSensorA.count),
    ReplyRow{Command::kGetAllFingertipSensorB, ReplySlot::kSensorsB}.AtLeast(reading::kFingertipSensorB.count),
    ReplyRow{Command::kGetAllFingertipSensorC, ReplySlot::kSensorsC}.AtLeast(reading::kFingertipSensorC.count),
    ReplyRow{Command::kSetAllActualAxisPos, ReplySlot::kActualResponse}.AtLeast(kAxisResponse),
    ReplyRow{Command::kGetAllActualAxisPos, ReplySlot::kActualPositions}.AtLeast(kWords),
    ReplyRow{Command::kGetAllLoadData, ReplySlot::kLoads}.AtLeast(kWords),
    ReplyRow{Command::kGetAllElectricMotorId, ReplySlot::kMotorIds}.AtLeast(reading::kElectricMotorId.count),
    ReplyRow{Command::kGetAllSensorId, ReplySlot::kSensorIds}.AtLeast(reading::kSensorId.count),
    ReplyRow{Command::kGetAllAxisCvp, ReplySlot::kCvp}.Exactly(reading::kAxisCvp.count),
    ReplyRow{Command::kGetAxisLimitPos, ReplySlot::kLimits}.AtLeast(2 * kWords),
    ReplyRow{Command::kSetPosSpeedCurData, ReplySlot::kTargetResponse}.Exactly(kAxisResponse),
    ReplyRow{Command::kSetPosSpeedCurData, ReplySlot::kPositions}.Exactly(kAxisResponse).Part(0, kWords),
    ReplyRow{Command::kGetControlSource, ReplySlot::kControlSource}.AtLeast(1),
    ReplyRow{Command::kGetProductSerialNumber, ReplySlot::kSerialNumber}.AtLeast(reading::kProductSerialNumber.count),
    ReplyRow{Command::kGetFwVersion, ReplySlot::kVendorVersion}.AtLeast(10),
    ReplyRow{Command::kGetFwVersion, ReplySlot::kVersion}.AtLeast(10),
};
// clang-format on

}  // namespace

ReplySlot SlotOf(ServiceCommand command) {
  if (command == Command::kGetFingertipSensor) return ReplySlot::kSensor;
  const auto* const row =
      std::find_if(std::begin(kReplies), std::end(kReplies),
                   [&](const ReplyRow& reply) { return reply.command == command; });
  assert(row != std::end(kReplies));
  return row->slot;
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
