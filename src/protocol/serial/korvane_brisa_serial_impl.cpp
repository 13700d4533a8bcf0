#include "protocol/serial/korvane_brisa_serial_impl.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "hand/hand_members.h"
#include "hand/refusals.h"
#include "protocol/service/service_records.h"
#include "serial/usb_device.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using Command = ServiceCommand;

constexpr std::size_t kCvpRecord = 6;
constexpr std::size_t kCvpVelocity = 2;
constexpr std::uint8_t kBrisaProduct = 2;
constexpr auto kBetweenAxes = std::chrono::milliseconds(1);

std::string NotFullySupported(const char* operation) {
  return Compose("[Warning]: ", operation, " is not fully supported via USB.");
}

template <class Value>
std::vector<Value> WordsOf(const ReplyCache::Bytes& bytes) {
  return ServiceWords<Value>(bytes.data(), bytes.size() / 2);
}

/// The velocities in the records of all axes.
std::vector<short> VelocitiesOf(const ReplyCache::Bytes& records) {
  std::vector<short> velocities;
  velocities.reserve(records.size() / kCvpRecord);
  for (std::size_t at = 0; at < records.size(); at += kCvpRecord) {
    velocities.push_back(LoadS16(&records[at + kCvpVelocity]));
  }
  return velocities;
}

/// One error word stands for all axes, so that they always show the same flag.
unsigned short ErrorOf(const ReplyCache::Bytes& word) { return word[0] & 1; }

/// The number as text, without the control characters that pad its end.
std::string SerialNumberText(const ReplyCache::Bytes& number) {
  const auto is_text = [](std::uint8_t byte) { return byte > 31; };
  const auto last = std::find_if(number.rbegin(), number.rend(), is_text);
  return {number.begin(), last.base()};
}

}  // namespace

// --- The port -------------------------------------------------------------------------------

KorvaneBrisaSerialImpl::KorvaneBrisaSerialImpl(HandType hand_type, unsigned char id,
                                               const std::string& port, int baud)
    : update_(*this, link_, *this) {
  SetMembers(*this, Model::BRISA, id, hand_type);
  BrisaKinematics::MakeSolver(*this, hand_type);
  connected = link_.Open(port, baud,
                         [this](std::uint8_t command, const std::uint8_t* data, std::size_t size) {
                           OnProtocolData(command, data, size);
                         });
}

/// The receive thread uses the members of the hand, so it ends before they do.
KorvaneBrisaSerialImpl::~KorvaneBrisaSerialImpl() { link_.Close(); }

void KorvaneBrisaSerialImpl::OnProtocolData(std::uint8_t command, const std::uint8_t* data,
                                            std::size_t size) {
  if (static_cast<Command>(command) == Command::kUpdateReply) return update_.OnReply(data, size);
  link_.replies.Store(command, data, size);
}

// --- What every hand has --------------------------------------------------------------------

/// Also what the hand has told before counts, if nobody has read it yet: the version, when the hand
/// answers too late or not at all. Applications rely on it.
VendorInfo KorvaneBrisaSerialImpl::GetVendorInfo() const {
  const auto operation = link_.Operation(__func__);
  VendorInfo info;
  const auto device = link_.ReadOrTakeEarlier(__func__, Command::kGetFwVersion);
  if (!device) {
    link_.LogReadFailed("get vendor info failed.");
    return info;
  }
  const FwVersion version = LoadFwVersion(device->data());
  info.product_model = device->front() == kBrisaProduct ? "BR7" : "TS9";
  info.software_version = version.firmware;
  info.hardware_version = version.hardware;
  info.active_dof = version.last;
  const auto number = link_.ReadOrTakeEarlier(__func__, Command::kGetProductSerialNumber);
  if (number) info.serial_number = SerialNumberText(*number);
  return info;
}

/// The id is that of the hand whose frames the port accepts; until it is known any hand is asked.
DeviceInfo KorvaneBrisaSerialImpl::GetDeviceInfo() const {
  auto operation = link_.Operation(__func__);
  DeviceInfo info{};
  if (!link_.device || link_.device->filter_device_id_ == kAnyDeviceId) {
    link_.RequestTo(kAnyDeviceId, __func__, Command::kGetFwVersion, {},
                    SerialFrameCrcType::kCrc16Ccitt);
  }
  if (!link_.device || link_.device->filter_device_id_ == kAnyDeviceId) return info;
  // Also if the reply came too late for the request.
  operation.Succeed();
  info.device_id = static_cast<std::uint8_t>(link_.device->filter_device_id_);
  return info;
}

