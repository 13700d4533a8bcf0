#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "can/hand_on_can.h"
#include "hand/hand_members.h"
#include "protocol/service/can_service_engine.h"
#include "protocol/service/service_frame.h"
#include "protocol/service/setting_rows.h"
#include "protocol/service/with_service_readings.h"
#include "protocol/service/with_service_settings.h"
#include "util/bytes.h"

namespace talvera::korvane {

/// What SendStreamRequest takes, by the name that programs know.
using StreamCmd = ServiceCommand;

/// What hands on CAN with a service interface have in common: the service operations, and those
/// public ones that are the same commands. `Row` also states the differences of the settings.
template <class Model, class Row>
class CanServiceHand : public WithServiceReadings<
                           WithServiceSettings<HandOnCan<Model, Row, CanServiceEngine>, Row>> {
  using Base =
      WithServiceReadings<WithServiceSettings<HandOnCan<Model, Row, CanServiceEngine>, Row>>;
  using Byte = std::uint8_t;
  using Word = std::uint16_t;

 public:
  using Base::Base;

  /// The reply to any command. Throws std::runtime_error.
  CanfdFrame SendStreamRequest(StreamCmd command, const void* payload, std::uint8_t length) const {
    return engine_.RequestOrThrow(__func__, ServiceFrame(command, payload, length));
  }
  CanfdFrame SendStreamRequest(StreamCmd command) const {
    return SendStreamRequest(command, nullptr, 0);
  }

  // What every hand has

  VendorInfo GetVendorInfo() const override { return engine_.ReadVendorInfo(); }
  DeviceInfo GetDeviceInfo() const override { return engine_.ReadDeviceInfo(); }
  /// Sends nothing: requests don't bear the id.
  void SetDeviceId(Byte new_id) override {
    const auto operation = engine_.Operation(__func__);
    StoreDeviceId(*this, new_id);
  }
  /// What applications have always been told, whatever interval is set.
  int GetRequestInterval() const override {
    const auto operation = engine_.Operation(__func__);
    return 30;
  }

  // Positions

  int SetJointMotorPosi(Byte index, short position) override {
    const auto operation = engine_.Operation(__func__);
    if (!CheckArgument(IsMotor(index))) return -1;
    const auto payload = ServicePayload().Add8(index).Add16(static_cast<Word>(position));
    const auto echo = engine_.RequestPosition(__func__, ServiceCommand::kSetSingleAxisPos, payload);
    return echo ? int{*echo} : -1;
  }
  short GetJointMotorPosi(Byte index) const override {
    const auto operation = engine_.Operation(__func__);
    if (!CheckArgument(IsMotor(index))) return -1;
    const auto position = engine_.RequestPosition(__func__, ServiceCommand::kGetSingleAxisPos,
                                                  ServicePayload().Add8(index));
    return position ? static_cast<short>(*position) : short{-1};
  }
  std::vector<short> SetAllJointMotorPosi(const std::vector<short>& positions) override {
    const auto operation = engine_.Operation(__func__);
    if (!CheckArgument(positions.size() == kModel.motors)) return {};
    return engine_.template RequestPositions<short>(__func__, ServiceCommand::kSetAllAxisPos,
                                                    ServicePayload().AddAll(positions),
                                                    kModel.positions_reply);
  }
  std::vector<short> GetAllJointMotorPosi() const override {
    return engine_.template Read<short>(reading::kJointMotorPosi);
  }

  Word SetSingleAxisPos(Byte axis, Word pos) override {
    return MoveAxis(setting::kSingleAxisPos, axis, pos);
  }
  Word GetSingleAxisPos(Byte axis) const override {
    return ReadAxis(setting::kSingleAxisPos, __func__, ServiceCommand::kGetSingleAxisPos, axis);
  }
  Word SetSingleActualAxisPos(Byte axis, Word pos) override {
    return MoveAxis(setting::kSingleActualAxisPos, axis, pos);
  }
  Word GetSingleActualAxisPos(Byte axis) const override {
    return ReadAxis(setting::kSingleActualAxisPos, __func__,
                    ServiceCommand::kGetSingleActualAxisPos, axis);
  }
  SetAllAxisPosResponse SetAllAxisPos(const std::vector<Word>& positions) override {
    const auto operation = engine_.Operation(__func__);
    if (!CheckArgument(positions.size() == kModel.motors)) return {};
    return engine_.RequestAxisResponse(__func__, ServiceCommand::kSetAllAxisPos,
                                       ServicePayload().AddAll(positions),
                                       kModel.takes_positions_alone);
  }
  std::vector<Word> SetAllActualAxisPos(const std::vector<Word>& positions) override {
    const auto operation = engine_.Operation(__func__);
    if (!CheckArgument(positions.size() == kModel.motors)) return {};
    return engine_.template RequestPositions<Word>(__func__, ServiceCommand::kSetAllActualAxisPos,
                                                   ServicePayload().AddAll(positions),
                                                   1 + sizeof(Word) * kModel.motors);
  }
  /// Ten of each, also for a hand with fewer motors.
  SetAllAxisPosResponse SetPosSpeedCurData(const std::vector<Word>& pos,
                                           const std::vector<std::int16_t>& speed,
                                           const std::vector<Byte>& current) override {
    const auto operation = engine_.Operation(__func__);
    const bool of_all = pos.size() == kServiceAxes && speed.size() == kServiceAxes &&
                        current.size() == kServiceAxes;
    if (!CheckArgument(of_all)) return {};
    return engine_.RequestAxisResponse(__func__, ServiceCommand::kSetPosSpeedCurData,
                                       ServicePayload().AddAll(pos).AddAll(speed).AddAll(current),
                                       /*positions_alone=*/false);
  }
  std::vector<Word> GetAllAxisPos() const override { return ReadWords(reading::kAxisPos); }
  AxisLimitPos GetAxisLimitPos() const override { return engine_.ReadLimits(); }

  // States

  std::vector<Word> GetAllAxisCurrent() const override { return ReadWords(reading::kAxisCurrent); }
  std::vector<Word> GetAllAxisVelocity() const override {
    return ReadWords(reading::kAxisVelocity);
  }
  std::vector<Byte> GetAllAxisTemp() const override { return ReadBytes(reading::kAxisTemp); }
  std::vector<Byte> GetFingerTactileForce() const override {
    return ReadBytes(reading::kFingerTactileForce);
  }
  Word GetErrorCode() const override {
    const auto operation = engine_.Operation(__func__);
    const auto reply = engine_.RequestOrLog(__func__, ServiceCommand::kGetErrorCode);
    const std::uint8_t* const data = engine_.DataOf(reply, 3);
    return data != nullptr ? LoadU16(data) : Word{0};
  }

  // What the hand is

  ProductSerialNumber GetProductSerialNumber() const override { return engine_.ReadSerialNumber(); }
  FwVersion GetFwVersion() const override { return engine_.ReadFwVersion(); }

  Byte GetPowerState() const override {
    const auto operation = engine_.Operation(__func__);
    return engine_.ReadByte(__func__, ServiceCommand::kGetPowerState);
  }
  Byte SetControlSource(Byte source) override {
    const auto operation = engine_.Operation(__func__);
    if (!CheckArgument(source <= 1)) return 0;
    return engine_.ReadByte(__func__, ServiceCommand::kSetControlSource,
                            ServicePayload().Add8(source));
  }
  Byte GetControlSource() const override {
    const auto operation = engine_.Operation(__func__);
    return engine_.ReadByte(__func__, ServiceCommand::kGetControlSource);
  }

 protected:
  using Base::CheckArgument;
  using Base::engine_;
  static constexpr const ServiceModel& kModel = Row::kModel;

  static bool IsMotor(Byte index) { return index >= 1 && index <= kModel.motors; }
  /// Public operations refuse bad arguments silently here.
  bool CheckJointCount(std::size_t count) const { return CheckArgument(count == kModel.motors); }

  bool Execute(const char* operation, ServiceCommand command,
               const ServicePayload& payload) override {
    return engine_.IsAcknowledged(operation, command, payload);
  }

  std::vector<Word> ReadWords(const ServiceReading& reading) const override {
    return engine_.template Read<Word>(reading);
  }
  std::vector<Byte> ReadBytes(const ServiceReading& reading) const override {
    return engine_.template Read<Byte>(reading);
  }

 private:
  Word MoveAxis(const ServiceSetting& setting, Byte axis, Word pos) {
    const auto operation = engine_.Operation(setting.operation);
    if (!CheckArgument(setting.HasAxis(axis) && setting.InRange(pos))) return 0;
    return engine_
        .RequestPosition(setting.operation, setting.command, ServicePayload().Add8(axis).Add16(pos))
        .value_or(0);
  }
  Word ReadAxis(const ServiceSetting& setting, const char* operation, ServiceCommand command,
                Byte axis) const {
    const auto scope = engine_.Operation(operation);
    if (!CheckArgument(setting.HasAxis(axis))) return 0;
    return engine_.RequestPosition(operation, command, ServicePayload().Add8(axis)).value_or(0);
  }
};

}  // namespace talvera::korvane
