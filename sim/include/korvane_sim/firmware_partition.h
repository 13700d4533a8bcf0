#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "korvane_sim/export.h"
#include "korvane_sim/frame.h"

namespace talvera::korvane::sim {

/// Parts of an update, bits 24 to 28 of its identifiers.
enum class UpdateChild : std::uint8_t {
  kUpgrade = 1,
  kPacket = 2,
  kFinish = 3,
  kRestart = 4,
  kResult = 5,
};

/// What goes wrong with one reply of an update, or with each of them.
struct UpdateFault {
  enum class Kind : std::uint8_t {
    kStatus,        ///< The hand refuses with `status`.
    kLose,          ///< It does what it is told, and the reply is lost.
    kDuplicate,     ///< The reply comes twice.
    kShort,         ///< The reply has three bytes.
    kReset,         ///< The hand restarts instead, with what it had installed.
    kRestartFirst,  ///< The reply to a restart of an earlier update comes in its place.
  };

  Kind kind = Kind::kStatus;
  UpdateChild child = UpdateChild::kUpgrade;
  std::uint32_t status = 0;
  /// Which reply of that child, counted from 1; 0 for each of them.
  unsigned at = 0;
};

enum class UpdateChecksum : std::uint8_t { kModbus, kXmodem };

/// The part of a hand that takes new firmware: sizes, packet numbers and checksums are looked at,
/// and an image counts only when it is whole. A packet that is already stored is dropped without a
/// word when it comes again. Not thread-safe; the hand owns it.
class KORVANE_SIM_EXPORT FirmwarePartition {
 public:
  static constexpr std::size_t kPacketSize = 2048;
  static constexpr std::size_t kCapacity = 4U << 20;

  // Statuses of replies.
  static constexpr std::uint32_t kOk = 0;
  static constexpr std::uint32_t kBadLength = 3;    ///< To an upgrade.
  static constexpr std::uint32_t kBadChecksum = 1;  ///< To a packet.
  static constexpr std::uint32_t kUnexpectedPacket = 2;
  static constexpr std::uint32_t kNoRequest = 1;  ///< To a finish.
  static constexpr std::uint32_t kIncomplete = 2;

  struct Reply {
    UpdateChild child;
    std::uint32_t status;
    std::uint8_t len;
  };

  /// A request of the update. Those that are too short are ignored.
  std::vector<Reply> HandleRequest(UpdateChild child, const Frame& frame);
  /// A frame of packet data, of which there are `room` bytes in all but the last of a packet. What
  /// is behind them is padding; a frame with less is ignored.
  std::vector<Reply> HandleData(const Frame& frame, std::size_t room = 64);

  /// True once after each restart that became due: the hand is silent for the restart time then.
  bool TakeRestart();
  /// True once after each restart into a new image.
  bool TakeNewImage();

  void SetChecksum(UpdateChecksum checksum) { checksum_ = checksum; }
  void SetRestartTime(std::chrono::nanoseconds time) { restart_time_ = time; }
  std::chrono::nanoseconds RestartTime() const { return restart_time_; }
  void AddFault(const UpdateFault& fault) { faults_.push_back(fault); }
  void ClearFaults();

  /// What the hand runs since its last update, without padding; empty before the first.
  const std::vector<std::uint8_t>& InstalledImage() const { return installed_; }

 private:
  struct Packet {
    std::size_t number = 0;
    std::uint16_t checksum = 0;
    std::vector<std::uint8_t> data;
  };

  template <class Action>
  std::vector<Reply> Answer(UpdateChild child, Action action);
  std::optional<UpdateFault> NextFault(UpdateChild child);
  std::uint32_t Upgrade(const Frame& frame);
  std::size_t Stored() const { return image_.size() / kPacketSize; }
  std::uint32_t StorePacket(const Packet& packet);
  std::uint32_t Finish();
  void Restart();

  UpdateChecksum checksum_ = UpdateChecksum::kModbus;
  std::chrono::nanoseconds restart_time_ = std::chrono::seconds(2);
  std::vector<UpdateFault> faults_;
  std::array<unsigned, 6> replies_{};

  bool requested_ = false;
  bool whole_ = false;
  std::size_t size_ = 0;
  std::size_t packets_ = 0;
  std::vector<std::uint8_t> image_;
  std::optional<Packet> packet_;
  std::vector<std::uint8_t> installed_;
  bool restart_due_ = false;
  bool new_image_ = false;
};

}  // namespace talvera::korvane::sim