/// The port goes on accepting frames of the old id only.
void KorvaneBrisaSerialImpl::SetDeviceId(std::uint8_t new_id) {
  const auto operation = link_.Operation(__func__);
  if (link_.Write(__func__, Command::kSetId, ServicePayload().Add8(new_id).Add8(0))) {
    StoreDeviceId(*this, new_id);
  } else {
    link_.LogFailed("[Error]: Failed to send device ID request");
  }
}

void KorvaneBrisaSerialImpl::ShowDataDetails(bool on) const {
  const auto operation = link_.Operation(__func__);
  if (auto* const device = link_.DeviceOrFailure()) device->print_frames_ = on;
  solver->show_details = on;
}

void KorvaneBrisaSerialImpl::SetRequestInterval(int ms) {
  const auto operation = link_.Operation(__func__);
  if (auto* const device = link_.DeviceOrFailure()) device->SetMinRequestInterval(ms);
}
int KorvaneBrisaSerialImpl::GetRequestInterval() const {
  const auto operation = link_.Operation(__func__);
  const auto* const device = link_.DeviceOrFailure();
  return device != nullptr ? device->GetMinRequestInterval() : 0;
}
void KorvaneBrisaSerialImpl::SetFrameRecvTimeout(int ms) {
  const auto operation = link_.Operation(__func__);
  if (auto* const device = link_.DeviceOrFailure()) device->SetFrameRecvTimeout(ms);
}
int KorvaneBrisaSerialImpl::GetFrameRecvTimeout() const {
  const auto operation = link_.Operation(__func__);
  const auto* const device = link_.DeviceOrFailure();
  return device != nullptr ? device->GetFrameRecvTimeout() : 0;
}
void KorvaneBrisaSerialImpl::SetFrameSendTimeout(int /*ms*/) {
  RecordNotSupported(*this, __func__);
}
int KorvaneBrisaSerialImpl::GetFrameSendTimeout() const {
  RecordNotSupported(*this, __func__);
  return 0;
}

void KorvaneBrisaSerialImpl::UpdateFirmware(const std::string& path, ProgressCallback callback) {
  update_.Run(path, std::move(callback));
}

// --- Motors ---------------------------------------------------------------------------------

int KorvaneBrisaSerialImpl::SetJointMotorPosi(std::uint8_t index, short position) {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return -1;
  const auto payload = ServicePayload().Add8(index).Add16(static_cast<std::uint16_t>(position));
  if (link_.Write(__func__, Command::kSetSingleAxisPos, payload)) return 0;
  link_.LogFailed("[Error]: Failed to send single axis position request");
  return -1;
}

std::optional<KorvaneBrisaSerialImpl::Bytes> KorvaneBrisaSerialImpl::ReadForAxis(
    const char* operation, ServiceCommand command, const char* what, std::uint8_t index) const {
  auto reply = link_.Read(operation, command);
  if (!reply) LogReadFailed(what, index);
  return reply;
}

short KorvaneBrisaSerialImpl::GetJointMotorPosi(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  const auto position = ReadPosition(__func__, index);
  return position ? static_cast<short>(*position) : short{-1};
}

std::vector<short> KorvaneBrisaSerialImpl::SetAllJointMotorPosi(
    const std::vector<short>& positions) {
  const auto operation = link_.Operation(__func__);
  if (positions.size() < kServiceAxes) {
    link_.LogRefused(
        FailureKind::BAD_ARGUMENT,
        "[ERROR][KorvaneBrisaSerialImpl][SetAllJointMotorPosi] Invalid parameter, size must be at "
        "least 10");
    return {};
  }
  const std::vector<short> ten(positions.begin(), positions.begin() + kServiceAxes);
  if (!link_.Write(__func__, Command::kSetAllAxisPos, ServicePayload().AddAll(ten))) {
    link_.LogFailed("[Error]: Failed to send all axis position request");
    return {};
  }
  return GetAllJointMotorPosi();
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllJointMotorPosi() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = link_.Read(__func__, Command::kGetAllAxisPos);
  if (reply) return WordsOf<short>(*reply);
  link_.LogReadFailed("get all joint motor posi failed");
  return WordsOf<short>(link_.replies.Last(ReplySlot::kPositions));
}

