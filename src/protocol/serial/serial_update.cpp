#include "protocol/serial/serial_update.h"

#include <chrono>
#include <utility>

#include "hand/hand_members.h"
#include "serial/usb_device.h"
#include "util/bytes.h"
#include "util/crc16.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::uint8_t kDataChild = 0;

constexpr std::size_t kReplySize = 5;
constexpr std::size_t kDataPerFrame = 64;

constexpr milliseconds kBufferCleared{5};
constexpr milliseconds kPoll{100};
constexpr int kUpgradeAttempts = 3;
constexpr int kUpgradePolls = 20;
constexpr std::size_t kDumpedBytes = 64;
constexpr milliseconds kAfterReconnect{300};
constexpr milliseconds kAfterLateReconnect{500};
constexpr int kTransmissionPasses = 150;
constexpr milliseconds kTransmissionPass{20};
constexpr int kFinishPolls = 80;
constexpr int kRestartPolls = 20;
constexpr seconds kRestarting{3};

std::string WithoutLastBlank(std::string text) {
  text.pop_back();
  return text;
}

std::string ErrorLine(const std::string& text) {
  return "[ERROR][KorvaneBrisaSerialImpl][UpdateFirmware] " + text;
}

std::string UpgradeRefusedLine(std::uint32_t status) {
  return Compose("[USB_OTA] recv UPGRADE ACK result=", status, " (upgrade request rejected)");
}

std::string FinishFailedLine(std::uint32_t status) {
  return ErrorLine(Compose("OTA finish failed, error code: ", status));
}

}  // namespace

/// Firmware behind 1.0.0 and its builds, up to 15.0.0.0, has CRC-16/MODBUS; what is older or newer
/// has CRC-16/XMODEM.
std::uint8_t ValidationTypeOf(const Version& firmware) {
  const auto [major, minor, patch, build] = firmware;
  const bool before = major == 0 || (major == 1 && minor == 0 && patch == 0);
  const bool after = major > 15 || (major == 15 && (minor != 0 || patch != 0 || build != 0));
  return before || after ? kXmodemValidation : kModbusValidation;
}

SerialUpdate::SerialUpdate(SerialUpdateState& state, SerialLink& link, const Korvane& hand)
    : state_(state), link_(link), hand_(hand) {}

// --- Frames ---------------------------------------------------------------------------------

SerialFrameCrcType SerialUpdate::Trailer() const {
  return state_.ota_validation_type == kXmodemValidation ? SerialFrameCrcType::kCrc16Ccitt
                                                         : SerialFrameCrcType::kCrc16Modbus;
}

bool SerialUpdate::Write(ServiceCommand command, const ServicePayload& payload,
                         SerialFrameCrcType crc) {
  UsbFrameBuilder frame(DeviceIdOf(hand_), static_cast<std::uint8_t>(command));
  frame.AddData(payload.Data(), payload.Size());
  const std::size_t size = frame.Finalize(crc);
  return link_.Device().WriteRaw(frame.Data(), size) == size;
}

bool SerialUpdate::SendUpgradeRequest(std::uint32_t size, std::uint16_t count) {
  state_.ota_upgrade_acked = false;
  return Write(ServiceCommand::kUpdateRequest,
               ServicePayload().Add8(kUpgradeChild).Add32(size).Add16(count),
               SerialFrameCrcType::kNoCrc);
}

bool SerialUpdate::SendPackage(const FirmwarePacket& packet) {
  {
    const MutexLock lock(state_.ota_mutex);
    state_.ota_current_package = packet;
  }
  const std::uint16_t crc = state_.ota_validation_type == kXmodemValidation
                                ? Crc16Xmodem(packet.data(), packet.size())
                                : Crc16Modbus(packet.data(), packet.size());
  state_.ota_package_acked = false;
  state_.ota_status = kWaitingResponse;
  bool sent =
      Write(ServiceCommand::kUpdateRequest,
            ServicePayload().Add8(kPacketChild).Add16(state_.ota_package_index & 0xFFFF).Add16(crc),
            Trailer());
  for (std::size_t at = 0; at < packet.size(); at += kDataPerFrame) {
    UsbFrameBuilder frame(DeviceIdOf(hand_),
                          static_cast<std::uint8_t>(ServiceCommand::kUpdateData));
    frame.AddUint8(kDataChild).AddData(&packet[at], kDataPerFrame);
    const std::size_t size = frame.Finalize(Trailer());
    sent = link_.Device().WriteRaw(frame.Data(), size) == size && sent;
  }
  return sent;
}

bool SerialUpdate::SendFinish() {
  state_.ota_finish_acked = false;
  return Write(ServiceCommand::kUpdateRequest, ServicePayload().Add8(kFinishChild).Add32(0),
               Trailer());
}

