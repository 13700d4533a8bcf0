#pragma once

#include <cstdint>
#include <vector>

#include "korvane_export.h"
#include "korvane_types.h"

namespace talvera::korvane {

/// The limits of each axis, in positions. Both lists are empty if they couldn't be read.
struct AxisLimitPos {
  std::vector<std::uint16_t> lower;  ///< Lower limits, axis 1 first.
  std::vector<std::uint16_t> upper;  ///< Upper limits, axis 1 first.
};

/// What each axis did at the moment when a command for all of them was taken, as four blocks of one
/// value for each axis (10, or 4 of a KorvaneLumen) that the library passes on unread. Empty if
/// there was no such reply. A KorvaneLumen may tell `pos` alone.
struct SetAllAxisPosResponse {
  std::vector<std::uint16_t> pos;     ///< Positions.
  std::vector<std::uint16_t> second;  ///< What it means isn't known to the library.
  std::vector<std::uint8_t> third;    ///< What it means isn't known to the library.
  std::vector<std::uint8_t> fourth;   ///< What it means isn't known to the library.
};

#pragma pack(push, 1)
/// The product serial number as the device keeps it, nineteen bytes on the wire; what the fields
/// mean is the device's matter. They are named after their offsets and aren't aligned: don't take
/// references to them.
struct ProductSerialNumber {
  std::uint16_t word_0;    ///< Bytes 0 and 1, low byte first.
  std::uint8_t byte_2;     ///< Byte 2.
  std::uint32_t dword_3;   ///< Bytes 3 to 6, low byte first.
  std::uint16_t word_7;    ///< Bytes 7 and 8, low byte first.
  std::uint32_t dword_9;   ///< Bytes 9 to 12, low byte first.
  std::uint16_t word_13;   ///< Bytes 13 and 14, low byte first.
  std::uint32_t dword_15;  ///< Bytes 15 to 18, low byte first.
};
#pragma pack(pop)
static_assert(sizeof(ProductSerialNumber) == 19);

/// The versions of a device. The `build` of each is 0.
struct FwVersion {
  Version first;      ///< Its first number is the product code.
  Version firmware;   ///< The firmware.
  Version hardware;   ///< The hardware.
  std::uint8_t last;  ///< The number of active degrees of freedom.
};
static_assert(sizeof(FwVersion) == 13);

/// The service interface of a hand: axis-level commands by which technicians set hands up. It is
/// the second face of the object that Korvane is the first of; a tool gets both from a factory of
/// PrivateKorvaneBrisa or PrivateKorvaneLumen.
///
/// Axes count from 1 and are the motors of the public interface. Positions are 0 to 4096. Lists
/// hold one value for each axis, axis 1 first: ten of a KorvaneBrisa, four of a KorvaneLumen where
/// an operation says so.
///
/// Failures: an operation fails on an argument out of range, on a link that isn't open, if the hand
/// doesn't answer in time, and if the reply is too short. A setter of type bool then returns false,
/// and over CAN FD also if the hand refuses; what the others return stands with each of them. "Over
/// CAN FD" means the service protocol there, of KorvaneBrisa and KorvaneLumen alike; "serial" means
/// a KorvaneBrisa on a serial port. Arguments out of range and a link that isn't open are refused
/// silently and send nothing; a hand that doesn't answer gives one line on the standard error
/// stream over CAN FD, and none on a serial port but where an operation says so. A failure value
/// that is a zero, or a list of zeros, can't be told from a reading of zero: an axis that stands at
/// 0 looks like a hand that is silent. LastFailure and Checked (korvane_diagnostics.h) tell the two
/// apart; that a hand refuses a setting (REFUSED) they can tell only over CAN FD.
///
/// Over the serial link a setter's result tells only that the hand answered in time, not what; and
/// a read returns the last reply of its kind that nobody has read yet, whether this request brought
/// it or not. Over CAN FD any frame of the service protocol counts as the reply: one object for
/// each bus, and after a time-out read once more before you believe a value.
///
/// Blocking: every operation sends one request and waits for its reply, for up to the frame receive
/// time-out, unless it says otherwise. Threads are as for Korvane: one at a time may call.
///
/// Units: where a unit is said not to be known, the number reaches the hand, or the program, as it
/// is, and only the hand's maker can tell its meaning. To find it out, measure beside the hand: a
/// current with a meter in its supply line, a temperature with a probe on a motor that has rested,
/// a speed or a time with a stop watch on a long movement, a torque with a spring scale; begin with
/// small values, with the hand free to move, and don't SaveParam before you are sure. The simulated
/// hands of `korvane-sim` had to choose units too. Don't take theirs for those of a real hand.
class KORVANE_EXPORT PrivateKorvane {
 public:
  PrivateKorvane() = default;
  PrivateKorvane(const PrivateKorvane&) = delete;
  PrivateKorvane& operator=(const PrivateKorvane&) = delete;

