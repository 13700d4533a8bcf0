#include "protocol/serial/korvane_brisa_serial_impl.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "hand/hand_members.h"
#include "hand/tactile_layout.h"
#include "protocol/service/service_records.h"
#include "serial/usb_device.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using Command = ServiceCommand;

constexpr std::size_t kAxes = BrisaKinematics::kMotors;
constexpr std::uint16_t kNoPosition = 0xFFFF;
constexpr std::size_t kCvpRecord = 6;
constexpr std::size_t kCvpVelocity = 2;
constexpr std::uint8_t kBrisaProduct = 2;
constexpr auto kBetweenAxes = std::chrono::milliseconds(1);

constexpr char kMotorIndex[] = "joint motor";
constexpr char kJointIndex[] = "joint";

bool IsAxis(std::uint8_t index) { return index >= 1 && index <= kAxes; }

/// Tells of an index that no axis has, on the standard output stream as all texts of single axes.
bool CheckIndex(std::uint8_t index, const char* what = kMotorIndex) {
  if (!IsAxis(index)) LogInfo(Compose("the ", what, " index input error, should be 1 -10, "));
  return IsAxis(index);
}

/// "get motor current failed, joint_motor_index: 3"
void LogReadFailed(const char* what, std::uint8_t index) {
  LogInfo(Compose("get ", what, " failed, joint_motor_index: ", index));
}

bool CheckTen(std::size_t count) {
  if (count != kAxes) LogError("[Error]: 无效参数，需与主动自由度数量 10 相匹配.");
  return count == kAxes;
}

void LogNotFullySupported(const char* operation) {
  LogError(Compose("[Warning]: ", operation, " is not fully supported via USB."));
}

template <class Value>
std::vector<Value> WordsOf(const ReplyCache::Bytes& bytes) {
  return ServiceWords<Value>(bytes.data(), bytes.size() / 2);
}

std::vector<std::uint16_t> Unsigned(const std::vector<short>& values) {
  return {values.begin(), values.end()};
}

/// The velocities in a record of all axes.
std::vector<short> VelocitiesOf(const ReplyCache::Bytes& records) {
  std::vector<short> velocities;
  velocities.reserve(kAxes);
  for (std::size_t axis = 0; axis < kAxes; ++axis) {
    velocities.push_back(LoadS16(&records[axis * kCvpRecord + kCvpVelocity]));
  }
  return velocities;
}

/// One error word stands for all axes, so that they always show the same flag.
unsigned short ErrorOf(const ReplyCache::Bytes& word) { return word[0] & 1; }

/// The number as text, without what pads it; if nothing else is left, what of it can be printed.
std::string SerialNumberText(const ReplyCache::Bytes& number) {
  const auto is_text = [](std::uint8_t byte) { return byte > 31; };
  const auto last = std::find_if(number.rbegin(), number.rend(), is_text);
  return {number.begin(), last.base()};
}

}  // namespace

// --- What the operations are built from -----------------------------------------------------

bool SerialBrisa::CheckJointCount(std::size_t count) const { return CheckTen(count); }

void SerialBrisa::RefusePeriods(const char* operation) {
  LogError(Compose("[Error]: ", operation, " is not supported by KorvaneBrisa (BR7) via USB."));
}

/// Whatever frame comes in time counts as consent.
bool SerialBrisa::Execute(const char* operation, ServiceCommand command,
                          const ServicePayload& payload) {
  return link_.IsReady() && link_.Request(operation, command, payload);
}

std::optional<SerialBrisa::Bytes> SerialBrisa::Read(const char* operation, ServiceCommand command,
                                                    ReplySlot slot) const {
  if (!link_.Request(operation, command, {})) return std::nullopt;
  return link_.replies.Take(slot);
}

std::optional<SerialBrisa::Bytes> SerialBrisa::ReadService(const char* operation,
                                                           ServiceCommand command, ReplySlot slot,
                                                           bool forget,
                                                           const ServicePayload& payload) const {
  if (!link_.IsReady()) return std::nullopt;
  if (forget) link_.replies.Forget(slot);
  if (!link_.Request(operation, command, payload)) return std::nullopt;
  return link_.replies.Take(slot);
}

