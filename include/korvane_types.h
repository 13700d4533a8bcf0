#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "korvane_export.h"

/// Records and enumerations that cross the boundary of libkorvane. All are plain values; none of
/// them is tied to a hand, and all may be copied freely between threads.
namespace talvera::korvane {

/// Which of the two hands a hand is. The solvers mirror their tables for LEFT.
enum class HandType : std::uint8_t { LEFT = 0, RIGHT = 1 };

/// How a motor follows its targets. The value travels in three bits. What the modes without a name
/// of their own do is a matter of the hand's firmware.
enum class ControlMode : std::uint8_t {
  MODE_0 = 0,
  MODE_1 = 1,
  MODE_2 = 2,
  MODE_3 = 3,
  POSITION_CURRENT = 4,           ///< Position target, current limited.
  VELOCITY_CURRENT = 5,           ///< Velocity target, current limited.
  POSITION_VELOCITY_CURRENT = 6,  ///< Position target, velocity and current limited.
  MODE_7 = 7,
};

/// Where a tactile sensor sits.
enum class Finger : std::uint8_t {
  THUMB = 1,
  INDEX = 2,
  MIDDLE = 3,
  RING = 4,
  LITTLE = 5,
  PALM = 6,
  DORSUM = 7,
};

/// The two kinds of USB CAN FD adapters. SocketCAN interfaces have factories of their own.
enum class ECanDeviceType : int { ZLG_USBCANFD = 0, HCAN = 1 };

/// Third argument of the progress callback of Korvane::UpdateFirmware. It says what the first
/// argument means; the second is the number of packets, 0 before the file is read.
///
/// Where the links differ ("service" is the service interface over CAN):
///
/// | Status | CAN                         | Serial                     | Service                  |
/// |--------|-----------------------------|----------------------------|--------------------------|
/// | 4      | number of the packet from 0 | packets acknowledged       | packets acknowledged     |
/// | 5      | the hand acknowledged       | asked, not acknowledged    | not yet asked            |
/// | 6      | the hand acknowledged       | 5 acknowledged, restart    | never                    |
/// |        |                             | not yet asked              |                          |
/// | 7      | before each of up to 10     | once; the hand isn't asked | before each of up to 10  |
/// |        | queries whether it is back  |                            | queries                  |
/// | 0      | the hand is back, or didn't | right after 7              | as CAN                   |
/// |        | answer 10 queries           |                            |                          |
/// | 8, 9   | never                       | around each reconnection   | never                    |
///
/// A KorvaneTessel reports 4 with the number of packets acknowledged. The first argument of 5 and 6
/// is how many packets have been acknowledged over CAN, all of them otherwise. A reply that comes
/// twice may be reported twice.
enum class OtaProgressStatus : int {
  FAILED = -1,               ///< The first argument is an error code; see UpdateFirmware.
  COMPLETE = 0,              ///< The update is done. The first argument is the number of packets.
  FILE_LOADED = 1,           ///< The image was read and cut into packets. First argument 0.
  REQUESTING_UPGRADE = 2,    ///< About to ask the hand for an update. First argument 0.
  UPGRADE_ACCEPTED = 3,      ///< The hand is ready for packets. First argument 0.
  PACKET_ACKNOWLEDGED = 4,   ///< One packet arrived and passed its check; which one, see above.
  FINISH_ACKNOWLEDGED = 5,   ///< The hand holds the whole image, or is asked whether it does.
  RESTART_ACKNOWLEDGED = 6,  ///< The hand is about to restart, or to be asked to.
  RECONNECTING = 7,          ///< The hand restarts. The first argument is the number of packets.
  LINK_RECONNECTED = 8,      ///< The serial port was reopened. First argument 0.
  LINK_RECONNECTING = 9,  ///< The port is about to be reopened; the number of the attempt from 1.
};

/// A version of hardware or software, one byte a part.
struct KORVANE_EXPORT Version {
  std::uint8_t major;  ///< First number.
  std::uint8_t minor;  ///< Second number.
  std::uint8_t patch;  ///< Third number.
  std::uint8_t build;  ///< Fourth number, 0 where a link doesn't tell it.

  /// "major.minor.patch", followed by ".build" unless build is 0.
  std::string ToString() const;
};

/// What a hand is. See Korvane::GetVendorInfo.
struct KORVANE_EXPORT VendorInfo {
  std::string product_model;    ///< As the hand sent it; over CAN 16 bytes, NUL bytes included.
  std::string serial_number;    ///< "NaN" if the hand holds none.
  Version hardware_version{};   ///< Version of the hardware.
  Version software_version{};   ///< Version of the firmware.
  short supply_voltage_mv = 0;  ///< Millivolts.
  std::uint8_t active_dof = 0;  ///< Active degrees of freedom.

  /// Several lines for people, one a field.
  std::string ToString() const;
};

/// Answer to a device query. All zero means that no hand answered: 0 is no valid id.
struct DeviceInfo {
  std::uint8_t device_id;    ///< The id of the hand that answered.
  std::uint8_t reserved[4];  ///< As the hand sent it over CAN FD; zeros from other links.
};
static_assert(sizeof(DeviceInfo) == 5);

/// One reading of a one-axis tactile sensor, in the order in which the hand sent the bytes.
struct TactileSensorData {
  Finger finger;                   ///< Which sensor.
  std::vector<std::uint8_t> data;  ///< Its bytes; empty if nothing was read.
};

/// One reading of a three-axis fingertip sensor, opaque to the host. All zero if nothing was read.
struct TactileSensor3DData {
  std::uint8_t data[29];  ///< In the order in which the hand sent them.
};
static_assert(sizeof(TactileSensor3DData) == 29);

#pragma pack(push, 1)
/// Target of one joint in a mixed command. See KorvaneBase::MixCtrlJointMotor for which of the
/// three targets each mode needs.
///
/// The record is packed, so the optionals are not aligned: assign whole values
/// (`target.position = short{100}`) and don't take references to them.
struct MixCtrl {
  std::uint8_t joint_index : 5;   ///< 1 to the number of motors.
  std::uint8_t mix_mode : 3;      ///< 4, 5 or 6; see ControlMode.
  std::optional<short> position;  ///< Actuator units.
  std::optional<short> velocity;  ///< Actuator velocity units of the hand.
  std::optional<short> current;   ///< Force, as current, in the hand's unit.
};
#pragma pack(pop)
static_assert(sizeof(MixCtrl) == 13);

}  // namespace talvera::korvane
