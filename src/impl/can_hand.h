#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "impl/can_hand_engine.h"
#include "impl/can_identifier.h"
#include "util/log.h"

namespace talvera::korvane {

/// The operations that every hand on CAN has, over the engine. `Model` is the model class that
/// applications see; `Row` is a type with the model's row as `kModel`.
template <class Model, class Row>
class CanHand : public Model, public CanLinkOwner, public UpdateState {
 public:
  using RowType = Row;

  /// Takes a ready transport, or none. The other constructors make theirs and delegate to this.
  CanHand(HandType hand, std::uint8_t id, std::unique_ptr<CanBusDeviceBase> transport)
      : engine_(Row::kModel, *this, *this, std::move(transport)) {
    Row::Prepare(*this, id, hand);
    engine_.Start(hand, id);
  }

  /// A bare nullptr is no transport, and no interface name either.
  CanHand(HandType hand, std::uint8_t id, std::nullptr_t)
      : CanHand(hand, id, std::unique_ptr<CanBusDeviceBase>()) {}

  CanHand(HandType hand, std::uint8_t id, std::uint8_t adapter_index, std::uint8_t channel,
          ECanDeviceType type)
      : CanHand(hand, id, MakeAdapter(type, adapter_index, channel, Row::kModel.model_code)) {}

  CanHand(HandType hand, std::uint8_t id, const std::string& serial_number, std::uint8_t channel,
          ECanDeviceType type)
      : CanHand(hand, id, MakeAdapter(type, serial_number, channel, Row::kModel.model_code)) {}

  CanHand(HandType hand, std::uint8_t id, const std::string& interface_name)
      : CanHand(hand, id, MakeSocketCan(interface_name)) {}

  /// The form for a TCP link, which some of the models have and refuse.
  template <class R = Row, std::enable_if_t<R::kModel.has_tcp_form, int> = 0>
  CanHand(HandType hand, std::uint8_t id, const std::string& /*address*/, unsigned short /*port*/,
          std::uint8_t /*channel*/)
      : CanHand(hand, id, RefuseTcp(Row::kModel.class_name)) {}

  VendorInfo GetVendorInfo() const override { return engine_.ReadVendorInfo(); }
  DeviceInfo GetDeviceInfo() const override { return engine_.ReadDeviceInfo(); }
  void SetDeviceId(std::uint8_t new_id) override { engine_.WriteDeviceId(new_id); }

  void ShowDataDetails(bool on) const override { engine_.ShowDataDetails(on); }
  void SetRequestInterval(int ms) override { engine_.SetRequestInterval(ms); }
  int GetRequestInterval() const override { return engine_.GetRequestInterval(); }
  void SetFrameRecvTimeout(int ms) override { engine_.SetFrameRecvTimeout(ms); }
  int GetFrameRecvTimeout() const override { return engine_.GetFrameRecvTimeout(); }
  void SetFrameSendTimeout(int ms) override { engine_.SetFrameSendTimeout(ms); }
  int GetFrameSendTimeout() const override { return engine_.GetFrameSendTimeout(); }

  short GetJointMotorPosi(std::uint8_t index) const override {
    return static_cast<short>(engine_.ReadMotor(Row::kModel.position, index));
  }
  std::vector<short> GetAllJointMotorPosi() const override {
    return engine_.ReadAll<short>(Row::kModel.position);
  }

  void UpdateFirmware(const std::string& path, ProgressCallback callback) override {
    engine_.update.Run(path, std::move(callback));
  }

  /// Asks the hand, up to ten times a second apart, how its last update ended.
  void GetUpgradeResult() { engine_.update.QueryResult(); }

  /// The steps of an update, as the receive thread takes them.
  void SendPackage() { engine_.update.SendPackage(); }
  void SendFinishRequest() { engine_.update.SendFinishRequest(); }
  void SendRestartRequest() { engine_.update.SendRestartRequest(); }

  /// What the transport calls, on its receive thread.
  unsigned int GetMatchedRepId(unsigned int request_id) { return ReplyIdOf(request_id); }
  bool JudgeMsgMatch(unsigned int request_id, unsigned int received_id) {
    return engine_.Judge(request_id, received_id);
  }
  void ProcessMsg(const CanfdFrame& frame) { engine_.ProcessMessage(frame); }

  CanLink& Link() override { return engine_; }

 protected:
  bool CheckJointCount(std::size_t count) const { return engine_.CheckSize(count); }

  CanHandEngine engine_;
};

/// The operations of hands whose motors can be commanded.
template <class Model, class Row>
class CanMotorHand : public CanHand<Model, Row> {
 public:
  using CanHand<Model, Row>::CanHand;

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
  using CanHand<Model, Row>::engine_;

 private:
  static constexpr const HandModel& kModel = Row::kModel;

  static std::uint16_t Unsigned(short value) { return static_cast<std::uint16_t>(value); }
};

/// Hands whose firmware sends no reports on a period: the six setters only say so. The lines name
/// one model, whichever model it is, and the first of them in another spelling; log filters in the
/// field match them as they are.
template <class Base>
class WithoutReportPeriods : public Base {
 public:
  using Base::Base;

  void SetErrorReportPeriod(std::uint8_t, unsigned short) override {
    TellUnsupported("SetErrorReportPeriod", "Korvane Brisa");
  }
  void SetAllErrorReportPeriod(std::vector<unsigned short>) override {
    TellUnsupported("SetAllErrorReportPeriod");
  }
  void SetTemperReportPeriod(std::uint8_t, unsigned short) override {
    TellUnsupported("SetTemperReportPeriod");
  }
  void SetAllTemperReportPeriod(std::vector<unsigned short>) override {
    TellUnsupported("SetAllTemperReportPeriod");
  }
  void SetCurrentReportPeriod(std::uint8_t, unsigned short) override {
    TellUnsupported("SetCurrentReportPeriod");
  }
  void SetAllCurrentReportPeriod(std::vector<unsigned short>) override {
    TellUnsupported("SetAllCurrentReportPeriod");
  }

 private:
  static void TellUnsupported(const char* operation, const char* model = "KorvaneBrisa") {
    LogError(Compose("[Error]: ", operation, " is not supported by ", model,
                     " (BR7) when DISABLE_FUNC is enabled."));
  }
};

}  // namespace talvera::korvane
