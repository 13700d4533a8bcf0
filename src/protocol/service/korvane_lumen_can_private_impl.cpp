#include "protocol/service/korvane_lumen_can_private_impl.h"

#include <optional>

namespace talvera::korvane {
namespace {

constexpr std::size_t kMotors = LumenServiceRow::kModel.motors;

/// Replies for all axes begin with the motors that there are.
template <class Value, class Reading>
std::vector<Value> OfMotors(const std::vector<Reading>& readings) {
  return std::vector<Value>(readings.begin(), readings.begin() + kMotors);
}

template <class Value>
Value OfMotor(const std::vector<Value>& values, std::uint8_t index) {
  return values[index - 1U];
}

struct AxisError {
  std::size_t axis;
  unsigned short flag;
};

/// The hand tells one error at a time: the axis, plus 20 for each place of its flag. Nothing for a
/// code that names no motor.
std::optional<AxisError> DecodeError(unsigned code) {
  constexpr unsigned kPerFlag = 20;
  constexpr unsigned kFlags = 5;
  const unsigned axis = code % kPerFlag;
  const unsigned place = code / kPerFlag;
  if (place >= kFlags || axis < 1 || axis > kMotors) return std::nullopt;
  return AxisError{axis, static_cast<unsigned short>(1U << place)};
}

}  // namespace

// --- Motors ---------------------------------------------------------------------------------

/// The hand takes one command for all speeds: the motors that aren't named are stopped.
void KorvaneLumenCanPrivateImpl::SetJointMotorVelo(std::uint8_t index, short velocity) {
  const auto operation = engine_.Operation(__func__);
  if (!CheckArgument(IsMotor(index))) return;
  std::vector<short> velocities(kMotors);
  velocities[index - 1U] = velocity;
  SetAllJointMotorVelo(velocities);
}

void KorvaneLumenCanPrivateImpl::SetAllJointMotorVelo(const std::vector<short>& velocities) {
  const auto operation = engine_.Operation(__func__);
  if (!CheckJointCount(velocities.size())) return;
  std::vector<short> speeds = velocities;
  speeds.resize(kServiceAxes);
  Execute(__func__, ServiceCommand::kSetAllRunSpeed, ServicePayload().AddAll(speeds));
}

short KorvaneLumenCanPrivateImpl::GetJointMotorVelo(std::uint8_t index) const {
  const auto operation = engine_.Operation(__func__);
  return CheckArgument(IsMotor(index)) ? OfMotor(GetAllJointMotorVelo(), index) : short{0};
}
std::vector<short> KorvaneLumenCanPrivateImpl::GetAllJointMotorVelo() const {
  const auto operation = engine_.Operation(__func__);
  return OfMotors<short>(GetAllAxisVelocity());
}

// --- Reports --------------------------------------------------------------------------------

unsigned short KorvaneLumenCanPrivateImpl::GetErrorReport(std::uint8_t index) const {
  const auto operation = engine_.Operation(__func__);
  return CheckArgument(IsMotor(index)) ? OfMotor(GetAllErrorReport(), index)
                                       : static_cast<unsigned short>(0);
}
std::vector<unsigned short> KorvaneLumenCanPrivateImpl::GetAllErrorReport() const {
  const auto operation = engine_.Operation(__func__);
  std::vector<unsigned short> errors(kMotors);
  if (const auto error = DecodeError(GetErrorCode())) errors[error->axis - 1] = error->flag;
  return errors;
}

unsigned short KorvaneLumenCanPrivateImpl::GetTemperatureReport(std::uint8_t index) const {
  const auto operation = engine_.Operation(__func__);
  return CheckArgument(IsMotor(index)) ? OfMotor(GetAllTemperatureReport(), index)
                                       : static_cast<unsigned short>(0);
}
std::vector<unsigned short> KorvaneLumenCanPrivateImpl::GetAllTemperatureReport() const {
  const auto operation = engine_.Operation(__func__);
  return OfMotors<unsigned short>(GetAllAxisTemp());
}

short KorvaneLumenCanPrivateImpl::GetCurrentReport(std::uint8_t index) const {
  const auto operation = engine_.Operation(__func__);
  return CheckArgument(IsMotor(index)) ? OfMotor(GetAllCurrentReport(), index) : short{0};
}
std::vector<short> KorvaneLumenCanPrivateImpl::GetAllCurrentReport() const {
  const auto operation = engine_.Operation(__func__);
  return OfMotors<short>(GetAllAxisCurrent());
}

// --- Joint angles ---------------------------------------------------------------------------

std::vector<double> KorvaneLumenCanPrivateImpl::SetAllActiveJointAngles(
    const std::vector<double>&) {
  const auto operation = engine_.Operation(__func__);
  engine_.LogAndRecord(FailureKind::NOT_SUPPORTED, __func__,
                       "LM3 has no kinematics solver, use SetAllJointMotorPosi");
  return {};
}
std::vector<double> KorvaneLumenCanPrivateImpl::GetAllActiveJointAngles() const {
  RecordNotSupported(*this, __func__);
  return std::vector<double>(kMotors);
}
std::vector<double> KorvaneLumenCanPrivateImpl::GetAllJointAngles() const {
  RecordNotSupported(*this, __func__);
  return std::vector<double>(kMotors);
}
std::vector<double> KorvaneLumenCanPrivateImpl::GetAllJointPos(const std::vector<double>&) const {
  RecordNotSupported(*this, __func__);
  return std::vector<double>(kMotors);
}

// --- What the protocol doesn't have ---------------------------------------------------------

void LumenService::LogUnsupported(const char* operation) const {
  const auto scope = engine_.Operation(operation);
  engine_.LogAndRecord(FailureKind::NOT_SUPPORTED, operation,
                       "Not supported for LM3 standard frame");
}

std::vector<std::uint8_t> KorvaneLumenCanPrivateImpl::LogNoSensors(const char* operation) const {
  const auto scope = engine_.Operation(operation);
  engine_.LogAndRecord(FailureKind::NOT_SUPPORTED, operation, "LM3 不支持触觉传感器");
  return {};
}

void KorvaneLumenCanPrivateImpl::SetControlMode(std::uint8_t, ControlMode) {
  LogUnsupported(__func__);
}
void KorvaneLumenCanPrivateImpl::SetAllControlMode(const std::vector<std::uint8_t>&) {
  LogUnsupported(__func__);
}
void KorvaneLumenCanPrivateImpl::SetCurrentThreshold(std::uint8_t, short) {
  LogUnsupported(__func__);
}
void KorvaneLumenCanPrivateImpl::SetAllCurrentThreshold(const std::vector<short>&) {
  LogUnsupported(__func__);
}
void KorvaneLumenCanPrivateImpl::MixCtrlJointMotor(const std::vector<MixCtrl>&) {
  LogUnsupported(__func__);
}

std::vector<std::uint8_t> KorvaneLumenCanPrivateImpl::GetFingertipSensor(std::uint8_t) const {
  return LogNoSensors(__func__);
}
std::vector<std::uint8_t> KorvaneLumenCanPrivateImpl::GetAllFingertipSensorA() const {
  return LogNoSensors(__func__);
}
std::vector<std::uint8_t> KorvaneLumenCanPrivateImpl::GetAllFingertipSensorB() const {
  return LogNoSensors(__func__);
}
std::vector<std::uint8_t> KorvaneLumenCanPrivateImpl::GetAllFingertipSensorC() const {
  return LogNoSensors(__func__);
}

}  // namespace talvera::korvane