bool SerialUpdate::SendRestart() {
  state_.ota_restart_acked = false;
  return Write(ServiceCommand::kUpdateRequest, ServicePayload().Add8(kRestartChild).Add32(0),
               Trailer());
}

// --- Replies, on the receive thread ---------------------------------------------------------

/// A refused upgrade request sets no flag, so that the run sees a silent hand and tries again. The
/// replies to the finish and restart requests set theirs whatever the result, which the run looks
/// at.
void SerialUpdate::OnReply(const std::uint8_t* data, std::size_t size) {
  if (size < kReplySize) return;
  const std::uint32_t result = LoadU32(data + 1);
  const std::uint8_t child = data[0];
  if (child < kUpgradeChild || child > kRestartChild) {
    LogInfo(Compose("[USB_OTA][<unknown> child_id:0x", std::hex, child,
                    "][responseValue:", WithoutLastBlank(HexBytes(data + 1, 4)), "]"));
    return;
  }
  // The flag is set last: when the run sees it the result stands too.
  state_.ota_status = result;
  switch (child) {
    case kUpgradeChild:
      state_.ota_upgrade_result = result;
      if (result == 0) {
        state_.ota_upgrade_acked = true;
      } else {
        LogInfo(UpgradeRefusedLine(result));
      }
      return;
    case kPacketChild:
      state_.ota_package_result = result;
      state_.ota_package_acked = true;
      return;
    case kFinishChild:
      state_.ota_finish_result = result;
      state_.ota_finish_acked = true;
      state_.ota_finish_ok = true;
      return;
    default:
      state_.ota_restart_result = result;
      state_.ota_restart_acked = true;
      state_.ota_restart_ok = true;
  }
}

// --- The run --------------------------------------------------------------------------------

/// Reports a failure, or without a callback logs it, and forgets the callback.
void SerialUpdate::ReportOrLogFailure(FailureKind kind, int code, const std::string& line) {
  ReportOrLogFailureAndKeepCallback(kind, code, line);
  state_.ClearCallback();
}

/// Nothing calls a callback that is kept: the next update replaces it.
void SerialUpdate::ReportOrLogFailureAndKeepCallback(FailureKind kind, int code,
                                                     const std::string& line) {
  const bool open = link_.device && link_.device->isOpen();
  link_.Record(kind == FailureKind::NO_REPLY && !open ? FailureKind::NO_LINK : kind, line);
  if (!state_.ReportFailure(code)) LogError(line);
}

void SerialUpdate::Run(const std::string& path, ProgressCallback callback) {
  auto operation = link_.Operation("UpdateFirmware");
  state_.SetCallback(OutsideOperation(link_.diagnostics, std::move(callback)));
  try {
    Attempt(path, operation);
  } catch (const std::exception& error) {
    link_.RecordThrown(error);
    throw;
  }
}

void SerialUpdate::Attempt(const std::string& path, OperationScope& operation) {
  std::uint32_t size = 0;
  if (!Load(path, size)) return;
  Prepare();
  const bool accepted = RequestUpgrade(size);
  // An update goes on without the version: a query for it that nothing answers is no failure.
  operation.Succeed();
  if (!accepted) {
    RecordRefusedUpgrade();
    return ReportOrLogFailure(FailureKind::NO_REPLY, kNoReplyCode,
                              ErrorLine("Upgrade request timeout"));
  }
  BeginTransmission();
  if (!Transmit() || !Finish() || !Restart()) return;
  if (state_.Report(state_.Total(), OtaProgressStatus::RECONNECTING)) {
    state_.Report(state_.Total(), OtaProgressStatus::COMPLETE);
  } else {
    LogInfo("[INFO]: [UpdateFirmware] USB OTA upgrade process completed!");
  }
}

bool SerialUpdate::Load(const std::string& path, std::uint32_t& size) {
  std::string line = ErrorLine("Failed to read " + path);
  const std::size_t bytes = state_.ReportOrLogLoad(path, [&line](int error_code) {
    if (error_code != kCannotOpenFirmware) line = ErrorLine("File is empty");
    LogError(line);
  });
  size = static_cast<std::uint32_t>(bytes);
  if (bytes == 0) {
    link_.Record(FailureKind::BAD_ARGUMENT, line);
    state_.ClearCallback();
    return false;
  }
  state_.Report(0, OtaProgressStatus::FILE_LOADED);
  state_.Report(0, OtaProgressStatus::REQUESTING_UPGRADE);
  return true;
}

void SerialUpdate::Prepare() {
  const FwVersion version = link_.QueryVersion(/*no_crc=*/false);
  LogInfo(Compose("OTA preparing [fw version: ", version.firmware.ToString(),
                  "][hw version:", version.hardware.ToString(), "]"));
  if (link_.device) link_.device->clear_recv_buffer_ = true;
  state_.ota_clock->SleepFor(kBufferCleared);
  state_.ota_validation_type = kUnknownValidation;
  state_.ota_upgrade_result = 0;
}