  /// Switches the power of the motors. Any value is sent. Which values mean on and off isn't known
  /// to the library; read what GetPowerState returns while the motors hold, and use that.
  virtual bool SetPowerState(std::uint8_t state) = 0;

  /// The power state of the motors, as the hand tells it. 0 on failure.
  virtual std::uint8_t GetPowerState() const = 0;

  /// Sets the homing offset of one axis, 1 to 10 (1 to 4 of a KorvaneLumen), to -4095 to 4095. The
  /// unit isn't known; the range suggests positions. To find out, set a small value and compare
  /// GetAllAxisPos with GetAllActualAxisPos before and after.
  virtual bool SetAxisHoming(std::uint8_t axis, std::int16_t value) = 0;

  /// Gives the device another identifier, 1 to 2046. The object goes on with the one it has.
  virtual bool SetId(std::uint16_t id) = 0;

  /// Keeps the present settings for good: a setting that isn't saved is gone after a restart.
  virtual bool SaveParam() = 0;

  /// Moves one axis to 0 to 4096. Returns the position that the hand reports.
  ///
  /// Over CAN FD the axis is 1 to 12, and 0 is returned on failure. Serial: the axis is 1 to 10; it
  /// sends the command without waiting, then reads as GetSingleAxisPos does, and returns 65535 on
  /// failure. The answer to the command often comes first and is then taken for the reading.
  virtual std::uint16_t SetSingleAxisPos(std::uint8_t axis, std::uint16_t pos) = 0;

  /// Position of one axis, 0 to 4096.
  ///
  /// Over CAN FD the axis is 1 to 12, and 0 is returned on failure. Serial: the axis is 1 to 10,
  /// and 65535 is returned on failure, after one line on the standard output stream for a bad axis
  /// and for a silent hand. Serial replies aren't looked at for their axis, so that the position
  /// may be one of another axis that was asked for or moved before: use GetAllAxisPos instead.
  virtual std::uint16_t GetSingleAxisPos(std::uint8_t axis) const = 0;

  /// Moves all axes: exactly ten positions, or four of a KorvaneLumen, which are not checked
  /// against 4096. Four empty lists on failure. Serial: only a reply that comes after the request
  /// counts.
  virtual SetAllAxisPosResponse SetAllAxisPos(const std::vector<std::uint16_t>& positions) = 0;

  /// Positions of all axes, 0 to 4096: ten, or four of a KorvaneLumen.
  ///
  /// Over CAN FD empty on failure. Serial: a silent hand gives the last positions that it ever
  /// told, ten zeros before the first, after one line on the standard output stream; empty only
  /// while the link isn't open.
  virtual std::vector<std::uint16_t> GetAllAxisPos() const = 0;

  /// Currents of ten axes, also of a KorvaneLumen, whose first four count. The unit isn't known.
  /// Over CAN FD ten zeros on failure; serial empty, after one line on the standard output stream.
  virtual std::vector<std::uint16_t> GetAllAxisCurrent() const = 0;

  /// Velocities of ten axes, also of a KorvaneLumen, whose first four count. They are signed: cast
  /// each to std::int16_t. The unit isn't known. Over CAN FD ten zeros on failure; serial empty,
  /// after one line on the standard output stream.
  virtual std::vector<std::uint16_t> GetAllAxisVelocity() const = 0;

  /// Temperatures of ten axes, also of a KorvaneLumen, whose first four count. The unit isn't
  /// known; compare a hand that has rested with the room. Over CAN FD ten zeros on failure; serial
  /// empty, after one line on the standard output stream.
  virtual std::vector<std::uint8_t> GetAllAxisTemp() const = 0;

  /// The error word; 0 if there is no error, and also on failure.
  ///
  /// KorvaneBrisa over CAN FD: what the word means is the device's matter. KorvaneLumen: one error
  /// at a time, the axis 1 to 4 plus 20 for each place of its bit: 3 is bit 0 of axis 3, 43 is
  /// bit 2. KorvaneBase::GetErrorReport takes it apart. Serial: bit 0 of the word for each axis,
  /// axis 1 in bit 0, which shows all axes the same: 0 or 1023; 0 after one line on the standard
  /// output stream if the hand doesn't answer.
  virtual std::uint16_t GetErrorCode() const = 0;

  /// Clears the errors that the hand remembers.
  virtual bool ClearError() = 0;

  /// Plays an action that the device has stored. Any number is sent; which of them exist, and what
  /// they do, is the device's matter. Keep clear of the hand.
  virtual bool PlayAction(std::uint8_t action) = 0;

