#include "protocol/can/korvane_lumen_can_impl.h"

#include "util/log.h"

namespace talvera::korvane {
namespace {

std::vector<double> Refuse(const char* operation, const char* instead) {
  LogError(Compose("[Warning]: ", operation,
                   " is not supported for Korvane Lumen S (no kinematics solver available).",
                   instead));
  return {};
}

}  // namespace

std::vector<double> KorvaneLumenCanImpl::SetAllActiveJointAngles(const std::vector<double>&) {
  return Refuse("SetAllActiveJointAngles",
                " Please use SetAllJointMotorPosi() instead to set motor positions directly.");
}

std::vector<double> KorvaneLumenCanImpl::GetAllActiveJointAngles() const {
  return Refuse("GetAllActiveJointAngles",
                " Please use GetAllJointMotorPosi() instead to get motor positions directly.");
}

std::vector<double> KorvaneLumenCanImpl::GetAllJointAngles() const {
  return Refuse("GetAllJointAngles", "");
}

std::vector<double> KorvaneLumenCanImpl::GetAllJointPos(const std::vector<double>&) const {
  return Refuse("GetAllJointPos", "");
}

}  // namespace talvera::korvane
