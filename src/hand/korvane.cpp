#include "korvane.h"

#include "ibr7_tactile_sensor_1d.h"

// The defaults of the hand interface: nothing is sent, nothing is written.

namespace talvera::korvane {

// Some parameters are passed by value in the interface, whatever a default does with them.
// NOLINTBEGIN(performance-unnecessary-value-param)

Korvane::~Korvane() = default;
KorvaneBase::~KorvaneBase() = default;
IBR7TactileSensor1D::~IBR7TactileSensor1D() = default;

void Korvane::UpdateFirmware(const std::string& /*path*/,
                             std::function<void(int, int, OtaProgressStatus)> callback) {
  if (callback) callback(-1, 0, OtaProgressStatus::FAILED);
}

int KorvaneBase::SetJointMotorPosi(std::uint8_t, short) { return -1; }
std::vector<short> KorvaneBase::SetAllJointMotorPosi(const std::vector<short>&) { return {}; }

std::vector<double> KorvaneBase::SetAllActiveJointAngles(const std::vector<double>&) { return {}; }
std::vector<double> KorvaneBase::GetAllActiveJointAngles() const { return {}; }
std::vector<double> KorvaneBase::GetAllJointAngles() const { return {}; }
std::vector<double> KorvaneBase::GetAllJointPos(const std::vector<double>&) const { return {}; }

void KorvaneBase::SetJointMotorVelo(std::uint8_t, short) {}
short KorvaneBase::GetJointMotorVelo(std::uint8_t) const { return 0; }
void KorvaneBase::SetAllJointMotorVelo(const std::vector<short>&) {}
std::vector<short> KorvaneBase::GetAllJointMotorVelo() const { return {}; }

void KorvaneBase::SetControlMode(std::uint8_t, ControlMode) {}
ControlMode KorvaneBase::GetControlMode(std::uint8_t) const { return ControlMode::MODE_0; }
void KorvaneBase::SetAllControlMode(const std::vector<std::uint8_t>&) {}
std::vector<std::uint8_t> KorvaneBase::GetAllControlMode() const { return {}; }

void KorvaneBase::SetCurrentThreshold(std::uint8_t, short) {}
short KorvaneBase::GetCurrentThreshold(std::uint8_t) const { return 0; }
void KorvaneBase::SetAllCurrentThreshold(const std::vector<short>&) {}
std::vector<short> KorvaneBase::GetAllCurrentThreshold() const { return {}; }

void KorvaneBase::MixCtrlJointMotor(const std::vector<MixCtrl>&) {}

unsigned short KorvaneBase::GetErrorReport(std::uint8_t) const { return 0; }
std::vector<unsigned short> KorvaneBase::GetAllErrorReport() const { return {}; }
void KorvaneBase::SetErrorReportPeriod(std::uint8_t, unsigned short) {}
void KorvaneBase::SetAllErrorReportPeriod(std::vector<unsigned short>) {}

unsigned short KorvaneBase::GetTemperatureReport(std::uint8_t) const { return 0; }
std::vector<unsigned short> KorvaneBase::GetAllTemperatureReport() const { return {}; }
void KorvaneBase::SetTemperReportPeriod(std::uint8_t, unsigned short) {}
void KorvaneBase::SetAllTemperReportPeriod(std::vector<unsigned short>) {}

short KorvaneBase::GetCurrentReport(std::uint8_t) const { return 0; }
std::vector<short> KorvaneBase::GetAllCurrentReport() const { return {}; }
void KorvaneBase::SetCurrentReportPeriod(std::uint8_t, unsigned short) {}
void KorvaneBase::SetAllCurrentReportPeriod(std::vector<unsigned short>) {}

void KorvaneBase::SetHandGesture(int) {}

// NOLINTEND(performance-unnecessary-value-param)

}  // namespace talvera::korvane
