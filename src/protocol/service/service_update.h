#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "can/can_frame.h"
#include "korvane.h"
#include "update/update_progress.h"

namespace talvera::korvane {

class CanLink;

/// What an update over the service protocol keeps besides its progress. The receive thread sets a
/// flag last: when the run sees it the rest stands too.
struct ServiceUpdateState : UpdateProgress {
  std::atomic<std::int32_t> ota_child_id{-1};
  std::atomic<std::uint32_t> ota_package_result{kWaitingResponse};
  std::atomic<bool> ota_responded{};
};

/// The firmware update of one hand over the service protocol. The caller's thread runs the whole of
/// it and waits for each acknowledgment itself; the receive thread only leaves replies.
class ServiceUpdate {
 public:
  ServiceUpdate(const char* class_name, ServiceUpdateState& state, const CanLink& link,
                Korvane& hand);

  void Run(const std::string& path, ProgressCallback callback);

  /// Takes a frame that no request waits for, on the receive thread.
  void OnFrame(const CanfdFrame& frame);
  void OnResponse(std::uint8_t child, std::uint32_t status);

  /// A request of the update.
  static CanfdFrame RequestFrame(std::uint8_t child, std::uint32_t file_size,
                                 std::uint16_t packets);
  // Each is false if not all could be sent, and throws std::runtime_error without a transport.
  bool SendPacket(const FirmwarePacket& packet, std::uint16_t number) const;
  bool SendFinish() const { return SendChild(kFinishChild); }
  bool SendRestart() const { return SendChild(kRestartChild); }

 private:
  bool Send(const CanfdFrame& frame) const;
  bool SendChild(std::uint8_t child) const;
  bool Attempt(const std::string& path);
  bool Fail(FailureKind kind, int code, const std::string& text);
  bool Refuse(std::uint32_t status, int code);
  bool FailUnacknowledged(std::uint8_t child, int code);
  bool Load(const std::string& path, std::size_t& file_size);
  bool RequestUpgrade(std::size_t file_size);
  bool Transmit();
  bool SendAndAwait(const FirmwarePacket& packet, int& polls);
  bool TakeAcknowledgment();
  bool AwaitFlag(const std::atomic<bool>& flag);
  void Reconnect();

  const char* class_name_;
  ServiceUpdateState& state_;
  const CanLink& link_;
  Korvane& hand_;
};

}  // namespace talvera::korvane
