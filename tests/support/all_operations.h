#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "korvane_brisa.h"
#include "private_korvane.h"

// Every operation that a hand has, to ask them all the same question.

namespace talvera::korvane::test {

template <class Hand>
struct AnyOperation {
  using Call = std::function<void(Hand&)>;

  AnyOperation(std::string operation, Call good, Call bad = nullptr)
      : name(std::move(operation)), call(std::move(good)), bad_call(std::move(bad)) {}

  std::string name;
  Call call;
  /// The same with an argument that no hand takes; empty where there is none.
  Call bad_call;
};

using HandOperation = AnyOperation<KorvaneBase>;

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
  using Hand = KorvaneBase&;
  const std::vector<short> all(motors, 1);
  const std::vector<short> many(41, 1);
  const std::vector<short> none;
  const std::vector<double> angles(motors, 0.1);
  const std::vector<unsigned short> periods(motors, 100);
  const std::vector<std::uint8_t> modes(motors, 4);
  const std::uint8_t bad = 21;
  return {
      {"GetVendorInfo", [](Hand h) { h.GetVendorInfo(); }},
      {"GetDeviceInfo", [](Hand h) { h.GetDeviceInfo(); }},
      {"SetJointMotorPosi", [](Hand h) { h.SetJointMotorPosi(2, 5); },
       [=](Hand h) { h.SetJointMotorPosi(bad, 5); }},
      {"GetJointMotorPosi", [](Hand h) { h.GetJointMotorPosi(2); },
       [](Hand h) { h.GetJointMotorPosi(0); }},
      {"SetAllJointMotorPosi", [=](Hand h) { h.SetAllJointMotorPosi(all); },
       [=](Hand h) { h.SetAllJointMotorPosi(none); }},
      {"GetAllJointMotorPosi", [](Hand h) { h.GetAllJointMotorPosi(); }},
      {"SetAllActiveJointAngles", [=](Hand h) { h.SetAllActiveJointAngles(angles); },
       [](Hand h) { h.SetAllActiveJointAngles({1.0}); }},
      {"GetAllActiveJointAngles", [](Hand h) { h.GetAllActiveJointAngles(); }},
      {"GetAllJointAngles", [](Hand h) { h.GetAllJointAngles(); }},
      {"GetAllJointPos", [=](Hand h) { h.GetAllJointPos(angles); },
       [](Hand h) { h.GetAllJointPos({1.0}); }},
      {"SetJointMotorVelo", [](Hand h) { h.SetJointMotorVelo(2, 5); },
       [=](Hand h) { h.SetJointMotorVelo(bad, 5); }},
      {"GetJointMotorVelo", [](Hand h) { h.GetJointMotorVelo(2); },
       [=](Hand h) { h.GetJointMotorVelo(bad); }},
      {"SetAllJointMotorVelo", [=](Hand h) { h.SetAllJointMotorVelo(all); },
       [=](Hand h) { h.SetAllJointMotorVelo(many); }},
      {"GetAllJointMotorVelo", [](Hand h) { h.GetAllJointMotorVelo(); }},
      {"SetControlMode", [](Hand h) { h.SetControlMode(2, ControlMode::MODE_0); },
       [=](Hand h) { h.SetControlMode(bad, ControlMode::MODE_0); }},
      {"GetControlMode", [](Hand h) { h.GetControlMode(2); },
       [=](Hand h) { h.GetControlMode(bad); }},
      {"SetAllControlMode", [=](Hand h) { h.SetAllControlMode(modes); },
       [](Hand h) { h.SetAllControlMode({1}); }},
      {"GetAllControlMode", [](Hand h) { h.GetAllControlMode(); }},
      {"SetCurrentThreshold", [](Hand h) { h.SetCurrentThreshold(2, 5); },
       [=](Hand h) { h.SetCurrentThreshold(bad, 5); }},
      {"GetCurrentThreshold", [](Hand h) { h.GetCurrentThreshold(2); },
       [=](Hand h) { h.GetCurrentThreshold(bad); }},
      {"SetAllCurrentThreshold", [=](Hand h) { h.SetAllCurrentThreshold(all); },
       [=](Hand h) { h.SetAllCurrentThreshold(many); }},
      {"GetAllCurrentThreshold", [](Hand h) { h.GetAllCurrentThreshold(); }},
      {"MixCtrlJointMotor", [](Hand h) { h.MixCtrlJointMotor({PositionTarget(1)}); },
       [](Hand h) { h.MixCtrlJointMotor(std::vector<MixCtrl>(21, PositionTarget(1))); }},
      {"GetErrorReport", [](Hand h) { h.GetErrorReport(2); },
       [=](Hand h) { h.GetErrorReport(bad); }},
      {"GetAllErrorReport", [](Hand h) { h.GetAllErrorReport(); }},
      {"SetErrorReportPeriod", [](Hand h) { h.SetErrorReportPeriod(2, 9); },
       [=](Hand h) { h.SetErrorReportPeriod(bad, 9); }},
      {"SetAllErrorReportPeriod", [=](Hand h) { h.SetAllErrorReportPeriod(periods); },
       [](Hand h) { h.SetAllErrorReportPeriod({1}); }},
      {"GetTemperatureReport", [](Hand h) { h.GetTemperatureReport(2); },
       [=](Hand h) { h.GetTemperatureReport(bad); }},
      {"GetAllTemperatureReport", [](Hand h) { h.GetAllTemperatureReport(); }},
      {"SetTemperReportPeriod", [](Hand h) { h.SetTemperReportPeriod(2, 9); },
       [=](Hand h) { h.SetTemperReportPeriod(bad, 9); }},
      {"SetAllTemperReportPeriod", [=](Hand h) { h.SetAllTemperReportPeriod(periods); },
       [](Hand h) { h.SetAllTemperReportPeriod({1}); }},
      {"GetCurrentReport", [](Hand h) { h.GetCurrentReport(2); },
       [=](Hand h) { h.GetCurrentReport(bad); }},
      {"GetAllCurrentReport", [](Hand h) { h.GetAllCurrentReport(); }},
      {"SetCurrentReportPeriod", [](Hand h) { h.SetCurrentReportPeriod(2, 9); },
       [=](Hand h) { h.SetCurrentReportPeriod(bad, 9); }},
      {"SetAllCurrentReportPeriod", [=](Hand h) { h.SetAllCurrentReportPeriod(periods); },
       [](Hand h) { h.SetAllCurrentReportPeriod({1}); }},
      {"SetHandGesture", [](Hand h) { h.SetHandGesture(1); }},
      {"SetRequestInterval", [](Hand h) { h.SetRequestInterval(0); }},
      {"GetFrameRecvTimeout", [](Hand h) { h.GetFrameRecvTimeout(); }},
      {"SetDeviceId", [](Hand h) { h.SetDeviceId(h.device_id); }},
  };
}

