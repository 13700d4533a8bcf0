#pragma once

#include <cstdint>

#include "protocol/service/service_command.h"

namespace talvera::korvane {

/// A command that sets one value, of the whole hand or of one axis, and is only acknowledged. What
/// is out of range is refused before anything is sent. By default any value goes, in one byte, and
/// any axis.
struct ServiceSetting {
  const char* operation;
  ServiceCommand command;
  int min = 0;
  int max = 0xFFFF;
  bool two_bytes = false;
  std::uint8_t first_axis = 0;
  std::uint8_t last_axis = 0xFF;

  constexpr ServiceSetting Range(int least, int most) const {
    ServiceSetting setting = *this;
    setting.min = least;
    setting.max = most;
    return setting;
  }
  constexpr ServiceSetting TwoBytes(bool two = true) const {
    ServiceSetting setting = *this;
    setting.two_bytes = two;
    return setting;
  }
  constexpr ServiceSetting Axes(std::uint8_t first, std::uint8_t last) const {
    ServiceSetting setting = *this;
    setting.first_axis = first;
    setting.last_axis = last;
    return setting;
  }

  constexpr bool InRange(int value) const { return value >= min && value <= max; }
  constexpr bool HasAxis(int axis) const { return axis >= first_axis && axis <= last_axis; }
};

namespace setting {

using Command = ServiceCommand;

inline constexpr int kMaxPos = 4096;
inline constexpr short kMaxProtectiveCurrent = 3250;

// clang-format off
inline constexpr auto kPowerState =
    ServiceSetting{"SetPowerState", Command::kSetPowerState};
/// How many axes have a homing offset is the hand's.
inline constexpr auto kAxisHoming =
    ServiceSetting{"SetAxisHoming", Command::kSetAxisHoming}.Range(-4095, 4095).TwoBytes().Axes(1, 0xFF);
inline constexpr auto kId =
    ServiceSetting{"SetId", Command::kSetId}.Range(1, 2046).TwoBytes();
inline constexpr auto kPlayAction =
    ServiceSetting{"PlayAction", Command::kPlayAction};
inline constexpr auto kSingleAxisPos =
    ServiceSetting{"SetSingleAxisPos", Command::kSetSingleAxisPos}.Range(0, kMaxPos).TwoBytes().Axes(1, kMostServiceAxes);
inline constexpr auto kSingleActualAxisPos =
    ServiceSetting{"SetSingleActualAxisPos", Command::kSetSingleActualAxisPos}.Range(0, kMaxPos).TwoBytes().Axes(1, kServiceAxes);
inline constexpr auto kRunMode =
    ServiceSetting{"SetRunMode", Command::kSetRunMode};
inline constexpr auto kAxisMinPos =
    ServiceSetting{"SetAxisMinPos", Command::kSetAxisMinPos}.Range(0, kMaxPos).TwoBytes().Axes(1, kMostServiceAxes);
inline constexpr auto kAxisMaxPos =
    ServiceSetting{"SetAxisMaxPos", Command::kSetAxisMaxPos}.Range(0, kMaxPos).TwoBytes().Axes(1, kMostServiceAxes);
/// How many bytes an overload torque or time has is the hand's.
inline constexpr auto kOverloadTorque =
    ServiceSetting{"SetOverloadTorque", Command::kSetOverloadTorque}.Range(0, 1000);
inline constexpr auto kOverloadProtectionTime =
    ServiceSetting{"SetOverloadProtectionTime", Command::kSetOverloadProtectionTime};
inline constexpr auto kProtectedTorque =
    ServiceSetting{"SetProtectedTorque", Command::kSetProtectedTorque}.Range(0, 100);
inline constexpr auto kMinTorque =
    ServiceSetting{"SetMinTorque", Command::kSetMinTorque}.Axes(1, kMostServiceAxes);
inline constexpr auto kProtectiveCurrent =
    ServiceSetting{"SetProtectiveCurrent", Command::kSetProtectiveCurrent}.Range(0, kMaxProtectiveCurrent).TwoBytes().Axes(1, kMostServiceAxes);
inline constexpr auto kCvpUploadInterval =
    ServiceSetting{"SetAllAxisCvpUploadInterval", Command::kSetAllAxisCvpUploadInterval}.TwoBytes();
inline constexpr auto kRightOrLeft =
    ServiceSetting{"SetRightOrLeft", Command::kSetRightOrLeft}.Range(0, 1);
inline constexpr auto kTemperatureThreshold =
    ServiceSetting{"SetTemperatureThreshold", Command::kSetTemperatureThreshold};
// clang-format on

}  // namespace setting

}  // namespace talvera::korvane
