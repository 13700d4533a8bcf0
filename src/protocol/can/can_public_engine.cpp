#include "protocol/can/can_public_engine.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "hand/hand_members.h"
#include "hand/mixed_targets.h"
#include "protocol/can/can_identifier.h"
#include "protocol/can/reply_words.h"
#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr auto kNoControlMode = static_cast<ControlMode>(10);
constexpr std::uint8_t kControlModeMask = 7;
constexpr std::uint8_t kSetDeviceIdIndex = 1;
constexpr std::size_t kBytesOfWord = 2;
constexpr std::size_t kBytesOfVendorInfo = 41;
constexpr const char* kMixedOperation = "MixCtrlJointMotor";
constexpr const char* kNoReport = "no report of all motors has come from the hand yet";

/// An element of a mixed command with two targets: its motor, then two values.
constexpr std::size_t kShortElementSize = 5;
constexpr std::size_t kMaxShortElements = kMaxPayload / kShortElementSize;

std::uint8_t* StoreTarget(std::uint8_t* out, const MixCtrl& element, MixTarget which) {
  StoreU16(out, static_cast<std::uint16_t>(TargetOf(element, which).value()));
  return out + 2;
}

/// Throws std::bad_optional_access if a target that the mode needs isn't set.
std::uint8_t* StoreElement(std::uint8_t* out, const MixCtrl& element, std::uint8_t mode) {
  std::memcpy(out++, &element, 1);
  if (mode != mix_mode::kVelocityCurrent) out = StoreTarget(out, element, MixTarget::kPosition);
  if (mode != mix_mode::kPositionCurrent) out = StoreTarget(out, element, MixTarget::kVelocity);
  return StoreTarget(out, element, MixTarget::kCurrent);
}

Version LoadVersion(const std::uint8_t* bytes) {
  return Version{bytes[0], bytes[1], bytes[2], bytes[3]};
}

std::string Text(const std::uint8_t* bytes, std::size_t size) {
  return std::string(bytes, bytes + size);
}

/// A serial number that was never written reads as zeros or as erased flash.
std::string SerialNumberText(const std::uint8_t* bytes, std::size_t size) {
  const auto* const end = bytes + size;
  const bool ascii = std::all_of(bytes, end, [](std::uint8_t byte) { return byte < 0x80; });
  const bool written = std::any_of(bytes, end, [](std::uint8_t byte) { return byte != 0; });
  return ascii && written ? Text(bytes, size) : "NaN";
}

}  // namespace

void CanPublicEngine::LogNoSuchAdapter(const HandModel&, ECanDeviceType type) {
  LogError(Compose("[ERROR] Invalid device type: ", static_cast<int>(type),
                   ". Expected ZLG_USBCANFD or HCAN."));
}

CanPublicEngine::CanPublicEngine(const HandModel& row, Korvane& hand, CanUpdateState& update_state,
                                 std::unique_ptr<CanBusDeviceBase> device)
    : CanLink(std::move(device)),
      model(row),
      update_run(row.update_rules, update_state, *this, hand),
      hand_(hand) {}

void CanPublicEngine::Start(HandType hand_type, std::uint8_t device_id) {
  SetMembers(hand_, model.model, device_id, hand_type);
  hand_.connected = IsInit();
  if (!transport || (!hand_.connected && !model.binds_without_link)) return;
  transport->BindCallbacks(
      [this](const CanfdFrame& frame) { ProcessMessage(frame); }, &ReplyIdOf,
      [this](std::uint32_t request, std::uint32_t received) { return Judge(request, received); });
}

bool CanPublicEngine::Judge(std::uint32_t request_id, std::uint32_t received_id) const {
  if (model.update_rules.replies_from == ReplySenders::kAny &&
      AnswersUpdateRequest(request_id, received_id)) {
    return true;
  }
  return AnswersRequest(request_id, received_id);
}

void CanPublicEngine::ProcessMessage(const CanfdFrame& frame) {
  if (model.sends_reports && reports_.StoreIfReport(frame)) return;
  update_run.OnFrame(frame);
}

// --- Frames ---------------------------------------------------------------------------------

CanfdFrame CanPublicEngine::ReadFrame(std::uint8_t function, std::uint8_t index) const {
  CanfdFrame frame;
  frame.len = kMaxPayload;
  frame.can_id = (DeviceIdOf(hand_) & kDeviceIdMask) | model.family | FunctionField(function) |
                 std::uint32_t{index} << kIndexShift;
  return frame;
}

CanfdFrame CanPublicEngine::WriteFrame(std::uint8_t function, std::uint8_t index) const {
  CanfdFrame frame = ReadFrame(function, index);
  frame.can_id |= kWriteFlag;
  return frame;
}

