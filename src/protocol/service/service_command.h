#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/bytes.h"

// The commands by which hands are set up and served, alike on the serial link and in the service
// protocol over CAN.

namespace talvera::korvane {

enum class ServiceCommand : std::uint8_t {
  kSetPowerState = 0x01,
  kGetPowerState = 0x02,
  kSetAxisHoming = 0x03,
  kSetId = 0x04,
  kSaveParam = 0x05,
  kSetSingleAxisPos = 0x06,
  kGetSingleAxisPos = 0x07,
  kSetAllAxisPos = 0x08,
  kGetAllAxisPos = 0x09,
  kGetAllAxisCurrent = 0x0A,
  kGetAllAxisForce = 0x0B,     ///< On a serial line;
  kGetAllAxisVelocity = 0x0B,  ///< over CAN.
  kGetAllAxisTemp = 0x0C,
  kGetErrorCode = 0x0D,
  kClearError = 0x0E,
  kPlayAction = 0x0F,
  kGetAllAxisPosRange = 0x10,
  kGetFingertipSensor = 0x11,
  kGetAllFingertipSensorA = 0x12,
  kGetAllFingertipSensorB = 0x13,
  kGetAllFingertipSensorC = 0x14,
  kSetRunMode = 0x15,
  kSetSingleActualAxisPos = 0x16,
  kGetSingleActualAxisPos = 0x17,
  kSetAllActualAxisPos = 0x18,
  kGetAllActualAxisPos = 0x19,
  kGetAllLoadData = 0x1A,
  kSetAxisMinPos = 0x1B,
  kSetAxisMaxPos = 0x1C,
  kClearAllLimitPos = 0x1D,
  kSetAllRunSpeed = 0x20,
  kSetOverloadTorque = 0x21,
  kSetOverloadProtectionTime = 0x22,
  kSetProtectedTorque = 0x23,
  kSetMinTorque = 0x24,
  kSetProtectiveCurrent = 0x25,
  kGetAllElectricMotorId = 0x26,
  kGetAllSensorId = 0x27,
  kSetAllAxisCvpUploadInterval = 0x28,
  kGetAllAxisCvp = 0x29,
  kGetAxisLimitPos = 0x30,
  kSetRightOrLeft = 0x31,
  kSetPosSpeedCurData = 0x32,
  kGetFingerTactileForce = 0x33,
  kSetTemperatureThreshold = 0x34,
  kSetControlSource = 0x80,
  kGetControlSource = 0x81,
  kSetProductSerialNumber = 0xC1,
  kGetProductSerialNumber = 0xC2,
  kGetFwVersion = 0xCD,
  kUpdateData = 0xF0,
  kUpdateRequest = 0xF1,
  kUpdateReply = 0xF2,
};

/// The axes that commands and replies have room for, also of hands that have fewer.
inline constexpr std::size_t kServiceAxes = 10;

/// The protocol knows twelve axes, more than any hand has that speaks it: most settings of one axis
/// take them all, and a reply may tell the limits of them all.
inline constexpr std::uint8_t kMostServiceAxes = 12;

/// The data of a command, at most as many as fit into a frame behind its command byte. What passes
/// that is left out; no command comes near it.
class ServicePayload {
 public:
  ServicePayload& Add8(unsigned value) { return AddByte(static_cast<std::uint8_t>(value)); }
  ServicePayload& Add16(unsigned value) { return Add8(value & 0xFF).Add8(value >> 8 & 0xFF); }
  ServicePayload& Add32(std::uint32_t value) { return Add16(value & 0xFFFF).Add16(value >> 16); }

  /// Each value in as many bytes as its type has.
  template <class Value>
  ServicePayload& AddAll(const std::vector<Value>& values) {
    for (const Value value : values) AddValue(value);
    return *this;
  }

  const std::uint8_t* Data() const { return bytes_.data(); }
  std::uint8_t Size() const { return size_; }

 private:
  template <class Value>
  void AddValue(Value value) {
    static_assert(sizeof value <= 2);
    const auto bits = static_cast<unsigned>(value);
    sizeof value == 1 ? Add8(bits) : Add16(bits);
  }

  ServicePayload& AddByte(std::uint8_t value) {
    if (size_ < bytes_.size()) bytes_[size_++] = value;
    return *this;
  }

  std::array<std::uint8_t, 63> bytes_{};
  std::uint8_t size_ = 0;
};

}  // namespace talvera::korvane
