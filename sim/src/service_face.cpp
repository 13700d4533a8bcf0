#include "korvane_sim/service_face.h"

#include <algorithm>
#include <utility>

#include "service_call.h"

namespace talvera::korvane::sim {
namespace {

Bytes AnswerTo(const Call& call) {
  std::optional<Bytes> answer = AnswerReport(call);
  if (!answer) answer = AnswerSetting(call);
  if (!answer) answer = AnswerOperation(call);
  return answer.value_or(Bytes{});
}

Frame ServiceFrame(const ServiceMessage& message) {
  Frame frame;
  frame.id = kServiceIdentifier;
  frame.data[0] = message.command;
  const std::size_t size = std::min(message.data.size(), frame.data.size() - 1);
  std::copy_n(message.data.begin(), size, frame.data.begin() + 1);
  frame.len = PaddedLength(1 + size);
  return frame;
}

std::vector<Frame> Frames(const std::vector<ServiceMessage>& messages) {
  std::vector<Frame> frames(messages.size());
  std::transform(messages.begin(), messages.end(), frames.begin(), ServiceFrame);
  return frames;
}

/// As much of an id as the public protocol has room for.
std::uint8_t PublicId(int device_id) { return static_cast<std::uint8_t>(device_id & 0x7F); }

}  // namespace

ServiceFace::ServiceFace(const SimulatedHand& hand, ServiceLink link)
    : link_(link), restarts_(hand.Restarts()) {
  ServiceSettings& settings = state_.settings;
  settings.device_id = hand.DeviceId();
  const std::string& number = hand.GetIdentity().serial_number;
  std::copy_n(number.begin(), std::min(number.size(), settings.serial_number.size()),
              settings.serial_number.begin());
  AxisSettings axis;
  axis.upper = hand.Model().max_position;
  settings.axes.assign(hand.Model().motors, axis);
  ReadMotors(settings, hand);
  state_.saved = settings;
}

std::vector<ServiceMessage> ServiceFace::Handle(SimulatedHand& hand, const ServiceMessage& request,
                                                TimePoint now) {
  Follow(hand, now);
  if (hand.IsSilent(now)) return {};
  if (request.command == kUpdateDataCommand || request.command == kUpdateRequestCommand) {
    return HandleUpdate(hand, request, now);
  }
  Bytes reply = AnswerTo({state_, hand, link_, request.command, request.data});
  hand.SetDeviceId(PublicId(Settings().device_id));
  ArmUploads(now);
  if (reply.empty()) return {};
  return {{request.command, std::move(reply)}};
}

std::vector<Frame> ServiceFace::Handle(SimulatedHand& hand, const Frame& request, TimePoint now) {
  if (request.len == 0 || request.len > request.data.size()) return {};
  const auto data = request.data.begin();
  return Frames(Handle(hand, ServiceMessage{*data, {data + 1, data + request.len}}, now));
}

std::vector<Frame> ServiceFace::TakeDueFrames(SimulatedHand& hand, TimePoint now) {
  return Frames(TakeDue(hand, now));
}

std::vector<ServiceMessage> ServiceFace::TakeDue(SimulatedHand& hand, TimePoint now) {
  Follow(hand, now);
  if (!upload_due_ || *upload_due_ > now) return {};
  const std::chrono::milliseconds interval(armed_ms_);
  *upload_due_ += interval;
  if (*upload_due_ <= now) upload_due_ = now + interval;
  if (hand.IsSilent(now)) return {};
  return {Upload(hand)};
}

ServiceMessage ServiceFace::Upload(const SimulatedHand& hand) const {
  return {kUpload, UploadOf(hand, state_)};
}

void ServiceFace::Restart(SimulatedHand& hand, TimePoint now) {
  hand.Restart(now);
  Follow(hand, now);
}

void ServiceFace::Follow(SimulatedHand& hand, TimePoint now) {
  hand.Advance(now);
  // The public protocol has no command to save: an id that it gave is permanent.
  if (hand.DeviceId() != PublicId(Settings().device_id)) {
    state_.settings.device_id = state_.saved.device_id = hand.DeviceId();
  }
  if (restarts_ != hand.Restarts()) Restore(hand);
  ReadMotors(state_.settings, hand);
  Watch(state_.settings, hand);
  ArmUploads(now);
}

/// After a restart, which leaves only what was saved.
void ServiceFace::Restore(SimulatedHand& hand) {
  restarts_ = hand.Restarts();
  state_.settings = state_.saved;
  state_.powered = true;
  hand.SetDeviceId(PublicId(Settings().device_id));
  PublishSerialNumber(Settings(), hand);
  WriteMotors(Settings(), hand);
}

void ServiceFace::ArmUploads(TimePoint now) {
  if (armed_ms_ == Settings().upload_ms) return;
  armed_ms_ = Settings().upload_ms;
  upload_due_.reset();
  if (armed_ms_ > 0) upload_due_ = now + std::chrono::milliseconds(armed_ms_);
}

/// Frames of an update, each with its child first; over CAN packet data have no child.
std::vector<ServiceMessage> ServiceFace::HandleUpdate(SimulatedHand& hand,
                                                      const ServiceMessage& request,
                                                      TimePoint now) {
  const bool is_request = request.command == kUpdateRequestCommand;
  const bool serial = link_ == ServiceLink::kSerial;
  const std::size_t head = serial || is_request ? 1 : 0;
  Frame frame;
  if (request.data.size() < head || request.data.size() - head > frame.data.size()) return {};
  frame.len = static_cast<std::uint8_t>(request.data.size() - head);
  std::copy(request.data.begin() + static_cast<std::ptrdiff_t>(head), request.data.end(),
            frame.data.begin());
  const unsigned child = head > 0 ? request.data[0] : 0;
  // A command takes a byte of the CAN frame, while serial frames bring as much as public ones.
  const std::size_t room = frame.data.size() - (serial ? 0 : 1);
  FirmwarePartition& firmware = hand.Firmware();
  if (serial) firmware.SetChecksum(SerialChecksum(hand.GetIdentity().software_version));
  std::vector<FirmwarePartition::Reply> answers;
  if (!is_request && child == 0) answers = firmware.HandleData(frame, room);
  if (is_request && child < static_cast<unsigned>(UpdateChild::kResult)) {
    answers = firmware.HandleRequest(static_cast<UpdateChild>(child), frame);
  }
  std::vector<ServiceMessage> replies;
  for (const auto& answer : answers) {
    Bytes data{static_cast<std::uint8_t>(answer.child)};
    Append(data, static_cast<int>(answer.status), answer.len);
    replies.push_back({kUpdateReplyCommand, std::move(data)});
  }
  if (firmware.TakeRestart()) Restart(hand, now);
  return replies;
}

}  // namespace talvera::korvane::sim
