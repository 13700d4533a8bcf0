#pragma once

#include <korvane_model.h>

#include <string>
#include <vector>

#include "command_gate.h"
#include "common/kinematics.h"

// What the two ways of commanding a hand, by joints and by motors, allow.

namespace korvane_ros2 {

using korvane_common::Kinematics;
using korvane_common::Pose;

/// The rules for commands by joint names; without targets for a model without joints.
SpaceRules JointRules(talvera::korvane::Model model, talvera::korvane::HandType side,
                      const std::string& prefix, double speed);
/// The rules for commands of all motors, whose greatest speed is `speed` units in a second.
SpaceRules MotorRules(talvera::korvane::Model model, double speed);

/// The pose with these angles of the active joints. Joints of `rules` that can't be commanded stay
/// as they are in `standing`, whatever their angles: any target would drive the motor of a left
/// Tessel's joint 0 to its end.
Pose PoseWith(const Kinematics& kinematics, const SpaceRules& rules, std::vector<double> angles,
              const Pose& standing);

}  // namespace korvane_ros2
