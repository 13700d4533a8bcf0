#pragma once

#include "impl/can_hand.h"
#include "korvane_brisa.h"

namespace talvera::korvane {

struct BrisaRow {
  static constexpr HandModel kModel{
      /*class_name=*/"KorvaneBrisaCanImpl",
      /*model_code=*/0,
      /*motors=*/10,
      /*family=*/0x100,
      /*wording=*/&kChineseWording,
      /*position=*/
      {function_code::kPosition, "GetJointMotorPosi", "GetAllJointMotorPosi", "SetJointMotorPosi",
       "SetAllJointMotorPosi", -1, 0, Way::kWaits, Way::kWaits, 20},
      /*velocity=*/
      {function_code::kVelocity, "GetJointMotorVelo", "GetAllJointMotorVelo", "SetJointMotorVelo",
       "SetAllJointMotorVelo", -1},
      /*control_mode=*/
      {function_code::kControlMode, "GetControlMode", "GetAllControlMode", "SetControlMode",
       "SetAllControlMode", 10, 0, Way::kSendsOnly, Way::kSendsOnly, 10,
       "[Error]: Failed to send control mode request"},
      /*threshold=*/
      {function_code::kThreshold, "GetCurrentThreshold", "GetAllCurrentThreshold",
       "SetCurrentThreshold", "SetAllCurrentThreshold", -1},
      /*error=*/
      {function_code::kError, "GetErrorReport", "GetAllErrorReport", "SetErrorReportPeriod",
       "SetAllErrorReportPeriod", 0},
      /*temperature=*/
      {function_code::kTemperature, "GetTemperatureReport", "GetAllTemperatureReport",
       "SetTemperReportPeriod", "SetAllTemperReportPeriod", 65535},
      /*current=*/
      {function_code::kCurrent, "GetCurrentReport", "GetAllCurrentReport", "SetCurrentReportPeriod",
       "SetAllCurrentReportPeriod", -1},
      /*mixed_priority=*/0,
      /*product_model_ends_at_nul=*/false,
      /*update=*/
      {"KorvaneBrisaCanImpl", 0x100, /*checksum_fallback=*/true, /*reply_of_any_device=*/true},
  };

  static void Prepare(KorvaneBrisa& hand, HandType type) {
    hand.solver = std::make_unique<br7::KorvaneBrisaSolver>(type == HandType::LEFT);
  }
};

/// The KorvaneBrisa over CAN FD: the common operations by its row, and what only it has, joint
/// angles and one-axis tactile sensors.
class KorvaneBrisaCanImpl : public CanHandWithoutReportPeriods<KorvaneBrisa, BrisaRow> {
 public:
  using CanHandWithoutReportPeriods::CanHandWithoutReportPeriods;

  /// The form for a TCP link, which is refused.
  KorvaneBrisaCanImpl(HandType hand, std::uint8_t id, const std::string& address,
                      unsigned short port, std::uint8_t channel);

  std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles) override;
  std::vector<double> GetAllActiveJointAngles() const override;
  std::vector<double> GetAllJointAngles() const override;
  std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const override;
  void ShowDataDetails(bool on) const override;

  std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorData() const override;
  TactileSensorData GetTactileSensorDataRaw(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override;
};

}  // namespace talvera::korvane
