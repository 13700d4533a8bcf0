#include "protocol/can/korvane_lumen_can_impl.h"

#include "util/log.h"

namespace talvera::korvane {
namespace {

std::vector<double> Refuse(const CanPublicEngine& engine, const char* name, const char* instead) {
  const auto operation = engine.Operation(name);
  engine.LogAndRecord(
      FailureKind::NOT_SUPPORTED,
      Compose("[Warning]: ", name,
              " is not supported for Korvane Lumen S (no kinematics solver available).", instead));
  return {};
}

}  // namespace

std::vector<double> KorvaneLumenCanImpl::SetAllActiveJointAngles(const std::vector<double>&) {
  return Refuse(engine_, "SetAllActiveJointAngles",
                " Please use SetAllJointMotorPosi() instead to set motor positions directly.");
}

std::vector<double> KorvaneLumenCanImpl::GetAllActiveJointAngles() const {
  return Refuse(engine_, "GetAllActiveJointAngles",
                " Please use GetAllJointMotorPosi() instead to get motor positions directly.");
}

std::vector<double> KorvaneLumenCanImpl::GetAllJointAngles() const {
  return Refuse(engine_, "GetAllJointAngles", "");
}

std::vector<double> KorvaneLumenCanImpl::GetAllJointPos(const std::vector<double>&) const {
  return Refuse(engine_, "GetAllJointPos", "");
}

}  // namespace talvera::korvane
