#include "korvane_quill.h"

#include "hand/tactile_layout.h"

namespace talvera::korvane {

KorvaneQuill::~KorvaneQuill() = default;

std::size_t KorvaneQuill::GetSensorDataLength(Finger finger) const {
  return finger == Finger::DORSUM ? 0 : SensorDataLengthOf(finger);
}

const std::vector<Finger>& KorvaneQuill::GetSensorOrder() const {
  return SensorsUpTo<Finger::PALM>();
}

}  // namespace talvera::korvane
