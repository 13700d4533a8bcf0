#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "korvane_diagnostics.h"
#include "korvane_types.h"
#include "update/firmware_file.h"
#include "util/clock.h"
#include "util/guarded.h"

namespace talvera::korvane {

using ProgressCallback = std::function<void(int, int, OtaProgressStatus)>;

/// No reply has come to the last request. A hand's own status 99 reads the same.
inline constexpr std::uint32_t kWaitingResponse = 99;

/// The child ids, by which requests and replies name the parts of an update.
inline constexpr std::uint8_t kUpgradeChild = 1;
inline constexpr std::uint8_t kPacketChild = 2;
inline constexpr std::uint8_t kFinishChild = 3;
inline constexpr std::uint8_t kRestartChild = 4;
inline constexpr std::uint8_t kResultChild = 5;

/// The hand's status for a packet that failed its check, and the error code that reports it.
inline constexpr std::uint32_t kChecksumFailed = 1;
inline constexpr int kChecksumFailedCode = -7;

// The error codes that report the other failures of an update.
inline constexpr int kNoReplyCode = -4;
inline constexpr int kFinishTimeoutCode = -4;
inline constexpr int kRestartTimeoutCode = -5;
inline constexpr int kTransmissionTimeoutCode = -6;

/// How far an update has come, on whatever link: shared by the caller's thread and the receive
/// thread, and kept as long as the hand, so that a late reply finds it in place. What an earlier
/// update left in it doesn't count: an update sets each member before it reads it.
struct UpdateProgress {
  std::atomic<std::uint32_t> ota_status{kWaitingResponse};
  std::atomic<std::uint32_t> ota_package_index{};
  std::atomic<std::uint32_t> ota_total_packages{};
  std::atomic<bool> ota_finish_ok{};
  std::atomic<bool> ota_restart_ok{};

  mutable Mutex ota_mutex;
  /// The packets that are still to be sent or acknowledged, oldest first.
  std::deque<FirmwarePacket> ota_packages KORVANE_GUARDED_BY(ota_mutex);
  FirmwarePacket ota_current_package KORVANE_GUARDED_BY(ota_mutex){};
  /// Null if there is none. The application's own function object, not copied: it is called outside
  /// the lock, and lives until the last of its calls has returned.
  std::shared_ptr<const ProgressCallback> ota_progress_callback KORVANE_GUARDED_BY(ota_mutex);

  /// The clock of all waits of the update. Set before an update starts.
  Clock* ota_clock = &SystemClock();

  void SetCallback(ProgressCallback callback);
  void ClearCallback();
  bool HasCallback() const;

  /// Calls the callback. False without one: the caller then writes the same event as a line.
  bool Report(int current, int total, OtaProgressStatus status) const;
  bool Report(int current, OtaProgressStatus status) const;
  bool ReportFailure(int code) const { return Report(code, OtaProgressStatus::FAILED); }

  /// Reads the image at `path`, forgets the last run and begins one of its packets. Returns the
  /// size of the image. 0 if there is none, which is reported, or without a callback logged by
  /// `log_failure`.
  std::size_t ReportOrLogLoad(const std::string& path,
                              const std::function<void(int error_code)>& log_failure);

  std::size_t PacketsLeft() const;
  /// The packet that is sent next; nothing after the last one.
  std::optional<FirmwarePacket> FrontPacket() const;
  void PopPacket();
  /// How many packets the run has.
  int Total() const { return static_cast<int>(ota_total_packages.load()); }
};

/// Whether a status is neither good nor that of a reply that is still awaited.
inline bool IsUpdateError(std::uint32_t status) {
  return status != 0 && status != kWaitingResponse;
}

/// The error code by which a refused packet is reported.
inline int PacketFailureCode(std::uint32_t status) {
  return status == kChecksumFailed ? kChecksumFailedCode : static_cast<int>(status);
}

}  // namespace talvera::korvane
