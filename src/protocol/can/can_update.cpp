#include "protocol/can/can_update.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "can/can_link.h"
#include "protocol/can/can_identifier.h"
#include "util/bytes.h"
#include "util/crc16.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kStatusBytes = 4;

// The pacing is all there is of flow control. A packet takes at least 170 ms.
constexpr milliseconds kAfterChecksum{10};
constexpr milliseconds kAfterDataFrame{5};
constexpr milliseconds kWholePacket{170};

constexpr milliseconds kAfterFirstUpgrade{100};
constexpr milliseconds kPoll{500};
constexpr seconds kDeviceRestarting{2};
constexpr int kSilentAttempts = 2;
constexpr int kUpgradeAttempts = 11;
constexpr int kTransmissionPolls = 601;
constexpr int kFlagPolls = 60;
constexpr milliseconds kBeforeReconnect{100};
constexpr int kReconnectAttempts = 10;
constexpr int kResultTries = 10;

/// What a device's status means in the reply of one child; null if nothing is known.
const char* StatusText(std::uint8_t child, std::uint32_t status) {
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

SendTurns::Turn::Turn(SendTurns& turns, Clock& clock) : turns_(turns), clock_(clock) {
  std::unique_lock lock(turns_.mutex_);
  const auto self = std::this_thread::get_id();
  if (turns_.owner_ == self) return;
  const std::uint64_t number = turns_.next_++;
  while (turns_.current_ != number) {
    clock_.WaitUntil(lock, turns_.passed_on_, clock_.Now() + kWholePacket);
  }
  turns_.owner_ = self;
  taken_ = true;
}

SendTurns::Turn::~Turn() {
  if (!taken_) return;
  const std::lock_guard lock(turns_.mutex_);
  turns_.owner_ = {};
  ++turns_.current_;
  clock_.NotifyAll(turns_.passed_on_);
}

CanUpdate::CanUpdate(const UpdateRules& rules, CanUpdateState& state, const CanLink& link,
                     Korvane& hand)
    : rules_(rules), state_(state), link_(link), hand_(hand) {}

// --- Telling --------------------------------------------------------------------------------

void CanUpdate::LogRunError(const char* operation, const std::string& text) const {
  if (rules_.wording == nullptr) return;
  LogError(Compose("[ERROR][", rules_.class_name, "][", operation, "]", text));
}

void CanUpdate::LogStatusText(std::uint8_t child, std::uint32_t status) const {
  const char* const text = StatusText(child, status);
  if (text != nullptr && rules_.wording != nullptr && rules_.wording->status_texts) LogError(text);
}

void CanUpdate::LogStage(const std::string& line) const {
  if (rules_.wording != nullptr && rules_.wording->stages) LogInfo(line);
}

void CanUpdate::LogReply(const std::string& line) const {
  if (LogsReplies()) LogInfo(line);
}

bool CanUpdate::LogsReplies() const { return rules_.wording != nullptr && rules_.wording->replies; }

/// Reports an error that a reply told, unless the run does that. True if lines have to tell it.
bool CanUpdate::IsLeftToLines(int code) const {
  return rules_.replies_report_errors && !state_.ReportFailure(code) && LogsReplies();
}

// --- Sending --------------------------------------------------------------------------------

CanfdFrame CanUpdate::Frame(std::uint8_t function, std::uint8_t child) const {
  CanfdFrame frame;
  frame.len = kMaxPayload;
  frame.can_id = (device_id_ & kDeviceIdMask) | kWriteFlag | rules_.family |
                 FunctionField(function) | std::uint32_t{child} << kIndexShift;
  return frame;
}

CanfdFrame CanUpdate::RequestFrame(std::uint8_t child) const {
  return Frame(function_code::kUpdateRequest, child);
}

CanfdFrame CanUpdate::UpgradeFrame(std::size_t file_size) const {
  CanfdFrame frame = RequestFrame(kUpgradeChild);
  frame.len = 6;
  StoreU32(frame.data, static_cast<std::uint32_t>(file_size));
  StoreU16(frame.data + 4, static_cast<std::uint16_t>(PacketCount(file_size)));
  return frame;
}

CanfdFrame CanUpdate::ChecksumFrame(const FirmwarePacket& packet, std::uint32_t number) const {
  CanfdFrame frame = RequestFrame(kPacketChild);
  StoreU16(frame.data, static_cast<std::uint16_t>(number));
  StoreU16(frame.data + 2, state_.ota_use_modbus_crc ? Crc16Modbus(packet.data(), packet.size())
                                                     : Crc16Xmodem(packet.data(), packet.size()));
  return frame;
}

void CanUpdate::SendPackage() {
  FirmwarePacket packet;
  std::uint32_t number = 0;
  bool found = false;
  {
    const std::lock_guard lock(state_.ota_mutex);
    found = !state_.ota_packages.empty();
    if (found) packet = state_.ota_current_package = state_.ota_packages.front();
    number = state_.ota_package_index;
  }
  if (!found) return LogRunError("SendPackage", " No packages to send");
  const CanfdFrame checksum = ChecksumFrame(packet, number);
  const SendTurns::Turn turn(turns_, *state_.ota_clock);
  state_.ota_status = kWaitingResponse;
  try {
    link_.Send(checksum);
  } catch (const std::exception& error) {
    return LogRunError("SendPackage", Compose(" Failed to send checksum request: ", error.what()));
  }
  state_.ota_clock->SleepFor(kAfterChecksum);
  SendPacketData(packet);
}

void CanUpdate::SendPacketData(const FirmwarePacket& packet) const {
  CanfdFrame frame = Frame(function_code::kUpdateData, kUpgradeChild);
  for (std::size_t number = 0; number < packet.size() / kMaxPayload; ++number) {
    std::copy_n(&packet[number * kMaxPayload], kMaxPayload, frame.data);
    try {
      link_.Send(frame);
    } catch (const std::exception& error) {
      // The hand's checksum catches the gap.
      LogRunError("SendPackage", Compose("[frame:", number, "] ", error.what()));
    }
    state_.ota_clock->SleepFor(kAfterDataFrame);
  }
}

void CanUpdate::SendOrTell(const CanfdFrame& frame, const char* operation) const {
  const SendTurns::Turn turn(turns_, *state_.ota_clock);
  state_.ota_status = kWaitingResponse;
  try {
    link_.Send(frame);
  } catch (const std::exception& error) {
    LogRunError(operation, Compose(" ", error.what()));
  }
}

void CanUpdate::SendFinishRequest() { SendOrTell(RequestFrame(kFinishChild), "SendFinishRequest"); }

void CanUpdate::SendRestartRequest() {
  SendOrTell(RequestFrame(kRestartChild), "SendRestartRequest");
}

// --- Replies, on the receive thread ---------------------------------------------------------

bool CanUpdate::IsOwnReply(std::uint32_t id) const {
  if (rules_.replies_from == ReplySenders::kAny) return true;
  if (((id ^ device_id_) & kDeviceIdMask) != 0) return false;
  return rules_.replies_from == ReplySenders::kOwnId || (id & kFamilyMask) == rules_.family;
}

void CanUpdate::OnFrame(const CanfdFrame& frame) {
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
      return OnLateResult(status);
    default:
      return;
  }
}

