#include "kinematics.h"

#include <korvane_brisa.h>
#include <korvane_brisa_solver.h>
#include <korvane_tessel.h>
#include <korvane_tessel_solver.h>

#include <cmath>

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;

constexpr double kNearJoint = 0.1;         // rad
constexpr double kNearPartOfRange = 0.07;  // about as far, of a joint that moves by 1.5 rad

std::vector<int> ToInputs(const Pose& pose) { return {pose.begin(), pose.end()}; }

}  // namespace

Kinematics KinematicsOf(const kv::KorvaneBase& hand) {
  if (const auto* const brisa = dynamic_cast<const kv::KorvaneBrisa*>(&hand)) {
    const auto* const solver = brisa->solver.get();
    return {[solver](const auto& angles) { return solver->ActiveJointPos2ActuatorInput(angles); },
            [solver](const auto& inputs) { return solver->ActuatorInput2ActiveJointPos(inputs); },
            [solver](auto angles) { return solver->ClampJointPos(angles), angles; }};
  }
  if (const auto* const tessel = dynamic_cast<const kv::KorvaneTessel*>(&hand)) {
    const auto* const solver = tessel->solver.get();
    return {[solver](const auto& angles) { return solver->ConvertJoint2Actuator(angles); },
            [solver](const auto& inputs) { return solver->ConvertActuator2Joint(inputs); },
            [solver](auto angles) { return solver->CheckJointPos(angles), angles; }};
  }
  return {};
}

std::vector<double> AnglesOf(const Kinematics& kinematics, const Pose& pose) {
  return kinematics.to_angles(ToInputs(pose));
}

Pose PoseWith(const Kinematics& kinematics, const SpaceRules& rules, std::vector<double> angles,
              const Pose& standing) {
  const auto before = AnglesOf(kinematics, standing);
  for (const Axis& axis : rules.axes) {
    const auto index = static_cast<std::size_t>(axis.index);
    if (axis.index >= 0 && !axis.can_be_commanded) angles[index] = before[index];
  }
  const auto from = kinematics.to_inputs(before);
  const auto to = kinematics.to_inputs(angles);
  Pose pose = standing;
  for (std::size_t i = 0; i < pose.size(); ++i) {
    if (from[i] != to[i]) pose[i] = static_cast<short>(to[i]);
  }
  return pose;
}

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

}  // namespace korvane_ros2