void SerialUpdate::FindValidationType() {
  if (state_.ota_validation_type != kUnknownValidation) return;
  const FwVersion version = link_.QueryVersion(/*no_crc=*/true);
  state_.ota_validation_type = ValidationTypeOf(version.firmware);
  LogInfo(Compose("[USB_OTA][fw version: ", version.firmware.ToString(),
                  "][hw version: ", version.hardware.ToString(),
                  "][validation type: ", state_.ota_validation_type.load(), "]"));
}

bool SerialUpdate::RequestUpgrade(std::uint32_t size) {
  for (int attempt = 0; attempt < kUpgradeAttempts; ++attempt) {
    if (attempt > 0 && !ReconnectAfter(attempt)) return false;
    if (AttemptUpgrade(size)) return true;
  }
  return false;
}

/// Nothing if the hand was silent. A refusal is reported and told as silence is, and recorded
/// first, which is what counts.
void SerialUpdate::RecordRefusedUpgrade() {
  const std::uint32_t status = state_.ota_upgrade_result;
  if (status != 0) link_.Record(FailureKind::REFUSED, UpgradeRefusedLine(status));
}

bool SerialUpdate::AttemptUpgrade(std::uint32_t size) {
  bool acknowledged = false;
  const auto log_failure = [](const std::string& what) {
    LogError("[USB_OTA]: " + what + ", will reconnect and retry");
  };
  try {
    SendUpgradeRequest(size, static_cast<std::uint16_t>(state_.Total()));
    acknowledged = AwaitUpgradeReply();
    if (acknowledged) FindValidationType();
  } catch (const std::exception& error) {
    log_failure(Compose("exception during send/wait (device disconnected?): ", error.what()));
  } catch (...) {
    log_failure("unknown exception during send/wait");
  }
  return acknowledged;
}

bool SerialUpdate::AwaitUpgradeReply() {
  state_.ota_clock->SleepFor(kPoll);
  for (int polls = 0; !state_.ota_upgrade_acked && polls < kUpgradePolls; ++polls) {
    if (!link_.Device().running_) break;
    state_.ota_clock->SleepFor(kPoll);
  }
  if (state_.ota_upgrade_acked) return true;
  link_.Device().DebugDumpRecvBuffer(kDumpedBytes);
  return false;
}

/// Opens the port again. False if that failed, which ends the attempts.
bool SerialUpdate::ReconnectAfter(int attempt) {
  state_.Report(attempt, OtaProgressStatus::LINK_RECONNECTING);
  if (!link_.device || !link_.device->Reconnect()) {
    LogError("[USB_OTA]: Reconnect failed, giving up");
    return false;
  }
  state_.Report(0, OtaProgressStatus::LINK_RECONNECTED);
  state_.ota_clock->SleepFor(kAfterReconnect);
  FindValidationType();
  return true;
}

void SerialUpdate::BeginTransmission() {
  if (!state_.Report(0, OtaProgressStatus::UPGRADE_ACCEPTED)) {
    LogInfo("[INFO]: [UpdateFirmware] Upgrade request accepted, starting package transmission");
    LogInfo("[INFO]: [UpdateFirmware] Waiting for all packages to be transmitted...");
  }
  if (state_.PacketsLeft() != 0 && !link_.Device().running_) {
    LogInfo("[USB_OTA]: recv thread dead before first packet, reconnecting...");
    if (link_.Device().Reconnect()) {
      state_.Report(0, OtaProgressStatus::LINK_RECONNECTED);
      state_.ota_clock->SleepFor(kAfterLateReconnect);
    }
  }
  SendFront();
}

/// A packet leaves the queue when it is sent, and not when it is acknowledged.
void SerialUpdate::SendFront() {
  const auto packet = state_.FrontPacket();
  if (!packet) return;
  SendPackage(*packet);
  state_.PopPacket();
}

/// The number of passes limits the whole transmission, to about that many packets. Applications
/// split larger images.
bool SerialUpdate::Transmit() {
  const std::uint32_t last = state_.ota_total_packages - 1;
  bool finished = false;
  for (int passes = kTransmissionPasses; passes > 0 && !finished; --passes) {
    if (state_.PacketsLeft() == 0 && state_.ota_package_index != last) break;
    state_.ota_clock->SleepFor(kTransmissionPass);
    const std::uint32_t status = state_.ota_status;
    if (IsUpdateError(status)) {
      ReportOrLogFailure(FailureKind::REFUSED, static_cast<int>(status),
                         ErrorLine(Compose("OTA transmission failed, error code: ", status)));
      return false;
    }
    if (state_.ota_package_acked && !OnAcknowledgment(finished)) return false;
  }
  return ReportOrLogTransmissionEnd();
}

