#include "protocol/service/korvane_brisa_can_private_impl.h"

#include <algorithm>
#include <utility>

#include "hand/tactile_layout.h"
#include "protocol/service/service_records.h"
#include "protocol/service/setting_rows.h"
#include "util/log.h"

namespace talvera::korvane {

void KorvaneBrisaCanPrivateImpl::UpdateFirmware(const std::string& path,
                                                ProgressCallback callback) {
  engine_.update_run.Run(path, std::move(callback));
}

/// Logs and records it.
void KorvaneBrisaCanPrivateImpl::LogNotFullySupported(const char* name) const {
  const auto operation = engine_.Operation(name);
  const std::string line = Compose("[", kModel.class_name, "] ", name, " is not fully supported.");
  LogError(line);
  RecordFailure(engine_.diagnostics, FailureKind::NOT_SUPPORTED, line);
}

// --- Motors ---------------------------------------------------------------------------------

void KorvaneBrisaCanPrivateImpl::SetControlMode(std::uint8_t index, ControlMode mode) {
  const auto operation = engine_.Operation(__func__);
  if (CheckArgument(IsMotor(index))) SetRunMode(index, static_cast<std::uint8_t>(mode));
}

void KorvaneBrisaCanPrivateImpl::SetAllControlMode(const std::vector<std::uint8_t>& modes) {
  const auto operation = engine_.Operation(__func__);
  if (!CheckJointCount(modes.size())) return;
  std::uint8_t index = 0;
  for (const std::uint8_t mode : modes) SetControlMode(++index, static_cast<ControlMode>(mode));
}

ControlMode KorvaneBrisaCanPrivateImpl::GetControlMode(std::uint8_t) const {
  LogNotFullySupported(__func__);
  return ControlMode::MODE_0;
}

std::vector<std::uint8_t> KorvaneBrisaCanPrivateImpl::GetAllControlMode() const {
  LogNotFullySupported(__func__);
  return std::vector<std::uint8_t>(kModel.motors);
}

void KorvaneBrisaCanPrivateImpl::SetCurrentThreshold(std::uint8_t index, short threshold) {
  const auto operation = engine_.Operation(__func__);
  if (!CheckArgument(IsMotor(index))) return;
  threshold = std::clamp(threshold, short{0}, setting::kMaxProtectiveCurrent);
  SetProtectiveCurrent(index, static_cast<std::uint16_t>(threshold));
}

void KorvaneBrisaCanPrivateImpl::SetAllCurrentThreshold(const std::vector<short>& thresholds) {
  const auto operation = engine_.Operation(__func__);
  if (!CheckJointCount(thresholds.size())) return;
  std::uint8_t index = 0;
  for (const short threshold : thresholds) SetCurrentThreshold(++index, threshold);
}

short KorvaneBrisaCanPrivateImpl::GetCurrentThreshold(std::uint8_t) const {
  LogNotFullySupported(__func__);
  return 0;
}

std::vector<short> KorvaneBrisaCanPrivateImpl::GetAllCurrentThreshold() const {
  LogNotFullySupported(__func__);
  return std::vector<short>(kModel.motors);
}

void KorvaneBrisaCanPrivateImpl::MixCtrlJointMotor(const std::vector<MixCtrl>& targets) {
  const auto operation = engine_.Operation(__func__);
  if (!CheckArgument(!targets.empty())) return;
  const std::size_t most = MaxMixedTargets(targets.front().mix_mode);
  if (most == 0) {
    return engine_.LogAndRecord(FailureKind::BAD_ARGUMENT, __func__, "Invalid control mode.");
  }
  if (!CheckArgument(targets.size() <= most)) return;
  const ServiceTargets all = ToServiceTargets(targets);
  SetPosSpeedCurData(all.pos, all.speed, all.current);
}

// --- Touch ----------------------------------------------------------------------------------

std::vector<std::uint8_t> KorvaneBrisaCanPrivateImpl::GetFingertipSensor(
    std::uint8_t sensor) const {
  const auto operation = engine_.Operation(__func__);
  const auto reply = engine_.RequestOrLog(__func__, ServiceCommand::kGetFingertipSensor,
                                          ServicePayload().Add8(sensor));
  const bool of_finger = sensor < static_cast<std::uint8_t>(Finger::PALM);
  // The sensor's number stands in front of its reading.
  const std::size_t size = 1 + (of_finger ? kFingerSummaryBytes : kPalmSummaryBytes);
  const std::uint8_t* const data = engine_.DataOf(reply, 1 + size);
  return data != nullptr ? std::vector<std::uint8_t>(data, data + size)
                         : std::vector<std::uint8_t>();
}

std::vector<TactileSensorData> KorvaneBrisaCanPrivateImpl::GetAllTactileSensorData() const {
  const auto operation = engine_.Operation(__func__);
  const auto a = GetAllFingertipSensorA();
  const auto b = GetAllFingertipSensorB();
  return SplitFingertipGroups(a, b, GetAllFingertipSensorC());
}

std::vector<std::uint8_t> KorvaneBrisaCanPrivateImpl::GetTactileSensorData(Finger) const {
  RecordNotSupported(*this, __func__);
  return {};
}
TactileSensorData KorvaneBrisaCanPrivateImpl::GetTactileSensorDataRaw(Finger finger) const {
  RecordNotSupported(*this, __func__);
  return {finger, {}};
}
std::vector<TactileSensorData> KorvaneBrisaCanPrivateImpl::GetAllTactileSensorDataRaw() const {
  RecordNotSupported(*this, __func__);
  return {};
}

// --- Update ---------------------------------------------------------------------------------

CanfdFrame KorvaneBrisaCanPrivateImpl::SendOtaRequestSynch(std::uint8_t child, unsigned int size,
                                                           unsigned short count) {
  return engine_.RequestOrThrow(__func__, ServiceUpdate::RequestFrame(child, size, count));
}

void KorvaneBrisaCanPrivateImpl::SendOtaTransmitAndData(const std::array<char, 2048>& packet,
                                                        unsigned short index) {
  FirmwarePacket bytes;
  std::copy(packet.begin(), packet.end(), bytes.begin());
  engine_.SendOrThrow(__func__, [&] { return engine_.update_run.SendPacket(bytes, index); });
}

void KorvaneBrisaCanPrivateImpl::SendOtaFinish() {
  engine_.SendOrThrow(__func__, [this] { return engine_.update_run.SendFinish(); });
}

void KorvaneBrisaCanPrivateImpl::SendOtaRestart() {
  engine_.SendOrThrow(__func__, [this] { return engine_.update_run.SendRestart(); });
}

void KorvaneBrisaCanPrivateImpl::OtaOnResponse(std::uint8_t child, std::uint32_t status) {
  engine_.update_run.OnResponse(child, status);
}

}  // namespace talvera::korvane
