#include "protocol/can/can_update.h"

#include <chrono>
#include <exception>
#include <utility>

#include "can/can_link.h"
#include "update/can_pacing.h"
#include "util/bytes.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kAfterFirstUpgrade{100};
constexpr seconds kDeviceRestarting{2};
constexpr int kSilentAttempts = 2;
constexpr int kUpgradeAttempts = 11;
constexpr int kTransmissionPolls = 601;
constexpr int kResultTries = 10;

}  // namespace

CanUpdate::CanUpdate(const UpdateRules& rules, CanUpdateState& state, const CanLink& link,
                     Korvane& hand)
    : rules_(rules),
      state_(state),
      link_(link),
      hand_(hand),
      log_(rules),
      sender_(rules, log_, state, link, hand),
      replies_(rules, log_, state, sender_, hand) {}

void CanUpdate::Run(const std::string& path, ProgressCallback callback) {
  OperationScope operation(link_.diagnostics, "UpdateFirmware");
  state_.SetCallback(OutsideOperation(link_.diagnostics, std::move(callback)));
  state_.ota_use_modbus_crc = true;
  const bool done = Attempt(path);
  // A hand that restarts leaves requests unanswered, which is no failure of the update.
  if (done) {
    state_.ota_under_way = false;
    operation.Succeed();
  }
  if (done || rules_.always_clears_callback) state_.ClearCallback();
}

void CanUpdate::OnFrame(const CanfdFrame& frame) {
  if (state_.ota_under_way || !link_.ReceivesByEvents()) replies_.OnFrame(frame);
}

bool CanUpdate::Attempt(const std::string& path) {
  std::size_t file_size = 0;
  if (!LoadPackets(path, file_size)) return false;
  state_.ota_under_way = true;
  if (!RequestUpgrade(file_size)) return false;
  // Once more: a resent request may have been refused, or the first packet.
  const std::uint32_t status = state_.ota_status;
  if (!IsStillAccepted(status)) {
    ReportOrLogStatus(" Upgrade request failed, status: ", status);
    state_.ClearCallback();
    return false;
  }
  log_.LogStage(
      "[INFO]: [UpdateFirmware] Upgrade request accepted (UPGRADE response), starting package "
      "transmission");
  sender_.SendPackage();
  log_.LogStage("[INFO]: [UpdateFirmware] Waiting for all packages to be transmitted...");
  if (!AwaitTransmission()) return false;
  if (!AwaitFlag(state_.ota_finish_ok, "finish", kFinishTimeoutCode)) return false;
  if (!AwaitFlag(state_.ota_restart_ok, "restart", kRestartTimeoutCode)) return false;
  Reconnect();
  return true;
}

// --- Reports and lines ----------------------------------------------------------------------

void CanUpdate::ReportOrLogStage(OtaProgressStatus status, const std::string& line) const {
  if (!state_.Report(0, status)) log_.LogStage(line);
}

/// The line of a failure; a text of its own where a model writes none.
std::string CanUpdate::FailureLine(const std::string& text) const {
  if (!log_.LogsAnything()) return "firmware update:" + text;
  return Compose("[ERROR][", rules_.class_name, "][UpdateFirmware]", text);
}

void CanUpdate::ReportOrLogFailure(FailureKind kind, int code, const std::string& text) const {
  RecordFailure(link_.diagnostics, kind, FailureLine(text));
  if (!state_.ReportFailure(code)) log_.LogFailure("UpdateFirmware", text);
}

void CanUpdate::ReportOrLogStatus(const std::string& what, std::uint32_t status) const {
  ReportOrLogFailure(FailureKind::REFUSED, static_cast<int>(status), Compose(what, status));
}

void CanUpdate::ReportAndLogRefusal(std::uint32_t status) const {
  const std::string text = Compose(" Upgrade request rejected, error code: ", status);
  RecordFailure(link_.diagnostics, FailureKind::REFUSED, FailureLine(text));
  log_.LogFailure("UpdateFirmware", text);
  log_.LogStatusMeaning(kUpgradeChild, status);
  if (rules_.reports_refusal) state_.ReportFailure(static_cast<int>(status));
}

void CanUpdate::ReportAndLogNoReply(bool asked) const {
  RecordNoReply(asked);
  log_.LogNoReply();
  if (rules_.reports_no_reply) state_.ReportFailure(kNoReplyCode);
}

/// One line tells of a hand that was asked in vain and of a link that took no request.
void CanUpdate::RecordNoReply(bool asked) const {
  const char* text =
      asked ? " the hand doesn't answer the upgrade request" : " the upgrade request can't be sent";
  if (log_.LogsAnything()) text = rules_.wording->no_reply;
  const std::string line = FailureLine(text);
  if (asked) return RecordFailure(link_.diagnostics, FailureKind::NO_REPLY, line);
  RecordFailure(link_.diagnostics, link_.SendError(line), line);
}

