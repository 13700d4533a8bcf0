#include "protocol/can/update_sender.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "can/can_link.h"
#include "hand/hand_members.h"
#include "protocol/can/can_identifier.h"
#include "update/can_pacing.h"
#include "util/bytes.h"
#include "util/crc16.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;

/// A packet takes at least this.
constexpr milliseconds kWholePacket{170};

}  // namespace

SendTurns::Turn::Turn(SendTurns& turns, Clock& clock) : turns_(turns), clock_(clock) {
  MutexLock lock(turns_.mutex_);
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
  const MutexLock lock(turns_.mutex_);
  turns_.owner_ = {};
  ++turns_.current_;
  clock_.NotifyAll(turns_.passed_on_);
}

UpdateSender::UpdateSender(const UpdateRules& rules, const UpdateLog& log, CanUpdateState& state,
                           const CanLink& link, const Korvane& hand)
    : rules_(rules), log_(log), state_(state), link_(link), hand_(hand) {}

// --- Frames ---------------------------------------------------------------------------------

CanfdFrame UpdateSender::Frame(std::uint8_t function, std::uint8_t child) const {
  CanfdFrame frame;
  frame.len = kMaxPayload;
  frame.can_id = (DeviceIdOf(hand_) & kDeviceIdMask) | kWriteFlag | rules_.family |
                 FunctionField(function) | std::uint32_t{child} << kIndexShift;
  return frame;
}

CanfdFrame UpdateSender::RequestFrame(std::uint8_t child) const {
  return Frame(function_code::kUpdateRequest, child);
}

CanfdFrame UpdateSender::UpgradeFrame(std::size_t file_size) const {
  CanfdFrame frame = RequestFrame(kUpgradeChild);
  frame.len = 6;
  StoreU32(frame.data, static_cast<std::uint32_t>(file_size));
  StoreU16(frame.data + 4, static_cast<std::uint16_t>(state_.Total()));
  return frame;
}

CanfdFrame UpdateSender::ChecksumFrame(const FirmwarePacket& packet, std::uint32_t number) const {
  CanfdFrame frame = RequestFrame(kPacketChild);
  StoreU16(frame.data, static_cast<std::uint16_t>(number));
  StoreU16(frame.data + 2, state_.ota_use_modbus_crc ? Crc16Modbus(packet.data(), packet.size())
                                                     : Crc16Xmodem(packet.data(), packet.size()));
  return frame;
}

// --- Sending --------------------------------------------------------------------------------

/// What the link throws gets out.
SendFailure UpdateSender::Send(const CanfdFrame& frame) const {
  if (link_.Send(frame) != -1) return std::nullopt;
  return link_.SendError("request send failed");
}

SendFailure UpdateSender::SendPackage() {
  FirmwarePacket packet;
  std::uint32_t number = 0;
  bool found = false;
  {
    const MutexLock lock(state_.ota_mutex);
    found = !state_.ota_packages.empty();
    if (found) packet = state_.ota_current_package = state_.ota_packages.front();
    number = state_.ota_package_index;
  }
  if (!found) {
    log_.LogFailure("SendPackage", " No packages to send");
    return LinkError(FailureKind::BAD_ARGUMENT, "no packages to send");
  }
  const CanfdFrame checksum = ChecksumFrame(packet, number);
  // Before the wait for the turn: a refusal that comes during the wait must stand.
  state_.ota_status = kWaitingResponse;
  const SendTurns::Turn turn(turns_, *state_.ota_clock);
  SendFailure failure;
  try {
    failure = Send(checksum);
  } catch (const std::exception& error) {
    log_.LogFailure("SendPackage", Compose(" Failed to send checksum request: ", error.what()));
    return AsLinkError(error);
  }
  state_.ota_clock->SleepFor(can_pacing::kAfterChecksum);
  const SendFailure of_data = SendPacketData(packet);
  return failure ? failure : of_data;
}

SendFailure UpdateSender::SendPacketData(const FirmwarePacket& packet) const {
  SendFailure failure;
  CanfdFrame frame = Frame(function_code::kUpdateData, kUpgradeChild);
  for (std::size_t number = 0; number < packet.size() / kMaxPayload; ++number) {
    std::copy_n(&packet[number * kMaxPayload], kMaxPayload, frame.data);
    try {
      // The hand's checksum catches the gap that a frame leaves which isn't sent.
      if (auto unsent = Send(frame)) failure = unsent;
    } catch (const std::exception& error) {
      log_.LogFailure("SendPackage", Compose("[frame:", number, "] ", error.what()));
      failure = AsLinkError(error);
    }
    state_.ota_clock->SleepFor(can_pacing::kAfterDataFrame);
  }
  return failure;
}

SendFailure UpdateSender::SendOrLog(const CanfdFrame& frame, const char* operation) {
  state_.ota_status = kWaitingResponse;
  const SendTurns::Turn turn(turns_, *state_.ota_clock);
  try {
    return Send(frame);
  } catch (const std::exception& error) {
    log_.LogFailure(operation, Compose(" ", error.what()));
    return AsLinkError(error);
  }
}

}  // namespace talvera::korvane
