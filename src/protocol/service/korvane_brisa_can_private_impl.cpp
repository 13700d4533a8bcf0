#include "protocol/service/korvane_brisa_can_private_impl.h"

#include <algorithm>
#include <utility>

#include "protocol/service/service_records.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

/// The first sensor whose block is of the larger kind.
constexpr std::uint8_t kFirstWideSensor = 6;
constexpr std::size_t kFingerReply = 18;
constexpr std::size_t kWideReply = 27;

void LogNotFullySupported(const char* operation) {
  LogError(Compose("[", BrisaServiceRow::kModel.class_name, "] ", operation,
                   " is not fully supported."));
}

}  // namespace

void KorvaneBrisaCanPrivateImpl::UpdateFirmware(const std::string& path,
                                                ProgressCallback callback) {
  engine_.update_run.Run(path, std::move(callback));
}

// --- Motors ---------------------------------------------------------------------------------

void KorvaneBrisaCanPrivateImpl::SetControlMode(std::uint8_t index, ControlMode mode) {
  if (IsMotor(index)) SetRunMode(index, static_cast<std::uint8_t>(mode));
}

void KorvaneBrisaCanPrivateImpl::SetAllControlMode(const std::vector<std::uint8_t>& modes) {
  if (!CheckJointCount(modes.size())) return;
  std::uint8_t index = 0;
  for (const std::uint8_t mode : modes) SetControlMode(++index, static_cast<ControlMode>(mode));
}

ControlMode KorvaneBrisaCanPrivateImpl::GetControlMode(std::uint8_t) const {
  LogNotFullySupported("GetControlMode");
  return ControlMode::MODE_0;
}

std::vector<std::uint8_t> KorvaneBrisaCanPrivateImpl::GetAllControlMode() const {
  LogNotFullySupported("GetAllControlMode");
  return std::vector<std::uint8_t>(kModel.motors);
}

void KorvaneBrisaCanPrivateImpl::SetCurrentThreshold(std::uint8_t index, short threshold) {
  if (!IsMotor(index)) return;
  threshold = std::clamp(threshold, short{0}, setting::kMaxProtectiveCurrent);
  SetProtectiveCurrent(index, static_cast<std::uint16_t>(threshold));
}

void KorvaneBrisaCanPrivateImpl::SetAllCurrentThreshold(const std::vector<short>& thresholds) {
  if (!CheckJointCount(thresholds.size())) return;
  std::uint8_t index = 0;
  for (const short threshold : thresholds) SetCurrentThreshold(++index, threshold);
}

short KorvaneBrisaCanPrivateImpl::GetCurrentThreshold(std::uint8_t) const {
  LogNotFullySupported("GetCurrentThreshold");
  return 0;
}

std::vector<short> KorvaneBrisaCanPrivateImpl::GetAllCurrentThreshold() const {
  LogNotFullySupported("GetAllCurrentThreshold");
  return std::vector<short>(kModel.motors);
}

void KorvaneBrisaCanPrivateImpl::MixCtrlJointMotor(const std::vector<MixCtrl>& targets) {
  if (targets.empty()) return;
  const std::size_t most = MaxMixedTargets(targets.front().mix_mode);
  if (most == 0) return engine_.LogLine("MixCtrlJointMotor", "Invalid control mode.");
  if (targets.size() > most) return;
  const ServiceTargets all = ToServiceTargets(targets);
  SetPosSpeedCurData(all.pos, all.speed, all.current);
}

// --- Touch ----------------------------------------------------------------------------------

std::vector<std::uint8_t> KorvaneBrisaCanPrivateImpl::GetFingertipSensor(
    std::uint8_t sensor) const {
  const auto reply = engine_.RequestOrLog("GetFingertipSensor", StreamCmd::kGetFingertipSensor,
                                          ServicePayload().Add8(sensor));
  const std::size_t size = sensor < kFirstWideSensor ? kFingerReply : kWideReply;
  if (!reply || reply->len < size) return {};
  return {reply->data + 1, reply->data + size};
}

std::vector<TactileSensorData> KorvaneBrisaCanPrivateImpl::GetAllTactileSensorData() const {
  const auto a = GetAllFingertipSensorA();
  const auto b = GetAllFingertipSensorB();
  return SplitFingertipGroups(a, b, GetAllFingertipSensorC());
}

std::vector<std::uint8_t> KorvaneBrisaCanPrivateImpl::GetTactileSensorData(Finger) const {
  return {};
}
TactileSensorData KorvaneBrisaCanPrivateImpl::GetTactileSensorDataRaw(Finger finger) const {
  return {finger, {}};
}
std::vector<TactileSensorData> KorvaneBrisaCanPrivateImpl::GetAllTactileSensorDataRaw() const {
  return {};
}

// --- Update ---------------------------------------------------------------------------------

CanfdFrame KorvaneBrisaCanPrivateImpl::SendOtaRequestSynch(std::uint8_t child, unsigned int size,
                                                           unsigned short count) {
  return engine_.update_run.Request(child, size, count);
}

void KorvaneBrisaCanPrivateImpl::SendOtaTransmitAndData(const std::array<char, 2048>& packet,
                                                        unsigned short index) {
  FirmwarePacket bytes;
  std::copy(packet.begin(), packet.end(), bytes.begin());
  engine_.update_run.SendPacket(bytes, index);
}

void KorvaneBrisaCanPrivateImpl::SendOtaFinish() { engine_.update_run.SendFinish(); }
void KorvaneBrisaCanPrivateImpl::SendOtaRestart() { engine_.update_run.SendRestart(); }

void KorvaneBrisaCanPrivateImpl::OtaOnResponse(std::uint8_t child, std::uint32_t status) {
  engine_.update_run.OnResponse(child, status);
}

}  // namespace talvera::korvane