/// The watching thread tests the status first: with it the child must already stand.
void CanUpdate::Store(std::uint8_t child, std::uint32_t status) {
  state_.ota_child_id = child;
  state_.ota_status = status;
}

void CanUpdate::OnUpgradeReply(std::uint32_t status) {
  state_.ota_accepted = status == 0;
  Store(kUpgradeChild, status);
  if (rules_.wording != nullptr && rules_.wording->upgrade_reply) {
    LogInfo(
        Compose("[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=", status));
  }
  if (status == 0) {
    if (!state_.Report(0, OtaProgressStatus::UPGRADE_ACCEPTED)) {
      LogReply("[INFO]: [ProcessMsg] OTA upgrade request accepted (status=0, child_id=UPGRADE)");
    }
    if (rules_.first_packet_on_acceptance) SendPackage();
  } else if (IsLeftToLines(static_cast<int>(status))) {
    LogRunError("ProcessMsg",
                Compose(" OTA upgrade request rejected, error code: ", status, ", child_id: 1"));
  }
}

void CanUpdate::OnPacketReply(std::uint32_t status) {
  Store(kPacketChild, status);
  if (status != 0) return ReportPacketFailure(status);
  const std::uint32_t index = state_.ota_package_index;
  const bool report_first = !rules_.counts_acknowledged;
  if (report_first) ReportPacket(index);
  bool done = false;
  {
    // Together, as the other thread may take the front packet and its number at any time.
    const std::lock_guard lock(state_.ota_mutex);
    if (!state_.ota_packages.empty()) state_.ota_packages.pop_front();
    done = state_.ota_packages.empty();
    state_.ota_package_index = index + 1;
  }
  if (!report_first) ReportPacket(index + 1);
  if (done) {
    SendFinishRequest();
  } else {
    SendPackage();
  }
}

