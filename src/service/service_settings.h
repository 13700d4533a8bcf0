#pragma once

#include "private_korvane.h"
#include "service/service_command.h"

namespace talvera::korvane {

/// The settings of the service interface, over one way to send a command. `Base` is a service
/// class.
template <class Base>
class WithServiceSettings : public Base {
 public:
  using Base::Base;

  bool SetPowerState(std::uint8_t state) override { return Set(setting::kPowerState, state); }
  bool SetAxisHoming(std::uint8_t axis, std::int16_t value) override {
    return SetAxis(setting::kAxisHoming, axis, value);
  }
  bool SetId(std::uint16_t id) override { return Set(setting::kId, id); }
  bool SaveParam() override { return Execute("SaveParam", ServiceCommand::kSaveParam, {}); }
  bool ClearError() override { return Execute("ClearError", ServiceCommand::kClearError, {}); }
  bool PlayAction(std::uint8_t action) override { return Set(setting::kPlayAction, action); }
  bool SetRunMode(std::uint8_t axis, std::uint8_t mode) override {
    return SetAxis(setting::kRunMode, axis, mode);
  }
  bool SetAxisMinPos(std::uint8_t axis, std::uint16_t pos) override {
    return SetAxis(setting::kAxisMinPos, axis, pos);
  }
  bool SetAxisMaxPos(std::uint8_t axis, std::uint16_t pos) override {
    return SetAxis(setting::kAxisMaxPos, axis, pos);
  }
  bool ClearAllLimitPos() override {
    return Execute("ClearAllLimitPos", ServiceCommand::kClearAllLimitPos, {});
  }
  bool SetAllRunSpeed(const std::vector<std::int16_t>& speeds) override {
    return speeds.size() == 10 && Execute("SetAllRunSpeed", ServiceCommand::kSetAllRunSpeed,
                                          ServicePayload().AddAll(speeds));
  }
  bool SetOverloadTorque(std::uint8_t axis, std::uint16_t torque) override {
    return SetAxis(setting::kOverloadTorque, axis, torque);
  }
  bool SetOverloadProtectionTime(std::uint8_t axis, std::uint16_t time) override {
    return SetAxis(setting::kOverloadProtectionTime, axis, time);
  }
  bool SetProtectedTorque(std::uint8_t axis, std::uint8_t torque) override {
    return SetAxis(setting::kProtectedTorque, axis, torque);
  }
  bool SetMinTorque(std::uint8_t axis, std::uint8_t torque) override {
    return SetAxis(setting::kMinTorque, axis, torque);
  }
  bool SetProtectiveCurrent(std::uint8_t axis, std::uint16_t current) override {
    return SetAxis(setting::kProtectiveCurrent, axis, current);
  }
  bool SetAllAxisCvpUploadInterval(std::uint16_t interval) override {
    return Set(setting::kCvpUploadInterval, interval);
  }
  bool SetRightOrLeft(std::uint8_t side) override { return Set(setting::kRightOrLeft, side); }
  bool SetTemperatureThreshold(std::uint8_t threshold) override {
    return Set(setting::kTemperatureThreshold, threshold);
  }
  bool SetProductSerialNumber(const std::vector<std::uint8_t>& number) override {
    return number.size() == sizeof(ProductSerialNumber) &&
           Execute("SetProductSerialNumber", ServiceCommand::kSetProductSerialNumber,
                   ServicePayload().AddAll(number));
  }

 protected:
  /// Sends the command and waits. True if the hand took it, as far as the link tells. False,
  /// silently, while the link isn't open.
  virtual bool Execute(const char* operation, ServiceCommand command,
                       const ServicePayload& payload) = 0;

  bool Set(const ServiceSetting& setting, int value) {
    return setting.Takes(value) &&
           Execute(setting.operation, setting.command, Value(setting, ServicePayload(), value));
  }

  bool SetAxis(const ServiceSetting& setting, std::uint8_t axis, int value) {
    return setting.TakesAxis(axis) && setting.Takes(value) &&
           Execute(setting.operation, setting.command,
                   Value(setting, ServicePayload().Add8(axis), value));
  }

 private:
  static ServicePayload Value(const ServiceSetting& setting, ServicePayload payload, int value) {
    const auto bits = static_cast<unsigned>(value);
    return setting.value_bytes == 1 ? payload.Add8(bits) : payload.Add16(bits);
  }
};

}  // namespace talvera::korvane
