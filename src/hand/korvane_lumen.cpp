#include "korvane_lumen.h"

#include "link/diagnostics.h"
#include "util/log.h"

namespace talvera::korvane {

KorvaneLumen::~KorvaneLumen() = default;

void KorvaneLumen::SetHandGesture(int /*gesture*/) {
  static constexpr char kLine[] =
      "[Warning]: SetHandGesture is not supported for Korvane Lumen S (no kinematics solver "
      "available). Please use SetAllJointMotorPosi() to set motor positions directly.";
  const OperationScope operation(*this, __func__);
  LogError(kLine);
  RecordFailure(*this, FailureKind::NOT_SUPPORTED, kLine);
}

}  // namespace talvera::korvane