void CanPublicEngine::LogFailure(const Context& context, const std::exception& error) const {
  const bool tagged = context.tag != nullptr && model.wording->failure_names_motor;
  const std::string tag = tagged ? Compose("[", context.tag, ":", context.number, "]") : "";
  const std::string line =
      Compose("[ERROR][", model.class_name, "][", context.operation, "]", tag, " ", error.what());
  LogError(line);
  RecordFailure(diagnostics, error, line);
}

void CanPublicEngine::LogAndRecord(FailureKind kind, const std::string& line,
                                   int system_error) const {
  LogError(line);
  RecordFailure(diagnostics, kind, line, system_error);
}

std::optional<CanfdFrame> CanPublicEngine::RequestOrLog(const Context& context,
                                                        const CanfdFrame& frame,
                                                        int priority) const {
  try {
    return Request(frame, priority);
  } catch (const std::exception& error) {
    LogFailure(context, error);
    return std::nullopt;
  }
}

std::optional<CanfdFrame> CanPublicEngine::ReadOrLog(const Context& context,
                                                     const CanfdFrame& frame, std::size_t size,
                                                     int priority) const {
  const auto reply = RequestOrLog(context, frame, priority);
  if (reply) RecordIfShort(*reply, size);
  return reply;
}

void CanPublicEngine::RecordIfShort(const CanfdFrame& reply, std::size_t size) const {
  if (reply.len >= size) return;
  RecordFailure(diagnostics, FailureKind::BAD_REPLY,
                Compose("the reply ends after ", reply.len, " of ", size, " bytes"));
}

/// Sends a write and, if `way` says so, returns its reply. A quantity with a text of its own for a
/// failed send has no other line for a missing transport either.
std::optional<CanfdFrame> CanPublicEngine::WriteOrLog(const Context& context,
                                                      const MotorQuantity& quantity, Way way,
                                                      const CanfdFrame& frame) const {
  if (way == Way::kWaits) return RequestOrLog(context, frame, quantity.priority);
  try {
    if (Send(frame) == -1) throw SendError("request send failed");
  } catch (const LinkError& error) {
    const bool no_transport = !transport;
    if (quantity.send_failed != nullptr) {
      LogAndRecord(error.Kind(), quantity.send_failed, error.SystemError());
    } else if (no_transport) {
      LogFailure(context, error);
    } else {
      // Such a write has no line for a frame that couldn't be sent.
      RecordFailure(diagnostics, error, error.what());
    }
  } catch (const std::exception& error) {
    LogFailure(context, error);
  }
  return std::nullopt;
}

// --- Argument checks ------------------------------------------------------------------------

std::string CanPublicEngine::MotorCount(bool in_digits) const {
  return in_digits ? Compose(model.motors) : Compose(RawByte{model.motors});
}

bool CanPublicEngine::CheckIndex(std::uint8_t index) const {
  if (index >= 1 && index <= model.motors) return true;
  const Wording& wording = *model.wording;
  LogAndRecord(FailureKind::BAD_ARGUMENT, Compose(wording.bad_index, index, wording.bad_index_range,
                                                  MotorCount(wording.count_in_digits), "."));
  return false;
}

bool CanPublicEngine::CheckSize(std::size_t size) const {
  if (size == model.motors) return true;
  LogAndRecord(FailureKind::BAD_ARGUMENT, Compose(model.wording->wrong_size, RawByte{model.motors},
                                                  model.wording->wrong_size_end));
  return false;
}

bool CanPublicEngine::CheckMixedCount(std::uint8_t mode, std::size_t count) const {
  if (mode == mix_mode::kPositionVelocityCurrent) {
    if (count <= kMaxFullTargets) return true;
    LogAndRecord(FailureKind::BAD_ARGUMENT, model.wording->too_many_mixed);
    return false;
  }
  if (count > model.motors) {
    LogAndRecord(
        FailureKind::BAD_ARGUMENT,
        Compose(model.wording->wrong_size, MotorCount(model.wording->mixed_count_in_digits),
                model.wording->wrong_size_end));
    return false;
  }
  if (count <= kMaxShortElements) return true;
  LogAndRecord(FailureKind::BAD_ARGUMENT, Compose("[Error]: A frame holds ", kMaxShortElements,
                                                  " joint targets, got ", count));
  return false;
}

// --- Motor values ---------------------------------------------------------------------------

int CanPublicEngine::ReadMotor(const MotorQuantity& quantity, std::uint8_t index) const {
  const auto operation = Operation(quantity.get);
  if (!CheckIndex(index)) return quantity.bad_index;
  if (quantity.from_reports) return LastReport(quantity, index);
  const auto reply = ReadOrLog({quantity.get, "index", index}, ReadFrame(quantity.function, index),
                               kBytesOfWord, quantity.priority);
  return reply ? LoadS16(reply->data) : 0;
}

