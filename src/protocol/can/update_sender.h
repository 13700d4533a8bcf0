#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <thread>

#include "can/can_frame.h"
#include "korvane.h"
#include "link/diagnostics.h"
#include "protocol/can/update_log.h"
#include "protocol/can/update_rules.h"
#include "update/update_progress.h"
#include "util/guarded.h"

namespace talvera::korvane {

class CanLink;

/// What the two threads of an update over CAN share: the caller's, which sends the first request
/// and then watches, and the receive thread, on which each acknowledgment sends what comes next.
struct CanUpdateState : UpdateProgress {
  std::atomic<std::int32_t> ota_child_id{-1};
  std::atomic<bool> ota_use_modbus_crc{true};
  /// The last reply to the upgrade request was a good one.
  std::atomic<bool> ota_accepted{};
  /// This object has begun an update and hasn't seen it end well, so that replies may be for it.
  std::atomic<bool> ota_under_way{};
};

/// Keeps the frames of a packet together when both threads have one to send: first come, first
/// served, so that the end of an update can't overtake a packet that waits. A thread that already
/// has the turn keeps it: a transport may hand a reply over while it sends.
class SendTurns {
 public:
  class Turn {
   public:
    Turn(SendTurns& turns, Clock& clock);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    SendTurns& turns_;
    Clock& clock_;
    bool taken_ = false;
  };

 private:
  Mutex mutex_;
  std::condition_variable passed_on_;
  std::uint64_t next_ KORVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t current_ KORVANE_GUARDED_BY(mutex_) = 0;
  std::thread::id owner_ KORVANE_GUARDED_BY(mutex_);
};

/// How a frame couldn't be sent; nothing if it could.
using SendFailure = std::optional<LinkError>;

/// Builds and sends the frames of an update, from both of its threads.
class UpdateSender {
 public:
  UpdateSender(const UpdateRules& rules, const UpdateLog& log, CanUpdateState& state,
               const CanLink& link, const Korvane& hand);

  CanfdFrame RequestFrame(std::uint8_t child) const;
  CanfdFrame UpgradeFrame(std::size_t file_size) const;

  /// Sends the packet that is next, which takes at least 170 ms.
  SendFailure SendPackage();
  SendFailure SendFinishRequest() {
    return SendOrLog(RequestFrame(kFinishChild), "SendFinishRequest");
  }
  SendFailure SendRestartRequest() {
    return SendOrLog(RequestFrame(kRestartChild), "SendRestartRequest");
  }

 private:
  CanfdFrame Frame(std::uint8_t function, std::uint8_t child) const;
  CanfdFrame ChecksumFrame(const FirmwarePacket& packet, std::uint32_t number) const;
  SendFailure Send(const CanfdFrame& frame) const;
  SendFailure SendPacketData(const FirmwarePacket& packet) const;
  SendFailure SendOrLog(const CanfdFrame& frame, const char* operation);

  const UpdateRules& rules_;
  const UpdateLog& log_;
  CanUpdateState& state_;
  const CanLink& link_;
  const Korvane& hand_;
  SendTurns turns_;
};

}  // namespace talvera::korvane
