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

bool HasLength(const std::optional<CanfdFrame>& reply, std::size_t least) {
  return reply && reply->len >= least;
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
  SetMembers(hand_, model.model, device_id, hand_type);
  hand_.connected = IsInit();
  if (!transport) return;
  CanBusDeviceBase::ProcessMessage process;
  if (model.has_update) process = [this](const CanfdFrame& frame) { update_run.OnFrame(frame); };
  transport->BindCallbacks(std::move(process), &StandardFrameRepId, &StandardFrameMatch);
}

// --- Failures -------------------------------------------------------------------------------

bool CanServiceEngine::CheckReady() const {
  if (hand_.connected && transport) return true;
  RecordNoLink();
  return false;
}

void CanServiceEngine::LogAndRecord(FailureKind kind, const char* operation,
                                    const std::string& text) const {
  const std::string line = LineOf(operation, text);
  LogError(line);
  RecordFailure(diagnostics, kind, line);
}

std::string CanServiceEngine::LineOf(const char* operation, const std::string& text) const {
  return Compose("[", model.class_name, "] ", operation, ": ", text);
}

const std::uint8_t* CanServiceEngine::DataOf(const Reply& reply, std::size_t least) const {
  if (HasLength(reply, least)) return reply->data + 1;
  if (reply) {
    FailSilently(FailureKind::BAD_REPLY,
                 Compose("a reply of ", reply->len, " bytes, where ", least, " are the least"));
  }
  return nullptr;
}

// --- Requests -------------------------------------------------------------------------------

CanfdFrame CanServiceEngine::RequestOrThrow(const char* name, const CanfdFrame& frame) const {
  const auto operation = Operation(name);
  try {
    return Request(frame, 0);
  } catch (const LinkError& error) {
    RecordThrown(diagnostics, error.Kind(), error.what(), error.SystemError());
    throw;
  }
}

void CanServiceEngine::SendOrThrow(const char* name, const std::function<bool()>& send) const {
  const auto operation = Operation(name);
  try {
    if (send()) return;
    const LinkError error = SendError("request send failed");
    RecordFailure(diagnostics, error, error.what());
  } catch (const LinkError& error) {
    RecordThrown(diagnostics, error.Kind(), error.what(), error.SystemError());
    throw;
  }
}

CanServiceEngine::Reply CanServiceEngine::RequestOrLog(const char* operation,
                                                       ServiceCommand command,
                                                       const ServicePayload& payload) const {
  if (!CheckReady()) return std::nullopt;
  try {
    return Request(ServiceFrame(command, payload), 0);
  } catch (const std::exception& error) {
    const std::string line = LineOf(operation, error.what());
    LogError(line);
    RecordFailure(diagnostics, error, line);
    return std::nullopt;
  }
}

bool CanServiceEngine::IsAcknowledged(const char* operation, ServiceCommand command,
                                      const ServicePayload& payload) const {
  const Reply reply = RequestOrLog(operation, command, payload);
  const std::uint8_t* const data = DataOf(reply, 2);
  if (data == nullptr) return false;
  if (data[0] != kAccepted) {
    FailSilently(FailureKind::REFUSED,
                 Compose("the hand answers ", data[0], " where 1 is consent"));
  }
  return data[0] == kAccepted;
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
  const auto operation = Operation(reading.operation);
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
  const bool whole = HasLength(reply, 1 + 6 * axes);
  const std::size_t least = 1 + (positions_alone ? 2 : 6) * axes;
  const std::uint8_t* const data = DataOf(reply, least);
  if (data == nullptr) return {};
  if (whole) return LoadAxisResponse(data, axes);
  return {ServiceWords<std::uint16_t>(data, axes), {}, {}, {}};
}

AxisLimitPos CanServiceEngine::ReadLimits() const {
  const auto operation = Operation("GetAxisLimitPos");
  const Reply reply = RequestOrLog("GetAxisLimitPos", ServiceCommand::kGetAxisLimitPos);
  const auto size_of = [](std::size_t axes) { return 1 + 4 * axes; };
  const std::size_t axes =
      HasLength(reply, size_of(model.most_limits)) ? model.most_limits : model.motors;
  const std::uint8_t* const data = DataOf(reply, size_of(axes));
  return data != nullptr ? LoadAxisLimits(data, axes) : AxisLimitPos{};
}

ProductSerialNumber CanServiceEngine::ReadSerialNumber() const {
  return LoadProductSerialNumber(Read<std::uint8_t>(reading::kProductSerialNumber).data());
}

/// Firmware that answers with 11 bytes tells its versions one place earlier, and of the first of
/// them only one number.
FwVersion CanServiceEngine::ReadFwVersion() const {
  const auto operation = Operation("GetFwVersion");
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
  const auto operation = Operation("GetVendorInfo");
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
  const auto operation = Operation("GetDeviceInfo");
  DeviceInfo info{};
  if (CheckReady()) info.device_id = DeviceIdOf(hand_);
  return info;
}

}  // namespace talvera::korvane
