#pragma once

#include <cstddef>

#include "protocol/service/service_command.h"

namespace talvera::korvane {

/// What the reply to a read is made of when it is too short.
enum class ShortReply : bool { kNothing, kZeros };

/// A command over CAN that reads a fixed number of values.
struct ServiceReading {
  const char* operation;
  ServiceCommand command;
  /// 0 for one value of each motor of the hand.
  std::size_t count = 0;
  ShortReply short_reply = ShortReply::kNothing;
};

namespace reading {

inline constexpr ServiceReading kAxisPos{"GetAllAxisPos", ServiceCommand::kGetAllAxisPos};
inline constexpr ServiceReading kJointMotorPosi{"GetAllJointMotorPosi",
                                                ServiceCommand::kGetAllAxisPos};
inline constexpr ServiceReading kAxisPosRange{
    "GetAllAxisPosRange", ServiceCommand::kGetAllAxisPosRange, 0, ShortReply::kZeros};
inline constexpr ServiceReading kActualAxisPos{
    "GetAllActualAxisPos", ServiceCommand::kGetAllActualAxisPos, 0, ShortReply::kZeros};

// Records of ten axes, also of hands that have fewer.
inline constexpr ServiceReading kAxisCurrent{
    "GetAllAxisCurrent", ServiceCommand::kGetAllAxisCurrent, 10, ShortReply::kZeros};
inline constexpr ServiceReading kAxisVelocity{
    "GetAllAxisVelocity", ServiceCommand::kGetAllAxisVelocity, 10, ShortReply::kZeros};
inline constexpr ServiceReading kAxisTemp{"GetAllAxisTemp", ServiceCommand::kGetAllAxisTemp, 10,
                                          ShortReply::kZeros};
inline constexpr ServiceReading kLoadData{"GetAllLoadData", ServiceCommand::kGetAllLoadData, 10,
                                          ShortReply::kZeros};
inline constexpr ServiceReading kElectricMotorId{
    "GetAllElectricMotorId", ServiceCommand::kGetAllElectricMotorId, 10, ShortReply::kZeros};
inline constexpr ServiceReading kSensorId{"GetAllSensorId", ServiceCommand::kGetAllSensorId, 7,
                                          ShortReply::kZeros};

inline constexpr ServiceReading kProductSerialNumber{
    "GetProductSerialNumber", ServiceCommand::kGetProductSerialNumber, 19, ShortReply::kZeros};
inline constexpr ServiceReading kAxisCvp{"GetAllAxisCvp", ServiceCommand::kGetAllAxisCvp, 60};
inline constexpr ServiceReading kFingertipSensorA{"GetAllFingertipSensorA",
                                                  ServiceCommand::kGetAllFingertipSensorA, 48};
inline constexpr ServiceReading kFingertipSensorB{"GetAllFingertipSensorB",
                                                  ServiceCommand::kGetAllFingertipSensorB, 32};
inline constexpr ServiceReading kFingertipSensorC{"GetAllFingertipSensorC",
                                                  ServiceCommand::kGetAllFingertipSensorC, 50};
inline constexpr ServiceReading kFingerTactileForce{"GetFingerTactileForce",
                                                    ServiceCommand::kGetFingerTactileForce, 35};

}  // namespace reading
}  // namespace talvera::korvane
