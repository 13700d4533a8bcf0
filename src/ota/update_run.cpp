#include "ota/update_run.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "impl/can_identifier.h"
#include "impl/can_link.h"
#include "util/bytes.h"
#include "util/crc16.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint8_t kUpgradeChild = 1;
constexpr std::uint8_t kPacketChild = 2;
constexpr std::uint8_t kFinishChild = 3;
constexpr std::uint8_t kRestartChild = 4;
constexpr std::uint8_t kResultChild = 5;

constexpr std::uint32_t kChecksumFailed = 1;
constexpr std::size_t kStatusBytes = 4;

constexpr int kFinishTimeoutCode = -4;
constexpr int kRestartTimeoutCode = -5;
constexpr int kTransmissionTimeoutCode = -6;
constexpr int kChecksumFailedCode = -7;

// The pacing is all there is of flow control. A packet takes at least 170 ms.
constexpr milliseconds kAfterChecksum{10};
constexpr milliseconds kAfterDataFrame{5};

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
constexpr seconds kBetweenResultTries{1};

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

void TellStatus(std::uint8_t child, std::uint32_t status) {
  if (const char* const text = StatusText(child, status)) LogError(text);
}

/// Neither good nor still awaited.
bool IsError(std::uint32_t status) { return status != 0 && status != kWaitingResponse; }

}  // namespace

UpdateRun::UpdateRun(const UpdateRules& rules, UpdateState& state, const CanLink& link,
                     Korvane& hand)
    : rules_(rules), state_(state), link_(link), hand_(hand) {}

// --- Telling --------------------------------------------------------------------------------

int UpdateRun::Total() const { return static_cast<int>(state_.ota_total_packages.load()); }

/// False without a callback: the caller then writes the same event as a line.
bool UpdateRun::Report(int current, int total, OtaProgressStatus status) const {
  ProgressCallback callback;
  {
    const std::lock_guard lock(state_.ota_mutex);
    callback = state_.ota_progress_callback;
  }
  if (!callback) return false;
  callback(current, total, status);
  return true;
}

bool UpdateRun::Report(int current, OtaProgressStatus status) const {
  return Report(current, Total(), status);
}

bool UpdateRun::HasCallback() const {
  const std::lock_guard lock(state_.ota_mutex);
  return static_cast<bool>(state_.ota_progress_callback);
}

bool UpdateRun::ReportFailure(int code) const { return Report(code, OtaProgressStatus::FAILED); }

void UpdateRun::ClearCallback() {
  ProgressCallback dropped;
  const std::lock_guard lock(state_.ota_mutex);
  dropped.swap(state_.ota_progress_callback);
}

std::string UpdateRun::Tag(const char* operation) const {
  return Compose("[ERROR][", rules_.class_name, "][", operation, "]");
}

// --- Sending --------------------------------------------------------------------------------

CanfdFrame UpdateRun::Frame(std::uint8_t function, std::uint8_t child) const {
  CanfdFrame frame;
  frame.len = kMaxPayload;
  frame.can_id = (device_id_ & kDeviceIdMask) | kWriteFlag | rules_.family |
                 FunctionField(function) | std::uint32_t{child} << kIndexShift;
  return frame;
}

CanfdFrame UpdateRun::RequestFrame(std::uint8_t child) const {
  return Frame(function_code::kUpdateRequest, child);
}

CanfdFrame UpdateRun::UpgradeFrame(std::size_t file_size) const {
  CanfdFrame frame = RequestFrame(kUpgradeChild);
  frame.len = 6;
  StoreU32(frame.data, static_cast<std::uint32_t>(file_size));
  StoreU16(frame.data + 4, static_cast<std::uint16_t>(PacketCount(file_size)));
  return frame;
}

CanfdFrame UpdateRun::ChecksumFrame(const FirmwarePacket& packet) const {
  CanfdFrame frame = RequestFrame(kPacketChild);
  StoreU16(frame.data, static_cast<std::uint16_t>(state_.ota_package_index));
  StoreU16(frame.data + 2, state_.ota_use_modbus_crc ? Crc16Modbus(packet.data(), packet.size())
                                                     : Crc16Xmodem(packet.data(), packet.size()));
  return frame;
}

