#pragma once

#include <cstdint>
#include <memory>

#include "korvane_brisa.h"
#include "korvane_tessel.h"
#include "util/models.h"

// How the hands that have a solver use it, on whatever link.

namespace talvera::korvane {

struct BrisaKinematics {
  static constexpr std::uint8_t kMotors = Known(Model::BRISA).motors;
  static constexpr auto kToActuators = &br7::KorvaneBrisaSolver::ActiveJointPos2ActuatorInput;
  static constexpr auto kToJoints = &br7::KorvaneBrisaSolver::ActuatorInput2ActiveJointPos;

  static void MakeSolver(KorvaneBrisa& hand, HandType type) {
    hand.solver = std::make_unique<br7::KorvaneBrisaSolver>(type == HandType::LEFT);
  }
};

struct TesselKinematics {
  static constexpr std::uint8_t kMotors = Known(Model::TESSEL).motors;
  static constexpr auto kToActuators = &ts9::KorvaneTesselSolver::ConvertJoint2Actuator;
  static constexpr auto kToJoints = &ts9::KorvaneTesselSolver::ConvertActuator2Joint;
};

}  // namespace talvera::korvane
