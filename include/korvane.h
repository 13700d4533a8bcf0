#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "korvane_export.h"
#include "korvane_types.h"
#include "korvane_version.h"

namespace talvera::korvane {

/// What every hand has, whatever its model and its link.
///
/// A hand is made by a factory of its model class, such as KorvaneBrisa::createHandSocketCan, and
/// belongs to the std::unique_ptr that the factory returns. A factory never fails on a missing
/// device: it returns a hand whose `connected` is false and whose requests all fail.
///
/// Failures: an operation that fails writes one line to the standard error stream and returns the
/// failure value that its description names. Nothing is thrown, unless a description says so.
///
/// Blocking: an operation that asks the hand sends a frame, waits for the reply and returns as soon
/// as it is there; it gives up after the frame receive time-out (50 ms unless changed). Before that
/// it may wait for the request interval, for requests of other threads, and for the adapter's send
/// time-out. "Asks the hand" below means all of this.
///
/// Threads: one thread at a time may call operations of a hand. A program whose threads share a
/// hand calls EnableConcurrentCalls once, before they start; from then on any thread may call any
/// operation at any time, and requests go out one after the other. Two hands are independent of
/// each other. A hand must not be destroyed while a call on it runs.
///
/// One object for each hand: over CAN FD replies look like requests. Where two objects, or two
/// programs, ask the same hand on one bus, each may take the other's request for the reply to its
/// own, and then reads zeros without any failure, or a target that the other commanded. One program
/// asks a hand; others get from it what they need. PrivateKorvane, and a serial port, are stricter
/// still.
class KORVANE_EXPORT Korvane {
 public:
  /// 0 KorvaneBrisa, 1 KorvaneTessel, 2 KorvaneQuill, 3 KorvaneLumen, 4 KorvaneVanta.
  std::uint8_t model_code = 0;

  /// The hand's id on its link. Over CAN only its low seven bits count.
  std::uint8_t device_id = 0;

  /// True for HandType::LEFT.
  bool mirrored = false;

  /// The link could be opened. Says nothing of whether a hand answers on it, and stays as it is
  /// when an adapter is pulled out. An object on a SocketCAN interface goes on talking to the one
  /// that has gone, also if a new one bears its name: once the adapter is plugged in again, make
  /// the hand object anew.
  bool connected = false;

  Korvane() = default;
  Korvane(const Korvane&) = delete;
  Korvane& operator=(const Korvane&) = delete;

  /// Asks the hand what it is. Empty strings and zero numbers on failure.
  virtual VendorInfo GetVendorInfo() const = 0;

  /// Asks the hand which id it has. All zero on failure.
  virtual DeviceInfo GetDeviceInfo() const = 0;

  /// Switches the log of every frame, on the standard output stream, and of a KorvaneBrisa also the
  /// solver's log (not of a PrivateKorvaneBrisa over CAN). Doesn't block. May be called at any time
  /// from any thread.
  virtual void ShowDataDetails(bool on) const = 0;

  /// Minimum time between two requests, held to 0..100 ms (0..500 ms on a serial port); 0 at first.
  /// After EnableConcurrentCalls each waiting thread keeps the interval for itself, so that
  /// requests of several threads may follow each other at once: a hand that needs the gap is called
  /// from one thread. Doesn't block.
  virtual void SetRequestInterval(int ms) = 0;

  /// The request interval in force, in milliseconds. Doesn't block.
  virtual int GetRequestInterval() const = 0;

  /// How long a request waits for its reply, held to 10..1000 ms; 50 at first. Doesn't block.
  virtual void SetFrameRecvTimeout(int ms) = 0;

  /// The receive time-out in force, in milliseconds. Doesn't block.
  virtual int GetFrameRecvTimeout() const = 0;

  /// How long the adapter may take to send a frame, held to 0..10000 ms. Without effect on
  /// SocketCAN. On ZLG adapters 20 at first; on HCAN adapters 0 at first, which stands for 100.
  /// Doesn't block.
  virtual void SetFrameSendTimeout(int ms) = 0;

  /// The send time-out in force, in milliseconds; 0 where the adapter has none. Doesn't block.
  virtual int GetFrameSendTimeout() const = 0;

