#pragma once

#include "impl/can_hand.h"
#include "korvane_brisa.h"

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

/// The KorvaneBrisa over CAN FD: the common operations by its row, and what only it has, one-axis
/// tactile sensors and a solver with a log.
class KorvaneBrisaCanImpl
    : public WithJointAngles<WithoutReportPeriods<CanMotorHand<KorvaneBrisa, BrisaRow>>, BrisaRow> {
 public:
  using WithJointAngles::WithJointAngles;

  void ShowDataDetails(bool on) const override;

  std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorData() const override;
  TactileSensorData GetTactileSensorDataRaw(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override;
};

}  // namespace talvera::korvane
