#include "protocol/can/korvane_vanta_can_impl.h"

#include "util/log.h"

namespace talvera::korvane {

std::vector<double> KorvaneVantaCanImpl::SetAllActiveJointAngles(const std::vector<double>&) {
  const auto operation = engine_.Operation(__func__);
  engine_.LogAndRecord(
      FailureKind::NOT_SUPPORTED,
      "[WARN][KorvaneVanta] SetAllActiveJointAngles: 运动学未实现，请使用 SetAllJointMotorPosi "
      "直接设置电机位置.");
  return {};
}

std::vector<double> KorvaneVantaCanImpl::GetAllActiveJointAngles() const {
  const auto operation = engine_.Operation(__func__);
  engine_.LogAndRecord(
      FailureKind::NOT_SUPPORTED,
      "[WARN][KorvaneVanta] GetAllActiveJointAngles: 运动学未实现，请使用 GetAllJointMotorPosi "
      "获取电机位置.");
  return std::vector<double>(VantaRow::kModel.motors, 0.0);
}

std::vector<double> KorvaneVantaCanImpl::GetAllJointAngles() const {
  const auto operation = engine_.Operation(__func__);
  return GetAllActiveJointAngles();
}

std::vector<double> KorvaneVantaCanImpl::GetAllJointPos(
    const std::vector<double>& active_angles) const {
  RecordNotSupported(*this, __func__);
  return active_angles;
}

}  // namespace talvera::korvane