  /// Replaces the firmware of the hand by the file at `path`.
  ///
  /// Blocks until the update ends, which may take minutes; leave the hand alone meanwhile. On CAN
  /// no other hand object for this hand may exist then, in this program or another, even an idle
  /// one, unless it receives by events (korvane_link.h): it answers the replies, and the hand
  /// refuses what comes twice.
  ///
  /// `callback` is called with (current, total, status); OtaProgressStatus has a table of the
  /// statuses by link. Without a callback the same events are written to the standard streams. A
  /// model that can't update itself calls callback(-1, 0, FAILED) and returns.
  ///
  /// With FAILED, `current` says why ("service" is the service interface over CAN):
  ///
  /// | current | reason                                                                         |
  /// |---------|--------------------------------------------------------------------------------|
  /// | -1      | service: there is no link                                                      |
  /// | -2      | the file can't be opened                                                       |
  /// | -3      | the file is empty, is no regular file, can't be measured, or is too large for  |
  /// |         | the memory                                                                     |
  /// | -4      | no acknowledgment of the finish request; CAN and service: in 30 s, serial: 8 s |
  /// |         | serial: also, no good reply to three upgrade requests                          |
  /// |         | service: also, no reply to the upgrade request                                 |
  /// |         | KorvaneTessel, KorvaneQuill, KorvaneLumen: also, none to it in 5 s             |
  /// | -5      | no acknowledgment of the restart; CAN and service: in 30 s, serial: 2 s        |
  /// | -6      | packets not acknowledged; CAN: all in 300 s, service: each in 300 s,           |
  /// |         | serial: in 150 passes, in each of which at most one packet goes out            |
  /// | -7      | a packet failed the hand's check                                               |
  /// | others  | the status that the hand replied, as a signed number                           |
  ///
  /// FAILED isn't always the last report. Over CAN the receive thread reports an error status when
  /// the reply comes, and the update reports it once more when it ends, a failed check then as 1; a
  /// KorvaneTessel reports it only then, and so a failed check as 1. A KorvaneBrisa sends a first
  /// packet that failed the check again with the other checksum, so that success may follow a -7.
  /// Over serial a failed check mostly shows as 1.
  ///
  /// Over CAN nobody looks whether the frames of a packet went out. While the interface is down, or
  /// its queue full, they are lost, on SocketCAN without a line, and the run ends with -6.
  ///
  /// Nor does every failure have a report. Over CAN a hand without a link has only its line, and
  /// with a KorvaneBrisa or KorvaneVanta an upgrade request that nothing answers, too; one that
  /// can't be sent counts as such. Nobody looks whether all of the file could be read: what
  /// couldn't goes out as zeros, and LoadFirmwareOnly tells it before. Over serial an update after
  /// which the hand refuses to restart ends like a good one, and only LastFailure tells. What the
  /// serial library throws when the cable goes in the middle of a packet, or after it, is derived
  /// from std::exception and reaches the caller of UpdateFirmware, without a report.
  ///
  /// Threads: over CAN the statuses 3 to 6 and the FAILED of a reply come on the library's receive
  /// thread, the others on the caller's, and both may call at the same time. Over serial and on the
  /// service interface all calls come on the caller's thread. All go to the one function object
  /// that was given.
  ///
  /// The callback may still be called when UpdateFirmware has returned: over CAN a call that the
  /// receive thread is making goes on; and a KorvaneBrisa or KorvaneVanta whose update failed,
  /// other than by -2, -3 or -6, keeps it for late replies. What it uses must live until the next
  /// UpdateFirmware of this hand has returned, or the hand is destroyed.
  ///
  /// The callback must not throw, destroy the hand or call UpdateFirmware. On the receive thread it
  /// must not ask the hand: the reply couldn't come in.
  virtual void UpdateFirmware(const std::string& path,
                              std::function<void(int, int, OtaProgressStatus)> callback);

  /// Gives the hand another id, and speaks to that id from then on, whether or not the hand took
  /// it: the hand's acknowledgment isn't waited for. If the frame can't be sent the id stays.
  /// Nobody checks `new_id`: give one of 1 to 127 that no other hand on the bus has. Blocks only
  /// until it is the request's turn. Not while the hand is updated, which would go on under the new
  /// id.
  virtual void SetDeviceId(std::uint8_t new_id) = 0;

