#pragma once

#include "korvane_vanta.h"
#include "protocol/can/can_public_hand.h"

namespace talvera::korvane {

struct VantaRow {
  static constexpr HandModel kModel = [] {
    HandModel model = CommonModel("KorvaneVantaCanImpl", Model::VANTA);
    model.has_tcp_form = false;
    return model;
  }();

  static void Prepare(KorvaneVanta& hand, std::uint8_t id, HandType type) { hand.Reset(id, type); }
};

/// The KorvaneVanta over CAN FD: all by its row, with stand-ins for a kinematics that isn't known.
class KorvaneVantaCanImpl
    : public RefusesReportPeriods<CanPublicMotorHand<KorvaneVanta, VantaRow>> {
 public:
  using RefusesReportPeriods::RefusesReportPeriods;

  std::vector<double> GetAllActiveJointAngles() const override;
  std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles) override;
  std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const override;
  std::vector<double> GetAllJointAngles() const override;
};

}  // namespace talvera::korvane