void KorvaneBrisaSerialImpl::SetJointMotorVelo(std::uint8_t index, short velocity) {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return;
  ServiceTargets targets;
  targets.speed[index - 1U] = velocity;
  WriteTargets(targets);
}

short KorvaneBrisaSerialImpl::GetJointMotorVelo(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return 0;
  const auto reply = ReadForAxis(__func__, Command::kGetAllAxisCvp, "joint motor velocity", index);
  return reply ? VelocitiesOf(*reply)[index - 1U] : short{0};
}

void KorvaneBrisaSerialImpl::SetAllJointMotorVelo(const std::vector<short>& velocities) {
  const auto operation = link_.Operation(__func__);
  if (!CheckJointCount(velocities.size())) return;
  ServiceTargets targets;
  targets.speed = velocities;
  WriteTargets(targets);
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllJointMotorVelo() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = link_.Read(__func__, Command::kGetAllAxisCvp);
  if (reply) return VelocitiesOf(*reply);
  link_.LogReadFailed("get all joint motor velocity failed");
  return {};
}

void KorvaneBrisaSerialImpl::SetControlMode(std::uint8_t index, ControlMode mode) {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return;
  const auto payload = ServicePayload().Add8(index).Add8(static_cast<std::uint8_t>(mode));
  if (link_.Write(__func__, Command::kSetRunMode, payload)) return;
  link_.LogFailed("[Error]: Failed to send control mode request");
}

ControlMode KorvaneBrisaSerialImpl::GetControlMode(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  if (CheckIndex(index)) LogNotSupported(NotFullySupported(__func__));
  return ControlMode::MODE_0;
}

void KorvaneBrisaSerialImpl::SetAllControlMode(const std::vector<std::uint8_t>& modes) {
  const auto operation = link_.Operation(__func__);
  if (!CheckJointCount(modes.size())) return;
  std::uint8_t axis = 0;
  for (const std::uint8_t mode : modes) {
    SetControlMode(++axis, static_cast<ControlMode>(mode));
    std::this_thread::sleep_for(kBetweenAxes);
  }
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllControlMode() const {
  const auto operation = link_.Operation(__func__);
  LogNotSupported(NotFullySupported(__func__));
  return std::vector<std::uint8_t>(kServiceAxes);
}

short KorvaneBrisaSerialImpl::GetCurrentThreshold(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  if (CheckIndex(index)) LogNotSupported(NotFullySupported(__func__));
  return 0;
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllCurrentThreshold() const {
  const auto operation = link_.Operation(__func__);
  LogNotSupported(NotFullySupported(__func__));
  return std::vector<short>(kServiceAxes);
}

void KorvaneBrisaSerialImpl::SetCurrentThreshold(std::uint8_t index, short threshold) {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return;
  const auto payload = ServicePayload().Add8(index).Add16(static_cast<std::uint16_t>(threshold));
  if (link_.Write(__func__, Command::kSetProtectiveCurrent, payload)) return;
  link_.LogFailed("[Error]: Failed to send current threshold request");
}

void KorvaneBrisaSerialImpl::SetAllCurrentThreshold(const std::vector<short>& thresholds) {
  const auto operation = link_.Operation(__func__);
  if (!CheckJointCount(thresholds.size())) return;
  std::uint8_t axis = 0;
  for (const short threshold : thresholds) {
    SetCurrentThreshold(++axis, threshold);
    std::this_thread::sleep_for(kBetweenAxes);
  }
}

void KorvaneBrisaSerialImpl::MixCtrlJointMotor(const std::vector<MixCtrl>& targets) {
  const auto operation = link_.Operation(__func__);
  if (!CheckArgument(!targets.empty())) return;
  const std::uint8_t mode = targets.front().mix_mode;
  const std::size_t most = MaxMixedTargets(mode);
  if (most == 0) {
    return link_.LogRefused(FailureKind::BAD_ARGUMENT,
                            "[Error]: Invalid control mode for mixed control.");
  }
  if (targets.size() > most) {
    if (most == kServiceAxes) {
      CheckJointCount(targets.size());
    } else {
      link_.LogRefused(FailureKind::BAD_ARGUMENT, refusal::kTooManyFullTargets);
    }
    return;
  }
  WriteTargets(ToServiceTargets(targets));
}

void KorvaneBrisaSerialImpl::WriteTargets(const ServiceTargets& targets) {
  const auto payload =
      ServicePayload().AddAll(targets.pos).AddAll(targets.speed).AddAll(targets.current);
  if (link_.Write("MixCtrlJointMotor", Command::kSetPosSpeedCurData, payload)) return;
  link_.LogFailed("[Error]: Failed to send position/velocity/current request");
}

// --- Reports --------------------------------------------------------------------------------

unsigned short KorvaneBrisaSerialImpl::GetErrorReport(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return 0;
  const auto reply = ReadForAxis(__func__, Command::kGetErrorCode, "error report", index);
  return reply ? ErrorOf(*reply) : 0;
}

std::vector<unsigned short> KorvaneBrisaSerialImpl::GetAllErrorReport() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = link_.Read(__func__, Command::kGetErrorCode);
  if (reply) return std::vector<unsigned short>(kServiceAxes, ErrorOf(*reply));
  link_.LogReadFailed("get error report failed");
  return {};
}

unsigned short KorvaneBrisaSerialImpl::GetTemperatureReport(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return kNoReading;
  const auto reply = ReadForAxis(__func__, Command::kGetAllAxisTemp, "motor temprature", index);
  return reply ? (*reply)[index - 1U] : kNoReading;
}

std::vector<unsigned short> KorvaneBrisaSerialImpl::GetAllTemperatureReport() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = link_.Read(__func__, Command::kGetAllAxisTemp);
  if (reply) return {reply->begin(), reply->end()};
  link_.LogReadFailed("get all motor temprature failed");
  return {};
}

