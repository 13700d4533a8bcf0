#pragma once

#include <vector>

#include "hand/kinematics.h"
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
    if (!this->CheckJointCount(angles.size())) return {};
    const auto echo =
        this->SetAllJointMotorPosi(ToWords(((*solver).*Kinematics::kToActuators)(angles)));
    if (echo.size() != Kinematics::kMotors) return {};
    return ((*solver).*Kinematics::kToJoints)(ToInts(echo));
  }
  std::vector<double> GetAllActiveJointAngles() const override {
    return ((*solver).*Kinematics::kToJoints)(ToInts(this->GetAllJointMotorPosi()));
  }
  std::vector<double> GetAllJointAngles() const override {
    return solver->GetAllJointPos(this->GetAllActiveJointAngles());
  }
  std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const override {
    return solver->GetAllJointPos(active_angles);
  }

  using Base::solver;
};

}  // namespace talvera::korvane
