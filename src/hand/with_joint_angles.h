#pragma once

#include <vector>

#include "hand/kinematics.h"
#include "link/diagnostics.h"
#include "solver/actuator_words.h"

namespace talvera::korvane {

/// Hands with a solver: joint angles to actuator inputs and back, by `Kinematics` of the model.
/// `Base` logs a wrong number of angles in CheckJointCount.
template <class Base, class Kinematics>
class WithJointAngles : public Base {
 public:
  using Base::Base;

  /// Returns the angles that the hand echoed; none, silently, unless the echo has all motors.
  std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles) override {
    const OperationScope operation(this->Diagnostics(), __func__);
    if (!this->CheckJointCount(angles.size())) return {};
    const auto echo =
        this->SetAllJointMotorPosi(ToWords(((*solver).*Kinematics::kToActuators)(angles)));
    if (echo.size() != Kinematics::kMotors) {
      RecordFailure(this->Diagnostics(), FailureKind::BAD_REPLY,
                    "the hand's echo isn't one of all motors");
      return {};
    }
    return FailedIfEmpty(((*solver).*Kinematics::kToJoints)(ToInts(echo)), FailureKind::BAD_REPLY);
  }
  std::vector<double> GetAllActiveJointAngles() const override {
    const OperationScope operation(this->Diagnostics(), __func__);
    return FailedIfEmpty(((*solver).*Kinematics::kToJoints)(ToInts(this->GetAllJointMotorPosi())),
                         FailureKind::BAD_REPLY);
  }
  std::vector<double> GetAllJointAngles() const override {
    const OperationScope operation(this->Diagnostics(), __func__);
    return FailedIfEmpty(solver->GetAllJointPos(this->GetAllActiveJointAngles()),
                         FailureKind::BAD_REPLY);
  }
  std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const override {
    const OperationScope operation(this->Diagnostics(), __func__);
    return FailedIfEmpty(solver->GetAllJointPos(active_angles), FailureKind::BAD_ARGUMENT);
  }

  using Base::solver;

 private:
  std::vector<double> FailedIfEmpty(std::vector<double> angles, FailureKind kind) const {
    if (angles.empty()) {
      RecordFailure(this->Diagnostics(), kind, "no angles: not one value for each joint in range");
    }
    return angles;
  }
};

}  // namespace talvera::korvane
