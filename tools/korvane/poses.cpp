#include "poses.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

/// A usage error for a model without known kinematics.
Kinematics NeedKinematics(const OpenedHand& hand) {
  Kinematics kinematics = KinematicsOf(*hand.hand);
  if (kinematics) return kinematics;
  throw ToolError(kUsage, fmt::format("the joint angles of a {} aren't known; name its motors",
                                      hand.Info().name));
}

std::string NamesOfJoints(const std::vector<kv::JointInfo>& joints) {
  std::string names;
  for (const auto& joint : joints) {
    if (joint.can_be_commanded) names += (names.empty() ? "" : ", ") + joint.name;
  }
  return names;
}

/// The angle as it may be commanded.
double Allowed(const OpenedHand& hand, const kv::JointInfo& joint, double angle,
               BeyondLimits beyond) {
  if (!joint.can_be_commanded) {
    throw ToolError(kUsage,
                    fmt::format("joint {} of a {} {} can't be commanded", joint.name,
                                joint.active_index < 0 ? "coupled" : "left", hand.Info().name));
  }
  const bool within = angle >= joint.lower && angle <= joint.upper;
  if (!within && (beyond == BeyondLimits::REFUSED || std::isnan(angle))) {
    throw ToolError(kUsage, fmt::format("{} rad is beyond the limits of {}, {} to {}", angle,
                                        joint.name, joint.lower, joint.upper));
  }
  return std::clamp(angle, joint.lower, joint.upper);
}

}  // namespace

Pose CheckedPose(const ModelInfo& model, const std::vector<double>& positions) {
  if (!model.has_motors) throw ToolError(kUsage, fmt::format("a {} has no motors", model.name));
  if (positions.size() != static_cast<std::size_t>(model.positions)) {
    throw ToolError(kUsage, fmt::format("a {} has {} motors; {} positions were given", model.name,
                                        model.positions, positions.size()));
  }
  Pose pose;
  for (const double position : positions) {
    if (!(position >= 0 && position <= model.position_max)) {
      throw ToolError(kUsage, fmt::format("position {} is beyond the limits of a {}, 0 to {}",
                                          position, model.name, model.position_max));
    }
    pose.push_back(static_cast<short>(std::lround(position)));
  }
  return pose;
}

std::vector<double> PositionsWithin(const ModelInfo& model, const Pose& pose) {
  std::vector<double> positions;
  positions.reserve(pose.size());
  for (const short position : pose) {
    positions.push_back(std::clamp<short>(position, 0, model.position_max));
  }
  return positions;
}

Pose GesturePose(const OpenedHand& hand, int gesture) {
  const ModelInfo& model = hand.Info();
  if (gesture < 0 || gesture >= model.gestures) {
    throw ToolError(kUsage, model.gestures == 0 ? fmt::format("a {} has no gestures", model.name)
                                                : fmt::format("a {} has the gestures 0 to {}",
                                                              model.name, model.gestures - 1));
  }
  const auto inputs = NeedKinematics(hand).gesture(gesture);
  return CheckedPose(model, {inputs.begin(), inputs.end()});
}

std::vector<double> AnglesOf(const OpenedHand& hand, const Pose& pose) {
  return korvane_common::AnglesOf(NeedKinematics(hand), pose);
}

Pose WithAngles(const OpenedHand& hand, const Pose& pose, const std::vector<std::string>& names,
                const std::vector<double>& angles, BeyondLimits beyond) {
  const Kinematics kinematics = NeedKinematics(hand);
  const auto& joints = kv::JointsOf(hand.Info().model, hand.address.side);
  const std::vector<double> before = korvane_common::AnglesOf(kinematics, pose);
  std::vector<double> wanted = before;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto joint = std::find_if(joints.begin(), joints.end(), [&](const auto& candidate) {
      return candidate.name == names[i];
    });
    if (joint == joints.end()) {
      throw ToolError(kUsage, fmt::format("a {} has no joint {}; there are {}", hand.Info().name,
                                          names[i], NamesOfJoints(joints)));
    }
    wanted[static_cast<std::size_t>(joint->active_index)] =
        Allowed(hand, *joint, angles[i], beyond);
  }
  if (beyond == BeyondLimits::HELD) wanted = kinematics.held(wanted);
  if (kinematics.held(wanted) != wanted) {
    throw ToolError(kUsage,
                    "these angles don't go together: a knuckle's range is narrower where the "
                    "finger stands sideways");
  }
  const Pose result = Moved(kinematics, pose, before, wanted);
  return CheckedPose(hand.Info(), {result.begin(), result.end()});
}

}  // namespace korvane_tool