  virtual ~Korvane();
};

/// Motors, reports and joint angles. A model that lacks an operation keeps the default, which
/// sends nothing, writes nothing and returns the failure value.
///
/// Motor indices are 1 to the number of motors. Positions, velocities and thresholds are signed
/// 16-bit actuator units that reach the hand unchanged; joint angles are radians. A vector holds
/// one element for each motor, motor 1 first; one of the wrong size is refused with a line on the
/// standard error stream, and so is a bad index: nothing is sent then.
///
/// What stands below holds over CAN FD. The header of each model class has a table of what its
/// operations return when they fail, on each of its links, and whether they wait, since models and
/// links differ there. The words of those tables:
///
///     bad      a motor that doesn't exist, a vector of the wrong size or another argument that is
///              refused: nothing is sent
///     silent   the hand doesn't answer within the frame receive time-out, or over CAN FD the link
///              isn't open or can't send
///     waits    "yes": asks the hand, see Korvane; "no": sends and returns, so that nothing tells
///              whether a hand was there; "-": sends nothing
///     line     returns nothing, and writes a line
///     none     returns nothing, and writes nothing: the failure goes unseen, but for a frame that
///              couldn't even be sent, of which most operations write a line
///     last     the last value that the hand ever told this object, 0 before the first
///     empty    an empty vector, a record of empty texts and zeros, or one of zeros
///
/// Most failure values are readings that a hand may give too: a 0 alone doesn't tell "no answer".
/// An empty vector does, so prefer the operations for all motors wherever the table says "empty".
///
/// Units: position units are told by the model classes; joint angles are radians. The units of
/// velocities, currents, thresholds, temperatures and report periods are the hand's and aren't
/// known to the library, which passes the numbers on as they are. To find one out, measure beside
/// the hand, as PrivateKorvane describes.
class KORVANE_EXPORT KorvaneBase : public virtual Korvane {
 public:
  /// Moves one motor. Asks the hand. Returns the position that the hand echoes; -1 on a bad index
  /// and on failure.
  virtual int SetJointMotorPosi(std::uint8_t joint_motor_index, short position);

  /// Position of one motor. Asks the hand. 0 on failure; a bad index gives the model's own value,
  /// -1 or 0.
  virtual short GetJointMotorPosi(std::uint8_t joint_motor_index) const = 0;

  /// Moves all motors. Asks the hand. Returns the positions that the hand echoes, as many as its
  /// reply holds; empty on a wrong size and on failure.
  virtual std::vector<short> SetAllJointMotorPosi(const std::vector<short>& positions);

  /// Positions of all motors, as many as the hand's reply holds. Asks the hand. Empty on failure.
  virtual std::vector<short> GetAllJointMotorPosi() const = 0;

  /// Moves the active joints, in radians; angles beyond a joint's limits are clamped. Asks the
  /// hand. Returns the angles that the hand echoes; empty on a wrong size and on failure.
  virtual std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles);

  /// Angles of the active joints, in radians. Asks the hand. Empty on failure.
  virtual std::vector<double> GetAllActiveJointAngles() const;

  /// Angles of all joints, coupled ones included, in radians. Asks the hand. Empty on failure.
  virtual std::vector<double> GetAllJointAngles() const;

  /// Works out the angles of all joints from those of the active ones [rad]. Asks nobody. Empty,
  /// after a line, on a wrong size. Models without a solver have other values: KorvaneVanta returns
  /// its argument, PrivateKorvaneLumen four zeros; the default is empty, in KorvaneLumen after a
  /// line.
  virtual std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const;

  /// Sets the velocity of one motor. Asks the hand.
  virtual void SetJointMotorVelo(std::uint8_t joint_motor_index, short velocity);

  /// Velocity of one motor. Asks the hand. 0 on failure; a bad index gives the model's own value.
  virtual short GetJointMotorVelo(std::uint8_t joint_motor_index) const;

  /// Sets the velocities of all motors. Asks the hand.
  virtual void SetAllJointMotorVelo(const std::vector<short>& velocities);

  /// Velocities of all motors. Asks the hand. Empty on failure.
  virtual std::vector<short> GetAllJointMotorVelo() const;

  /// Sets the control mode of one motor. Sends, and doesn't wait for an answer.
  virtual void SetControlMode(std::uint8_t joint_motor_index, ControlMode mode);

  /// Control mode of one motor, 0 to 7. Asks the hand. 10 on a bad index and on failure; the
  /// default returns 0.
  virtual ControlMode GetControlMode(std::uint8_t joint_motor_index) const;

  /// Sets the control modes of all motors. Sends, and doesn't wait for an answer.
  virtual void SetAllControlMode(const std::vector<std::uint8_t>& modes);

  /// Control modes of all motors. Asks the hand. Empty on failure.
  virtual std::vector<std::uint8_t> GetAllControlMode() const;

