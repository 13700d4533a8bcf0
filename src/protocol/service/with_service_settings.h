#pragma once

#include "link/diagnostics.h"
#include "private_korvane.h"
#include "protocol/service/setting_rows.h"

namespace talvera::korvane {

/// The settings of the service interface, over one way to send a command. `Base` is a service
/// class. `Settings` tells in what those of one hand on one link differ: `kHomingAxes`, how many
/// axes have a homing offset, and `kOverloadInTwoBytes`, whether an overload torque or time goes
/// out in two bytes or in its low one only.
template <class Base, class Settings>
class WithServiceSettings : public Base {
  using Byte = std::uint8_t;
  using Word = std::uint16_t;

 public:
  using Base::Base;

  bool SetPowerState(Byte state) override { return Set(setting::kPowerState, state); }
  bool SetId(Word id) override { return Set(setting::kId, id); }
  bool PlayAction(Byte action) override { return Set(setting::kPlayAction, action); }
  bool SetRightOrLeft(Byte side) override { return Set(setting::kRightOrLeft, side); }
  bool SetTemperatureThreshold(Byte threshold) override {
    return Set(setting::kTemperatureThreshold, threshold);
  }
  bool SetAllAxisCvpUploadInterval(Word interval) override {
    return Set(setting::kCvpUploadInterval, interval);
  }

  bool SetRunMode(Byte axis, Byte mode) override { return Set(setting::kRunMode, axis, mode); }
  bool SetAxisMinPos(Byte axis, Word pos) override { return Set(setting::kAxisMinPos, axis, pos); }
  bool SetAxisMaxPos(Byte axis, Word pos) override { return Set(setting::kAxisMaxPos, axis, pos); }
  bool SetMinTorque(Byte axis, Byte value) override {
    return Set(setting::kMinTorque, axis, value);
  }
  bool SetAxisHoming(Byte axis, std::int16_t value) override {
    return Set(setting::kAxisHoming.Axes(1, Settings::kHomingAxes), axis, value);
  }
  bool SaveParam() override { return SendCommand("SaveParam", ServiceCommand::kSaveParam); }
  bool SetOverloadTorque(Byte axis, Word torque) override {
    return Set(WithItsBytes(setting::kOverloadTorque), axis, torque);
  }
  bool ClearError() override { return SendCommand("ClearError", ServiceCommand::kClearError); }
  bool SetOverloadProtectionTime(Byte axis, Word time) override {
    return Set(WithItsBytes(setting::kOverloadProtectionTime), axis, time);
  }
  bool ClearAllLimitPos() override {
    return SendCommand("ClearAllLimitPos", ServiceCommand::kClearAllLimitPos);
  }
  bool SetProtectedTorque(Byte axis, Byte torque) override {
    return Set(setting::kProtectedTorque, axis, torque);
  }
  bool SetAllRunSpeed(const std::vector<std::int16_t>& speeds) override {
    return SendCommand("SetAllRunSpeed", ServiceCommand::kSetAllRunSpeed,
                       ServicePayload().AddAll(speeds), speeds.size() == kServiceAxes);
  }
  bool SetProtectiveCurrent(Byte axis, Word current) override {
    return Set(setting::kProtectiveCurrent, axis, current);
  }
  bool SetProductSerialNumber(const std::vector<Byte>& number) override {
    return SendCommand("SetProductSerialNumber", ServiceCommand::kSetProductSerialNumber,
                       ServicePayload().AddAll(number),
                       number.size() == sizeof(ProductSerialNumber));
  }

 protected:
  /// Sends the command and waits. True if the hand took it, as far as the link tells. False,
  /// silently, while the link isn't open.
  virtual bool Execute(const char* operation, ServiceCommand command,
                       const ServicePayload& payload) = 0;

  bool Set(const ServiceSetting& setting, int value) {
    return SendCommand(setting.operation, setting.command, Value(setting, ServicePayload(), value),
                       setting.InRange(value));
  }

  bool Set(const ServiceSetting& setting, Byte axis, int value) {
    return SendCommand(setting.operation, setting.command,
                       Value(setting, ServicePayload().Add8(axis), value),
                       setting.HasAxis(axis) && setting.InRange(value));
  }

  /// Returns `good`. If an argument is refused, that is recorded as the operation's failure, for
  /// which there is no line.
  bool CheckArgument(bool good) const {
    if (!good) {
      RecordFailure(this->Diagnostics(), FailureKind::BAD_ARGUMENT,
                    "an argument is out of its range, or a list has a wrong size");
    }
    return good;
  }

 private:
  bool SendCommand(const char* operation, ServiceCommand command,
                   const ServicePayload& payload = {}, bool good_arguments = true) {
    const OperationScope scope(this->Diagnostics(), operation);
    return CheckArgument(good_arguments) && Execute(operation, command, payload);
  }

  static constexpr ServiceSetting WithItsBytes(const ServiceSetting& setting) {
    return setting.TwoBytes(Settings::kOverloadInTwoBytes);
  }

  static ServicePayload Value(const ServiceSetting& setting, ServicePayload payload, int value) {
    const auto bits = static_cast<unsigned>(value);
    return setting.two_bytes ? payload.Add16(bits) : payload.Add8(bits);
  }
};

}  // namespace talvera::korvane
