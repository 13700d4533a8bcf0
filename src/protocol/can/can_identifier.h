#pragma once

#include <cstdint>

#include "can/can_frame.h"

// How an identifier of the public protocol is composed:
//
//   bits 0-6 device id, 7 write flag, 8-14 family, 16-23 function code, 24-28 index

namespace talvera::korvane {

inline constexpr std::uint32_t kDeviceIdMask = 0x0000007F;
inline constexpr std::uint32_t kWriteFlag = 0x00000080;
inline constexpr std::uint32_t kFamilyMask = 0x00007F00;
inline constexpr std::uint32_t kFunctionMask = 0x00FF0000;
inline constexpr unsigned kFunctionShift = 16;
inline constexpr unsigned kIndexShift = 24;

namespace function_code {
inline constexpr std::uint8_t kVendorRecord = 0x01;
inline constexpr std::uint8_t kDeviceRecord = 0x02;
inline constexpr std::uint8_t kThreshold = 0x03;
inline constexpr std::uint8_t kTactileSummary = 0x05;
inline constexpr std::uint8_t kTactileRaw = 0x06;
inline constexpr std::uint8_t kMaxCalibration = 0x07;
inline constexpr std::uint8_t kMinCalibration = 0x08;
inline constexpr std::uint8_t kControlMode = 0x10;
inline constexpr std::uint8_t kVelocity = 0x12;
inline constexpr std::uint8_t kPosition = 0x13;
inline constexpr std::uint8_t kMixedControl = 0x14;
inline constexpr std::uint8_t kError = 0x20;
inline constexpr std::uint8_t kTemperature = 0x21;
inline constexpr std::uint8_t kCurrent = 0x22;
inline constexpr std::uint8_t kUpdateData = 0xF0;
inline constexpr std::uint8_t kUpdateRequest = 0xF1;
inline constexpr std::uint8_t kUpdateReply = 0xF2;
}  // namespace function_code

constexpr std::uint32_t FunctionField(std::uint8_t function) {
  return std::uint32_t{function} << kFunctionShift;
}

constexpr std::uint8_t FunctionOf(std::uint32_t can_id) {
  return static_cast<std::uint8_t>(can_id >> kFunctionShift);
}

constexpr std::uint8_t IndexOf(std::uint32_t can_id) {
  return static_cast<std::uint8_t>(can_id >> kIndexShift);
}

/// The identifier under which the transport keeps the reply to a request.
constexpr std::uint32_t ReplyIdOf(std::uint32_t request_id) {
  if (FunctionOf(request_id) == function_code::kUpdateRequest) {
    return (request_id & 0x0F00FFFF) | FunctionField(function_code::kUpdateReply);
  }
  return request_id & ~kWriteFlag;
}

/// Whether `received` answers `request`: the same but for the write flag; or the same device's
/// function `f ^ 3` with index `i ^ 0x10`, in which bit 15 doesn't count either.
constexpr bool AnswersRequest(std::uint32_t request, std::uint32_t received) {
  constexpr std::uint32_t kAllButWriteFlag = kCanIdMask & ~kWriteFlag;
  constexpr std::uint32_t kPaired = 0x1FFF7F7F;
  constexpr std::uint32_t kPairing = 0x10030000;
  if (((request ^ received) & kAllButWriteFlag) == 0) return true;
  return ((request & kPaired) ^ kPairing) == (received & kPaired);
}

/// Whether `received` is an update reply to the update request `request`, of whatever device.
constexpr bool AnswersUpdateRequest(std::uint32_t request, std::uint32_t received) {
  return FunctionOf(request) == function_code::kUpdateRequest &&
         FunctionOf(received) == function_code::kUpdateReply &&
         IndexOf(request) == IndexOf(received);
}

}  // namespace talvera::korvane
