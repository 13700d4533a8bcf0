#include "protocol/service/can_service_engine.h"

#include <algorithm>
#include <exception>

#include "hand/hand_members.h"
#include "protocol/service/service_frame.h"
#include "protocol/service/service_records.h"
#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr std::uint8_t kAccepted = 1;
constexpr std::size_t kVersionReply = 11;

/// A reply of `least` bytes or more, and what it holds behind the command.
const std::uint8_t* DataOf(const std::optional<CanfdFrame>& reply, std::size_t least) {
  return reply && reply->len >= least ? reply->data + 1 : nullptr;
}

const char* ProductModel(std::uint8_t code) {
  if (code == 1) return "TS9";
  return code == 2 ? "BR7" : "KorvaneBrisa";
}

/// The number as text up to its first NUL byte; what can't be printed becomes a dash.
std::string SerialNumberText(const std::vector<std::uint8_t>& number) {
  std::string text(number.begin(), std::find(number.begin(), number.end(), 0));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < 32 || c > 126; }, '-');
  return text;
}

template <class Value>
std::vector<Value> Values(const std::uint8_t* data, std::size_t count) {
  if constexpr (sizeof(Value) == 1) {
    return {data, data + count};
  } else {
    return ServiceWords<Value>(data, count);
  }
}

}  // namespace

void CanServiceEngine::LogNoSuchAdapter(const ServiceModel& model, ECanDeviceType /*type*/) {
  LogError(Compose("[ERROR] ", model.class_name, ": invalid device type"));
}

CanServiceEngine::CanServiceEngine(const ServiceModel& row, Korvane& hand,
                                   ServiceUpdateState& update_state,
                                   std::unique_ptr<CanBusDeviceBase> device)
    : CanLink(std::move(device)),
      model(row),
      update_run(row.class_name, update_state, *this, hand),
      hand_(hand) {}

void CanServiceEngine::Start(HandType hand_type, std::uint8_t device_id) {
  SetMembers(hand_, model.model_code, device_id, hand_type);
  hand_.connected = IsInit();
  if (!transport) return;
  CanBusDeviceBase::ProcessMessage process;
  if (model.has_update) process = [this](const CanfdFrame& frame) { update_run.OnFrame(frame); };
  transport->BindCallbacks(std::move(process), &StandardFrameRepId, &StandardFrameMatch);
}

void CanServiceEngine::LogLine(const char* operation, const std::string& text) const {
  LogError(Compose("[", model.class_name, "] ", operation, ": ", text));
}

CanServiceEngine::Reply CanServiceEngine::RequestOrLog(const char* operation,
                                                       ServiceCommand command,
                                                       const ServicePayload& payload) const {
  if (!IsReady()) return std::nullopt;
  try {
    return Request(ServiceFrame(command, payload), 0);
  } catch (const std::exception& error) {
    LogLine(operation, error.what());
    return std::nullopt;
  }
}

bool CanServiceEngine::IsAcknowledged(const char* operation, ServiceCommand command,
                                      const ServicePayload& payload) const {
  return ReadByte(operation, command, payload) == kAccepted;
}

std::uint8_t CanServiceEngine::ReadByte(const char* operation, ServiceCommand command,
                                        const ServicePayload& payload) const {
  const Reply reply = RequestOrLog(operation, command, payload);
  const std::uint8_t* const data = DataOf(reply, 2);
  return data != nullptr ? data[0] : std::uint8_t{0};
}

std::optional<std::uint16_t> CanServiceEngine::RequestPosition(
    const char* operation, ServiceCommand command, const ServicePayload& payload) const {
  const Reply reply = RequestOrLog(operation, command, payload);
  const std::uint8_t* const data = DataOf(reply, 4);
  if (data == nullptr) return std::nullopt;
  return LoadU16(data + 1);
}

template <class Value>
std::vector<Value> CanServiceEngine::RequestPositions(const char* operation, ServiceCommand command,
                                                      const ServicePayload& payload,
                                                      std::size_t least) const {
  const Reply reply = RequestOrLog(operation, command, payload);
  const std::uint8_t* const data = DataOf(reply, least);
  if (data == nullptr) return {};
  return Values<Value>(data, model.motors);
}

