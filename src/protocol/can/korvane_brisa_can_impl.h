#pragma once

#include "hand/with_joint_angles.h"
#include "korvane_brisa.h"
#include "protocol/can/can_public_hand.h"

namespace talvera::korvane {

struct BrisaRow {
  static constexpr HandModel kModel = [] {
    HandModel model = CommonModel("KorvaneBrisaCanImpl", Model::BRISA);
    model.update_rules.checksum_fallback = true;
    model.update_rules.replies_from = ReplySenders::kAny;
    return model;
  }();

  static void Prepare(KorvaneBrisa& hand, std::uint8_t /*id*/, HandType type) {
    BrisaKinematics::MakeSolver(hand, type);
  }
};

/// The KorvaneBrisa over CAN FD: the common operations by its row, and what only it has, one-axis
/// tactile sensors and a solver with a log.
class KorvaneBrisaCanImpl
    : public WithJointAngles<RefusesReportPeriods<CanPublicMotorHand<KorvaneBrisa, BrisaRow>>,
                             BrisaKinematics> {
 public:
  using WithJointAngles::WithJointAngles;

  void ShowDataDetails(bool on) const override;

  std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorData() const override;
  TactileSensorData GetTactileSensorDataRaw(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override;
};

}  // namespace talvera::korvane