void CanUpdate::ReportPacket(std::uint32_t number) const {
  if (state_.Report(static_cast<int>(number), OtaProgressStatus::PACKET_ACKNOWLEDGED)) return;
  LogReply(
      Compose("[INFO]: [ProcessMsg] Packet ", number, "/", state_.Total(), " transmitted [OK]"));
}

/// The packet stays where it is: Run decides what becomes of it.
void CanUpdate::ReportPacketFailure(std::uint32_t status) const {
  if (!IsLeftToLines(PacketFailureCode(status))) return;
  LogRunError("ProcessMsg", Compose(" Packet ", state_.ota_package_index + 1, "/", state_.Total(),
                                    " transmission failed, error code: ", status));
  LogStatusText(kPacketChild, status);
}

void CanUpdate::OnFinishReply(std::uint32_t status) {
  Store(kFinishChild, status);
  if (status != 0) return ReportFinishFailure(status);
  state_.ota_finish_ok = true;
  if (!state_.Report(static_cast<int>(state_.ota_package_index),
                     OtaProgressStatus::FINISH_ACKNOWLEDGED)) {
    LogReply("[INFO]: [ProcessMsg][child_id:3][status: 0] OTA finished [OK]");
  }
  SendRestartRequest();
}

void CanUpdate::ReportFinishFailure(std::uint32_t status) const {
  if (!IsLeftToLines(static_cast<int>(status))) return;
  LogRunError("ProcessMsg", Compose("[child_id:3][status: ", status, "] OTA finish [NG]"));
  LogStatusText(kFinishChild, status);
}

void CanUpdate::OnRestartReply(std::uint32_t status) {
  const bool repeated = state_.ota_status == 0 && state_.ota_child_id == kRestartChild;
  if (repeated && rules_.repeated_restart != RepeatedRestart::kTaken) {
    if (rules_.repeated_restart == RepeatedRestart::kIgnored) return;
    return LogInfo("[DEBUG]: [ProcessMsg] Ignoring duplicate RESTART response (device restarting)");
  }
  Store(kRestartChild, status);
  if (status == 0) {
    state_.ota_restart_ok = true;
    if (!state_.Report(static_cast<int>(state_.ota_package_index),
                       OtaProgressStatus::RESTART_ACKNOWLEDGED)) {
      LogReply("[INFO]: [ProcessMsg][child_id: 4][status: 0] Restart acknowledged");
    }
  } else if (!state_.HasCallback()) {
    // Run turns it into a failed update; the line has always been an informative one.
    LogReply(Compose("[INFO]: [ProcessMsg][child_id: 4][status: ", status,
                     "] Restart response received"));
  }
}