void UpdateRun::SendPackage() {
  FirmwarePacket packet;
  {
    const std::lock_guard lock(state_.ota_mutex);
    if (state_.ota_packages.empty()) {
      LogError(Tag("SendPackage") + " No packages to send");
      return;
    }
    packet = state_.ota_current_package = state_.ota_packages.front();
  }
  const CanfdFrame checksum = ChecksumFrame(packet);
  state_.ota_status = kWaitingResponse;
  try {
    link_.Send(checksum);
  } catch (const std::exception& error) {
    LogError(Compose(Tag("SendPackage"), " Failed to send checksum request: ", error.what()));
    return;
  }
  state_.ota_clock->SleepFor(kAfterChecksum);
  CanfdFrame frame = Frame(function_code::kUpdateData, kUpgradeChild);
  for (std::size_t number = 0; number < packet.size() / kMaxPayload; ++number) {
    std::copy_n(&packet[number * kMaxPayload], kMaxPayload, frame.data);
    try {
      link_.Send(frame);
    } catch (const std::exception& error) {
      // The hand's checksum catches the gap.
      LogError(Compose(Tag("SendPackage"), "[frame:", number, "] ", error.what()));
    }
    state_.ota_clock->SleepFor(kAfterDataFrame);
  }
}

void UpdateRun::SendOrTell(const CanfdFrame& frame, const char* operation) const {
  state_.ota_status = kWaitingResponse;
  try {
    link_.Send(frame);
  } catch (const std::exception& error) {
    LogError(Compose(Tag(operation), " ", error.what()));
  }
}

void UpdateRun::SendFinishRequest() { SendOrTell(RequestFrame(kFinishChild), "SendFinishRequest"); }

void UpdateRun::SendRestartRequest() {
  SendOrTell(RequestFrame(kRestartChild), "SendRestartRequest");
}

// --- Replies, on the receive thread ---------------------------------------------------------

void UpdateRun::OnFrame(const CanfdFrame& frame) {
  const std::uint32_t id = frame.can_id & kCanIdMask;
  if (FunctionOf(id) != function_code::kUpdateReply || frame.len < kStatusBytes) return;
  if (!rules_.reply_of_any_device && (id & kDeviceIdMask) != (device_id_ & kDeviceIdMask)) return;
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
    default:
      return;
  }
}

void UpdateRun::OnUpgradeReply(std::uint32_t status) {
  // The watching thread tests the status first: with it the child must already stand.
  state_.ota_child_id = kUpgradeChild;
  state_.ota_status = status;
  LogInfo(
      Compose("[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=", status));
  if (status == 0) {
    if (!Report(0, OtaProgressStatus::UPGRADE_ACCEPTED)) {
      LogInfo("[INFO]: [ProcessMsg] OTA upgrade request accepted (status=0, child_id=UPGRADE)");
    }
  } else if (!ReportFailure(static_cast<int>(status))) {
    LogError(Compose(Tag("ProcessMsg"), " OTA upgrade request rejected, error code: ", status,
                     ", child_id: 1"));
  }
}

void UpdateRun::OnPacketReply(std::uint32_t status) {
  state_.ota_child_id = kPacketChild;
  state_.ota_status = status;
  if (status != 0) return TellPacketFailure(status);
  const std::uint32_t index = state_.ota_package_index;
  if (!Report(static_cast<int>(index), OtaProgressStatus::PACKET_ACKNOWLEDGED)) {
    LogInfo(Compose("[INFO]: [ProcessMsg] Packet ", index, "/", Total(), " transmitted [OK]"));
  }
  bool done = false;
  {
    const std::lock_guard lock(state_.ota_mutex);
    if (!state_.ota_packages.empty()) state_.ota_packages.pop_front();
    done = state_.ota_packages.empty();
  }
  state_.ota_package_index = index + 1;
  if (done) {
    SendFinishRequest();
  } else {
    SendPackage();
  }
}

