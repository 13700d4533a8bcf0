#include "protocol/service/service_update.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "can/can_link.h"
#include "protocol/service/service_frame.h"
#include "update/can_pacing.h"
#include "util/bytes.h"
#include "util/crc16.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr std::size_t kReplyLength = 6;
constexpr std::size_t kDataPerFrame = kMaxPayload - 1;
constexpr int kUnusableCode = -1;

constexpr int kPacketPolls = 600;

bool IsReply(const CanfdFrame& frame) {
  return frame.len >= kReplyLength &&
         frame.data[0] == static_cast<std::uint8_t>(ServiceCommand::kUpdateReply);
}

}  // namespace

ServiceUpdate::ServiceUpdate(const char* class_name, ServiceUpdateState& state, const CanLink& link,
                             Korvane& hand)
    : class_name_(class_name), state_(state), link_(link), hand_(hand) {}

// --- Frames ---------------------------------------------------------------------------------

CanfdFrame ServiceUpdate::RequestFrame(std::uint8_t child, std::uint32_t file_size,
                                       std::uint16_t packets) {
  const auto payload = ServicePayload().Add8(child).Add32(file_size).Add16(packets);
  return ServiceFrame(ServiceCommand::kUpdateRequest, payload);
}

bool ServiceUpdate::Send(const CanfdFrame& frame) const { return link_.Send(frame) != -1; }

bool ServiceUpdate::SendChild(std::uint8_t child) const {
  return Send(ServiceFrame(ServiceCommand::kUpdateRequest, ServicePayload().Add8(child).Add32(0)));
}

bool ServiceUpdate::SendPacket(const FirmwarePacket& packet, std::uint16_t number) const {
  const std::uint16_t crc = Crc16Modbus(packet.data(), packet.size());
  bool sent = Send(ServiceFrame(ServiceCommand::kUpdateRequest,
                                ServicePayload().Add8(kPacketChild).Add16(number).Add16(crc)));
  state_.ota_clock->SleepFor(can_pacing::kAfterChecksum);
  for (std::size_t at = 0; at < packet.size(); at += kDataPerFrame) {
    const std::size_t size = std::min(kDataPerFrame, packet.size() - at);
    sent = Send(ServiceFrame(ServiceCommand::kUpdateData, &packet[at], size)) && sent;
    state_.ota_clock->SleepFor(can_pacing::kAfterDataFrame);
  }
  return sent;
}

// --- Replies, on the receive thread ---------------------------------------------------------

void ServiceUpdate::OnFrame(const CanfdFrame& frame) {
  if ((frame.can_id & kCanIdMask) != kServiceId || !IsReply(frame)) return;
  OnResponse(frame.data[1], LoadU32(frame.data + 2));
}

void ServiceUpdate::OnResponse(std::uint8_t child, std::uint32_t status) {
  state_.ota_status = status;
  state_.ota_child_id = child;
  state_.ota_package_result = status;
  if (child == kFinishChild && status == 0) state_.ota_finish_ok = true;
  if (child == kRestartChild && status == 0) state_.ota_restart_ok = true;
  state_.ota_responded = true;
}

// --- The run --------------------------------------------------------------------------------

/// Clears the callback at every end.
void ServiceUpdate::Run(const std::string& path, ProgressCallback callback) {
  OperationScope operation(link_.diagnostics, "UpdateFirmware");
  state_.SetCallback(OutsideOperation(link_.diagnostics, std::move(callback)));
  const bool done = Attempt(path);
  if (done) Reconnect();
  state_.ClearCallback();
  // A hand that restarts leaves requests unanswered, which is no failure of the update.
  if (done) operation.Succeed();
}

/// False, for a run that ends here.
bool ServiceUpdate::Fail(FailureKind kind, int code, const std::string& text) {
  RecordFailure(link_.diagnostics, kind, text);
  state_.ReportFailure(code);
  return false;
}

bool ServiceUpdate::Attempt(const std::string& path) {
  std::size_t file_size = 0;
  if (!Load(path, file_size) || !RequestUpgrade(file_size) || !Transmit()) return false;
  state_.Report(state_.Total(), OtaProgressStatus::FINISH_ACKNOWLEDGED);
  SendFinish();
  if (!AwaitFlag(state_.ota_finish_ok)) return FailUnacknowledged(kFinishChild, kFinishTimeoutCode);
  SendRestart();
  if (AwaitFlag(state_.ota_restart_ok)) return true;
  return FailUnacknowledged(kRestartChild, kRestartTimeoutCode);
}

bool ServiceUpdate::Refuse(std::uint32_t status, int code) {
  return Fail(FailureKind::REFUSED, code, Compose("the hand answers with status ", status));
}