/// The motor's value in the last report; 0 unless that report was one of all motors and no more.
int CanPublicEngine::LastReport(const MotorQuantity& quantity, std::uint8_t index) const {
  const auto values = reports_.Values(quantity.function);
  if (values.size() == model.motors) return values[index - 1U];
  RecordFailure(diagnostics, FailureKind::NO_REPLY, kNoReport);
  return 0;
}

template <class Value>
std::vector<Value> CanPublicEngine::ReadAll(const MotorQuantity& quantity) const {
  const auto operation = Operation(quantity.get_all);
  if (quantity.from_reports) {
    const auto values = reports_.Values(quantity.function);
    if (values.empty()) RecordFailure(diagnostics, FailureKind::NO_REPLY, kNoReport);
    return {values.begin(), values.end()};
  }
  const auto reply = ReadOrLog({quantity.get_all}, ReadFrame(quantity.function, 0),
                               kBytesOfWord * model.motors, quantity.priority);
  if (!reply) return {};
  auto values = WordsOf<Value>(*reply);
  if (values.size() > model.max_values) values.resize(model.max_values);
  return values;
}

template std::vector<short> CanPublicEngine::ReadAll(const MotorQuantity&) const;
template std::vector<unsigned short> CanPublicEngine::ReadAll(const MotorQuantity&) const;

std::optional<short> CanPublicEngine::WriteMotor(const MotorQuantity& quantity, std::uint8_t index,
                                                 std::uint16_t value) const {
  const auto operation = Operation(quantity.set);
  if (!CheckIndex(index)) return std::nullopt;
  CanfdFrame frame = WriteFrame(quantity.function, index);
  StoreU16(frame.data, value);
  const auto reply = WriteOrLog({quantity.set, "index", index}, quantity, quantity.set_way, frame);
  if (!reply) return std::nullopt;
  return LoadS16(reply->data);
}

std::optional<CanfdFrame> CanPublicEngine::WholeHandWrite(const MotorQuantity& quantity,
                                                          const std::vector<short>& values) const {
  CanfdFrame frame = WriteFrame(quantity.function, 0);
  frame.len = quantity.set_all_length;
  for (std::size_t i = 0; i < values.size(); ++i) {
    StoreU16(frame.data + 2 * i, static_cast<std::uint16_t>(values[i]));
  }
  return WriteOrLog({quantity.set_all}, quantity, quantity.set_all_way, frame);
}

void CanPublicEngine::WriteAll(const MotorQuantity& quantity,
                               const std::vector<short>& values) const {
  const auto operation = Operation(quantity.set_all);
  if (CheckSize(values.size())) WholeHandWrite(quantity, values);
}

std::vector<short> CanPublicEngine::WriteAllPositions(const std::vector<short>& positions) const {
  const auto operation = Operation(model.position.set_all);
  if (positions.size() != model.motors) {
    LogAndRecord(FailureKind::BAD_ARGUMENT,
                 Compose("[ERROR][", model.class_name,
                         "][SetAllJointMotorPosi] Invalid parameter, size must match DOF ",
                         RawByte{model.motors}));
    return {};
  }
  const auto reply = WholeHandWrite(model.position, positions);
  return reply ? WordsOf<short>(*reply) : std::vector<short>{};
}

// --- Control modes --------------------------------------------------------------------------

ControlMode CanPublicEngine::ReadControlMode(std::uint8_t index) const {
  const auto operation = Operation(model.control_mode.get);
  const MotorQuantity& quantity = model.control_mode;
  if (!CheckIndex(index)) return kNoControlMode;
  const auto reply = ReadOrLog({quantity.get, "index", index}, ReadFrame(quantity.function, index),
                               1, quantity.priority);
  if (!reply) return kNoControlMode;
  return static_cast<ControlMode>(reply->data[0] & kControlModeMask);
}

std::vector<std::uint8_t> CanPublicEngine::ReadAllControlModes() const {
  const auto operation = Operation(model.control_mode.get_all);
  const MotorQuantity& quantity = model.control_mode;
  const auto reply = ReadOrLog({quantity.get_all}, ReadFrame(quantity.function, 0), model.motors,
                               quantity.priority);
  if (!reply) return {};
  if (!model.control_modes_by_length) return {reply->data, reply->data + model.motors};
  std::vector<std::uint8_t> modes(std::min(reply->len, model.motors));
  std::transform(reply->data, reply->data + modes.size(), modes.begin(),
                 [](std::uint8_t mode) { return mode & kControlModeMask; });
  return modes;
}