void CanUpdate::OnLateResult(std::uint32_t status) {
  const char* const text = rules_.wording != nullptr ? rules_.wording->late_result : nullptr;
  if (text == nullptr) return;
  Store(kResultChild, status);
  if (status == 0) LogInfo(text);
}

// --- The run, on the caller's thread --------------------------------------------------------

void CanUpdate::Run(const std::string& path, ProgressCallback callback) {
  Address(hand_.device_id);
  state_.SetCallback(std::move(callback));
  state_.ota_use_modbus_crc = true;
  if (Attempt(path) || rules_.always_clears_callback) state_.ClearCallback();
}

bool CanUpdate::Attempt(const std::string& path) {
  std::size_t file_size = 0;
  if (!LoadPackets(path, file_size)) {
    state_.ClearCallback();
    return false;
  }
  if (!RequestUpgrade(file_size)) return false;
  if (!StillAccepted()) {
    state_.ClearCallback();
    return false;
  }
  LogStage(
      "[INFO]: [UpdateFirmware] Upgrade request accepted (UPGRADE response), starting package "
      "transmission");
  SendPackage();
  LogStage("[INFO]: [UpdateFirmware] Waiting for all packages to be transmitted...");
  if (!AwaitTransmission()) return false;
  if (!AwaitFlag(state_.ota_finish_ok, "finish", kFinishTimeoutCode)) return false;
  if (!AwaitFlag(state_.ota_restart_ok, "restart", kRestartTimeoutCode)) return false;
  Reconnect();
  return true;
}

bool CanUpdate::LoadPackets(const std::string& path, std::size_t& file_size) {
  const FirmwareFile file = ReadFirmwareFile(path);
  if (file.error_code != 0) {
    if (!state_.Report(file.error_code, 0, OtaProgressStatus::FAILED)) {
      LogRunError("UpdateFirmware", file.error_code == kCannotOpenFirmware
                                        ? " Failed to read " + path
                                        : " File is empty");
    }
    return false;
  }
  file_size = file.bytes.size();
  state_.Begin(PacketCount(file_size));
  state_.ota_child_id = -1;
  state_.ota_accepted = false;
  if (!state_.Report(0, OtaProgressStatus::FILE_LOADED)) {
    LogStage(Compose("[INFO]: [UpdateFirmware] Firmware file loaded: ", file_size, " bytes, ",
                     state_.Total(), " packets"));
  }
  state_.Fill(file);
  return true;
}

bool CanUpdate::RequestUpgrade(std::size_t file_size) {
  LogStage(Compose("[INFO]: [UpdateFirmware] Firmware length: ", file_size,
                   " bytes, Package num: ", state_.Total()));
  if (!state_.Report(0, OtaProgressStatus::REQUESTING_UPGRADE)) {
    LogStage("[INFO]: [UpdateFirmware] Sending upgrade request (0x01)...");
  }
  const CanfdFrame upgrade = UpgradeFrame(file_size);
  try {
    link_.Send(upgrade);
  } catch (const std::exception& error) {
    LogRunError("UpdateFirmware", Compose(" Failed to send upgrade request: ", error.what()));
    return false;
  }
  state_.ota_clock->SleepFor(kAfterFirstUpgrade);
  return AwaitAcceptance(upgrade);
}

/// Where the receive thread sends the first packet, its request has already replaced the status.
bool CanUpdate::IsAccepted() const {
  if (rules_.first_packet_on_acceptance) return state_.ota_accepted;
  return state_.ota_status == 0 && state_.ota_child_id == kUpgradeChild;
}

