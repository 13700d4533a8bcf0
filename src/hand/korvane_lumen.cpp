#include "korvane_lumen.h"

#include "util/log.h"

namespace talvera::korvane {

KorvaneLumen::~KorvaneLumen() = default;

void KorvaneLumen::SetHandGesture(int /*gesture*/) {
  LogError(
      "[Warning]: SetHandGesture is not supported for Korvane Lumen S (no kinematics solver "
      "available). Please use SetAllJointMotorPosi() to set motor positions directly.");
}

}  // namespace talvera::korvane