void CanPublicEngine::WriteControlMode(std::uint8_t index, ControlMode mode) const {
  const auto operation = Operation(model.control_mode.set);
  if (!CheckIndex(index)) return;
  const MotorQuantity& quantity = model.control_mode;
  CanfdFrame frame = WriteFrame(quantity.function, index);
  frame.data[0] = static_cast<std::uint8_t>(mode);
  WriteOrLog({quantity.set, "index", index}, quantity, quantity.set_way, frame);
}

void CanPublicEngine::WriteAllControlModes(const std::vector<std::uint8_t>& modes) const {
  const auto operation = Operation(model.control_mode.set_all);
  if (!CheckSize(modes.size())) return;
  const MotorQuantity& quantity = model.control_mode;
  CanfdFrame frame = WriteFrame(quantity.function, 0);
  frame.len = quantity.set_all_length;
  std::copy(modes.begin(), modes.end(), frame.data);
  WriteOrLog({quantity.set_all}, quantity, quantity.set_all_way, frame);
}

void CanPublicEngine::WriteMixed(const std::vector<MixCtrl>& targets) const {
  const auto operation = Operation(kMixedOperation);
  const std::uint8_t mode = targets.empty() ? std::uint8_t{0} : targets.front().mix_mode;
  if (mode < mix_mode::kPositionCurrent || mode > mix_mode::kPositionVelocityCurrent) {
    // Does nothing, in silence.
    return RecordFailure(diagnostics, FailureKind::BAD_ARGUMENT,
                         "no targets, or a mode that isn't 4, 5 or 6");
  }
  if (!CheckMixedCount(mode, targets.size())) return;
  CanfdFrame frame = WriteFrame(function_code::kMixedControl, 0);
  std::uint8_t* out = frame.data;
  try {
    for (const MixCtrl& target : targets) out = StoreElement(out, target, mode);
  } catch (const std::bad_optional_access&) {
    RecordThrown(diagnostics, FailureKind::BAD_ARGUMENT, "a target that the mode needs isn't set");
    throw;
  }
  RequestOrLog({kMixedOperation}, frame, model.mixed_priority);
}

// --- Identity -------------------------------------------------------------------------------

VendorInfo CanPublicEngine::ReadVendorInfo() const {
  const auto operation = Operation("GetVendorInfo");
  const auto reply =
      ReadOrLog({"GetVendorInfo"}, ReadFrame(function_code::kVendorRecord, 0), kBytesOfVendorInfo);
  if (!reply) return {};
  return LoadVendorInfo(*reply, model.product_model_ends_at_nul);
}

VendorInfo LoadVendorInfo(const CanfdFrame& reply, bool product_model_ends_at_nul) {
  const std::uint8_t* const data = reply.data;
  VendorInfo info;
  const auto* const model_end =
      product_model_ends_at_nul ? std::find(data, data + 16, 0) : data + 16;
  info.product_model = std::string(data, model_end);
  info.serial_number = SerialNumberText(data + 16, 14);
  info.hardware_version = LoadVersion(data + 30);
  info.software_version = LoadVersion(data + 34);
  info.supply_voltage_mv = LoadS16(data + 38);
  info.active_dof = data[40];
  return info;
}

DeviceInfo CanPublicEngine::ReadDeviceInfo() const {
  const auto operation = Operation("GetDeviceInfo");
  DeviceInfo info{};
  try {
    const CanfdFrame reply = Request(ReadFrame(function_code::kDeviceRecord, 0), 0);
    RecordIfShort(reply, sizeof info);
    std::memcpy(&info, reply.data, sizeof info);
  } catch (const std::exception& error) {
    const char* const text = model.wording->device_info_failed;
    if (text == nullptr) {
      LogFailure({"GetDeviceInfo"}, error);
    } else {
      const std::string line = Compose(text, DeviceIdOf(hand_), ", error: ", error.what());
      LogError(line);
      RecordFailure(diagnostics, error, line);
    }
  }
  return info;
}

void CanPublicEngine::WriteDeviceId(std::uint8_t new_id) {
  const auto operation = Operation("SetDeviceId");
  CanfdFrame frame = WriteFrame(function_code::kDeviceRecord, kSetDeviceIdIndex);
  frame.data[0] = new_id;
  try {
    if (Send(frame) == -1) throw SendError("request send failed");
    StoreDeviceId(hand_, new_id);
  } catch (const LinkError& error) {
    LogAndRecord(error.Kind(), model.wording->set_id_failed, error.SystemError());
  } catch (const std::exception& error) {
    LogFailure({"SetDeviceId"}, error);
  }
}

}  // namespace talvera::korvane