/// The packet stays where it is: Run decides what becomes of it.
void UpdateRun::TellPacketFailure(std::uint32_t status) const {
  const bool checksum = status == kChecksumFailed;
  if (ReportFailure(checksum ? kChecksumFailedCode : static_cast<int>(status))) return;
  LogError(Compose(Tag("ProcessMsg"), " Packet ", state_.ota_package_index + 1, "/", Total(),
                   " transmission failed, error code: ", status));
  TellStatus(kPacketChild, status);
}

void UpdateRun::OnFinishReply(std::uint32_t status) {
  state_.ota_child_id = kFinishChild;
  state_.ota_status = status;
  if (status == 0) {
    state_.ota_finish_ok = true;
    if (!Report(static_cast<int>(state_.ota_package_index),
                OtaProgressStatus::FINISH_ACKNOWLEDGED)) {
      LogInfo("[INFO]: [ProcessMsg][child_id:3][status: 0] OTA finished [OK]");
    }
    SendRestartRequest();
  } else if (!ReportFailure(static_cast<int>(status))) {
    LogError(Compose(Tag("ProcessMsg"), "[child_id:3][status: ", status, "] OTA finish [NG]"));
    TellStatus(kFinishChild, status);
  }
}

void UpdateRun::OnRestartReply(std::uint32_t status) {
  if (state_.ota_status == 0 && state_.ota_child_id == kRestartChild) {
    LogInfo("[DEBUG]: [ProcessMsg] Ignoring duplicate RESTART response (device restarting)");
    return;
  }
  state_.ota_child_id = kRestartChild;
  state_.ota_status = status;
  if (status == 0) {
    state_.ota_restart_ok = true;
    if (!Report(static_cast<int>(state_.ota_package_index),
                OtaProgressStatus::RESTART_ACKNOWLEDGED)) {
      LogInfo("[INFO]: [ProcessMsg][child_id: 4][status: 0] Restart acknowledged");
    }
  } else if (!HasCallback()) {
    // Run turns it into a failed update; the line has always been an informative one.
    LogInfo(Compose("[INFO]: [ProcessMsg][child_id: 4][status: ", status,
                    "] Restart response received"));
  }
}

// --- The run, on the caller's thread --------------------------------------------------------

void UpdateRun::Run(const std::string& path, ProgressCallback callback) {
  Address(hand_.device_id);
  {
    const std::lock_guard lock(state_.ota_mutex);
    state_.ota_progress_callback.swap(callback);
  }
  callback = nullptr;
  state_.ota_use_modbus_crc = true;
  std::size_t file_size = 0;
  if (!LoadPackets(path, file_size)) return ClearCallback();
  if (!RequestUpgrade(file_size)) return;
  if (!StillAccepted()) return ClearCallback();
  LogInfo(
      "[INFO]: [UpdateFirmware] Upgrade request accepted (UPGRADE response), starting package "
      "transmission");
  SendPackage();
  LogInfo("[INFO]: [UpdateFirmware] Waiting for all packages to be transmitted...");
  if (!AwaitTransmission()) return;
  if (!AwaitFlag(state_.ota_finish_ok, "finish", kFinishTimeoutCode)) return;
  if (!AwaitFlag(state_.ota_restart_ok, "restart", kRestartTimeoutCode)) return;
  Reconnect();
  ClearCallback();
}

bool UpdateRun::LoadPackets(const std::string& path, std::size_t& file_size) {
  const FirmwareFile file = ReadFirmwareFile(path);
  if (file.error_code != 0) {
    if (!Report(file.error_code, 0, OtaProgressStatus::FAILED)) {
      LogError(Tag("UpdateFirmware") + (file.error_code == kCannotOpenFirmware
                                            ? " Failed to read " + path
                                            : " File is empty"));
    }
    return false;
  }
  file_size = file.bytes.size();
  Reset(PacketCount(file_size));
  if (!Report(0, OtaProgressStatus::FILE_LOADED)) {
    LogInfo(Compose("[INFO]: [UpdateFirmware] Firmware file loaded: ", file_size, " bytes, ",
                    Total(), " packets"));
  }
  const std::lock_guard lock(state_.ota_mutex);
  for (std::size_t i = 0; i < PacketCount(file_size); ++i) {
    state_.ota_packages.push_back(CutPacket(file.bytes, i));
  }
  return true;
}