bool CanUpdate::AwaitAcceptance(const CanfdFrame& upgrade) {
  for (int attempt = 0; attempt < kUpgradeAttempts;) {
    if (IsAccepted()) return true;
    const std::uint32_t status = state_.ota_status;
    const std::int32_t child = state_.ota_child_id;
    if (child == kUpgradeChild && IsUpdateError(status)) return ReportRefusal(status);
    if (attempt == 0 && child == kRestartChild && status == 0) {
      if (rules_.wording != nullptr) LogInfo(rules_.wording->restarting_first);
      state_.ota_clock->SleepFor(kDeviceRestarting);
    } else if (attempt > kSilentAttempts) {
      LogRetry(status, child);
    }
    ResendUpgrade(upgrade, attempt);
    if (++attempt < kUpgradeAttempts) state_.ota_clock->SleepFor(kPoll);
  }
  if (rules_.wording != nullptr) LogRunError("UpdateFirmware", rules_.wording->no_reply);
  if (rules_.reports_no_reply) state_.ReportFailure(kNoReplyCode);
  return false;
}

/// False, for a run that ends here.
bool CanUpdate::ReportRefusal(std::uint32_t status) const {
  LogRunError("UpdateFirmware", Compose(" Upgrade request rejected, error code: ", status));
  LogStatusText(kUpgradeChild, status);
  if (rules_.reports_refusal) state_.ReportFailure(static_cast<int>(status));
  return false;
}

void CanUpdate::LogRetry(std::uint32_t status, std::int32_t child) const {
  const UpdateWording* const wording = rules_.wording;
  if (wording == nullptr) return;
  const bool silent = status == kWaitingResponse && child == -1;
  if (silent && wording->retrying_silent != nullptr) return LogError(wording->retrying_silent);
  LogError(Compose(wording->retrying, status, ", child_id=", child, "), retrying..."));
}

void CanUpdate::ResendUpgrade(const CanfdFrame& upgrade, int attempt) const {
  try {
    link_.Send(upgrade);
    LogStage(Compose("[DEBUG]: [UpdateFirmware] Sent UPGRADE request (attempt ", attempt, ")"));
  } catch (const std::exception& error) {
    LogRunError("UpdateFirmware", Compose(" Failed to resend upgrade request: ", error.what()));
  }
}

/// A resent request may have been refused after the first one was accepted.
bool CanUpdate::StillAccepted() {
  const std::uint32_t status = state_.ota_status;
  const bool replaced =
      rules_.first_packet_on_acceptance && (state_.ota_accepted || status == kWaitingResponse);
  if (status == 0 || replaced) return true;
  if (!state_.ReportFailure(static_cast<int>(status))) {
    LogRunError("UpdateFirmware", Compose(" Upgrade request failed, status: ", status));
  }
  return false;
}

bool CanUpdate::AwaitTransmission() {
  bool fell_back = false;
  int countdown = kTransmissionPolls;
  while (state_.PacketsLeft() != 0) {
    if (--countdown == 0) {
      if (!state_.ReportFailure(kTransmissionTimeoutCode)) {
        LogRunError("UpdateFirmware", Compose(" OTA transmission timeout: ", state_.PacketsLeft(),
                                              " packages remaining"));
      }
      state_.ClearCallback();
      return false;
    }
    state_.ota_clock->SleepFor(kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsUpdateError(status)) continue;
    if (!fell_back && status == kChecksumFailed && FallBack()) {
      fell_back = true;
      countdown = kTransmissionPolls;
      continue;
    }
    if (!state_.ReportFailure(static_cast<int>(status))) {
      LogRunError("UpdateFirmware", Compose(" OTA transmission failed, error code: ", status));
    }
    return false;
  }
  if (!state_.HasCallback()) LogStage("[INFO]: [UpdateFirmware] All packages transmitted [OK]");
  return true;
}