  /// The range of each axis, in positions: ten, or four of a KorvaneLumen. Over CAN FD as many
  /// zeros on failure; serial empty.
  virtual std::vector<std::uint16_t> GetAllAxisPosRange() const = 0;

  /// The raw block of one fingertip sensor, numbered as Finger is: 1 to 7. What the bytes mean is
  /// the sensor's matter.
  ///
  /// KorvaneBrisa over CAN FD: any number is sent. 17 bytes for a number below 6 and 26 for the
  /// others, of which a hand may use the first for the number; empty on failure. Serial: 16 bytes,
  /// or 25 for 6 and 7, all zero if the hand doesn't answer, after one line on the standard output
  /// stream; empty for another number and while the link isn't open. KorvaneLumen: it has no such
  /// sensors; one line, empty, and nothing is sent.
  virtual std::vector<std::uint8_t> GetFingertipSensor(std::uint8_t sensor) const = 0;

  /// The raw blocks of sensors 1 to 3, 16 bytes each: 48 bytes, empty on failure. KorvaneLumen: one
  /// line, empty, and nothing is sent.
  virtual std::vector<std::uint8_t> GetAllFingertipSensorA() const = 0;

  /// The raw blocks of sensors 4 and 5, 16 bytes each: 32 bytes, empty on failure. KorvaneLumen:
  /// one line, empty, and nothing is sent.
  virtual std::vector<std::uint8_t> GetAllFingertipSensorB() const = 0;

  /// The raw blocks of sensors 6 and 7, 25 bytes each: 50 bytes, empty on failure. KorvaneLumen:
  /// one line, empty, and nothing is sent.
  virtual std::vector<std::uint8_t> GetAllFingertipSensorC() const = 0;

  /// Sets the run mode of one axis. Any axis and any mode are sent. A KorvaneBrisa takes
  /// its ControlMode the same way; what other modes do is the device's matter.
  virtual bool SetRunMode(std::uint8_t axis, std::uint8_t mode) = 0;

  /// Moves one axis, 1 to 10, to 0 to 4096 on the actual position scale. In what that scale differs
  /// from the other is the device's matter. Returns the position that the hand reports. Over CAN FD
  /// 0 on failure. Serial: the link has no such command, and this is SetSingleAxisPos, failure
  /// value 65535 included.
  virtual std::uint16_t SetSingleActualAxisPos(std::uint8_t axis, std::uint16_t pos) = 0;

  /// Position of one axis, 1 to 10, on the actual position scale. Over CAN FD 0 on failure. Serial:
  /// the same as GetSingleAxisPos, failure value 65535 included.
  virtual std::uint16_t GetSingleActualAxisPos(std::uint8_t axis) const = 0;

  /// Moves all axes on the actual position scale: exactly ten positions, or four of a KorvaneLumen,
  /// which are not checked against 4096. Returns as many positions that the hand reports; empty on
  /// failure. Serial: only a reply that comes after the request counts.
  virtual std::vector<std::uint16_t> SetAllActualAxisPos(
      const std::vector<std::uint16_t>& positions) = 0;

  /// Positions of all axes on the actual position scale: ten, or four of a KorvaneLumen. Over CAN
  /// FD as many zeros on failure; serial empty, and only a reply that comes after the request
  /// counts.
  virtual std::vector<std::uint16_t> GetAllActualAxisPos() const = 0;

  /// Loads of ten axes, also of a KorvaneLumen, whose first four count. The unit isn't known. Over
  /// CAN FD ten zeros on failure; serial empty.
  virtual std::vector<std::uint16_t> GetAllLoadData() const = 0;

  /// Sets the lower limit of one axis, 1 to 12, to position 0 to 4096.
  virtual bool SetAxisMinPos(std::uint8_t axis, std::uint16_t pos) = 0;

  /// Sets the upper limit of one axis, 1 to 12, to position 0 to 4096.
  virtual bool SetAxisMaxPos(std::uint8_t axis, std::uint16_t pos) = 0;

  /// Clears the limits of all axes.
  virtual bool ClearAllLimitPos() = 0;

  /// Sets the speeds of all axes: exactly ten, also for a KorvaneLumen, whose first four count. Any
  /// speed is sent. The unit isn't known; it is that of GetAllAxisVelocity if the hand is
  /// consistent.
  virtual bool SetAllRunSpeed(const std::vector<std::int16_t>& speeds) = 0;

  /// Sets the overload torque of one axis, 0 to 1000. Any axis is sent. The unit isn't known. Over
  /// CAN FD only the low byte is sent: 300 arrives as 44, so keep to 255 there.
  virtual bool SetOverloadTorque(std::uint8_t axis, std::uint16_t torque) = 0;

