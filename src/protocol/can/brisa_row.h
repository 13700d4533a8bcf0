#pragma once

#include <memory>

#include "korvane_brisa.h"
#include "protocol/can/hand_model.h"

namespace talvera::korvane {

struct BrisaRow {
  static constexpr HandModel kModel = [] {
    HandModel model = CommonModel("KorvaneBrisaCanImpl", 0, /*motors=*/10);
    model.update.checksum_fallback = true;
    model.update.replies_from = ReplySenders::kAny;
    return model;
  }();

  static void Prepare(KorvaneBrisa& hand, std::uint8_t /*id*/, HandType type) {
    hand.solver = std::make_unique<br7::KorvaneBrisaSolver>(type == HandType::LEFT);
  }
  static constexpr auto kToActuators = &br7::KorvaneBrisaSolver::ActiveJointPos2ActuatorInput;
  static constexpr auto kToJoints = &br7::KorvaneBrisaSolver::ActuatorInput2ActiveJointPos;
};

}  // namespace talvera::korvane
