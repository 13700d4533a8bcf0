#include "protocol/can/update_log.h"

#include "update/update_progress.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

/// What a status means in the reply of one child; null if nothing is known.
const char* StatusMeaning(std::uint8_t child, std::uint32_t status) {
  struct Row {
    std::uint8_t child;
    std::uint32_t status;
    const char* text;
  };
  static constexpr Row kRows[] = {
      {kUpgradeChild, 1, "[ERROR]: Flash partition table acquisition failed"},
      {kUpgradeChild, 2, "[ERROR]: Download partition erase failed"},
      {kUpgradeChild, 3, "[ERROR]: Firmware length invalid"},
      {kPacketChild, kChecksumFailed, "[ERROR]: Checksum verification failed"},
      {kFinishChild, 1, "[ERROR]: No OTA request"},
      {kFinishChild, 2, "[ERROR]: Firmware incomplete"},
      {kFinishChild, 3, "[ERROR]: Flash partition table acquisition failed"},
      {kFinishChild, 4, "[ERROR]: Upgrade flag setting failed"},
  };
  for (const Row& row : kRows) {
    if (row.child == child && row.status == status) return row.text;
  }
  return nullptr;
}

}  // namespace

void UpdateLog::LogFailure(const char* operation, const std::string& text) const {
  if (LogsAnything()) LogError(Compose("[ERROR][", rules_.class_name, "][", operation, "]", text));
}

void UpdateLog::LogWarning(const char* operation, const std::string& text) const {
  if (LogsAnything()) LogError(Compose("[WARN][", rules_.class_name, "][", operation, "]", text));
}

void UpdateLog::LogStatusMeaning(std::uint8_t child, std::uint32_t status) const {
  const char* const meaning = StatusMeaning(child, status);
  if (meaning != nullptr && LogsAnything() && wording_->logs_status_meanings) LogError(meaning);
}

void UpdateLog::LogStage(const std::string& line) const {
  if (LogsAnything() && wording_->logs_stages) LogInfo(line);
}

void UpdateLog::LogReply(const std::string& line) const {
  if (LogsReplies()) LogInfo(line);
}

void UpdateLog::LogUpgradeReply(std::uint32_t status) const {
  if (!LogsAnything() || !wording_->logs_upgrade_replies) return;
  LogInfo(
      Compose("[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=", status));
}

void UpdateLog::LogRepeatedRestart() const {
  if (rules_.repeated_restart == RepeatedRestart::kIgnored) return;
  LogInfo("[DEBUG]: [ProcessMsg] Ignoring duplicate RESTART response (device restarting)");
}

void UpdateLog::LogLateResult() const {
  if (TakesLateResults()) LogInfo(wording_->late_result);
}

void UpdateLog::LogRestartingFirst() const {
  if (LogsAnything()) LogInfo(wording_->restarting_first);
}

void UpdateLog::LogRetry(std::uint32_t status, std::int32_t child) const {
  if (!LogsAnything()) return;
  const bool silent = status == kWaitingResponse && child == -1;
  if (silent && wording_->retrying_silent_hand != nullptr) {
    return LogError(wording_->retrying_silent_hand);
  }
  LogError(Compose(wording_->retrying, status, ", child_id=", child, "), retrying..."));
}

void UpdateLog::LogNoReply() const {
  if (LogsAnything()) LogFailure("UpdateFirmware", wording_->no_reply);
}

void UpdateLog::LogCompleted() const {
  if (LogsAnything()) LogInfo(wording_->completed);
}

void UpdateLog::LogNotReconnected() const {
  if (LogsAnything()) LogError(wording_->not_reconnected);
}

void UpdateLog::LogResult(std::uint32_t status) const {
  const ResultQuery& query = rules_.result_query;
  if (query.success != nullptr) {
    return status == 0 ? LogInfo(query.success) : LogError(Compose(query.failure, status));
  }
  if (!LogsAnything()) return;
  if (status == 0) {
    return LogInfo(
        "[INFO]: [GetUpgradeResult] OTA upgrade result query successful, upgrade completed!");
  }
  LogError(Compose("[WARN]: [GetUpgradeResult] OTA upgrade result: ", status, ", retrying..."));
}

}  // namespace talvera::korvane
