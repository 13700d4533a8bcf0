#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "can/can_frame.h"
#include "korvane.h"
#include "update/update_progress.h"

namespace talvera::korvane {

class CanLink;

/// Whose replies an update takes.
enum class ReplySenders : std::uint8_t { kAny, kOwnId, kOwnIdAndFamily };

/// What becomes of a second reply to the restart request.
enum class RepeatedRestart : std::uint8_t { kIgnoredWithLine, kIgnored, kTaken };

/// What an update writes. A text with a variable part is given up to it.
struct UpdateWording {
  /// Each stage of the run is told, not only what goes wrong.
  bool stages;
  const char* restarting_first;
  const char* retrying;
  /// In place of `retrying` while nothing at all has come from the hand; null if there is none.
  const char* retrying_silent;
  const char* no_reply;
  /// So is each reply, and the reply to the upgrade request above all.
  bool replies;
  bool upgrade_reply;
  /// The texts that a device's status stands for are added to it.
  bool status_texts;
  /// The last line of a run after which the hand answered, and that of one after which it didn't.
  const char* completed;
  const char* not_reconnected;
  /// What the reply to a result query that nobody waits for is told by, if it is a good one.
  const char* late_result;
};

inline constexpr UpdateWording kFullUpdateWording{
    true,
    "[INFO]: [UpdateFirmware] Received restart response (0x04), device will restart. Waiting for "
    "restart...",
    "[WARN]: [UpdateFirmware] Upgrade request no response (status=",
    nullptr,
    " Upgrade request failed after 10 retries: no valid response",
    true,
    true,
    true,
    "[INFO]: [UpdateFirmware] OTA upgrade process completed [OK]!",
    "[WARN]: [UpdateFirmware] Could not reconnect to device after restart, but restart response "
    "was received",
    nullptr,
};

/// The query for the result of the last update.
struct ResultQuery {
  std::chrono::milliseconds pause{1000};
  /// What the first answer is told by, up to the status; null for the query that goes on until the
  /// hand tells of success.
  const char* success = nullptr;
  const char* failure = nullptr;
};

/// How a model's update differs from another's.
struct UpdateRules {
  const char* class_name = nullptr;
  /// The family field of the identifiers, in place.
  std::uint32_t family = 0;
  /// Null: the run writes nothing.
  const UpdateWording* wording = &kFullUpdateWording;
  ReplySenders replies_from = ReplySenders::kOwnId;
  RepeatedRestart repeated_restart = RepeatedRestart::kIgnoredWithLine;
  /// A first packet that fails the hand's check is sent once more with the other checksum.
  bool checksum_fallback = false;
  /// The receive thread sends the first packet too, when the request is accepted.
  bool first_packet_on_acceptance = false;
  /// A reply with an error status is reported at once; otherwise by the run alone.
  bool replies_report_errors = true;
  /// A packet is reported by how many have been acknowledged; otherwise by its number from 0.
  bool counts_acknowledged = false;
  /// The run reports a refused upgrade request, and one that nothing answers.
  bool reports_refusal = false;
  bool reports_no_reply = false;
  /// However a run fails, its callback goes with it.
  bool always_clears_callback = false;
  ResultQuery result_query = {};
};

/// What the two threads of an update over CAN share: the caller's, which sends the first request
/// and then watches, and the receive thread, on which each acknowledgment sends what comes next.
struct CanUpdateState : UpdateProgress {
  std::atomic<std::int32_t> ota_child_id{-1};
  std::atomic<bool> ota_use_modbus_crc{true};
  /// The last reply to the upgrade request was a good one.
  std::atomic<bool> ota_accepted{false};
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
  std::mutex mutex_;
  std::condition_variable passed_on_;
  std::uint64_t next_ = 0;
  std::uint64_t current_ = 0;
  std::thread::id owner_;
};

/// The firmware update of one hand over CAN: the order of messages and the waits.
///
/// A run cuts the file into packets, asks the hand into upgrade mode, streams the packets, each
/// guarded by a checksum and acknowledged, tells the hand to finish and to restart, and waits for
/// it to answer again. Only the order of messages is enforced; there is no state but the place in
/// Run and what the replies left in CanUpdateState.
class CanUpdate {
 public:
  CanUpdate(const UpdateRules& rules, CanUpdateState& state, const CanLink& link, Korvane& hand);

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
  CanfdFrame ChecksumFrame(const FirmwarePacket& packet, std::uint32_t number) const;
  void SendPacketData(const FirmwarePacket& packet) const;
  void SendOrTell(const CanfdFrame& frame, const char* operation) const;

  bool Attempt(const std::string& path);
  bool LoadPackets(const std::string& path, std::size_t& file_size);
  bool RequestUpgrade(std::size_t file_size);
  bool AwaitAcceptance(const CanfdFrame& upgrade);
  bool IsAccepted() const;
  bool ReportRefusal(std::uint32_t status) const;
  void LogRetry(std::uint32_t status, std::int32_t child) const;
  void ResendUpgrade(const CanfdFrame& upgrade, int attempt) const;
  bool StillAccepted();
  bool AwaitTransmission();
  bool FallBack();
  bool AwaitFlag(const std::atomic<bool>& flag, const char* stage, int timeout_code);
  void Reconnect();
  void ReportReconnected(const VendorInfo& info);

  void OnUpgradeReply(std::uint32_t status);
  void OnPacketReply(std::uint32_t status);
  void OnFinishReply(std::uint32_t status);
  void OnRestartReply(std::uint32_t status);
  bool IsOwnReply(std::uint32_t id) const;
  void Store(std::uint8_t child, std::uint32_t status);
  void ReportPacket(std::uint32_t number) const;
  void OnLateResult(std::uint32_t status);
  void ReportPacketFailure(std::uint32_t status) const;
  void ReportFinishFailure(std::uint32_t status) const;
  bool LogResult(std::uint32_t status) const;

  void LogRunError(const char* operation, const std::string& text) const;
  void LogStatusText(std::uint8_t child, std::uint32_t status) const;
  void LogStage(const std::string& line) const;
  void LogReply(const std::string& line) const;
  bool LogsReplies() const;
  bool IsLeftToLines(int code) const;

  const UpdateRules& rules_;
  CanUpdateState& state_;
  const CanLink& link_;
  Korvane& hand_;
  std::atomic<std::uint8_t> device_id_{0};
  mutable SendTurns turns_;
};

}  // namespace talvera::korvane
