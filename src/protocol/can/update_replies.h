#pragma once

#include <cstdint>
#include <string>

#include "can/can_frame.h"
#include "protocol/can/update_sender.h"

namespace talvera::korvane {

/// The receive thread's half of an update over CAN: takes the hand's replies, whether or not an
/// update is under way, reports or logs them, and sends what follows an acknowledgment.
class UpdateReplies {
 public:
  UpdateReplies(const UpdateRules& rules, const UpdateLog& log, CanUpdateState& state,
                UpdateSender& sender, const Korvane& hand);

  /// Takes an update reply. Any other frame is left alone.
  void OnFrame(const CanfdFrame& frame);

 private:
  bool IsOwnReply(std::uint32_t id) const;
  void Store(std::uint8_t child, std::uint32_t status);
  void OnUpgradeReply(std::uint32_t status);
  void OnPacketReply(std::uint32_t status);
  void OnFinishReply(std::uint32_t status);
  void OnRestartReply(std::uint32_t status);
  void OnResultReply(std::uint32_t status);
  bool AcknowledgePacket();

  void ReportOrLog(int current, OtaProgressStatus status, const std::string& line) const;
  void ReportOrLogPacket(std::uint32_t number) const;
  void ReportOrLogError(std::uint8_t child, std::uint32_t status, const std::string& text) const;

  const UpdateRules& rules_;
  const UpdateLog& log_;
  CanUpdateState& state_;
  UpdateSender& sender_;
  const Korvane& hand_;
};

}  // namespace talvera::korvane
