#include "protocol/can/update_replies.h"

#include "hand/hand_members.h"
#include "protocol/can/can_identifier.h"
#include "util/bytes.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

constexpr std::size_t kStatusBytes = 4;

}  // namespace

UpdateReplies::UpdateReplies(const UpdateRules& rules, const UpdateLog& log, CanUpdateState& state,
                             UpdateSender& sender, const Korvane& hand)
    : rules_(rules), log_(log), state_(state), sender_(sender), hand_(hand) {}

void UpdateReplies::OnFrame(const CanfdFrame& frame) {
  const std::uint32_t id = frame.can_id & kCanIdMask;
  if (FunctionOf(id) != function_code::kUpdateReply || frame.len < kStatusBytes) return;
  if (!IsOwnReply(id)) return;
  const std::uint32_t status = LoadU32(frame.data);
  switch (IndexOf(id)) {
    case kUpgradeChild:
      return OnUpgradeReply(status);
    case kPacketChild:
      return OnPacketReply(status);
    case kFinishChild:
      return OnFinishReply(status);
    case kRestartChild:
      return OnRestartReply(status);
    case kResultChild:
      return OnResultReply(status);
    default:
      return;
  }
}

bool UpdateReplies::IsOwnReply(std::uint32_t id) const {
  if (rules_.replies_from == ReplySenders::kAny) return true;
  if (((id ^ DeviceIdOf(hand_)) & kDeviceIdMask) != 0) return false;
  return rules_.replies_from == ReplySenders::kOwnId || (id & kFamilyMask) == rules_.family;
}

/// The watching thread tests the status first: when it sees the status the child must stand too.
void UpdateReplies::Store(std::uint8_t child, std::uint32_t status) {
  state_.ota_child_id = child;
  state_.ota_status = status;
}

// --- Reports and lines ----------------------------------------------------------------------

void UpdateReplies::ReportOrLog(int current, OtaProgressStatus status,
                                const std::string& line) const {
  if (!state_.Report(current, status)) log_.LogReply(line);
}

void UpdateReplies::ReportOrLogPacket(std::uint32_t number) const {
  ReportOrLog(
      static_cast<int>(number), OtaProgressStatus::PACKET_ACKNOWLEDGED,
      Compose("[INFO]: [ProcessMsg] Packet ", number, "/", state_.Total(), " transmitted [OK]"));
}

/// Where the run alone reports errors, nothing is logged here either. The meaning of a refused
/// upgrade is logged by the run.
void UpdateReplies::ReportOrLogError(std::uint8_t child, std::uint32_t status,
                                     const std::string& text) const {
  if (!rules_.replies_report_errors) return;
  const int code = child == kPacketChild ? PacketFailureCode(status) : static_cast<int>(status);
  if (state_.ReportFailure(code) || !log_.LogsReplies()) return;
  log_.LogFailure("ProcessMsg", text);
  if (child != kUpgradeChild) log_.LogStatusMeaning(child, status);
}

// --- The replies ----------------------------------------------------------------------------

void UpdateReplies::OnUpgradeReply(std::uint32_t status) {
  state_.ota_accepted = status == 0;
  Store(kUpgradeChild, status);
  log_.LogUpgradeReply(status);
  if (status != 0) {
    return ReportOrLogError(
        kUpgradeChild, status,
        Compose(" OTA upgrade request rejected, error code: ", status, ", child_id: 1"));
  }
  ReportOrLog(0, OtaProgressStatus::UPGRADE_ACCEPTED,
              "[INFO]: [ProcessMsg] OTA upgrade request accepted (status=0, child_id=UPGRADE)");
  if (rules_.first_packet_on_acceptance) sender_.SendPackage();
}

/// A refused packet stays where it is: the run decides what becomes of it.
void UpdateReplies::OnPacketReply(std::uint32_t status) {
  Store(kPacketChild, status);
  const std::uint32_t index = state_.ota_package_index;
  if (status != 0) {
    return ReportOrLogError(kPacketChild, status,
                            Compose(" Packet ", index + 1, "/", state_.Total(),
                                    " transmission failed, error code: ", status));
  }
  if (!rules_.counts_acknowledged) ReportOrLogPacket(index);
  const bool was_last = AcknowledgePacket();
  if (rules_.counts_acknowledged) ReportOrLogPacket(index + 1);
  if (was_last) {
    sender_.SendFinishRequest();
  } else {
    sender_.SendPackage();
  }
}

/// Takes the front packet off. True if none is left.
bool UpdateReplies::AcknowledgePacket() {
  // Together, as the other thread may take the front packet and its number at any time.
  const MutexLock lock(state_.ota_mutex);
  if (!state_.ota_packages.empty()) state_.ota_packages.pop_front();
  ++state_.ota_package_index;
  return state_.ota_packages.empty();
}

void UpdateReplies::OnFinishReply(std::uint32_t status) {
  Store(kFinishChild, status);
  if (status != 0) {
    return ReportOrLogError(kFinishChild, status,
                            Compose("[child_id:3][status: ", status, "] OTA finish [NG]"));
  }
  state_.ota_finish_ok = true;
  ReportOrLog(static_cast<int>(state_.ota_package_index), OtaProgressStatus::FINISH_ACKNOWLEDGED,
              "[INFO]: [ProcessMsg][child_id:3][status: 0] OTA finished [OK]");
  sender_.SendRestartRequest();
}

void UpdateReplies::OnRestartReply(std::uint32_t status) {
  const bool repeated = state_.ota_status == 0 && state_.ota_child_id == kRestartChild;
  if (repeated && rules_.repeated_restart != RepeatedRestart::kTaken) {
    return log_.LogRepeatedRestart();
  }
  Store(kRestartChild, status);
  if (status == 0) {
    state_.ota_restart_ok = true;
    return ReportOrLog(static_cast<int>(state_.ota_package_index),
                       OtaProgressStatus::RESTART_ACKNOWLEDGED,
                       "[INFO]: [ProcessMsg][child_id: 4][status: 0] Restart acknowledged");
  }
  if (state_.HasCallback()) return;
  // The run turns it into a failed update; the line has always been an informative one.
  log_.LogReply(
      Compose("[INFO]: [ProcessMsg][child_id: 4][status: ", status, "] Restart response received"));
}

/// Most models have no use for an answer that nobody waits for.
void UpdateReplies::OnResultReply(std::uint32_t status) {
  if (!log_.TakesLateResults()) return;
  Store(kResultChild, status);
  if (status == 0) log_.LogLateResult();
}

}  // namespace talvera::korvane
