#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "can/hand_on_can.h"
#include "hand/refuses_report_periods.h"
#include "protocol/can/can_identifier.h"
#include "protocol/can/can_public_engine.h"
#include "util/log.h"

namespace talvera::korvane {

/// The operations that every hand on CAN has, over the engine.
template <class Model, class Row>
class CanPublicHand : public HandOnCan<Model, Row, CanPublicEngine> {
 public:
  using HandOnCan<Model, Row, CanPublicEngine>::HandOnCan;

  VendorInfo GetVendorInfo() const override { return engine_.ReadVendorInfo(); }
  DeviceInfo GetDeviceInfo() const override { return engine_.ReadDeviceInfo(); }
  void SetDeviceId(std::uint8_t new_id) override { engine_.WriteDeviceId(new_id); }

  short GetJointMotorPosi(std::uint8_t index) const override {
    return static_cast<short>(engine_.ReadMotor(Row::kModel.position, index));
  }
  std::vector<short> GetAllJointMotorPosi() const override {
    return engine_.template ReadAll<short>(Row::kModel.position);
  }

  void UpdateFirmware(const std::string& path, ProgressCallback callback) override {
    engine_.update_run.Run(path, std::move(callback));
  }

  /// Asks the hand how its last update ended, at most ten times; its row says with which pause.
  void GetUpgradeResult() { engine_.update_run.QueryResult(); }

  /// The steps of an update, as the receive thread takes them.
  void SendPackage() { engine_.update_run.SendPackage(); }
  void SendFinishRequest() { engine_.update_run.SendFinishRequest(); }
  void SendRestartRequest() { engine_.update_run.SendRestartRequest(); }

  /// What the engine makes of frames, for those who hold the hand itself.
  unsigned int GetMatchedRepId(unsigned int request_id) { return ReplyIdOf(request_id); }
  bool JudgeMsgMatch(unsigned int request_id, unsigned int received_id) {
    return engine_.Judge(request_id, received_id);
  }
  void ProcessMsg(const CanfdFrame& frame) { engine_.ProcessMessage(frame); }

 protected:
  using HandOnCan<Model, Row, CanPublicEngine>::engine_;

  bool CheckJointCount(std::size_t count) const { return engine_.CheckSize(count); }
};

/// The operations of hands whose motors can be commanded.
template <class Model, class Row>
class CanPublicMotorHand : public CanPublicHand<Model, Row> {
 public:
  using CanPublicHand<Model, Row>::CanPublicHand;

  int SetJointMotorPosi(std::uint8_t index, short position) override {
    return engine_.WriteMotor(kModel.position, index, Unsigned(position)).value_or(-1);
  }
  std::vector<short> SetAllJointMotorPosi(const std::vector<short>& positions) override {
    return engine_.WriteAllPositions(positions);
  }

  void SetJointMotorVelo(std::uint8_t index, short velocity) override {
    engine_.WriteMotor(kModel.velocity, index, Unsigned(velocity));
  }
  short GetJointMotorVelo(std::uint8_t index) const override {
    return static_cast<short>(engine_.ReadMotor(kModel.velocity, index));
  }
  void SetAllJointMotorVelo(const std::vector<short>& velocities) override {
    engine_.WriteAll(kModel.velocity, velocities);
  }
  std::vector<short> GetAllJointMotorVelo() const override {
    return engine_.template ReadAll<short>(kModel.velocity);
  }

  void SetControlMode(std::uint8_t index, ControlMode mode) override {
    engine_.WriteControlMode(index, mode);
  }
  ControlMode GetControlMode(std::uint8_t index) const override {
    return engine_.ReadControlMode(index);
  }
  void SetAllControlMode(const std::vector<std::uint8_t>& modes) override {
    engine_.WriteAllControlModes(modes);
  }
  std::vector<std::uint8_t> GetAllControlMode() const override {
    return engine_.ReadAllControlModes();
  }

  short GetCurrentThreshold(std::uint8_t index) const override {
    return static_cast<short>(engine_.ReadMotor(kModel.threshold, index));
  }
  std::vector<short> GetAllCurrentThreshold() const override {
    return engine_.template ReadAll<short>(kModel.threshold);
  }
  void SetCurrentThreshold(std::uint8_t index, short threshold) override {
    engine_.WriteMotor(kModel.threshold, index, Unsigned(threshold));
  }
  void SetAllCurrentThreshold(const std::vector<short>& thresholds) override {
    engine_.WriteAll(kModel.threshold, thresholds);
  }

  void MixCtrlJointMotor(const std::vector<MixCtrl>& targets) override {
    engine_.WriteMixed(targets);
  }

  unsigned short GetErrorReport(std::uint8_t index) const override {
    return static_cast<unsigned short>(engine_.ReadMotor(kModel.error, index));
  }
  std::vector<unsigned short> GetAllErrorReport() const override {
    return engine_.template ReadAll<unsigned short>(kModel.error);
  }
  unsigned short GetTemperatureReport(std::uint8_t index) const override {
    return static_cast<unsigned short>(engine_.ReadMotor(kModel.temperature, index));
  }
  std::vector<unsigned short> GetAllTemperatureReport() const override {
    return engine_.template ReadAll<unsigned short>(kModel.temperature);
  }
  short GetCurrentReport(std::uint8_t index) const override {
    return static_cast<short>(engine_.ReadMotor(kModel.current, index));
  }
  std::vector<short> GetAllCurrentReport() const override {
    return engine_.template ReadAll<short>(kModel.current);
  }

 protected:
  using CanPublicHand<Model, Row>::engine_;

  /// The lines name one model, whichever model it is, and the first of them in another spelling;
  /// log filters in the field match them as they are.
  void RefusePeriods(const char* name) const {
    const auto operation = engine_.Operation(name);
    const bool first = std::string_view(name) == "SetErrorReportPeriod";
    engine_.LogAndRecord(
        FailureKind::NOT_SUPPORTED,
        Compose("[Error]: ", name, " is not supported by ",
                first ? "Korvane Brisa" : "KorvaneBrisa", " (BR7) when DISABLE_FUNC is enabled."));
  }

 private:
  static constexpr const HandModel& kModel = Row::kModel;

  static std::uint16_t Unsigned(short value) { return static_cast<std::uint16_t>(value); }
};

}  // namespace talvera::korvane