// --- The file and the upgrade request -------------------------------------------------------

bool CanUpdate::LoadPackets(const std::string& path, std::size_t& file_size) {
  std::string failure = "firmware update: no image in " + path;
  file_size = state_.ReportOrLogLoad(path, [&](int error_code) {
    const bool missing = error_code == kCannotOpenFirmware;
    const std::string text = missing ? " Failed to read " + path : " File is empty";
    log_.LogFailure("UpdateFirmware", text);
    failure = FailureLine(text);
  });
  if (file_size == 0) {
    RecordFailure(link_.diagnostics, FailureKind::BAD_ARGUMENT, failure);
    state_.ClearCallback();
    return false;
  }
  state_.ota_child_id = -1;
  state_.ota_accepted = false;
  ReportOrLogStage(OtaProgressStatus::FILE_LOADED,
                   Compose("[INFO]: [UpdateFirmware] Firmware file loaded: ", file_size, " bytes, ",
                           state_.Total(), " packets"));
  return true;
}

bool CanUpdate::RequestUpgrade(std::size_t file_size) {
  log_.LogStage(Compose("[INFO]: [UpdateFirmware] Firmware length: ", file_size,
                        " bytes, Package num: ", state_.Total()));
  ReportOrLogStage(OtaProgressStatus::REQUESTING_UPGRADE,
                   "[INFO]: [UpdateFirmware] Sending upgrade request (0x01)...");
  const CanfdFrame upgrade = sender_.UpgradeFrame(file_size);
  bool sent = false;
  try {
    sent = link_.Send(upgrade) != -1;
  } catch (const std::exception& error) {
    const std::string text = Compose(" Failed to send upgrade request: ", error.what());
    RecordFailure(link_.diagnostics, error, FailureLine(text));
    log_.LogFailure("UpdateFirmware", text);
    return false;
  }
  state_.ota_clock->SleepFor(kAfterFirstUpgrade);
  return AwaitAcceptance(upgrade, sent);
}

/// Where the receive thread sends the first packet, its request has already replaced the status.
bool CanUpdate::IsAccepted() const {
  if (rules_.first_packet_on_acceptance) return state_.ota_accepted;
  return state_.ota_status == 0 && state_.ota_child_id == kUpgradeChild;
}

/// `sent` tells whether the first request went out.
bool CanUpdate::AwaitAcceptance(const CanfdFrame& upgrade, bool sent) {
  for (int attempt = 0; attempt < kUpgradeAttempts;) {
    if (IsAccepted()) return true;
    const std::uint32_t status = state_.ota_status;
    const std::int32_t child = state_.ota_child_id;
    if (child == kUpgradeChild && IsUpdateError(status)) {
      ReportAndLogRefusal(status);
      return false;
    }
    if (attempt == 0 && child == kRestartChild && status == 0) {
      log_.LogRestartingFirst();
      state_.ota_clock->SleepFor(kDeviceRestarting);
    } else if (attempt > kSilentAttempts) {
      log_.LogRetry(status, child);
    }
    if (ResendOrLog(upgrade, attempt)) sent = true;
    if (++attempt < kUpgradeAttempts) state_.ota_clock->SleepFor(can_pacing::kPoll);
  }
  ReportAndLogNoReply(sent);
  return false;
}

/// Whether the request went out.
bool CanUpdate::ResendOrLog(const CanfdFrame& upgrade, int attempt) const {
  try {
    const bool sent = link_.Send(upgrade) != -1;
    log_.LogStage(
        Compose("[DEBUG]: [UpdateFirmware] Sent UPGRADE request (attempt ", attempt, ")"));
    return sent;
  } catch (const std::exception& error) {
    log_.LogFailure("UpdateFirmware", Compose(" Failed to resend upgrade request: ", error.what()));
    return false;
  }
}

/// The receive thread may have sent the first packet, which then waits for its reply.
bool CanUpdate::IsStillAccepted(std::uint32_t status) const {
  return status == 0 || (rules_.first_packet_on_acceptance && status == kWaitingResponse);
}

// --- The packets and what follows -----------------------------------------------------------

bool CanUpdate::AwaitTransmission() {
  int countdown = kTransmissionPolls;
  while (state_.PacketsLeft() != 0) {
    if (--countdown == 0) {
      ReportOrLogFailure(
          FailureKind::NO_REPLY, kTransmissionTimeoutCode,
          Compose(" OTA transmission timeout: ", state_.PacketsLeft(), " packages remaining"));
      state_.ClearCallback();
      return false;
    }
    state_.ota_clock->SleepFor(can_pacing::kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsUpdateError(status)) continue;
    if (!IsForFallback(status)) {
      ReportOrLogStatus(" OTA transmission failed, error code: ", status);
      return false;
    }
    SendWithOtherChecksum();
    countdown = kTransmissionPolls;
  }
  if (!state_.HasCallback()) {
    log_.LogStage("[INFO]: [UpdateFirmware] All packages transmitted [OK]");
  }
  return true;
}

