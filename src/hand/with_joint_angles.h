#pragma once

#include <vector>

#include "solver/actuator_words.h"

namespace talvera::korvane {

/// Hands with a solver: joint angles to actuator inputs and back, by the solver's operations
/// `Row::kToActuators` and `Row::kToJoints`. `Base` tells of a wrong number of angles in
/// CheckJointCount.
template <class Base, class Row>
class WithJointAngles : public Base {
 public:
  using Base::Base;

  /// The angles that the hand echoed; none, silently, if the echo isn't one of all motors.
  std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles) override {
    if (!this->CheckJointCount(angles.size())) return {};
    const auto echo = this->SetAllJointMotorPosi(ToWords(((*solver).*Row::kToActuators)(angles)));
    if (echo.size() != Row::kModel.motors) return {};
    return ((*solver).*Row::kToJoints)(ToInts(echo));
  }
  std::vector<double> GetAllActiveJointAngles() const override {
    return ((*solver).*Row::kToJoints)(ToInts(this->GetAllJointMotorPosi()));
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
