#pragma once

#include <string>
#include <vector>

#include "common/kinematics.h"
#include "tool.h"

// Poses of hands, checked against the limits of their models before anything moves.

namespace korvane_tool {

/// `positions`, once they are as many as the model has motors and all within 0 to its greatest one.
/// A usage error otherwise, and for a model without motors.
Pose CheckedPose(const ModelInfo& model, const std::vector<double>& positions);

/// The positions of a pose, brought within the model's scale: what a hand tells may lie a little
/// beyond it.
std::vector<double> PositionsWithin(const ModelInfo& model, const Pose& pose);

/// The pose of a gesture. A usage error if the model has no such gesture.
Pose GesturePose(const OpenedHand& hand, int gesture);

/// The angles of the active joints in a pose [rad]. A usage error for a model without them.
std::vector<double> AnglesOf(const OpenedHand& hand, const Pose& pose);

/// What becomes of angles beyond the limits.
enum class BeyondLimits { REFUSED, HELD };

/// The pose that has these angles at these joints, and is `pose` otherwise. `names` are those of
/// JointsOf. A usage error for a name that isn't one, for a joint that can't be commanded, and for
/// angles that are refused: beyond a joint's limits, or beyond what two joints of a finger allow
/// each other.
Pose WithAngles(const OpenedHand& hand, const Pose& pose, const std::vector<std::string>& names,
                const std::vector<double>& angles, BeyondLimits beyond);

}  // namespace korvane_tool