/// A refusal is waited out like silence, and reported like it.
bool ServiceUpdate::FailUnacknowledged(std::uint8_t child, int code) {
  const std::uint32_t status = state_.ota_status;
  if (state_.ota_child_id == child && IsUpdateError(status)) return Refuse(status, code);
  const bool finish = child == kFinishChild;
  return Fail(FailureKind::NO_REPLY, code,
              finish ? "the end of the update isn't confirmed" : "the restart isn't confirmed");
}

bool ServiceUpdate::Load(const std::string& path, std::size_t& file_size) {
  if (!hand_.connected || !link_.transport) {
    RecordFailure(link_.diagnostics, FailureKind::NO_LINK, "the link isn't open");
    state_.Report(kUnusableCode, 0, OtaProgressStatus::FAILED);
    return false;
  }
  state_.ota_child_id = -1;
  file_size = state_.ReportOrLogLoad(path, [&](int error_code) {
    if (error_code != kCannotOpenFirmware) return;
    LogError(Compose("[ERROR][", class_name_, "] UpdateFirmware: cannot open ", path));
  });
  if (file_size == 0) {
    RecordFailure(link_.diagnostics, FailureKind::BAD_ARGUMENT,
                  Compose("cannot open ", path, ", or it is empty"));
    return false;
  }
  state_.Report(0, OtaProgressStatus::FILE_LOADED);
  state_.Report(0, OtaProgressStatus::REQUESTING_UPGRADE);
  return true;
}

bool ServiceUpdate::RequestUpgrade(std::size_t file_size) {
  CanfdFrame reply;
  try {
    reply = link_.Request(RequestFrame(kUpgradeChild, static_cast<std::uint32_t>(file_size),
                                       static_cast<std::uint16_t>(state_.Total())),
                          0);
  } catch (const std::exception& error) {
    const std::string line =
        Compose("[ERROR][", class_name_, "] UpdateFirmware upgrade request: ", error.what());
    LogError(line);
    RecordFailure(link_.diagnostics, error, line);
    state_.ReportFailure(kNoReplyCode);
    return false;
  }
  const std::uint32_t status = LoadU32(reply.data + 2);
  if (!IsReply(reply)) {
    return Fail(FailureKind::BAD_REPLY, kNoReplyCode, "the upgrade request got another reply");
  }
  if (status != 0) return Refuse(status, static_cast<int>(status));
  state_.Report(0, OtaProgressStatus::UPGRADE_ACCEPTED);
  return true;
}

/// Sends the packets one by one. Each has 300 s, its repetitions included: after a reply to
/// something else the packet is sent again.
bool ServiceUpdate::Transmit() {
  int polls = 0;
  while (const auto packet = state_.FrontPacket()) {
    const bool answered = SendAndAwait(*packet, polls);
    if (answered && state_.ota_child_id == kPacketChild) {
      if (!TakeAcknowledgment()) return false;
      polls = 0;
    } else if (!answered || ++polls >= kPacketPolls) {
      return Fail(FailureKind::NO_REPLY, kTransmissionTimeoutCode, "a packet isn't acknowledged");
    }
  }
  return true;
}

bool ServiceUpdate::SendAndAwait(const FirmwarePacket& packet, int& polls) {
  state_.ota_responded = false;
  SendPacket(packet, static_cast<std::uint16_t>(state_.ota_package_index));
  for (; !state_.ota_responded && polls < kPacketPolls; ++polls) {
    state_.ota_clock->SleepFor(can_pacing::kPoll);
  }
  return state_.ota_responded;
}

bool ServiceUpdate::TakeAcknowledgment() {
  const std::uint32_t result = state_.ota_package_result;
  if (result != 0) return Refuse(result, PacketFailureCode(result));
  state_.PopPacket();
  const std::uint32_t acknowledged = ++state_.ota_package_index;
  state_.Report(static_cast<int>(acknowledged), OtaProgressStatus::PACKET_ACKNOWLEDGED);
  return true;
}

bool ServiceUpdate::AwaitFlag(const std::atomic<bool>& flag) {
  for (int polls = 0; !flag && polls < can_pacing::kFlagPolls; ++polls) {
    state_.ota_clock->SleepFor(can_pacing::kPoll);
  }
  return flag;
}

/// Waits until the hand answers again. One that doesn't has an update that counts as done.
void ServiceUpdate::Reconnect() {
  state_.ota_clock->SleepFor(can_pacing::kBeforeReconnect);
  for (int attempt = 0; attempt < can_pacing::kReconnectAttempts; ++attempt) {
    state_.Report(state_.Total(), OtaProgressStatus::RECONNECTING);
    if (!hand_.GetVendorInfo().product_model.empty()) break;
    state_.ota_clock->SleepFor(can_pacing::kPoll);
  }
  state_.Report(state_.Total(), OtaProgressStatus::COMPLETE);
}

}  // namespace talvera::korvane
