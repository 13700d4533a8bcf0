#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "korvane.h"

// Every operation that a hand has, to ask them all the same question.

namespace talvera::korvane::test {

template <class Hand>
struct AnyOperation {
  using Call = std::function<void(Hand&)>;

  AnyOperation(std::string operation, Call good, Call bad = {})
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

}  // namespace talvera::korvane::test