/// Whether the first packet failed the hand's check, and the other checksum wasn't tried yet.
bool CanUpdate::IsForFallback(std::uint32_t status) const {
  return rules_.checksum_fallback && status == kChecksumFailed && state_.ota_package_index == 0 &&
         state_.ota_use_modbus_crc;
}

/// Sends the first packet again with the other checksum, which some hands' boot loaders use.
void CanUpdate::SendWithOtherChecksum() {
  state_.ota_use_modbus_crc = false;
  state_.ota_status = kWaitingResponse;
  log_.LogWarning("UpdateFirmware",
                  " First OTA packet CRC failed with Modbus, fallback to CCITT and retry once");
  sender_.SendPackage();
}

bool CanUpdate::AwaitFlag(const std::atomic<bool>& flag, const char* stage, int timeout_code) {
  for (int polls = 0; !flag; ++polls) {
    if (polls == can_pacing::kFlagPolls) {
      ReportOrLogFailure(FailureKind::NO_REPLY, timeout_code,
                         Compose(" OTA ", stage, " response timeout"));
      return false;
    }
    state_.ota_clock->SleepFor(can_pacing::kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsUpdateError(status)) continue;
    ReportOrLogStatus(Compose(" OTA ", stage, " failed, error code: "), status);
    return false;
  }
  return true;
}

// --- The hand's return ----------------------------------------------------------------------

/// The link stays as it is: the hand is silent while it restarts, and is asked until it answers.
void CanUpdate::Reconnect() {
  state_.ota_clock->SleepFor(can_pacing::kBeforeReconnect);
  for (int attempt = 0; attempt < can_pacing::kReconnectAttempts; ++attempt) {
    state_.Report(state_.Total(), OtaProgressStatus::RECONNECTING);
    VendorInfo info;
    try {
      info = hand_.GetVendorInfo();
    } catch (const std::exception&) {
      // no answer, like a silent hand
    }
    if (!info.product_model.empty()) return ReportOrLogReconnected(info);
    state_.ota_clock->SleepFor(can_pacing::kPoll);
  }
  ReportOrLogNotReconnected();
}

void CanUpdate::ReportOrLogReconnected(const VendorInfo& info) const {
  if (state_.Report(state_.Total(), OtaProgressStatus::COMPLETE)) return;
  log_.LogStage("[INFO]: [UpdateFirmware] Device reconnected after restart");
  log_.LogStage("[INFO]: [UpdateFirmware] Vendor Info: " + info.ToString());
  log_.LogCompleted();
}

/// The hand acknowledged the restart, so the update counts as done.
void CanUpdate::ReportOrLogNotReconnected() const {
  if (state_.Report(state_.Total(), OtaProgressStatus::COMPLETE)) return;
  log_.LogNotReconnected();
  log_.LogStage(
      "[INFO]: [UpdateFirmware] OTA upgrade process completed (device may need manual "
      "verification)");
}

// --- Steps of their own ---------------------------------------------------------------------

void CanUpdate::TakeStep(const char* name, SendFailure (UpdateSender::*send)()) {
  const OperationScope operation(link_.diagnostics, name);
  state_.ota_under_way = true;
  const SendFailure failure = (sender_.*send)();
  if (failure) RecordFailure(link_.diagnostics, *failure, failure->what());
}

// --- The result query -----------------------------------------------------------------------

void CanUpdate::QueryResult() {
  OperationScope operation(link_.diagnostics, "GetUpgradeResult");
  for (int attempt = 1; attempt <= kResultTries; ++attempt) {
    try {
      const CanfdFrame reply = link_.Request(sender_.RequestFrame(kResultChild), 0);
      const std::uint32_t status = LoadU32(reply.data);
      state_.ota_status = status;
      log_.LogResult(status);
      if (status == 0 || rules_.result_query.any_answer_ends) return operation.Succeed();
      RecordFailure(link_.diagnostics, FailureKind::REFUSED,
                    Compose("the hand answers with status ", status));
    } catch (const std::exception& error) {
      log_.LogWarning("GetUpgradeResult",
                      Compose("[retry:", attempt, "/", kResultTries, "] ", error.what()));
      RecordFailure(link_.diagnostics, error, error.what());
    }
    if (attempt < kResultTries) state_.ota_clock->SleepFor(rules_.result_query.pause);
  }
  log_.LogFailure("GetUpgradeResult",
                  Compose(" Failed to get upgrade result after ", kResultTries, " retries"));
}

}  // namespace talvera::korvane
