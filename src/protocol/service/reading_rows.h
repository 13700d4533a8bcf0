#pragma once

#include <cstddef>

#include "hand/tactile_layout.h"
#include "private_korvane.h"
#include "protocol/service/service_command.h"

namespace talvera::korvane {

/// What the reply to a read is made of when it is too short, over CAN. On a serial line there is
/// then no result at all.
enum class ShortReply : bool { kNothing, kZeros };

/// A command without data that reads a fixed number of values.
struct ServiceReading {
  const char* operation;
  ServiceCommand command;
  /// 0 for one value of each motor of the hand.
  std::size_t count = 0;
  ShortReply short_reply = ShortReply::kNothing;

  constexpr ServiceReading Values(std::size_t number) const {
    return {operation, command, number, short_reply};
  }
  constexpr ServiceReading OrZeros() const {
    return {operation, command, count, ShortReply::kZeros};
  }
};

namespace reading {

using Command = ServiceCommand;

// clang-format off
inline constexpr auto kAxisPos =
    ServiceReading{"GetAllAxisPos", Command::kGetAllAxisPos};
inline constexpr auto kJointMotorPosi =
    ServiceReading{"GetAllJointMotorPosi", Command::kGetAllAxisPos};
inline constexpr auto kAxisPosRange =
    ServiceReading{"GetAllAxisPosRange", Command::kGetAllAxisPosRange}.OrZeros();
inline constexpr auto kActualAxisPos =
    ServiceReading{"GetAllActualAxisPos", Command::kGetAllActualAxisPos}.OrZeros();

// Records of all axes, also of hands that have fewer.
inline constexpr auto kAxisCurrent =
    ServiceReading{"GetAllAxisCurrent", Command::kGetAllAxisCurrent}.Values(kServiceAxes).OrZeros();
inline constexpr auto kAxisVelocity =
    ServiceReading{"GetAllAxisVelocity", Command::kGetAllAxisVelocity}.Values(kServiceAxes).OrZeros();
inline constexpr auto kAxisTemp =
    ServiceReading{"GetAllAxisTemp", Command::kGetAllAxisTemp}.Values(kServiceAxes).OrZeros();
inline constexpr auto kLoadData =
    ServiceReading{"GetAllLoadData", Command::kGetAllLoadData}.Values(kServiceAxes).OrZeros();
inline constexpr auto kElectricMotorId =
    ServiceReading{"GetAllElectricMotorId", Command::kGetAllElectricMotorId}.Values(kServiceAxes).OrZeros();

inline constexpr auto kSensorId =
    ServiceReading{"GetAllSensorId", Command::kGetAllSensorId}.Values(7).OrZeros();
inline constexpr auto kProductSerialNumber =
    ServiceReading{"GetProductSerialNumber", Command::kGetProductSerialNumber}.Values(sizeof(ProductSerialNumber)).OrZeros();
inline constexpr auto kAxisCvp =
    ServiceReading{"GetAllAxisCvp", Command::kGetAllAxisCvp}.Values(6 * kServiceAxes);
inline constexpr auto kFingertipSensorA =
    ServiceReading{"GetAllFingertipSensorA", Command::kGetAllFingertipSensorA}.Values(3 * kFingerSummaryBytes);
inline constexpr auto kFingertipSensorB =
    ServiceReading{"GetAllFingertipSensorB", Command::kGetAllFingertipSensorB}.Values(2 * kFingerSummaryBytes);
inline constexpr auto kFingertipSensorC =
    ServiceReading{"GetAllFingertipSensorC", Command::kGetAllFingertipSensorC}.Values(2 * kPalmSummaryBytes);
inline constexpr auto kFingerTactileForce =
    ServiceReading{"GetFingerTactileForce", Command::kGetFingerTactileForce}.Values(35);
// clang-format on

}  // namespace reading
}  // namespace talvera::korvane
