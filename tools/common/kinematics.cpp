#include "kinematics.h"

#include <korvane_brisa.h>
#include <korvane_brisa_solver.h>
#include <korvane_tessel.h>
#include <korvane_tessel_solver.h>

namespace korvane_common {

namespace kv = talvera::korvane;

Kinematics KinematicsOf(const kv::KorvaneBase& hand) {
  if (const auto* const brisa = dynamic_cast<const kv::KorvaneBrisa*>(&hand)) {
    const auto* const solver = brisa->solver.get();
    return {[solver](const auto& angles) { return solver->ActiveJointPos2ActuatorInput(angles); },
            [solver](const auto& inputs) { return solver->ActuatorInput2ActiveJointPos(inputs); },
            [solver](int gesture) { return solver->SetHandGesture(gesture); },
            [solver](auto angles) {
              solver->ClampJointPos(angles);
              return angles;
            }};
  }
  if (const auto* const tessel = dynamic_cast<const kv::KorvaneTessel*>(&hand)) {
    const auto* const solver = tessel->solver.get();
    return {[solver](const auto& angles) { return solver->ConvertJoint2Actuator(angles); },
            [solver](const auto& inputs) { return solver->ConvertActuator2Joint(inputs); },
            [solver](int gesture) { return solver->SetHandGesture(gesture); },
            [solver](auto angles) {
              solver->CheckJointPos(angles);
              return angles;
            }};
  }
  return {};
}

std::vector<double> AnglesOf(const Kinematics& kinematics, const Pose& pose) {
  return kinematics.to_angles({pose.begin(), pose.end()});
}

Pose Moved(const Kinematics& kinematics, Pose pose, const std::vector<double>& before,
           const std::vector<double>& after) {
  const auto from = kinematics.to_inputs(before);
  const auto to = kinematics.to_inputs(after);
  for (std::size_t i = 0; i < pose.size(); ++i) {
    if (from[i] != to[i]) pose[i] = static_cast<short>(to[i]);
  }
  return pose;
}

}  // namespace korvane_common