void UpdateRun::Reset(std::size_t packet_count) {
  {
    const std::lock_guard lock(state_.ota_mutex);
    state_.ota_packages.clear();
  }
  state_.ota_total_packages = static_cast<std::uint32_t>(packet_count);
  state_.ota_package_index = 0;
  state_.ota_status = kWaitingResponse;
  state_.ota_child_id = -1;
  state_.ota_finish_ok = false;
  state_.ota_restart_ok = false;
}

bool UpdateRun::RequestUpgrade(std::size_t file_size) {
  LogInfo(Compose("[INFO]: [UpdateFirmware] Firmware length: ", file_size,
                  " bytes, Package num: ", Total()));
  if (!Report(0, OtaProgressStatus::REQUESTING_UPGRADE)) {
    LogInfo("[INFO]: [UpdateFirmware] Sending upgrade request (0x01)...");
  }
  const CanfdFrame upgrade = UpgradeFrame(file_size);
  try {
    link_.Send(upgrade);
  } catch (const std::exception& error) {
    LogError(Compose(Tag("UpdateFirmware"), " Failed to send upgrade request: ", error.what()));
    return false;
  }
  state_.ota_clock->SleepFor(kAfterFirstUpgrade);
  return AwaitAcceptance(upgrade);
}

bool UpdateRun::AwaitAcceptance(const CanfdFrame& upgrade) {
  for (int attempt = 0; attempt < kUpgradeAttempts;) {
    const std::uint32_t status = state_.ota_status;
    const std::int32_t child = state_.ota_child_id;
    if (child == kUpgradeChild && status == 0) return true;
    if (child == kUpgradeChild && IsError(status)) {
      LogError(Compose(Tag("UpdateFirmware"), " Upgrade request rejected, error code: ", status));
      TellStatus(kUpgradeChild, status);
      return false;
    }
    if (attempt == 0 && child == kRestartChild && status == 0) {
      LogInfo(
          "[INFO]: [UpdateFirmware] Received restart response (0x04), device will restart. "
          "Waiting for restart...");
      state_.ota_clock->SleepFor(kDeviceRestarting);
    } else if (attempt > kSilentAttempts) {
      LogError(Compose("[WARN]: [UpdateFirmware] Upgrade request no response (status=", status,
                       ", child_id=", child, "), retrying..."));
    }
    ResendUpgrade(upgrade, attempt);
    if (++attempt == kUpgradeAttempts) break;
    state_.ota_clock->SleepFor(kPoll);
  }
  LogError(Tag("UpdateFirmware") + " Upgrade request failed after 10 retries: no valid response");
  return false;
}

void UpdateRun::ResendUpgrade(const CanfdFrame& upgrade, int attempt) const {
  try {
    link_.Send(upgrade);
    LogInfo(Compose("[DEBUG]: [UpdateFirmware] Sent UPGRADE request (attempt ", attempt, ")"));
  } catch (const std::exception& error) {
    LogError(Compose(Tag("UpdateFirmware"), " Failed to resend upgrade request: ", error.what()));
  }
}

/// A resent request may have been refused after the first one was accepted.
bool UpdateRun::StillAccepted() {
  const std::uint32_t status = state_.ota_status;
  if (status == 0) return true;
  if (!ReportFailure(static_cast<int>(status))) {
    LogError(Compose(Tag("UpdateFirmware"), " Upgrade request failed, status: ", status));
  }
  return false;
}

std::size_t UpdateRun::PacketsLeft() const {
  const std::lock_guard lock(state_.ota_mutex);
  return state_.ota_packages.size();
}