template <class Value>
std::vector<Value> CanServiceEngine::Read(const ServiceReading& reading) const {
  const std::size_t count = reading.count != 0 ? reading.count : model.motors;
  const Reply reply = RequestOrLog(reading.operation, reading.command);
  const std::uint8_t* const data = DataOf(reply, 1 + count * sizeof(Value));
  if (data != nullptr) return Values<Value>(data, count);
  return std::vector<Value>(reading.short_reply == ShortReply::kZeros ? count : 0);
}

template std::vector<short> CanServiceEngine::RequestPositions(const char*, ServiceCommand,
                                                               const ServicePayload&,
                                                               std::size_t) const;
template std::vector<std::uint16_t> CanServiceEngine::RequestPositions(const char*, ServiceCommand,
                                                                       const ServicePayload&,
                                                                       std::size_t) const;
template std::vector<short> CanServiceEngine::Read(const ServiceReading&) const;
template std::vector<std::uint16_t> CanServiceEngine::Read(const ServiceReading&) const;
template std::vector<std::uint8_t> CanServiceEngine::Read(const ServiceReading&) const;

SetAllAxisPosResponse CanServiceEngine::RequestAxisResponse(const char* operation,
                                                            ServiceCommand command,
                                                            const ServicePayload& payload,
                                                            bool positions_alone) const {
  const Reply reply = RequestOrLog(operation, command, payload);
  const std::size_t axes = model.motors;
  if (const auto* const data = DataOf(reply, 1 + 6 * axes)) return LoadAxisResponse(data, axes);
  const std::uint8_t* const data = positions_alone ? DataOf(reply, 1 + 2 * axes) : nullptr;
  if (data == nullptr) return {};
  return {ServiceWords<std::uint16_t>(data, axes), {}, {}, {}};
}

AxisLimitPos CanServiceEngine::ReadLimits() const {
  const Reply reply = RequestOrLog("GetAxisLimitPos", ServiceCommand::kGetAxisLimitPos);
  for (const std::size_t axes : {model.most_limits, model.motors}) {
    if (const auto* const data = DataOf(reply, 1 + 4 * axes)) return LoadAxisLimits(data, axes);
  }
  return {};
}

ProductSerialNumber CanServiceEngine::ReadSerialNumber() const {
  return LoadProductSerialNumber(Read<std::uint8_t>(reading::kProductSerialNumber).data());
}

/// Firmware that answers with 11 bytes tells its versions one place earlier, and of the first of
/// them only one number.
FwVersion CanServiceEngine::ReadFwVersion() const {
  const Reply reply = RequestOrLog("GetFwVersion", ServiceCommand::kGetFwVersion);
  const std::uint8_t* const data = DataOf(reply, kVersionReply);
  if (data == nullptr) return {};
  if (reply->len > kVersionReply) return LoadFwVersion(data);
  std::uint8_t shifted[10] = {data[0]};
  std::copy_n(data + 2, 7, shifted + 3);
  return LoadFwVersion(shifted);
}

VendorInfo CanServiceEngine::ReadVendorInfo() const {
  VendorInfo info;
  const Reply reply = RequestOrLog("GetVendorInfo", ServiceCommand::kGetFwVersion);
  const std::uint8_t* const data = DataOf(reply, kVersionReply);
  if (data == nullptr) return info;
  const FwVersion version = LoadFwVersion(data);
  info.product_model = ProductModel(data[0]);
  info.software_version = version.firmware;
  info.hardware_version = version.hardware;
  info.active_dof = version.last;
  info.serial_number = SerialNumberText(Read<std::uint8_t>(reading::kProductSerialNumber));
  return info;
}

DeviceInfo CanServiceEngine::ReadDeviceInfo() const {
  DeviceInfo info{};
  if (IsReady()) info.device_id = DeviceIdOf(hand_);
  return info;
}

}  // namespace talvera::korvane
