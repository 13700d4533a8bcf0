#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ibr7_tactile_sensor_1d.h"
#include "korvane.h"
#include "korvane_brisa_solver.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The hand with ten motors and seven one-axis tactile sensors.
///
/// Made by one of the CanFactories, or on a serial port. For blocking, failures and threads see
/// Korvane.
///
/// Motor n moves active joint n - 1 of the solver, and 0 and 4096 are the ends of its range. Inputs
/// at the limits of the joint [rad], from the solver's tables:
///
///     motor       joint                RIGHT                        LEFT
///     1           thumb                -0.03: 4096, 1.12: 0         0.03: 4096, -1.12: 0
///     2           thumb                -1.64: 4096, 0.05: 0         -0.05: 4096, 1.64: 0
///     3           thumb, flexion       0: 4096, 0.84: 0             0: 4096, -0.84: 0
///     4           index, sideways      -0.16: 4096, 0: 0            0: 4096, 0.16: 0
///     5, 6, 8, 10 index, middle, ring, 0: 4096, 1.48: 0             0: 4096, 1.48: 0
///                 little: flexion
///     7           ring, sideways       0: 0, 0.17: 4096             0: 4096, -0.17: 0
///     9           little, sideways     0: 4096, 0.19: 0             0: 0, -0.19: 4096
///
/// So flexion is open, that is straight, at 4096 and closed at 0. A solver's angle comes within
/// some 50 units of these ends. Which end of motors 1 and 2 is open, and of the sideways ones, the
/// tables don't tell; note that motors 2, 4, 7 and 9 run the other way on the other side.
///
/// What the operations return when they fail; KorvaneBase explains the words.
///
///     over CAN FD                                  bad          silent       waits
///     SetJointMotorPosi                            -1           -1           yes
///     GetJointMotorPosi, GetJointMotorVelo,
///       GetCurrentThreshold, GetCurrentReport      -1           0            yes
///     GetTemperatureReport                         65535        0            yes
///     GetErrorReport                               0            0            yes
///     GetControlMode                               10           10           yes
///     SetAllJointMotorPosi,
///       SetAllActiveJointAngles                    empty        empty        yes
///     other operations named Get..All..                           empty        yes
///     SetControlMode, SetAllControlMode            line         none         no
///     other setters of motor values,
///       MixCtrlJointMotor                          line         line         yes
///     SetHandGesture                                            line         yes
///     GetAllJointPos                               empty                     -
///     six report period setters                    line         line         -
///     GetTactileSensorData                         throws       zeros        yes
///     GetAllTactileSensorData                                   7 x zeros    yes, 7 times
///     GetTactileSensorDataRaw                      throws       no data      yes
///     GetAllTactileSensorDataRaw                                empty        yes
///     GetVendorInfo, GetDeviceInfo                              empty        yes
///     SetDeviceId                                               none         no
///
///     on a serial port                             bad          silent       waits
///     SetJointMotorPosi                            -1           0 (1)        no
///     GetJointMotorPosi (2)                        -1           -1           yes
///     SetAllJointMotorPosi (3)                     empty        10 x last    reads after it
///     SetHandGesture                                            line         reads after it
///     GetAllJointPos                               empty                     -
///     GetAllJointMotorPosi                                      10 x last    yes
///     SetAllActiveJointAngles                      empty        of 10 x last reads after it
///     GetAllActiveJointAngles, GetAllJointAngles                of 10 x last yes
///     SetJointMotorVelo, SetAllJointMotorVelo,
///       MixCtrlJointMotor (4)                      line         none         no
///     GetJointMotorVelo                            0            0            yes
///     SetControlMode, SetCurrentThreshold          line         none         no
///     SetAllControlMode,
///       SetAllCurrentThreshold                     line         none         no; takes 20 ms
///     GetControlMode, GetCurrentThreshold          0            always 0     -
///     GetAllControlMode, GetAllCurrentThreshold                 always zeros -
///     GetErrorReport (5)                           0            0            yes
///     GetTemperatureReport                         65535        65535        yes
///     GetCurrentReport                             0            last         yes
///     GetAllJointMotorVelo, GetAllErrorReport,
///       GetAllTemperatureReport,
///       GetAllCurrentReport                                     empty        yes
///     six report period setters                    line         line         -
///     GetTactileSensorData (6)                     throws       zeros        yes
///     GetAllTactileSensorData (7)                               empty        yes, 3 times
///     GetTactileSensorDataRaw                      no data      no data      -
///     GetAllTactileSensorDataRaw                                empty        -
///     GetVendorInfo (9)                                         empty        yes, twice
///     GetDeviceInfo (8)                                         zeros        yes, or -
///     SetDeviceId (8)                                           none         no
///
/// 1. 0 is success here: the command was written. If it couldn't be written, or the port isn't
///    open, -1.
/// 2. Replies aren't looked at for their axis. The position may be one of another axis that was
///    asked for or moved before, as the answer to SetJointMotorPosi counts too. Use the element of
///    GetAllJointMotorPosi: at worst it is old, and never of another axis.
/// 3. Takes 10 elements or more, and sends the first 10. Empty if it couldn't be written.
/// 4. One command for all axes: position, velocity and current of whatever isn't named are sent as
///    0. Of the current only the high byte is sent. A target that isn't set is 0; nothing is
///    thrown.
/// 5. The hand tells one bit for all: every axis shows the same, 0 or 1.
/// 6. Any hand on the port answers, whatever its id.
/// 7. A group of sensors (1 to 3, 4 and 5, 6 and 7) that wasn't read is left out.
/// 8. The id is the one whose frames the port accepts: that of the first frame that came in, for
///    the life of the object. GetDeviceInfo asks only while there was none, and returns that id
///    also when the hand has gone. After SetDeviceId make a new object.
/// 9. An answer that nobody has read counts too, such as the one that GetDeviceInfo waited for: a
///    second call shows whether the hand is still there.
///
/// Serial reads that fail write their line to the standard output stream.
///
/// LastFailure and Checked (korvane_diagnostics.h) tell a failure also where this table has a value
/// that looks like a result, such as "10 x last". What doesn't wait fails only if it couldn't be
/// written, and GetDeviceInfo doesn't fail once it has an id.
class KORVANE_EXPORT KorvaneBrisa : public KorvaneBase,
                                    public IBR7TactileSensor1D,
                                    public CanFactories<KorvaneBrisa>,
                                    public CanBroadcasts<KorvaneBrisa> {
 public:
  /// A hand on the serial port `port`, such as "/dev/ttyUSB0", at `baud` bits per second, by
  /// RS-485. The port is opened at once; like the factories over CAN FD this never fails on a
  /// missing device. `device_id` is 1 to 127, `baud` 300 to 12000000, as far as the port's driver
  /// goes: one that refuses the rate gives a hand that isn't connected.
  ///
  /// The port belongs to one hand object, also among programs; a second one isn't connected, and a
  /// line says why.
  ///
  /// UpdateFirmware may throw over this link: what the serial library throws when the cable goes in
  /// the middle of a packet, a serial::SerialException, reaches the caller; catch it as a
  /// std::exception. The update has then failed, and nothing more is reported.
  ///
  /// Requests and replies aren't matched on this link: a request is answered by any frame, by
  /// events by any with its command, and a read takes the last reply of its kind that nobody has
  /// read. So one thread may call, also after EnableConcurrentCalls, which has no effect, and no
  /// program without this library may use the port: of two readers each gets a part of the bytes,
  /// and both miss replies.
  ///
  /// The first bytes that look like the head of a frame decide for the life of the object which
  /// hand's id it accepts. Noise on the line, such as when a cable is plugged in, can be such a
  /// head: the object is deaf then, every read fails, GetDeviceInfo shows an id that no hand has,
  /// and a new object helps.
  ///
  /// An RS-485 adapter that hears itself brings each request back as a reply: every set operation
  /// then succeeds without a hand, and reads end at the echo, before the hand's reply has come, so
  /// that they fail or give old values. Switch the echo off (a jumper of the adapter, or TIOCSRS485
  /// without SER_RS485_RX_DURING_TX).
  static std::unique_ptr<KorvaneBrisa> createHandByRs485(HandType hand, unsigned char device_id,
                                                         const std::string& port, int baud);

  /// The same by USB. The two links differ in nothing but the name of the port.
  static std::unique_ptr<KorvaneBrisa> createHandByUsb(HandType hand, unsigned char device_id,
                                                       const std::string& port, int baud);

  /// Moves the hand into gesture 0 to 16. Any other number straightens all joints. Asks the hand.
  void SetHandGesture(int gesture) override;

  std::size_t GetSensorDataLength(Finger finger) const override;
  const std::vector<Finger>& GetSensorOrder() const override;

  /// Reads the summary of one sensor: 25 bytes for PALM and DORSUM, 16 for the fingers. Asks the
  /// hand. All zero on failure. Throws std::invalid_argument ("Invalid finger type") for a `finger`
  /// outside 1 to 7, before anything is sent.
  virtual std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const = 0;

  /// Reads the summaries of all sensors, one request each, in the order of GetSensorOrder. Seven
  /// records, also when some of the requests failed.
  virtual std::vector<TactileSensorData> GetAllTactileSensorData() const = 0;

  ~KorvaneBrisa() override;

  /// Never null in a hand from a factory.
  std::unique_ptr<br7::KorvaneBrisaSolver> solver;
};

}  // namespace talvera::korvane
