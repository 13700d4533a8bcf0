#pragma once

#include "hand/with_joint_angles.h"
#include "korvane_brisa.h"
#include "protocol/can/brisa_row.h"
#include "protocol/can/can_public_hand.h"

namespace talvera::korvane {

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