std::vector<std::uint16_t> SerialBrisa::ReadServiceWords(const char* operation,
                                                         ServiceCommand command, ReplySlot slot,
                                                         bool forget,
                                                         const ServicePayload& payload) const {
  const auto reply = ReadService(operation, command, slot, forget, payload);
  if (!reply) return {};
  return ServiceWords<std::uint16_t>(reply->data(), kAxes);
}

// --- Life -----------------------------------------------------------------------------------

KorvaneBrisaSerialImpl::KorvaneBrisaSerialImpl(HandType hand_type, unsigned char id,
                                               const std::string& port, int baud)
    : update_(*this, link_, *this) {
  SetMembers(*this, model_code::kBrisa, id, hand_type);
  BrisaKinematics::MakeSolver(*this, hand_type);
  connected = link_.Open(port, baud,
                         [this](std::uint8_t command, const std::uint8_t* data, std::size_t size) {
                           OnProtocolData(command, data, size);
                         });
}

/// The receive thread uses what the hand holds, so the port goes first.
KorvaneBrisaSerialImpl::~KorvaneBrisaSerialImpl() { link_.device.reset(); }

void KorvaneBrisaSerialImpl::OnProtocolData(std::uint8_t command, const std::uint8_t* data,
                                            std::size_t size) {
  if (static_cast<Command>(command) == Command::kUpdateReply) return update_.OnReply(data, size);
  link_.replies.Store(command, data, size);
}

// --- What every hand has --------------------------------------------------------------------

VendorInfo KorvaneBrisaSerialImpl::GetVendorInfo() const {
  VendorInfo info;
  const auto device = Read("GetVendorInfo", Command::kGetFwVersion, ReplySlot::kDeviceInfo);
  if (!device) {
    LogInfo("get vendor info failed.");
    return info;
  }
  const FwVersion version = LoadFwVersion(device->data());
  info.product_model = device->front() == kBrisaProduct ? "BR7" : "TS9";
  info.software_version = version.firmware;
  info.hardware_version = version.hardware;
  info.active_dof = version.last;
  const auto number =
      Read("GetVendorInfo", Command::kGetProductSerialNumber, ReplySlot::kSerialNumber);
  if (number) info.serial_number = SerialNumberText(*number);
  return info;
}

/// The id is that of the hand whose frames the port accepts; until it is known any hand is asked.
DeviceInfo KorvaneBrisaSerialImpl::GetDeviceInfo() const {
  DeviceInfo info{};
  if (!link_.device || link_.device->filter_device_id_ == kAnyDeviceId) {
    link_.RequestTo(kAnyDeviceId, "GetDeviceInfo", Command::kGetFwVersion, {},
                    SerialFrameCrcType::kCrc16Ccitt);
  }
  if (!link_.device || link_.device->filter_device_id_ == kAnyDeviceId) return info;
  info.device_id = static_cast<std::uint8_t>(link_.device->filter_device_id_);
  return info;
}

/// The port goes on accepting frames of the old id only.
void KorvaneBrisaSerialImpl::SetDeviceId(std::uint8_t new_id) {
  if (link_.Write("SetDeviceId", Command::kSetId, ServicePayload().Add8(new_id).Add8(0))) {
    device_id = new_id;
  } else {
    LogError("[Error]: Failed to send device ID request");
  }
}

void KorvaneBrisaSerialImpl::ShowDataDetails(bool on) const {
  if (link_.device) link_.device->print_frames_ = on;
  solver->show_details = on;
}

void KorvaneBrisaSerialImpl::SetRequestInterval(int ms) {
  if (link_.device) link_.device->SetMinRequestInterval(ms);
}
int KorvaneBrisaSerialImpl::GetRequestInterval() const {
  return link_.device ? link_.device->GetMinRequestInterval() : 0;
}
void KorvaneBrisaSerialImpl::SetFrameRecvTimeout(int ms) {
  if (link_.device) link_.device->SetFrameRecvTimeout(ms);
}
int KorvaneBrisaSerialImpl::GetFrameRecvTimeout() const {
  return link_.device ? link_.device->GetFrameRecvTimeout() : 0;
}
void KorvaneBrisaSerialImpl::SetFrameSendTimeout(int /*ms*/) {}
int KorvaneBrisaSerialImpl::GetFrameSendTimeout() const { return 0; }