bool UpdateRun::AwaitTransmission() {
  bool fell_back = false;
  int countdown = kTransmissionPolls;
  while (PacketsLeft() != 0) {
    if (--countdown == 0) {
      if (!ReportFailure(kTransmissionTimeoutCode)) {
        LogError(Compose(Tag("UpdateFirmware"), " OTA transmission timeout: ", PacketsLeft(),
                         " packages remaining"));
      }
      ClearCallback();
      return false;
    }
    state_.ota_clock->SleepFor(kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsError(status)) continue;
    if (!fell_back && status == kChecksumFailed && FallBack()) {
      fell_back = true;
      countdown = kTransmissionPolls;
      continue;
    }
    if (!ReportFailure(static_cast<int>(status))) {
      LogError(Compose(Tag("UpdateFirmware"), " OTA transmission failed, error code: ", status));
    }
    return false;
  }
  if (!HasCallback()) LogInfo("[INFO]: [UpdateFirmware] All packages transmitted [OK]");
  return true;
}

/// Sends the first packet again with the other checksum, which some hands' boot loaders use.
bool UpdateRun::FallBack() {
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

bool UpdateRun::AwaitFlag(const std::atomic<bool>& flag, const char* stage, int timeout_code) {
  for (int polls = 0; !flag; ++polls) {
    if (polls == kFlagPolls) {
      if (!ReportFailure(timeout_code)) {
        LogError(Compose(Tag("UpdateFirmware"), " OTA ", stage, " response timeout"));
      }
      return false;
    }
    state_.ota_clock->SleepFor(kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsError(status)) continue;
    if (!ReportFailure(static_cast<int>(status))) {
      LogError(Compose(Tag("UpdateFirmware"), " OTA ", stage, " failed, error code: ", status));
    }
    return false;
  }
  return true;
}

/// The link stays as it is: the hand is silent while it restarts, and is asked until it answers.
void UpdateRun::Reconnect() {
  state_.ota_clock->SleepFor(kBeforeReconnect);
  for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
    Report(Total(), OtaProgressStatus::RECONNECTING);
    VendorInfo info;
    try {
      info = hand_.GetVendorInfo();
    } catch (const std::exception&) {
      // no answer, like a silent hand
    }
    if (!info.product_model.empty()) return TellReconnected(info);
    state_.ota_clock->SleepFor(kPoll);
  }
  // The hand acknowledged the restart, so the update counts as done.
  if (Report(Total(), OtaProgressStatus::COMPLETE)) return;
  LogError(
      "[WARN]: [UpdateFirmware] Could not reconnect to device after restart, but restart response "
      "was received");
  LogInfo(
      "[INFO]: [UpdateFirmware] OTA upgrade process completed (device may need manual "
      "verification)");
}

void UpdateRun::TellReconnected(const VendorInfo& info) {
  if (Report(Total(), OtaProgressStatus::COMPLETE)) return;
  LogInfo("[INFO]: [UpdateFirmware] Device reconnected after restart");
  LogInfo("[INFO]: [UpdateFirmware] Vendor Info: " + info.ToString());
  LogInfo("[INFO]: [UpdateFirmware] OTA upgrade process completed [OK]!");
}

void UpdateRun::QueryResult() {
  for (int attempt = 1; attempt <= kResultTries; ++attempt) {
    try {
      const CanfdFrame reply = link_.Request(RequestFrame(kResultChild), 0);
      const std::uint32_t status = LoadU32(reply.data);
      state_.ota_status = status;
      if (status == 0) {
        LogInfo(
            "[INFO]: [GetUpgradeResult] OTA upgrade result query successful, upgrade completed!");
        return;
      }
      LogError(Compose("[WARN]: [GetUpgradeResult] OTA upgrade result: ", status, ", retrying..."));
    } catch (const std::exception& error) {
      LogError(Compose("[WARN][", rules_.class_name, "][GetUpgradeResult][retry:", attempt, "/10] ",
                       error.what()));
    }
    if (attempt < kResultTries) state_.ota_clock->SleepFor(kBetweenResultTries);
  }
  LogError(Tag("GetUpgradeResult") + " Failed to get upgrade result after 10 retries");
}

}  // namespace talvera::korvane