/// Sends the first packet again with the other checksum, which some hands' boot loaders use.
bool CanUpdate::FallBack() {
  if (!rules_.checksum_fallback || state_.ota_package_index != 0 || !state_.ota_use_modbus_crc) {
    return false;
  }
  state_.ota_use_modbus_crc = false;
  state_.ota_status = kWaitingResponse;
  LogError(Compose("[WARN][", rules_.class_name,
                   "][UpdateFirmware] First OTA packet CRC failed with Modbus, fallback to CCITT "
                   "and retry once"));
  SendPackage();
  return true;
}

bool CanUpdate::AwaitFlag(const std::atomic<bool>& flag, const char* stage, int timeout_code) {
  for (int polls = 0; !flag; ++polls) {
    if (polls == kFlagPolls) {
      if (!state_.ReportFailure(timeout_code)) {
        LogRunError("UpdateFirmware", Compose(" OTA ", stage, " response timeout"));
      }
      return false;
    }
    state_.ota_clock->SleepFor(kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsUpdateError(status)) continue;
    if (!state_.ReportFailure(static_cast<int>(status))) {
      LogRunError("UpdateFirmware", Compose(" OTA ", stage, " failed, error code: ", status));
    }
    return false;
  }
  return true;
}

/// The link stays as it is: the hand is silent while it restarts, and is asked until it answers.
void CanUpdate::Reconnect() {
  state_.ota_clock->SleepFor(kBeforeReconnect);
  for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
    state_.Report(state_.Total(), OtaProgressStatus::RECONNECTING);
    VendorInfo info;
    try {
      info = hand_.GetVendorInfo();
    } catch (const std::exception&) {
      // no answer, like a silent hand
    }
    if (!info.product_model.empty()) return ReportReconnected(info);
    state_.ota_clock->SleepFor(kPoll);
  }
  // The hand acknowledged the restart, so the update counts as done.
  if (state_.Report(state_.Total(), OtaProgressStatus::COMPLETE)) return;
  if (rules_.wording != nullptr) LogError(rules_.wording->not_reconnected);
  LogStage(
      "[INFO]: [UpdateFirmware] OTA upgrade process completed (device may need manual "
      "verification)");
}

void CanUpdate::ReportReconnected(const VendorInfo& info) {
  if (state_.Report(state_.Total(), OtaProgressStatus::COMPLETE)) return;
  LogStage("[INFO]: [UpdateFirmware] Device reconnected after restart");
  LogStage("[INFO]: [UpdateFirmware] Vendor Info: " + info.ToString());
  if (rules_.wording != nullptr) LogInfo(rules_.wording->completed);
}

void CanUpdate::QueryResult() {
  const bool speaks = rules_.wording != nullptr;
  for (int attempt = 1; attempt <= kResultTries; ++attempt) {
    try {
      const CanfdFrame reply = link_.Request(RequestFrame(kResultChild), 0);
      state_.ota_status = LoadU32(reply.data);
      if (LogResult(state_.ota_status)) return;
    } catch (const std::exception& error) {
      if (speaks) {
        LogError(Compose("[WARN][", rules_.class_name, "][GetUpgradeResult][retry:", attempt,
                         "/10] ", error.what()));
      }
    }
    if (attempt < kResultTries) state_.ota_clock->SleepFor(rules_.result_query.pause);
  }
  LogRunError("GetUpgradeResult", " Failed to get upgrade result after 10 retries");
}

/// True if the query ends with this answer.
bool CanUpdate::LogResult(std::uint32_t status) const {
  const ResultQuery& query = rules_.result_query;
  if (query.success != nullptr) {
    status == 0 ? LogInfo(query.success) : LogError(Compose(query.failure, status));
    return true;
  }
  if (rules_.wording == nullptr) return status == 0;
  if (status == 0) {
    LogInfo("[INFO]: [GetUpgradeResult] OTA upgrade result query successful, upgrade completed!");
    return true;
  }
  LogError(Compose("[WARN]: [GetUpgradeResult] OTA upgrade result: ", status, ", retrying..."));
  return false;
}

}  // namespace talvera::korvane
