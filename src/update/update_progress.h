#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "korvane_types.h"
#include "update/firmware_file.h"
#include "util/clock.h"

namespace talvera::korvane {

using ProgressCallback = std::function<void(int, int, OtaProgressStatus)>;

/// No reply has come to the last request. A hand's own status 99 reads the same.
inline constexpr std::uint32_t kWaitingResponse = 99;

/// The parts of an update, as requests and replies name them.
inline constexpr std::uint8_t kUpgradeChild = 1;
inline constexpr std::uint8_t kPacketChild = 2;
inline constexpr std::uint8_t kFinishChild = 3;
inline constexpr std::uint8_t kRestartChild = 4;
inline constexpr std::uint8_t kResultChild = 5;

/// The hand's status for a packet that failed its check, and what it is reported by.
inline constexpr std::uint32_t kChecksumFailed = 1;
inline constexpr int kChecksumFailedCode = -7;

// What the other failures of an update are reported by.
inline constexpr int kNoReplyCode = -4;
inline constexpr int kFinishTimeoutCode = -4;
inline constexpr int kRestartTimeoutCode = -5;
inline constexpr int kTransmissionTimeoutCode = -6;

/// How far an update is, on whatever link: shared by the caller's thread and the receive thread,
/// and kept as long as the hand, so that a late reply finds it in place.
struct UpdateProgress {
  std::atomic<std::uint32_t> ota_status{kWaitingResponse};
  std::atomic<std::uint32_t> ota_package_index{0};
  std::atomic<std::uint32_t> ota_total_packages{0};
  std::atomic<bool> ota_finish_ok{false};
  std::atomic<bool> ota_restart_ok{false};

  /// Guards the members below it.
  mutable std::mutex ota_mutex;
  /// The packets that are still to be sent or acknowledged, oldest first.
  std::deque<FirmwarePacket> ota_packages;
  FirmwarePacket ota_current_package{};
  /// Called on a copy, outside the lock.
  ProgressCallback ota_progress_callback;

  /// By which all waits of the update go. Set before an update starts.
  Clock* ota_clock = &SystemClock();

  void SetCallback(ProgressCallback callback);
  void ClearCallback();
  bool HasCallback() const;

  /// False without a callback: the caller then writes the same event as a line.
  bool Report(int current, int total, OtaProgressStatus status) const;
  bool Report(int current, OtaProgressStatus status) const;
  bool ReportFailure(int code) const { return Report(code, OtaProgressStatus::FAILED); }

  /// Reads the image, begins a run of its packets and reports both. Its size; 0 if there is none,
  /// which is reported, or else told through `tell`.
  std::size_t Load(const std::string& path, const std::function<void(int error_code)>& tell);

  /// Forgets the last run and begins one of so many packets.
  void Begin(std::size_t packets);
  /// Cuts the image into the packets to be sent.
  void Fill(const FirmwareFile& file);

  std::size_t PacketsLeft() const;
  /// The packet that is next; nothing after the last one.
  std::optional<FirmwarePacket> FrontPacket() const;
  void PopPacket();
  int Total() const { return static_cast<int>(ota_total_packages.load()); }
};

/// Neither good nor still awaited.
inline bool IsUpdateError(std::uint32_t status) {
  return status != 0 && status != kWaitingResponse;
}

/// What a refused packet is reported by.
inline int PacketFailureCode(std::uint32_t status) {
  return status == kChecksumFailed ? kChecksumFailedCode : static_cast<int>(status);
}

}  // namespace talvera::korvane