/// Asks another face of a hand.
template <class Face>
std::vector<HandOperation> OperationsOf(const std::vector<AnyOperation<Face>>& operations) {
  using Call = HandOperation::Call;
  const auto of_hand = [](const std::function<void(Face&)>& call) -> Call {
    if (!call) return nullptr;
    return [call](KorvaneBase& hand) { call(dynamic_cast<Face&>(hand)); };
  };
  std::vector<HandOperation> same;
  same.reserve(operations.size());
  for (const auto& [name, call, bad_call] : operations) {
    same.emplace_back(name, of_hand(call), of_hand(bad_call));
  }
  return same;
}

/// The tactile operations of a KorvaneBrisa.
inline std::vector<HandOperation> TouchOperations() {
  using Hand = KorvaneBrisa&;
  const std::vector<AnyOperation<KorvaneBrisa>> operations = {
      {"GetTactileSensorData", [](Hand h) { h.GetTactileSensorData(Finger::PALM); }},
      {"GetAllTactileSensorData", [](Hand h) { h.GetAllTactileSensorData(); }},
      {"GetTactileSensorDataRaw", [](Hand h) { h.GetTactileSensorDataRaw(Finger::PALM); }},
      {"GetAllTactileSensorDataRaw", [](Hand h) { h.GetAllTactileSensorDataRaw(); }},
  };
  return OperationsOf(operations);
}

