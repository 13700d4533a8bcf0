#include "joint_rules.h"

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;

constexpr double kNearJoint = 0.1;         // rad
constexpr double kNearPartOfRange = 0.07;  // about as far, of a joint that moves by 1.5 rad

}  // namespace

SpaceRules JointRules(kv::Model model, kv::HandType side, const std::string& prefix, double speed) {
  SpaceRules rules;
  rules.speed = speed;
  rules.near = kNearJoint;
  for (const kv::JointInfo& joint : kv::JointsOf(model, side)) {
    rules.axes.push_back({prefix + joint.name, joint.lower, joint.upper, joint.active_index,
                          joint.can_be_commanded});
    if (joint.active_index >= 0) ++rules.targets;
  }
  return rules;
}

SpaceRules MotorRules(kv::Model model, double speed) {
  const kv::ModelInfo& info = kv::InfoOf(model);
  SpaceRules rules;
  rules.speed = speed;
  rules.near = kNearPartOfRange * info.position_max;
  if (!info.has_motors) return rules;
  for (int i = 0; i < info.positions; ++i) {
    rules.axes.push_back({"", 0, static_cast<double>(info.position_max), i, true});
  }
  rules.targets = rules.axes.size();
  return rules;
}

Pose PoseWith(const Kinematics& kinematics, const SpaceRules& rules, std::vector<double> angles,
              const Pose& standing) {
  const auto before = AnglesOf(kinematics, standing);
  for (const Axis& axis : rules.axes) {
    const auto index = static_cast<std::size_t>(axis.index);
    if (axis.index >= 0 && !axis.can_be_commanded) angles[index] = before[index];
  }
  return Moved(kinematics, standing, before, angles);
}

}  // namespace korvane_ros2
