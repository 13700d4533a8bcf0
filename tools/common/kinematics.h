#pragma once

#include <korvane.h>

#include <functional>
#include <vector>

// What joints and motors have to do with each other, by the solver of the hand's model.

namespace korvane_common {

/// A position for each motor, in the model's units.
using Pose = std::vector<short>;

/// The solver of a hand, whatever its model; all empty for a model without known kinematics.
struct Kinematics {
  std::function<std::vector<int>(const std::vector<double>&)> to_inputs;
  std::function<std::vector<double>(const std::vector<int>&)> to_angles;
  std::function<std::vector<int>(int)> gesture;
  /// Angles that the model brings within limits which depend on each other.
  std::function<std::vector<double>(std::vector<double>)> held;

  explicit operator bool() const { return static_cast<bool>(to_inputs); }
};

/// Valid as long as the hand.
Kinematics KinematicsOf(const talvera::korvane::KorvaneBase& hand);

/// The angles of the active joints in a pose [rad].
std::vector<double> AnglesOf(const Kinematics& kinematics, const Pose& pose);

/// `pose` after its active joints moved from the angles `before` to `after`. A motor that doesn't
/// move between the two keeps its position to the unit, which the solver alone wouldn't grant.
Pose Moved(const Kinematics& kinematics, Pose pose, const std::vector<double>& before,
           const std::vector<double>& after);

}  // namespace korvane_common
