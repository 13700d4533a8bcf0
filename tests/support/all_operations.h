#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "korvane_brisa.h"
#include "support/service_calls.h"

// Every operation that a hand has, to ask them all the same question.

namespace talvera::korvane::test {

struct HandOperation {
  std::string name;
  std::function<std::string(KorvaneBase&)> call;
  /// The same with an argument that no hand takes; empty where there is none.
  std::function<std::string(KorvaneBase&)> bad_call = nullptr;
};

inline MixCtrl PositionTarget(std::uint8_t motor) {
  MixCtrl target{};
  target.joint_index = motor & 31;
  target.mix_mode = 4;
  target.position = short{100};
  target.current = short{600};
  return target;
}

/// The operations of KorvaneBase and Korvane, but for UpdateFirmware, with `motors` values each.
inline std::vector<HandOperation> HandOperations(std::size_t motors) {
  using Hand = KorvaneBase;
  const std::vector<short> all(motors, 1);
  const std::vector<short> many(41, 1);
  const std::vector<short> none;
  const std::vector<double> angles(motors, 0.1);
  const std::vector<unsigned short> periods(motors, 100);
  const std::vector<std::uint8_t> modes(motors, 4);
  const std::uint8_t bad = 21;
  return {
      {CALL(GetVendorInfo())},
      {CALL(GetDeviceInfo())},
      {CALL(SetJointMotorPosi(2, 5)), DOES(SetJointMotorPosi(bad, 5))},
      {CALL(GetJointMotorPosi(2)), DOES(GetJointMotorPosi(0))},
      {CALL(SetAllJointMotorPosi(all)), DOES(SetAllJointMotorPosi(none))},
      {CALL(GetAllJointMotorPosi())},
      {CALL(SetAllActiveJointAngles(angles)), DOES(SetAllActiveJointAngles({1.0}))},
      {CALL(GetAllActiveJointAngles())},
      {CALL(GetAllJointAngles())},
      {CALL(GetAllJointPos(angles)), DOES(GetAllJointPos({1.0}))},
      {CALL(SetJointMotorVelo(2, 5)), DOES(SetJointMotorVelo(bad, 5))},
      {CALL(GetJointMotorVelo(2)), DOES(GetJointMotorVelo(bad))},
      {CALL(SetAllJointMotorVelo(all)), DOES(SetAllJointMotorVelo(many))},
      {CALL(GetAllJointMotorVelo())},
      {CALL(SetControlMode(2, ControlMode::MODE_0)),
       DOES(SetControlMode(bad, ControlMode::MODE_0))},
      {CALL(GetControlMode(2)), DOES(GetControlMode(bad))},
      {CALL(SetAllControlMode(modes)), DOES(SetAllControlMode({1}))},
      {CALL(GetAllControlMode())},
      {CALL(SetCurrentThreshold(2, 5)), DOES(SetCurrentThreshold(bad, 5))},
      {CALL(GetCurrentThreshold(2)), DOES(GetCurrentThreshold(bad))},
      {CALL(SetAllCurrentThreshold(all)), DOES(SetAllCurrentThreshold(many))},
      {CALL(GetAllCurrentThreshold())},
      {CALL(MixCtrlJointMotor({PositionTarget(1)})),
       DOES(MixCtrlJointMotor(std::vector<MixCtrl>(21, PositionTarget(1))))},
      {CALL(GetErrorReport(2)), DOES(GetErrorReport(bad))},
      {CALL(GetAllErrorReport())},
      {CALL(SetErrorReportPeriod(2, 9)), DOES(SetErrorReportPeriod(bad, 9))},
      {CALL(SetAllErrorReportPeriod(periods)), DOES(SetAllErrorReportPeriod({1}))},
      {CALL(GetTemperatureReport(2)), DOES(GetTemperatureReport(bad))},
      {CALL(GetAllTemperatureReport())},
      {CALL(SetTemperReportPeriod(2, 9)), DOES(SetTemperReportPeriod(bad, 9))},
      {CALL(SetAllTemperReportPeriod(periods)), DOES(SetAllTemperReportPeriod({1}))},
      {CALL(GetCurrentReport(2)), DOES(GetCurrentReport(bad))},
      {CALL(GetAllCurrentReport())},
      {CALL(SetCurrentReportPeriod(2, 9)), DOES(SetCurrentReportPeriod(bad, 9))},
      {CALL(SetAllCurrentReportPeriod(periods)), DOES(SetAllCurrentReportPeriod({1}))},
      {CALL(SetHandGesture(1))},
      {CALL(SetRequestInterval(0))},
      {CALL(GetFrameRecvTimeout())},
      {CALL(SetDeviceId(0x27))},
  };
}

/// The tactile operations of a KorvaneBrisa.
inline std::vector<HandOperation> TouchOperations() {
  using Hand = KorvaneBrisa;
  return {{CALL(GetTactileSensorData(Finger::PALM))},
          {CALL(GetAllTactileSensorData())},
          {CALL(GetTactileSensorDataRaw(Finger::PALM))},
          {CALL(GetAllTactileSensorDataRaw())}};
}

/// The service operations as their table has them, for a hand with so many axes.
inline std::vector<HandOperation> ServiceOperations(std::uint8_t axes) {
  std::map<std::string, HandOperation> operations;
  const auto add = [&operations](const ServiceCall& row) {
    operations[row.name] = {row.name, row.call};
  };
  for (const ServiceRead& row : ServiceReads(axes) + FingertipReads()) add(row.call);
  for (const ServiceCall& row : Settings(axes, 1)) add(row);
  for (const auto& [row, result] : RefusedMotions(axes, ""))
    operations[row.name].bad_call = row.call;
  for (const ServiceCall& row : RefusedSettings(axes)) operations[row.name].bad_call = row.call;
  using Hand = PrivateKorvane;
  operations["GetSingleAxisPos"].bad_call = DOES(GetSingleAxisPos(0));
  operations["GetSingleActualAxisPos"].bad_call = DOES(GetSingleActualAxisPos(11));
  std::vector<HandOperation> all;
  all.reserve(operations.size());
  for (const auto& [name, operation] : operations) all.push_back(operation);
  return all;
}

}  // namespace talvera::korvane::test
