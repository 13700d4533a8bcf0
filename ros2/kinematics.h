#pragma once

#include <korvane.h>
#include <korvane_model.h>
#include <korvane_open.h>

#include <functional>
#include <vector>

#include "command_gate.h"

// What joints and motors have to do with each other, by the solver of the hand's model.

namespace korvane_ros2 {

/// A position for each motor, in the model's units.
using Pose = std::vector<short>;

/// The solver of a hand, whatever its model; all empty for a model without known kinematics.
struct Kinematics {
  std::function<std::vector<int>(const std::vector<double>&)> to_inputs;
  std::function<std::vector<double>(const std::vector<int>&)> to_angles;
  /// Angles that the model brings within limits which depend on each other.
  std::function<std::vector<double>(std::vector<double>)> held;

  explicit operator bool() const { return static_cast<bool>(to_inputs); }
};

/// Valid as long as the hand.
Kinematics KinematicsOf(const talvera::korvane::KorvaneBase& hand);

/// The angles of the active joints in a pose [rad].
std::vector<double> AnglesOf(const Kinematics& kinematics, const Pose& pose);

/// The pose with these angles of the active joints. Motors that the angles would leave where they
/// are in `standing` keep their positions to the unit. So do those of the joints of `rules` that
/// can't be commanded, whatever their angles: any target would drive the motor of a left Tessel's
/// joint 0 to its end.
Pose PoseWith(const Kinematics& kinematics, const SpaceRules& rules, std::vector<double> angles,
              const Pose& standing);

/// The rules for commands by joint names; without targets for a model without joints.
SpaceRules JointRules(talvera::korvane::Model model, talvera::korvane::HandType side,
                      const std::string& prefix, double speed);
/// The rules for commands of all motors, whose greatest speed is `speed` units in a second.
SpaceRules MotorRules(talvera::korvane::Model model, double speed);

}  // namespace korvane_ros2