  /// Sets how long an overload of one axis may last. Any axis and any time are sent. The unit isn't
  /// known. Over CAN FD only the low byte is sent: 300 arrives as 44, so keep to 255 there.
  virtual bool SetOverloadProtectionTime(std::uint8_t axis, std::uint16_t time) = 0;

  /// Sets the torque of one axis under protection, 0 to 100. Any axis is sent. The unit isn't
  /// known.
  virtual bool SetProtectedTorque(std::uint8_t axis, std::uint8_t torque) = 0;

  /// Sets the least torque of one axis, 1 to 12. Any torque is sent. The unit isn't known.
  virtual bool SetMinTorque(std::uint8_t axis, std::uint8_t torque) = 0;

  /// Sets the protective current of one axis, 1 to 12, to 0 to 3250. The unit isn't known.
  virtual bool SetProtectiveCurrent(std::uint8_t axis, std::uint16_t current) = 0;

  /// Identifiers of the ten motors, also of a KorvaneLumen. Over CAN FD ten zeros on failure;
  /// serial empty.
  virtual std::vector<std::uint8_t> GetAllElectricMotorId() const = 0;

  /// Identifiers of the seven sensors, also of a KorvaneLumen. Over CAN FD seven zeros on failure;
  /// serial empty.
  virtual std::vector<std::uint8_t> GetAllSensorId() const = 0;

  /// How often the device uploads currents, velocities and positions on its own. Any value is sent.
  /// The unit isn't known, nor which value stops the uploads; count what GetAllAxisCvp gets in a
  /// second. Over CAN FD an upload is a frame that any waiting request takes for its reply, so
  /// leave uploads off there.
  virtual bool SetAllAxisCvpUploadInterval(std::uint16_t interval) = 0;

  /// The record of currents, velocities and positions as it came: six bytes for each of ten axes,
  /// of which the third and fourth are the velocity, low byte first. 60 bytes, empty on failure.
  /// Serial: an upload that came on its own counts too.
  virtual std::vector<std::uint8_t> GetAllAxisCvp() const = 0;

  /// The limits of all axes, in positions. Over CAN FD ten or twelve of a KorvaneBrisa, by the
  /// length of the reply, and four of a KorvaneLumen; serial ten, and only a reply that comes after
  /// the request counts. Two empty lists on failure.
  virtual AxisLimitPos GetAxisLimitPos() const = 0;

  /// Tells the device which of the two hands it is, 0 or 1. Whether it counts as HandType does
  /// isn't known to the library.
  virtual bool SetRightOrLeft(std::uint8_t side) = 0;

  /// Moves all axes at once: ten positions, ten speeds and ten currents, also for a KorvaneLumen,
  /// whose first four count. Any values are sent. The units of speed and current aren't known; a
  /// current is the high byte of that in MixCtrl. Four empty lists on failure. Serial: only a reply
  /// that comes after the request counts.
  virtual SetAllAxisPosResponse SetPosSpeedCurData(const std::vector<std::uint16_t>& pos,
                                                   const std::vector<std::int16_t>& speed,
                                                   const std::vector<std::uint8_t>& current) = 0;

  /// The raw record of fingertip forces, 35 bytes, whose meaning isn't known. Over CAN FD empty on
  /// failure. Serial: the link has no such command; one line, empty, and nothing is sent.
  virtual std::vector<std::uint8_t> GetFingerTactileForce() const = 0;

  /// Sets the temperature at which the device protects itself. Any value is sent. The unit isn't
  /// known; it is that of GetAllAxisTemp if the hand is consistent.
  virtual bool SetTemperatureThreshold(std::uint8_t threshold) = 0;

  /// Chooses where the hand takes commands from, 0 or 1; which is which is the device's matter.
  /// Over CAN FD returns the source in force. Serial: 1 if the hand answered, whatever was set; ask
  /// GetControlSource. 0 on failure, also on a source above 1.
  virtual std::uint8_t SetControlSource(std::uint8_t source) = 0;

  /// Where the hand takes commands from. 0 on failure.
  virtual std::uint8_t GetControlSource() const = 0;

  /// Writes the product serial number: exactly 19 bytes, laid out as ProductSerialNumber. Any bytes
  /// are sent; GetVendorInfo shows printable ones as text.
  virtual bool SetProductSerialNumber(const std::vector<std::uint8_t>& number) = 0;

  /// The product serial number. All zero on failure.
  virtual ProductSerialNumber GetProductSerialNumber() const = 0;

  /// The versions of the device. All zero on failure. Serial: versions that GetVendorInfo or
  /// GetDeviceInfo brought and nobody has read yet count even if this request isn't answered.
  virtual FwVersion GetFwVersion() const = 0;

  virtual ~PrivateKorvane();
};

}  // namespace talvera::korvane