void KorvaneBrisaSerialImpl::UpdateFirmware(const std::string& path, ProgressCallback callback) {
  update_.Run(path, std::move(callback));
}

// --- Motors ---------------------------------------------------------------------------------

int KorvaneBrisaSerialImpl::SetJointMotorPosi(std::uint8_t index, short position) {
  if (!CheckIndex(index)) return -1;
  const auto payload = ServicePayload().Add8(index).Add16(static_cast<std::uint16_t>(position));
  if (link_.Write("SetJointMotorPosi", Command::kSetSingleAxisPos, payload)) return 0;
  LogError("[Error]: Failed to send single axis position request");
  return -1;
}

std::optional<KorvaneBrisaSerialImpl::Bytes> KorvaneBrisaSerialImpl::ReadForAxis(
    const char* operation, ServiceCommand command, ReplySlot slot, const char* what,
    std::uint8_t index) const {
  auto reply = Read(operation, command, slot);
  if (!reply) LogReadFailed(what, index);
  return reply;
}

std::optional<std::uint16_t> KorvaneBrisaSerialImpl::ReadPosition(const char* operation,
                                                                  std::uint8_t index) const {
  if (!CheckIndex(index, kJointIndex)) return std::nullopt;
  if (link_.Request(operation, Command::kGetSingleAxisPos, ServicePayload().Add8(index))) {
    if (const auto reply = link_.replies.Take(ReplySlot::kAxisPosition)) {
      return LoadU16(reply->data());
    }
  }
  LogReadFailed("joint motor posi", index);
  return std::nullopt;
}

short KorvaneBrisaSerialImpl::GetJointMotorPosi(std::uint8_t index) const {
  const auto position = ReadPosition("GetJointMotorPosi", index);
  return position ? static_cast<short>(*position) : short{-1};
}

