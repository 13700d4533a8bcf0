#pragma once

#include <cstdint>
#include <vector>

#include "korvane_export.h"
#include "korvane_types.h"

namespace talvera::korvane {

/// The limits of each axis. Empty if they couldn't be read.
struct AxisLimitPos {
  std::vector<std::uint16_t> lower;
  std::vector<std::uint16_t> upper;
};

/// What each axis did at the moment when a command for all of them was taken, as four blocks of one
/// value for each axis (10, or 4 of a KorvaneLumen) that the library passes on unread. Empty if
/// there was no such reply. A KorvaneLumen may tell `pos` alone.
struct SetAllAxisPosResponse {
  std::vector<std::uint16_t> pos;
  std::vector<std::uint16_t> second;
  std::vector<std::uint8_t> third;
  std::vector<std::uint8_t> fourth;
};

#pragma pack(push, 1)
/// The product serial number as the device keeps it, nineteen bytes on the wire; what the fields
/// mean is the device's matter. They are named after their offsets and aren't aligned: don't take
/// references to them.
struct ProductSerialNumber {
  std::uint16_t word_0;
  std::uint8_t byte_2;
  std::uint32_t dword_3;
  std::uint16_t word_7;
  std::uint32_t dword_9;
  std::uint16_t word_13;
  std::uint32_t dword_15;
};
#pragma pack(pop)
static_assert(sizeof(ProductSerialNumber) == 19);

/// The versions of a device. The `build` of each is 0.
struct FwVersion {
  Version first;
  Version firmware;
  Version hardware;
  std::uint8_t last;  ///< The number of active degrees of freedom.
};
static_assert(sizeof(FwVersion) == 13);

/// The service interface of a hand: axis-level commands by which technicians set hands up. It is
/// the second face of the object that Korvane is the first of; a tool gets both from a factory of
/// PrivateKorvaneBrisa or PrivateKorvaneLumen.
///
/// Axes count from 1. Positions are 0 to 4096. A setter returns true if the hand took the command,
/// and false on an argument out of range, a link that isn't open, a failure of the link, or a
/// refusal. A getter then returns zero or nothing, unless its description says otherwise. Arguments
/// out of range and a link that isn't open are refused silently and send nothing; a failure of the
/// link writes one line to the standard error stream.
///
/// Over the serial link a setter's result tells only that the hand answered in time, not what. Over
/// CAN FD any frame of the service protocol counts as the reply: one object for each bus, and after
/// a time-out read once more before you believe a value.
///
/// Blocking and threads are those of Korvane: every operation asks the hand, and one thread at a
/// time may call.
class KORVANE_EXPORT PrivateKorvane {
 public:
  PrivateKorvane() = default;
  PrivateKorvane(const PrivateKorvane&) = delete;
  PrivateKorvane& operator=(const PrivateKorvane&) = delete;

  /// Switches the power of the motors.
  virtual bool SetPowerState(std::uint8_t state) = 0;
  virtual std::uint8_t GetPowerState() const = 0;

  /// Sets the homing offset of one axis, 1 to 10, to -4095 to 4095.
  virtual bool SetAxisHoming(std::uint8_t axis, std::int16_t value) = 0;

  /// Gives the device another identifier, 1 to 2046. The object goes on with the one it has.
  virtual bool SetId(std::uint16_t id) = 0;

  /// Keeps the present settings for good.
  virtual bool SaveParam() = 0;

  /// Moves one axis, 1 to 12. Returns the position that the hand reports.
  virtual std::uint16_t SetSingleAxisPos(std::uint8_t axis, std::uint16_t pos) = 0;
  virtual std::uint16_t GetSingleAxisPos(std::uint8_t axis) const = 0;

  /// Moves all axes: one position each.
  virtual SetAllAxisPosResponse SetAllAxisPos(const std::vector<std::uint16_t>& positions) = 0;
  virtual std::vector<std::uint16_t> GetAllAxisPos() const = 0;
  virtual std::vector<std::uint16_t> GetAllAxisCurrent() const = 0;
  virtual std::vector<std::uint16_t> GetAllAxisVelocity() const = 0;
  virtual std::vector<std::uint8_t> GetAllAxisTemp() const = 0;

  /// The error word, and its clearing.
  virtual std::uint16_t GetErrorCode() const = 0;
  virtual bool ClearError() = 0;

  /// Plays an action that the device has stored.
  virtual bool PlayAction(std::uint8_t action) = 0;