short KorvaneBrisaSerialImpl::GetCurrentReport(std::uint8_t index) const {
  const auto operation = link_.Operation(__func__);
  if (!CheckIndex(index)) return 0;
  const auto reply = ReadForAxis(__func__, Command::kGetAllAxisCurrent, "motor current", index);
  return WordsOf<short>(reply ? *reply : link_.replies.Last(ReplySlot::kCurrents))[index - 1U];
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllCurrentReport() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = link_.Read(__func__, Command::kGetAllAxisCurrent);
  if (reply) return WordsOf<short>(*reply);
  link_.LogReadFailed("get all motor current failed.");
  return {};
}

std::vector<short> KorvaneBrisaSerialImpl::GetAllForceReport() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = link_.Read(__func__, Command::kGetAllAxisForce);
  if (reply) return WordsOf<short>(*reply);
  link_.LogReadFailed("get all axis force failed.");
  return {};
}

// --- Update ---------------------------------------------------------------------------------

void KorvaneBrisaSerialImpl::SendOtaUpgradeRequest(unsigned int size, unsigned short count) {
  link_.WriteOrThrow(__func__, [&] { return update_.SendUpgradeRequest(size, count); });
}

void KorvaneBrisaSerialImpl::SendOtaPackage(const std::array<char, 2048>& packet) {
  FirmwarePacket bytes;
  std::copy(packet.begin(), packet.end(), bytes.begin());
  link_.WriteOrThrow(__func__, [&] { return update_.SendPackage(bytes); });
}

void KorvaneBrisaSerialImpl::SendOtaFinish() {
  link_.WriteOrThrow(__func__, [this] { return update_.SendFinish(); });
}

void KorvaneBrisaSerialImpl::SendOtaRestart() {
  link_.WriteOrThrow(__func__, [this] { return update_.SendRestart(); });
}

void KorvaneBrisaSerialImpl::UpdateOtaValidationTypeFromVersion() {
  const auto operation = link_.Operation(__func__);
  update_.FindValidationType();
}

FwVersion KorvaneBrisaSerialImpl::GetFwVersionInternal(bool no_crc) const {
  const auto operation = link_.Operation(__func__);
  return link_.QueryVersion(no_crc);
}

}  // namespace talvera::korvane