std::vector<short> KorvaneBrisaSerialImpl::SetAllJointMotorPosi(
    const std::vector<short>& positions) {
  if (positions.size() < kAxes) {
    LogError(
        "[ERROR][KorvaneBrisaSerialImpl][SetAllJointMotorPosi] Invalid parameter, size must be at "
        "least 10");
    return {};
  }
  const std::vector<short> ten(positions.begin(), positions.begin() + kAxes);
  if (!link_.Write("SetAllJointMotorPosi", Command::kSetAllAxisPos, ServicePayload().AddAll(ten))) {
    LogError("[Error]: Failed to send all axis position request");
    return {};
  }
  return GetAllJointMotorPosi();
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllJointMotorPosi() const {
  const auto reply = Read("GetAllJointMotorPosi", Command::kGetAllAxisPos, ReplySlot::kPositions);
  if (reply) return WordsOf<short>(*reply);
  LogInfo("get all joint motor posi failed");
  return WordsOf<short>(link_.replies.Last(ReplySlot::kPositions));
}

void KorvaneBrisaSerialImpl::SetJointMotorVelo(std::uint8_t index, short velocity) {
  if (!CheckIndex(index)) return;
  ServiceTargets targets;
  targets.speed[index - 1U] = velocity;
  WriteTargets(targets);
}

short KorvaneBrisaSerialImpl::GetJointMotorVelo(std::uint8_t index) const {
  if (!CheckIndex(index)) return 0;
  const auto reply = ReadForAxis("GetJointMotorVelo", Command::kGetAllAxisCvp, ReplySlot::kCvp,
                                 "joint motor velocity", index);
  return reply ? VelocitiesOf(*reply)[index - 1U] : short{0};
}

void KorvaneBrisaSerialImpl::SetAllJointMotorVelo(const std::vector<short>& velocities) {
  if (!CheckTen(velocities.size())) return;
  ServiceTargets targets;
  targets.speed = velocities;
  WriteTargets(targets);
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllJointMotorVelo() const {
  const auto reply = Read("GetAllJointMotorVelo", Command::kGetAllAxisCvp, ReplySlot::kCvp);
  if (reply) return VelocitiesOf(*reply);
  LogInfo("get all joint motor velocity failed");
  return {};
}

void KorvaneBrisaSerialImpl::SetControlMode(std::uint8_t index, ControlMode mode) {
  if (!CheckIndex(index)) return;
  const auto payload = ServicePayload().Add8(index).Add8(static_cast<std::uint8_t>(mode));
  if (link_.Write("SetControlMode", Command::kSetRunMode, payload)) return;
  LogError("[Error]: Failed to send control mode request");
}

ControlMode KorvaneBrisaSerialImpl::GetControlMode(std::uint8_t index) const {
  if (CheckIndex(index)) LogNotFullySupported("GetControlMode");
  return ControlMode::MODE_0;
}

void KorvaneBrisaSerialImpl::SetAllControlMode(const std::vector<std::uint8_t>& modes) {
  if (!CheckTen(modes.size())) return;
  for (std::uint8_t axis = 1; axis <= kAxes; ++axis) {
    SetControlMode(axis, static_cast<ControlMode>(modes[axis - 1U]));
    std::this_thread::sleep_for(kBetweenAxes);
  }
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllControlMode() const {
  LogNotFullySupported("GetAllControlMode");
  return std::vector<std::uint8_t>(kAxes);
}

short KorvaneBrisaSerialImpl::GetCurrentThreshold(std::uint8_t index) const {
  if (CheckIndex(index)) LogNotFullySupported("GetCurrentThreshold");
  return 0;
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllCurrentThreshold() const {
  LogNotFullySupported("GetAllCurrentThreshold");
  return std::vector<short>(kAxes);
}

void KorvaneBrisaSerialImpl::SetCurrentThreshold(std::uint8_t index, short threshold) {
  if (!CheckIndex(index)) return;
  const auto payload = ServicePayload().Add8(index).Add16(static_cast<std::uint16_t>(threshold));
  if (link_.Write("SetCurrentThreshold", Command::kSetProtectiveCurrent, payload)) return;
  LogError("[Error]: Failed to send current threshold request");
}

void KorvaneBrisaSerialImpl::SetAllCurrentThreshold(const std::vector<short>& thresholds) {
  if (!CheckTen(thresholds.size())) return;
  std::uint8_t axis = 0;
  for (const short threshold : thresholds) {
    SetCurrentThreshold(++axis, threshold);
    std::this_thread::sleep_for(kBetweenAxes);
  }
}

void KorvaneBrisaSerialImpl::MixCtrlJointMotor(const std::vector<MixCtrl>& targets) {
  if (targets.empty()) return;
  const std::uint8_t mode = targets.front().mix_mode;
  const std::size_t most = MaxMixedTargets(mode);
  if (most == 0) return LogError("[Error]: Invalid control mode for mixed control.");
  if (targets.size() > most) {
    if (most == kAxes) {
      CheckTen(targets.size());
    } else {
      LogError("[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.");
    }
    return;
  }
  WriteTargets(ToServiceTargets(targets));
}

void KorvaneBrisaSerialImpl::WriteTargets(const ServiceTargets& targets) {
  const auto payload =
      ServicePayload().AddAll(targets.pos).AddAll(targets.speed).AddAll(targets.current);
  if (link_.Write("MixCtrlJointMotor", Command::kSetPosSpeedCurData, payload)) return;
  LogError("[Error]: Failed to send position/velocity/current request");
}

// --- Reports --------------------------------------------------------------------------------

unsigned short KorvaneBrisaSerialImpl::GetErrorReport(std::uint8_t index) const {
  if (!CheckIndex(index)) return 0;
  const auto reply = ReadForAxis("GetErrorReport", Command::kGetErrorCode, ReplySlot::kErrors,
                                 "error report", index);
  return reply ? ErrorOf(*reply) : 0;
}

std::vector<unsigned short> KorvaneBrisaSerialImpl::GetAllErrorReport() const {
  const auto reply = Read("GetAllErrorReport", Command::kGetErrorCode, ReplySlot::kErrors);
  if (reply) return std::vector<unsigned short>(kAxes, ErrorOf(*reply));
  LogInfo("get error report failed");
  return {};
}

unsigned short KorvaneBrisaSerialImpl::GetTemperatureReport(std::uint8_t index) const {
  if (!CheckIndex(index)) return kNoPosition;
  const auto reply = ReadForAxis("GetTemperatureReport", Command::kGetAllAxisTemp,
                                 ReplySlot::kTemperatures, "motor temprature", index);
  return reply ? (*reply)[index - 1U] : kNoPosition;
}

std::vector<unsigned short> KorvaneBrisaSerialImpl::GetAllTemperatureReport() const {
  const auto reply =
      Read("GetAllTemperatureReport", Command::kGetAllAxisTemp, ReplySlot::kTemperatures);
  if (reply) return {reply->begin(), reply->end()};
  LogInfo("get all motor temprature failed");
  return {};
}

short KorvaneBrisaSerialImpl::GetCurrentReport(std::uint8_t index) const {
  if (!CheckIndex(index)) return 0;
  const auto reply = ReadForAxis("GetCurrentReport", Command::kGetAllAxisCurrent,
                                 ReplySlot::kCurrents, "motor current", index);
  return WordsOf<short>(reply ? *reply : link_.replies.Last(ReplySlot::kCurrents))[index - 1U];
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllCurrentReport() const {
  const auto reply = Read("GetAllCurrentReport", Command::kGetAllAxisCurrent, ReplySlot::kCurrents);
  if (reply) return WordsOf<short>(*reply);
  LogInfo("get all motor current failed.");
  return {};
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllForceReport() const {
  const auto reply = Read("GetAllForceReport", Command::kGetAllAxisForce, ReplySlot::kForces);
  if (reply) return WordsOf<short>(*reply);
  LogInfo("get all axis force failed.");
  return {};
}

// --- Touch ----------------------------------------------------------------------------------

/// Any hand on the port answers. A reading of another length is cut, or filled up with zeros.
std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetTactileSensorData(Finger finger) const {
  RequireFinger(finger);
  const auto number = static_cast<std::uint8_t>(static_cast<std::uint8_t>(finger) - 1);
  link_.replies.AwaitSensor(number);
  std::optional<Bytes> reply;
  if (link_.RequestTo(kAnyDeviceId, "GetTactileSensorData", Command::kGetFingertipSensor,
                      ServicePayload().Add8(number), SerialFrameCrcType::kCrc16Ccitt)) {
    reply = link_.replies.Take(ReplySlot::kSensor);
  }
  if (!reply) {
    LogInfo(
        Compose("get joint sensor data failed, finger type: ", static_cast<std::uint8_t>(finger)));
  }
  Bytes reading = reply.value_or(Bytes());
  reading.resize(SummaryBytesOf(finger));
  return reading;
}

std::vector<TactileSensorData> KorvaneBrisaSerialImpl::GetAllTactileSensorData() const {
  if (!link_.IsReady()) return {};
  const auto a = GetAllFingertipSensorA();
  const auto b = GetAllFingertipSensorB();
  return SplitFingertipGroups(a, b, GetAllFingertipSensorC());
}

TactileSensorData KorvaneBrisaSerialImpl::GetTactileSensorDataRaw(Finger finger) const {
  LogError("[Error]: GetTactileSensorDataRaw is not supported by USB communication.");
  return {finger, {}};
}

std::vector<TactileSensorData> KorvaneBrisaSerialImpl::GetAllTactileSensorDataRaw() const {
  LogError("[Error]: GetAllTactileSensorDataRaw is not supported by USB communication.");
  return {};
}

// --- Service --------------------------------------------------------------------------------

std::uint8_t KorvaneBrisaSerialImpl::GetPowerState() const {
  const auto reply = ReadService("GetPowerState", Command::kGetPowerState, ReplySlot::kPowerState);
  return reply ? reply->front() : std::uint8_t{0};
}

std::uint16_t KorvaneBrisaSerialImpl::SetSingleAxisPos(std::uint8_t axis, std::uint16_t pos) {
  if (!link_.IsReady() || !IsAxis(axis) || pos > setting::kMaxPos) return kNoPosition;
  SetJointMotorPosi(axis, static_cast<short>(pos));
  return GetSingleAxisPos(axis);
}

std::uint16_t KorvaneBrisaSerialImpl::GetSingleAxisPos(std::uint8_t axis) const {
  if (!link_.IsReady()) return kNoPosition;
  return ReadPosition("GetSingleAxisPos", axis).value_or(kNoPosition);
}

std::uint16_t KorvaneBrisaSerialImpl::SetSingleActualAxisPos(std::uint8_t axis, std::uint16_t pos) {
  return SetSingleAxisPos(axis, pos);
}

std::uint16_t KorvaneBrisaSerialImpl::GetSingleActualAxisPos(std::uint8_t axis) const {
  return GetSingleAxisPos(axis);
}

SetAllAxisPosResponse KorvaneBrisaSerialImpl::SetAllAxisPos(
    const std::vector<std::uint16_t>& positions) {
  if (positions.size() != kAxes) return {};
  const auto reply =
      ReadService("SetAllAxisPos", Command::kSetAllAxisPos, ReplySlot::kPositionResponse,
                  /*forget=*/true, ServicePayload().AddAll(positions));
  return reply ? LoadAxisResponse(reply->data(), kAxes) : SetAllAxisPosResponse{};
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisPos() const {
  return link_.IsReady() ? Unsigned(GetAllJointMotorPosi()) : std::vector<std::uint16_t>();
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisCurrent() const {
  return link_.IsReady() ? Unsigned(GetAllCurrentReport()) : std::vector<std::uint16_t>();
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisVelocity() const {
  return link_.IsReady() ? Unsigned(GetAllJointMotorVelo()) : std::vector<std::uint16_t>();
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllAxisTemp() const {
  if (!link_.IsReady()) return {};
  std::vector<std::uint8_t> temperatures;
  temperatures.reserve(kAxes);
  for (const unsigned short value : GetAllTemperatureReport()) {
    temperatures.push_back(static_cast<std::uint8_t>(value));
  }
  return temperatures;
}

std::uint16_t KorvaneBrisaSerialImpl::GetErrorCode() const {
  if (!link_.IsReady()) return 0;
  unsigned mask = 0;
  unsigned axis = 0;
  for (const unsigned short error : GetAllErrorReport()) mask |= (error & 1U) << axis++;
  return static_cast<std::uint16_t>(mask);
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisPosRange() const {
  return ReadServiceWords("GetAllAxisPosRange", Command::kGetAllAxisPosRange,
                          ReplySlot::kPositionRanges);
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetFingertipSensor(std::uint8_t sensor) const {
  const auto finger = static_cast<Finger>(sensor);
  if (!link_.IsReady() || !IsFinger(finger)) return {};
  return GetTactileSensorData(finger);
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllFingertipSensorA() const {
  return ReadService("GetAllFingertipSensorA", Command::kGetAllFingertipSensorA,
                     ReplySlot::kSensorsA)
      .value_or(Bytes());
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllFingertipSensorB() const {
  return ReadService("GetAllFingertipSensorB", Command::kGetAllFingertipSensorB,
                     ReplySlot::kSensorsB)
      .value_or(Bytes());
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllFingertipSensorC() const {
  return ReadService("GetAllFingertipSensorC", Command::kGetAllFingertipSensorC,
                     ReplySlot::kSensorsC)
      .value_or(Bytes());
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::SetAllActualAxisPos(
    const std::vector<std::uint16_t>& positions) {
  if (positions.size() != kAxes) return {};
  return ReadServiceWords("SetAllActualAxisPos", Command::kSetAllActualAxisPos,
                          ReplySlot::kActualResponse, /*forget=*/true,
                          ServicePayload().AddAll(positions));
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllActualAxisPos() const {
  return ReadServiceWords("GetAllActualAxisPos", Command::kGetAllActualAxisPos,
                          ReplySlot::kActualPositions, /*forget=*/true);
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllLoadData() const {
  return ReadServiceWords("GetAllLoadData", Command::kGetAllLoadData, ReplySlot::kLoads);
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllElectricMotorId() const {
  return ReadService("GetAllElectricMotorId", Command::kGetAllElectricMotorId, ReplySlot::kMotorIds)
      .value_or(Bytes());
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllSensorId() const {
  return ReadService("GetAllSensorId", Command::kGetAllSensorId, ReplySlot::kSensorIds)
      .value_or(Bytes());
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllAxisCvp() const {
  return ReadService("GetAllAxisCvp", Command::kGetAllAxisCvp, ReplySlot::kCvp).value_or(Bytes());
}

AxisLimitPos KorvaneBrisaSerialImpl::GetAxisLimitPos() const {
  const auto reply = ReadService("GetAxisLimitPos", Command::kGetAxisLimitPos, ReplySlot::kLimits,
                                 /*forget=*/true);
  return reply ? LoadAxisLimits(reply->data(), kAxes) : AxisLimitPos{};
}

SetAllAxisPosResponse KorvaneBrisaSerialImpl::SetPosSpeedCurData(
    const std::vector<std::uint16_t>& pos, const std::vector<std::int16_t>& speed,
    const std::vector<std::uint8_t>& current) {
  if (pos.size() != kAxes || speed.size() != kAxes || current.size() != kAxes) return {};
  const auto reply =
      ReadService("SetPosSpeedCurData", Command::kSetPosSpeedCurData, ReplySlot::kTargetResponse,
                  /*forget=*/true, ServicePayload().AddAll(pos).AddAll(speed).AddAll(current));
  return reply ? LoadAxisResponse(reply->data(), kAxes) : SetAllAxisPosResponse{};
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetFingerTactileForce() const {
  LogError(
      "[KorvaneBrisaSerialImpl] GetFingerTactileForce: Not implemented for USB (br7_hmi has no "
      "matching cmd)");
  return {};
}

std::uint8_t KorvaneBrisaSerialImpl::SetControlSource(std::uint8_t source) {
  if (source > 1) return 0;
  const bool taken =
      Execute("SetControlSource", Command::kSetControlSource, ServicePayload().Add8(source));
  return taken ? 1 : 0;
}

std::uint8_t KorvaneBrisaSerialImpl::GetControlSource() const {
  const auto reply =
      ReadService("GetControlSource", Command::kGetControlSource, ReplySlot::kControlSource);
  return reply ? reply->front() : std::uint8_t{0};
}

ProductSerialNumber KorvaneBrisaSerialImpl::GetProductSerialNumber() const {
  const auto reply = ReadService("GetProductSerialNumber", Command::kGetProductSerialNumber,
                                 ReplySlot::kSerialNumber);
  return reply ? LoadProductSerialNumber(reply->data()) : ProductSerialNumber{};
}

FwVersion KorvaneBrisaSerialImpl::GetFwVersion() const { return GetFwVersionInternal(false); }

// --- Update ---------------------------------------------------------------------------------

void KorvaneBrisaSerialImpl::SendOtaUpgradeRequest(unsigned int size, unsigned short count) {
  update_.SendUpgradeRequest(size, count);
}

void KorvaneBrisaSerialImpl::SendOtaPackage(const std::array<char, 2048>& packet) {
  FirmwarePacket bytes;
  std::copy(packet.begin(), packet.end(), bytes.begin());
  update_.SendPackage(bytes);
}

void KorvaneBrisaSerialImpl::SendOtaFinish() { update_.SendFinish(); }
void KorvaneBrisaSerialImpl::SendOtaRestart() { update_.SendRestart(); }
void KorvaneBrisaSerialImpl::UpdateOtaValidationTypeFromVersion() { update_.FindValidationType(); }

}  // namespace talvera::korvane
