#include "korvane_brisa.h"

#include "hand/tactile_layout.h"
#include "link/diagnostics.h"
#include "solver/actuator_words.h"

namespace talvera::korvane {

KorvaneBrisa::~KorvaneBrisa() = default;

void KorvaneBrisa::SetHandGesture(int gesture) {
  const OperationScope operation(*this, __func__);
  if (solver) SetAllJointMotorPosi(ToWords(solver->SetHandGesture(gesture)));
}

std::size_t KorvaneBrisa::GetSensorDataLength(Finger finger) const {
  return SensorDataLengthOf(finger);
}

const std::vector<Finger>& KorvaneBrisa::GetSensorOrder() const {
  return SensorsUpTo<Finger::DORSUM>();
}

}  // namespace talvera::korvane
