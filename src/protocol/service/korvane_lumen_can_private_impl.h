#pragma once

#include "hand/hand_members.h"
#include "hand/refuses_report_periods.h"
#include "private_korvane_lumen.h"
#include "protocol/service/can_service_hand.h"

namespace talvera::korvane {

struct LumenServiceRow {
  static constexpr ServiceModel kModel = [] {
    ServiceModel model{};
    model.class_name = "KorvaneLumenCanPrivateImpl";
    model.model = Model::LUMEN;
    model.motors = model.most_limits = Known(model.model).motors;
    model.positions_reply = 9;
    model.takes_positions_alone = true;
    return model;
  }();
  static constexpr std::uint8_t kHomingAxes = kModel.motors;
  static constexpr bool kOverloadInTwoBytes = false;

  static void Prepare(KorvaneLumen& /*hand*/, std::uint8_t /*id*/, HandType /*type*/) {}
};

/// What the operations of a KorvaneLumen in the service protocol are built from.
class LumenService : public CanServiceHand<PrivateKorvaneLumen, LumenServiceRow> {
 public:
  using CanServiceHand::CanServiceHand;

 protected:
  void LogUnsupported(const char* operation) const;
  void RefusePeriods(const char* operation) const { LogUnsupported(operation); }
};

/// The KorvaneLumen in the service protocol over CAN, with both of its interfaces. One object of it
/// at a time on a bus.
class KorvaneLumenCanPrivateImpl : public RefusesReportPeriods<LumenService> {
 public:
  using RefusesReportPeriods::RefusesReportPeriods;

  // Motors
  void SetJointMotorVelo(std::uint8_t index, short velocity) override;
  void SetAllJointMotorVelo(const std::vector<short>& velocities) override;
  short GetJointMotorVelo(std::uint8_t index) const override;
  std::vector<short> GetAllJointMotorVelo() const override;

  // Reports
  unsigned short GetErrorReport(std::uint8_t index) const override;
  std::vector<unsigned short> GetAllErrorReport() const override;
  unsigned short GetTemperatureReport(std::uint8_t index) const override;
  std::vector<unsigned short> GetAllTemperatureReport() const override;
  short GetCurrentReport(std::uint8_t index) const override;
  std::vector<short> GetAllCurrentReport() const override;

  // There is no solver.
  std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles) override;
  std::vector<double> GetAllActiveJointAngles() const override;
  std::vector<double> GetAllJointAngles() const override;
  std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const override;

  // What the protocol doesn't have: nothing is sent, and each says so.
  void SetControlMode(std::uint8_t index, ControlMode mode) override;
  void SetAllControlMode(const std::vector<std::uint8_t>& modes) override;
  void SetCurrentThreshold(std::uint8_t index, short threshold) override;
  void SetAllCurrentThreshold(const std::vector<short>& thresholds) override;
  void MixCtrlJointMotor(const std::vector<MixCtrl>& targets) override;
  std::vector<std::uint8_t> GetFingertipSensor(std::uint8_t sensor) const override;
  std::vector<std::uint8_t> GetAllFingertipSensorA() const override;
  std::vector<std::uint8_t> GetAllFingertipSensorB() const override;
  std::vector<std::uint8_t> GetAllFingertipSensorC() const override;

 private:
  std::vector<std::uint8_t> LogNoSensors(const char* operation) const;
};

}  // namespace talvera::korvane