  /// Sets the current threshold of one motor. Asks the hand.
  virtual void SetCurrentThreshold(std::uint8_t joint_motor_index, short threshold);

  /// Current threshold of one motor. Asks the hand. 0 on failure; a bad index gives the model's own
  /// value.
  virtual short GetCurrentThreshold(std::uint8_t joint_motor_index) const;

  /// Sets the current thresholds of all motors. Asks the hand.
  virtual void SetAllCurrentThreshold(const std::vector<short>& thresholds);

  /// Current thresholds of all motors. Asks the hand. Empty on failure.
  virtual std::vector<short> GetAllCurrentThreshold() const;

  /// Commands several joints at once. Asks the hand.
  ///
  /// `mix_mode` of the first element rules all of them: 4 needs `position` and `current`, 5 needs
  /// `velocity` and `current`, each for up to as many elements as the model has motors; 6 needs
  /// all three, for up to 8 elements. Another mode and an empty vector do nothing. Too many
  /// elements are refused. Throws std::bad_optional_access if a target that the mode needs isn't
  /// set, before anything is sent.
  virtual void MixCtrlJointMotor(const std::vector<MixCtrl>& targets);

  /// Error word of one motor. Asks the hand. 0 on a bad index and on failure. Of a KorvaneTessel
  /// bit 0 is stalled, 1 overheated, 2 overcurrent, 3 motor fault, 4 communication fault; other
  /// models are taken to use the same bits. A KorvaneBrisa on a serial port has 1 for every motor
  /// if any has an error.
  virtual unsigned short GetErrorReport(std::uint8_t joint_motor_index) const;

  /// Error words of all motors. Asks the hand. Empty on failure.
  virtual std::vector<unsigned short> GetAllErrorReport() const;

  /// Sets how often the hand reports the errors of one motor, in the hand's unit.
  virtual void SetErrorReportPeriod(std::uint8_t joint_motor_index, unsigned short period);

  /// Sets how often the hand reports the errors of each motor, in the hand's unit.
  virtual void SetAllErrorReportPeriod(std::vector<unsigned short> periods);

  /// Temperature of one motor, in the hand's unit. 0 on failure; a bad index gives the model's own
  /// value, 65535 or 0. Asks the hand, unless the model keeps the last report.
  virtual unsigned short GetTemperatureReport(std::uint8_t joint_motor_index) const;

  /// Temperatures of all motors. Empty on failure.
  virtual std::vector<unsigned short> GetAllTemperatureReport() const;

  /// Sets how often the hand reports the temperature of one motor, in the hand's unit.
  virtual void SetTemperReportPeriod(std::uint8_t joint_motor_index, unsigned short period);

  /// Sets how often the hand reports the temperature of each motor, in the hand's unit.
  virtual void SetAllTemperReportPeriod(std::vector<unsigned short> periods);

  /// Current of one motor, in the hand's unit. 0 on failure; a bad index gives the model's own
  /// value, -1 or 0. Asks the hand, unless the model keeps the last report.
  virtual short GetCurrentReport(std::uint8_t joint_motor_index) const;

  /// Currents of all motors. Empty on failure.
  virtual std::vector<short> GetAllCurrentReport() const;

  /// Sets how often the hand reports the current of one motor, in the hand's unit.
  virtual void SetCurrentReportPeriod(std::uint8_t joint_motor_index, unsigned short period);

  /// Sets how often the hand reports the current of each motor, in the hand's unit.
  virtual void SetAllCurrentReportPeriod(std::vector<unsigned short> periods);

  /// Moves the hand into one of its model's gestures. Asks the hand. Nothing in a model without
  /// gestures.
  virtual void SetHandGesture(int gesture);

  ~KorvaneBase() override;
};

/// Lets several threads call one hand at the same time.
///
/// By default a queue with priorities orders the requests of a hand. It is made for one calling
/// thread: when several threads wait in it, two of them can end up waiting for each other for
/// good. This function switches the queue off on the hand's link. Requests of several threads then
/// go out one at a time, in no particular order, and each caller gets the reply to its own request.
/// A program that calls a hand from one thread needs nothing of this.
///
/// Call it once, after the factory and before the second thread makes its first call. Returns
/// false, and changes nothing, if the hand's link has no such queue: a hand without a link, or one
/// on a serial link. Doesn't block.
KORVANE_EXPORT bool EnableConcurrentCalls(Korvane& hand);

}  // namespace talvera::korvane