bool SerialUpdate::OnAcknowledgment(bool& finished) {
  const std::uint32_t result = state_.ota_package_result;
  if (result != 0) {
    ReportOrLogFailure(FailureKind::REFUSED, PacketFailureCode(result),
                       ErrorLine(Compose("Package transmission failed, error code: ", result)));
    return false;
  }
  state_.ota_package_acked = false;
  const std::uint32_t index = state_.ota_package_index++;
  state_.Report(static_cast<int>(index + 1), OtaProgressStatus::PACKET_ACKNOWLEDGED);
  if (state_.PacketsLeft() != 0) {
    SendFront();
  } else if (index == state_.ota_total_packages - 1) {
    SendFinish();
    finished = true;
  }
  return true;
}

/// True if all packets were acknowledged; the failure is reported or logged otherwise.
bool SerialUpdate::ReportOrLogTransmissionEnd() {
  const std::uint32_t index = state_.ota_package_index;
  const std::size_t left = state_.PacketsLeft();
  if (left == 0 && index == state_.ota_total_packages - 1) {
    const std::string line =
        Compose("[USB_OTA] timeout: no ACK for last packet ", index, ", not sending FINISH");
    LogInfo(line);
    link_.Record(FailureKind::NO_REPLY, line);
    state_.ReportFailure(kTransmissionTimeoutCode);
    state_.ClearCallback();
    return false;
  }
  if (left == 0) return true;
  LogInfo(Compose("[USB_OTA] timeout: no ACK for packet ", index,
                  ", recv_thread_running=", link_.Device().running_ ? 1 : 0,
                  " (0=RecvThread already dead, 1=thread alive but no ACK received)"));
  ReportOrLogFailure(FailureKind::NO_REPLY, kTransmissionTimeoutCode,
                     ErrorLine(Compose("OTA transmission timeout: ", left, " packages remaining")));
  return false;
}

/// Waits for the reply to the finish request. An error status ends the wait too.
bool SerialUpdate::AwaitFinish() {
  for (int polls = kFinishPolls; !state_.ota_finish_ok; --polls) {
    if (polls == 0) {
      ReportOrLogFailure(FailureKind::NO_REPLY, kFinishTimeoutCode,
                         ErrorLine("OTA finish response timeout"));
      return false;
    }
    state_.ota_clock->SleepFor(kPoll);
    const std::uint32_t status = state_.ota_status;
    if (!IsUpdateError(status)) continue;
    ReportOrLogFailure(FailureKind::REFUSED, static_cast<int>(status), FinishFailedLine(status));
    return false;
  }
  return true;
}

bool SerialUpdate::Finish() {
  if (!state_.HasCallback()) LogInfo("[INFO]: [UpdateFirmware] All packages transmitted [OK]");
  if (!state_.ota_finish_ok) {
    state_.Report(state_.Total(), OtaProgressStatus::FINISH_ACKNOWLEDGED);
    if (state_.ota_package_index < state_.ota_total_packages) SendFinish();
  }
  if (!AwaitFinish()) return false;
  const std::uint32_t result = state_.ota_finish_result;
  if (result != 0) {
    ReportOrLogFailureAndKeepCallback(FailureKind::REFUSED, static_cast<int>(result),
                                      FinishFailedLine(result));
    return false;
  }
  if (!state_.Report(state_.Total(), OtaProgressStatus::RESTART_ACKNOWLEDGED)) {
    LogInfo("[INFO]: [UpdateFirmware] OTA finish [OK]");
  }
  return true;
}

bool SerialUpdate::Restart() {
  SendRestart();
  for (int polls = kRestartPolls; polls > 0 && !state_.ota_restart_ok; --polls) {
    state_.ota_clock->SleepFor(kPoll);
  }
  if (!state_.ota_restart_ok) {
    ReportOrLogFailureAndKeepCallback(FailureKind::NO_REPLY, kRestartTimeoutCode,
                                      ErrorLine("OTA restart response timeout"));
    return false;
  }
  if (!state_.HasCallback()) {
    LogInfo("[INFO]: [UpdateFirmware] OTA restart [OK], device will restart");
    LogInfo("[INFO]: [UpdateFirmware] Waiting for device to restart...");
  }
  // The update ends as usual, but the hand goes on with the firmware that it runs.
  const std::uint32_t status = state_.ota_restart_result;
  if (status != 0) {
    link_.Record(FailureKind::REFUSED,
                 Compose("the hand refuses to restart, with status ", status));
  }
  state_.ota_clock->SleepFor(kRestarting);
  return true;
}

}  // namespace talvera::korvane
