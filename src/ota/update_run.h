#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "can/can_frame.h"
#include "korvane.h"
#include "ota/firmware_file.h"
#include "util/clock.h"

namespace talvera::korvane {

class CanLink;

using ProgressCallback = std::function<void(int, int, OtaProgressStatus)>;

/// No reply has come to the last request. A hand's own status 99 reads the same.
inline constexpr std::uint32_t kWaitingResponse = 99;

/// How a model's update differs from another's.
struct UpdateRules {
  const char* class_name;
  /// The family field of the identifiers, in place.
  std::uint32_t family;
  /// A first packet that fails the hand's check is sent once more with the other checksum.
  bool checksum_fallback;
  /// Replies count from whatever device they come.
  bool reply_of_any_device;
};

/// What the two threads of an update share: the caller's, which sends the first request and then
/// watches, and the receive thread, on which each acknowledgment sends what comes next. It lives as
/// long as the hand; a late reply finds it in place.
struct UpdateState {
  std::atomic<std::uint32_t> ota_status{kWaitingResponse};
  std::atomic<std::int32_t> ota_child_id{-1};
  std::atomic<std::uint32_t> ota_package_index{0};
  std::atomic<std::uint32_t> ota_total_packages{0};
  std::atomic<bool> ota_finish_ok{false};
  std::atomic<bool> ota_restart_ok{false};
  std::atomic<bool> ota_use_modbus_crc{true};

  /// Guards the members below it.
  std::mutex ota_mutex;
  /// The packets that aren't acknowledged yet, oldest first.
  std::deque<FirmwarePacket> ota_packages;
  FirmwarePacket ota_current_package{};
  /// Called on a copy, outside the lock.
  ProgressCallback ota_progress_callback;

  /// By which all waits of the update go. Set before an update starts.
  Clock* ota_clock = &SystemClock();
};

/// The firmware update of one hand over CAN: the order of messages and the waits.
///
/// A run cuts the file into packets, asks the hand into upgrade mode, streams the packets, each
/// guarded by a checksum and acknowledged, tells the hand to finish and to restart, and waits for
/// it to answer again. Only the order of messages is enforced; there is no state but the place in
/// Run and what the replies left in UpdateState.
class UpdateRun {
 public:
  UpdateRun(const UpdateRules& rules, UpdateState& state, const CanLink& link, Korvane& hand);

  /// The whole update, on the caller's thread.
  void Run(const std::string& path, ProgressCallback callback);

  /// Takes an update reply, on the receive thread. Any other frame is left alone.
  void OnFrame(const CanfdFrame& frame);

  /// Asks the hand, up to ten times, how its last update ended. No run does that.
  void QueryResult();

  void SendPackage();
  void SendFinishRequest();
  void SendRestartRequest();

  /// The id that requests go to from now on.
  void Address(std::uint8_t device_id) { device_id_ = device_id; }

 private:
  CanfdFrame Frame(std::uint8_t function, std::uint8_t child) const;
  CanfdFrame RequestFrame(std::uint8_t child) const;
  CanfdFrame UpgradeFrame(std::size_t file_size) const;
  CanfdFrame ChecksumFrame(const FirmwarePacket& packet) const;
  void SendOrTell(const CanfdFrame& frame, const char* operation) const;

  bool LoadPackets(const std::string& path, std::size_t& file_size);
  void Reset(std::size_t packet_count);
  bool RequestUpgrade(std::size_t file_size);
  bool AwaitAcceptance(const CanfdFrame& upgrade);
  void ResendUpgrade(const CanfdFrame& upgrade, int attempt) const;
  bool StillAccepted();
  bool AwaitTransmission();
  bool FallBack();
  bool AwaitFlag(const std::atomic<bool>& flag, const char* stage, int timeout_code);
  void Reconnect();
  void TellReconnected(const VendorInfo& info);

  void OnUpgradeReply(std::uint32_t status);
  void OnPacketReply(std::uint32_t status);
  void OnFinishReply(std::uint32_t status);
  void OnRestartReply(std::uint32_t status);
  void TellPacketFailure(std::uint32_t status) const;

  bool Report(int current, int total, OtaProgressStatus status) const;
  bool Report(int current, OtaProgressStatus status) const;
  bool ReportFailure(int code) const;
  bool HasCallback() const;
  void ClearCallback();
  std::string Tag(const char* operation) const;
  std::size_t PacketsLeft() const;
  int Total() const;

  const UpdateRules& rules_;
  UpdateState& state_;
  const CanLink& link_;
  Korvane& hand_;
  std::atomic<std::uint8_t> device_id_{0};
};

}  // namespace talvera::korvane
