#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "can/can_frame.h"
#include "korvane.h"
#include "protocol/can/update_log.h"
#include "protocol/can/update_replies.h"
#include "protocol/can/update_rules.h"
#include "protocol/can/update_sender.h"

namespace talvera::korvane {

class CanLink;

/// The firmware update of one hand over CAN, and in this class the caller's half of it: the order
/// of messages and the waits.
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

  /// Takes an update reply, on the receive thread. Any other frame is left alone. By events so are
  /// the replies to another object or program, which would get requests in between.
  void OnFrame(const CanfdFrame& frame);

  /// Asks the hand, up to ten times, how its last update ended. No run does that.
  void QueryResult();

  // The steps of a run, each as an operation of its own.
  void SendPackage() { TakeStep("SendPackage", &UpdateSender::SendPackage); }
  void SendFinishRequest() { TakeStep("SendFinishRequest", &UpdateSender::SendFinishRequest); }
  void SendRestartRequest() { TakeStep("SendRestartRequest", &UpdateSender::SendRestartRequest); }

 private:
  void TakeStep(const char* name, SendFailure (UpdateSender::*send)());
  bool Attempt(const std::string& path);
  bool LoadPackets(const std::string& path, std::size_t& file_size);
  bool RequestUpgrade(std::size_t file_size);
  bool AwaitAcceptance(const CanfdFrame& upgrade, bool sent);
  bool IsAccepted() const;
  bool ResendOrLog(const CanfdFrame& upgrade, int attempt) const;
  bool IsStillAccepted(std::uint32_t status) const;
  bool AwaitTransmission();
  bool IsForFallback(std::uint32_t status) const;
  void SendWithOtherChecksum();
  bool AwaitFlag(const std::atomic<bool>& flag, const char* stage, int timeout_code);
  void Reconnect();

  void ReportOrLogStage(OtaProgressStatus status, const std::string& line) const;
  void ReportOrLogFailure(FailureKind kind, int code, const std::string& text) const;
  void ReportOrLogStatus(const std::string& what, std::uint32_t status) const;
  void ReportAndLogRefusal(std::uint32_t status) const;
  void ReportAndLogNoReply(bool asked) const;
  void RecordNoReply(bool asked) const;
  std::string FailureLine(const std::string& text) const;
  void ReportOrLogReconnected(const VendorInfo& info) const;
  void ReportOrLogNotReconnected() const;

  const UpdateRules& rules_;
  CanUpdateState& state_;
  const CanLink& link_;
  Korvane& hand_;
  const UpdateLog log_;
  UpdateSender sender_;
  UpdateReplies replies_;
};

}  // namespace talvera::korvane