/// The service operations, with `motors` values where a hand's own number counts.
inline std::vector<HandOperation> ServiceOperations(std::size_t motors) {
  using Hand = PrivateKorvane&;
  const std::vector<std::uint16_t> all(motors, 9);
  const std::vector<std::uint16_t> ten(10, 9);
  const std::vector<std::int16_t> speeds(10, 9);
  const std::vector<std::uint8_t> bytes(10, 9);
  const std::vector<std::uint8_t> number(19, 'N');
  const std::vector<AnyOperation<PrivateKorvane>> operations = {
      {"SetPowerState", [](Hand h) { h.SetPowerState(1); }},
      {"GetPowerState", [](Hand h) { h.GetPowerState(); }},
      {"SetAxisHoming", [](Hand h) { h.SetAxisHoming(1, 0); },
       [](Hand h) { h.SetAxisHoming(11, 0); }},
      {"SetId",
       [](Hand h) { h.SetId(static_cast<std::uint16_t>(dynamic_cast<Korvane&>(h).device_id)); },
       [](Hand h) { h.SetId(0); }},
      {"SaveParam", [](Hand h) { h.SaveParam(); }},
      {"SetSingleAxisPos", [](Hand h) { h.SetSingleAxisPos(2, 9); },
       [](Hand h) { h.SetSingleAxisPos(2, 4097); }},
      {"GetSingleAxisPos", [](Hand h) { h.GetSingleAxisPos(2); },
       [](Hand h) { h.GetSingleAxisPos(0); }},
      {"SetAllAxisPos", [=](Hand h) { h.SetAllAxisPos(all); }, [](Hand h) { h.SetAllAxisPos({}); }},
      {"GetAllAxisPos", [](Hand h) { h.GetAllAxisPos(); }},
      {"GetAllAxisCurrent", [](Hand h) { h.GetAllAxisCurrent(); }},
      {"GetAllAxisVelocity", [](Hand h) { h.GetAllAxisVelocity(); }},
      {"GetAllAxisTemp", [](Hand h) { h.GetAllAxisTemp(); }},
      {"GetErrorCode", [](Hand h) { h.GetErrorCode(); }},
      {"ClearError", [](Hand h) { h.ClearError(); }},
      {"PlayAction", [](Hand h) { h.PlayAction(1); }},
      {"GetAllAxisPosRange", [](Hand h) { h.GetAllAxisPosRange(); }},
      {"GetFingertipSensor", [](Hand h) { h.GetFingertipSensor(2); }},
      {"GetAllFingertipSensorA", [](Hand h) { h.GetAllFingertipSensorA(); }},
      {"GetAllFingertipSensorB", [](Hand h) { h.GetAllFingertipSensorB(); }},
      {"GetAllFingertipSensorC", [](Hand h) { h.GetAllFingertipSensorC(); }},
      {"SetRunMode", [](Hand h) { h.SetRunMode(2, 4); }},
      {"SetSingleActualAxisPos", [](Hand h) { h.SetSingleActualAxisPos(2, 9); },
       [](Hand h) { h.SetSingleActualAxisPos(11, 9); }},
      {"GetSingleActualAxisPos", [](Hand h) { h.GetSingleActualAxisPos(2); },
       [](Hand h) { h.GetSingleActualAxisPos(11); }},
      {"SetAllActualAxisPos", [=](Hand h) { h.SetAllActualAxisPos(all); },
       [](Hand h) { h.SetAllActualAxisPos({}); }},
      {"GetAllActualAxisPos", [](Hand h) { h.GetAllActualAxisPos(); }},
      {"GetAllLoadData", [](Hand h) { h.GetAllLoadData(); }},
      {"SetAxisMinPos", [](Hand h) { h.SetAxisMinPos(2, 0); },
       [](Hand h) { h.SetAxisMinPos(13, 0); }},
      {"SetAxisMaxPos", [](Hand h) { h.SetAxisMaxPos(2, 4096); },
       [](Hand h) { h.SetAxisMaxPos(2, 4097); }},
      {"ClearAllLimitPos", [](Hand h) { h.ClearAllLimitPos(); }},
      {"SetAllRunSpeed", [=](Hand h) { h.SetAllRunSpeed(speeds); },
       [](Hand h) { h.SetAllRunSpeed({}); }},
      {"SetOverloadTorque", [](Hand h) { h.SetOverloadTorque(2, 9); },
       [](Hand h) { h.SetOverloadTorque(2, 1001); }},
      {"SetOverloadProtectionTime", [](Hand h) { h.SetOverloadProtectionTime(2, 9); }},
      {"SetProtectedTorque", [](Hand h) { h.SetProtectedTorque(2, 9); },
       [](Hand h) { h.SetProtectedTorque(2, 101); }},
      {"SetMinTorque", [](Hand h) { h.SetMinTorque(2, 9); }, [](Hand h) { h.SetMinTorque(0, 9); }},
      {"SetProtectiveCurrent", [](Hand h) { h.SetProtectiveCurrent(2, 9); },
       [](Hand h) { h.SetProtectiveCurrent(2, 3251); }},
      {"GetAllElectricMotorId", [](Hand h) { h.GetAllElectricMotorId(); }},
      {"GetAllSensorId", [](Hand h) { h.GetAllSensorId(); }},
      {"SetAllAxisCvpUploadInterval", [](Hand h) { h.SetAllAxisCvpUploadInterval(0); }},
      {"GetAllAxisCvp", [](Hand h) { h.GetAllAxisCvp(); }},
      {"GetAxisLimitPos", [](Hand h) { h.GetAxisLimitPos(); }},
      {"SetRightOrLeft", [](Hand h) { h.SetRightOrLeft(1); }, [](Hand h) { h.SetRightOrLeft(2); }},
      {"SetPosSpeedCurData", [=](Hand h) { h.SetPosSpeedCurData(ten, speeds, bytes); },
       [=](Hand h) { h.SetPosSpeedCurData(ten, speeds, {}); }},
      {"GetFingerTactileForce", [](Hand h) { h.GetFingerTactileForce(); }},
      {"SetTemperatureThreshold", [](Hand h) { h.SetTemperatureThreshold(90); }},
      {"SetControlSource", [](Hand h) { h.SetControlSource(1); },
       [](Hand h) { h.SetControlSource(2); }},
      {"GetControlSource", [](Hand h) { h.GetControlSource(); }},
      {"SetProductSerialNumber", [=](Hand h) { h.SetProductSerialNumber(number); },
       [](Hand h) { h.SetProductSerialNumber({}); }},
      {"GetProductSerialNumber", [](Hand h) { h.GetProductSerialNumber(); }},
      {"GetFwVersion", [](Hand h) { h.GetFwVersion(); }},
  };
  return OperationsOf(operations);
}

}  // namespace talvera::korvane::test
