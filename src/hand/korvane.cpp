#include "korvane.h"

#include "ibr7_tactile_sensor_1d.h"
#include "link/diagnostics.h"

// The defaults of the hand interface: nothing is sent, nothing is written. That they were called is
// recorded as an operation that isn't supported.

namespace talvera::korvane {

// Some parameters are passed by value in the interface, whatever a default does with them.
// NOLINTBEGIN(performance-unnecessary-value-param)

Korvane::~Korvane() = default;
KorvaneBase::~KorvaneBase() = default;
IBR7TactileSensor1D::~IBR7TactileSensor1D() = default;

void Korvane::UpdateFirmware(const std::string& /*path*/,
                             std::function<void(int, int, OtaProgressStatus)> callback) {
  RecordNotSupported(*this, __func__);
  if (callback) callback(-1, 0, OtaProgressStatus::FAILED);
}

int KorvaneBase::SetJointMotorPosi(std::uint8_t, short) {
  RecordNotSupported(*this, __func__);
  return -1;
}
std::vector<short> KorvaneBase::SetAllJointMotorPosi(const std::vector<short>&) {
  RecordNotSupported(*this, __func__);
  return {};
}

std::vector<double> KorvaneBase::SetAllActiveJointAngles(const std::vector<double>&) {
  RecordNotSupported(*this, __func__);
  return {};
}
std::vector<double> KorvaneBase::GetAllActiveJointAngles() const {
  RecordNotSupported(*this, __func__);
  return {};
}
std::vector<double> KorvaneBase::GetAllJointAngles() const {
  RecordNotSupported(*this, __func__);
  return {};
}
std::vector<double> KorvaneBase::GetAllJointPos(const std::vector<double>&) const {
  RecordNotSupported(*this, __func__);
  return {};
}

void KorvaneBase::SetJointMotorVelo(std::uint8_t, short) { RecordNotSupported(*this, __func__); }
short KorvaneBase::GetJointMotorVelo(std::uint8_t) const {
  RecordNotSupported(*this, __func__);
  return 0;
}
void KorvaneBase::SetAllJointMotorVelo(const std::vector<short>&) {
  RecordNotSupported(*this, __func__);
}
std::vector<short> KorvaneBase::GetAllJointMotorVelo() const {
  RecordNotSupported(*this, __func__);
  return {};
}

void KorvaneBase::SetControlMode(std::uint8_t, ControlMode) { RecordNotSupported(*this, __func__); }
ControlMode KorvaneBase::GetControlMode(std::uint8_t) const {
  RecordNotSupported(*this, __func__);
  return ControlMode::MODE_0;
}
void KorvaneBase::SetAllControlMode(const std::vector<std::uint8_t>&) {
  RecordNotSupported(*this, __func__);
}
std::vector<std::uint8_t> KorvaneBase::GetAllControlMode() const {
  RecordNotSupported(*this, __func__);
  return {};
}

void KorvaneBase::SetCurrentThreshold(std::uint8_t, short) { RecordNotSupported(*this, __func__); }
short KorvaneBase::GetCurrentThreshold(std::uint8_t) const {
  RecordNotSupported(*this, __func__);
  return 0;
}
void KorvaneBase::SetAllCurrentThreshold(const std::vector<short>&) {
  RecordNotSupported(*this, __func__);
}
std::vector<short> KorvaneBase::GetAllCurrentThreshold() const {
  RecordNotSupported(*this, __func__);
  return {};
}

void KorvaneBase::MixCtrlJointMotor(const std::vector<MixCtrl>&) {
  RecordNotSupported(*this, __func__);
}

unsigned short KorvaneBase::GetErrorReport(std::uint8_t) const {
  RecordNotSupported(*this, __func__);
  return 0;
}
std::vector<unsigned short> KorvaneBase::GetAllErrorReport() const {
  RecordNotSupported(*this, __func__);
  return {};
}
void KorvaneBase::SetErrorReportPeriod(std::uint8_t, unsigned short) {
  RecordNotSupported(*this, __func__);
}
void KorvaneBase::SetAllErrorReportPeriod(std::vector<unsigned short>) {
  RecordNotSupported(*this, __func__);
}

unsigned short KorvaneBase::GetTemperatureReport(std::uint8_t) const {
  RecordNotSupported(*this, __func__);
  return 0;
}
std::vector<unsigned short> KorvaneBase::GetAllTemperatureReport() const {
  RecordNotSupported(*this, __func__);
  return {};
}
void KorvaneBase::SetTemperReportPeriod(std::uint8_t, unsigned short) {
  RecordNotSupported(*this, __func__);
}
void KorvaneBase::SetAllTemperReportPeriod(std::vector<unsigned short>) {
  RecordNotSupported(*this, __func__);
}

short KorvaneBase::GetCurrentReport(std::uint8_t) const {
  RecordNotSupported(*this, __func__);
  return 0;
}
std::vector<short> KorvaneBase::GetAllCurrentReport() const {
  RecordNotSupported(*this, __func__);
  return {};
}
void KorvaneBase::SetCurrentReportPeriod(std::uint8_t, unsigned short) {
  RecordNotSupported(*this, __func__);
}
void KorvaneBase::SetAllCurrentReportPeriod(std::vector<unsigned short>) {
  RecordNotSupported(*this, __func__);
}

void KorvaneBase::SetHandGesture(int) { RecordNotSupported(*this, __func__); }

// NOLINTEND(performance-unnecessary-value-param)

}  // namespace talvera::korvane