  virtual std::vector<std::uint16_t> GetAllAxisPosRange() const = 0;

  /// The raw block of one fingertip sensor, and those of sensors 1 to 3, 4 and 5, and 6 and 7.
  virtual std::vector<std::uint8_t> GetFingertipSensor(std::uint8_t sensor) const = 0;
  virtual std::vector<std::uint8_t> GetAllFingertipSensorA() const = 0;
  virtual std::vector<std::uint8_t> GetAllFingertipSensorB() const = 0;
  virtual std::vector<std::uint8_t> GetAllFingertipSensorC() const = 0;

  virtual bool SetRunMode(std::uint8_t axis, std::uint8_t mode) = 0;

  /// As the position operations above, on the actual position scale; axis 1 to 10.
  virtual std::uint16_t SetSingleActualAxisPos(std::uint8_t axis, std::uint16_t pos) = 0;
  virtual std::uint16_t GetSingleActualAxisPos(std::uint8_t axis) const = 0;
  virtual std::vector<std::uint16_t> SetAllActualAxisPos(
      const std::vector<std::uint16_t>& positions) = 0;
  virtual std::vector<std::uint16_t> GetAllActualAxisPos() const = 0;

  virtual std::vector<std::uint16_t> GetAllLoadData() const = 0;

  /// The limits of one axis, 1 to 12, and the clearing of all limits.
  virtual bool SetAxisMinPos(std::uint8_t axis, std::uint16_t pos) = 0;
  virtual bool SetAxisMaxPos(std::uint8_t axis, std::uint16_t pos) = 0;
  virtual bool ClearAllLimitPos() = 0;

  /// One speed for each axis.
  virtual bool SetAllRunSpeed(const std::vector<std::int16_t>& speeds) = 0;

  /// Protection of one axis: overload torque, at most 1000; how long an overload may last;
  /// protected torque, at most 100; least torque; protective current, at most 3250. Over CAN FD
  /// only the low byte of the first two is sent: 300 arrives as 44.
  virtual bool SetOverloadTorque(std::uint8_t axis, std::uint16_t torque) = 0;
  virtual bool SetOverloadProtectionTime(std::uint8_t axis, std::uint16_t time) = 0;
  virtual bool SetProtectedTorque(std::uint8_t axis, std::uint8_t torque) = 0;
  virtual bool SetMinTorque(std::uint8_t axis, std::uint8_t torque) = 0;
  virtual bool SetProtectiveCurrent(std::uint8_t axis, std::uint16_t current) = 0;

  virtual std::vector<std::uint8_t> GetAllElectricMotorId() const = 0;
  virtual std::vector<std::uint8_t> GetAllSensorId() const = 0;

  /// How often the device uploads currents, velocities and positions on its own.
  virtual bool SetAllAxisCvpUploadInterval(std::uint16_t interval) = 0;
  /// The last such record as it came: six bytes for each axis.
  virtual std::vector<std::uint8_t> GetAllAxisCvp() const = 0;

  virtual AxisLimitPos GetAxisLimitPos() const = 0;

  /// Tells the device which of the two hands it is, 0 or 1.
  virtual bool SetRightOrLeft(std::uint8_t side) = 0;

  /// Moves all axes at once: one position, speed and current each.
  virtual SetAllAxisPosResponse SetPosSpeedCurData(const std::vector<std::uint16_t>& pos,
                                                   const std::vector<std::int16_t>& speed,
                                                   const std::vector<std::uint8_t>& current) = 0;

  /// The raw record of fingertip forces, 35 bytes.
  virtual std::vector<std::uint8_t> GetFingerTactileForce() const = 0;

  virtual bool SetTemperatureThreshold(std::uint8_t threshold) = 0;

  /// Where the hand takes commands from, 0 or 1. Both return the source in force; the setter over
  /// the serial link 1 if the hand answered.
  virtual std::uint8_t SetControlSource(std::uint8_t source) = 0;
  virtual std::uint8_t GetControlSource() const = 0;

  /// Exactly 19 bytes, laid out as ProductSerialNumber.
  virtual bool SetProductSerialNumber(const std::vector<std::uint8_t>& number) = 0;
  virtual ProductSerialNumber GetProductSerialNumber() const = 0;

  /// All zero on failure.
  virtual FwVersion GetFwVersion() const = 0;

  virtual ~PrivateKorvane();
};

}  // namespace talvera::korvane
