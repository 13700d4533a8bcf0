#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "protocol/service/service_command.h"
#include "util/guarded.h"

namespace talvera::korvane {

/// What the replies of the serial link leave behind. Some replies leave two things.
enum class ReplySlot : std::uint8_t {
  kPowerState,
  kAxisPosition,
  kPositions,
  kPositionResponse,
  kCurrents,
  kForces,
  kTemperatures,
  kErrors,
  kPositionRanges,
  kSensor,
  kSensorsA,
  kSensorsB,
  kSensorsC,
  kActualResponse,
  kActualPositions,
  kLoads,
  kMotorIds,
  kSensorIds,
  kCvp,
  kLimits,
  kTargetResponse,
  kControlSource,
  kSerialNumber,
  kVendorVersion,  ///< What GetVendorInfo reads, and
  kVersion,        ///< GetFwVersion, of the same reply: neither takes it from the other.
  kCount,
};

/// Where the cache keeps the reply to a command; the first place if there are two. The command is
/// one whose reply it keeps.
ReplySlot SlotOf(ServiceCommand command);

/// The last reply of each kind, and whether it has been read. Written by the receive thread, read
/// by any thread.
///
/// A reply isn't tied to a request: one that came by itself satisfies the next read of its kind.
/// Applications know that, and that two threads which read at once may get each other's replies.
class ReplyCache {
 public:
  using Bytes = std::vector<std::uint8_t>;

  ReplyCache();

  /// Keeps what the frame holds; frames of unknown commands or of a wrong size are ignored.
  void Store(std::uint8_t command, const std::uint8_t* data, std::size_t size);

  /// Returns the last reply of this kind and marks it as read; nothing if it was read before.
  std::optional<Bytes> Take(ReplySlot slot);

  /// The last reply as it stands, all zero before the first.
  Bytes Last(ReplySlot slot) const;

  /// Marks the last reply of this kind as read.
  void Forget(ReplySlot slot);

  /// The next tactile reply that begins with this number has it in front of the reading, of which
  /// it isn't a part.
  void AwaitSensor(std::uint8_t number);

 private:
  struct Cache {
    bool fresh = false;
    Bytes data;
  };

  Cache& At(ReplySlot slot) KORVANE_REQUIRES(mutex_) {
    return caches_[static_cast<std::size_t>(slot)];
  }
  void StoreSensor(const std::uint8_t* data, std::size_t size) KORVANE_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::array<Cache, static_cast<std::size_t>(ReplySlot::kCount)> caches_ KORVANE_GUARDED_BY(mutex_);
  std::optional<std::uint8_t> awaited_sensor_ KORVANE_GUARDED_BY(mutex_);
};

}  // namespace talvera::korvane
