#pragma once

#include <cstdint>
#include <memory>

#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"
#include "korvane_tessel_solver.h"

namespace talvera::korvane {

/// The hand with twelve motors and five three-axis fingertip sensors.
///
/// It sends reports on its own, on the periods that SetTemperReportPeriod, SetCurrentReportPeriod
/// and SetErrorReportPeriod ask for. GetTemperatureReport, GetCurrentReport and their whole-hand
/// forms return the last report and ask nothing: 0 or nothing before the first one, and a value of
/// any age later. A single value is 0 too while the last report wasn't one of all twelve motors.
/// Faults are told in one line each, with every error report. On a bus with several hands of this
/// model the reports of each reach every object.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
///
/// Positions are 0 to 2000. With all joints at 0.0 rad, which is gesture 0, every motor stands at
/// 2000: there the fingers are open, and bent towards 0. Which end of the thumb's motors is open
/// the solver's tables don't tell. Which motor drives which active joint of the solver:
///
///     motor      joint                                       inputs at the joint's limits
///     1, 2       4 and 5: first finger, sideways, knuckle    0.0: 2000 both; knuckle 1.35: both
///                                                            10; sideways: one 450 below the other
///     3, 4       7 and 8: second finger, sideways, knuckle   as motors 1 and 2
///     5          1: thumb                                    0.0: 2000, -1.39: 140 (LEFT 0)
///     6          0: thumb                                    0.0: 2000, 0.94: 25 (LEFT 2000)
///     7          6: first finger, middle joint               0.0: 2000, 1.53: 31
///     8          9: second finger, middle joint              0.0: 2000, 1.82: 0
///     9          10: third finger                            0.0: 2000, 1.55: 0
///     10         11: fourth finger                           0.0: 2000, 1.54: 0
///     11         3: thumb                                    0.0: 2000, -1.29: 9
///     12         2: thumb                                    0.0: 2000, -0.83: 52
///
/// First to fourth finger are index, middle, ring and little in JointsOf (korvane_model.h). The
/// inputs of motors 7 and 8 also depend a little on the finger's other two joints.
///
/// What the operations return when they fail; KorvaneBase explains the words:
///
///     over CAN FD                                  bad          silent       waits
///     SetJointMotorPosi                            -1           -1           yes
///     GetJointMotorPosi, GetJointMotorVelo,
///       GetCurrentThreshold, GetErrorReport        0            0            yes
///     GetControlMode                               10           10           yes
///     SetAllJointMotorPosi,
///       SetAllActiveJointAngles                    empty        empty        yes
///     GetAllJointMotorPosi, GetAllJointMotorVelo,
///       GetAllControlMode (1),
///       GetAllCurrentThreshold, GetAllErrorReport,
///       GetAllActiveJointAngles, GetAllJointAngles              empty        yes
///     GetTemperatureReport, GetCurrentReport       0            last (2)     -
///     GetAllTemperatureReport,
///       GetAllCurrentReport                                     last (2)     -
///     SetCurrentThreshold, SetAllCurrentThreshold,
///       MixCtrlJointMotor,
///       SetAllErrorReportPeriod,
///       SetTemperReportPeriod                      line         line         yes
///     SetHandGesture                                            line         yes
///     GetAllJointPos                               empty                     -
///     SetJointMotorVelo, SetAllJointMotorVelo,
///       SetControlMode, SetAllControlMode,
///       SetErrorReportPeriod,
///       SetAllTemperReportPeriod,
///       SetCurrentReportPeriod,
///       SetAllCurrentReportPeriod                  line         none         no
///     GetTactileSensor3DData                       line, zeros  zeros        yes
///     GetVendorInfo, GetDeviceInfo                              empty        yes
///     SetDeviceId                                               none         no
///
/// 1. As many as the reply has bytes, at most 12.
/// 2. Of any age; empty before the first report. See above.
class KORVANE_EXPORT KorvaneTessel : public KorvaneBase,
                                     public CanFactories<KorvaneTessel>,
                                     public CanBroadcasts<KorvaneTessel> {
 public:
  /// Makes the object one for that id and that side, with a new solver; nothing is sent. The
  /// factories do so. Not while another call runs.
  void Reset(std::uint8_t device_id, HandType hand);

  /// Moves the hand into gesture 0 to 3. Any other number is gesture 0, all joints at zero. Asks
  /// the hand.
  void SetHandGesture(int gesture) override;

  /// Reads the sensor of one fingertip, THUMB to LITTLE. Asks the hand. All zero on failure, and,
  /// with a line of its own and nothing sent, for any other `finger`.
  virtual TactileSensor3DData GetTactileSensor3DData(Finger finger) const = 0;

  ~KorvaneTessel() override;

  /// Never null in a hand from a factory.
  std::unique_ptr<ts9::KorvaneTesselSolver> solver;
};

}  // namespace talvera::korvane
