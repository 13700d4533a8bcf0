#pragma once

#include <cstddef>
#include <cstdint>

#include "hand/hand_members.h"
#include "korvane.h"
#include "protocol/can/can_identifier.h"
#include "protocol/can/can_update.h"

// What one hand model says and does differently from another, as data. The engine reads these
// rows; nothing else in the library asks which model a hand is.

namespace talvera::korvane {

/// Whether an operation waits for the hand's reply.
enum class Way : std::uint8_t { kWaits, kSendsOnly };

/// A quantity that each motor has: its function code, the names of its operations, and how they
/// are carried out.
struct MotorQuantity {
  std::uint8_t function;
  const char* get;
  const char* get_all;
  const char* set;
  const char* set_all;
  /// What reading a motor that doesn't exist returns.
  int bad_index;
  /// Priority in the serialized queue.
  int priority = 0;
  Way set_way = Way::kWaits;
  Way set_all_way = Way::kWaits;
  /// Payload length of a whole-hand write.
  std::uint8_t set_all_length = 64;
  /// What is told when a write that only sends couldn't be sent.
  const char* send_failed = nullptr;
  /// The hand reports it on a period; reading takes the last report and asks nothing.
  bool from_reports = false;
};

/// Texts with a variable part are given up to it, and then from it on.
struct Wording {
  const char* bad_index;
  const char* bad_index_range;
  const char* wrong_size;
  const char* wrong_size_end;
  const char* too_many_mixed;
  const char* set_id_failed;
  /// What a failed GetDeviceInfo is told by, up to the hand's id; null for the usual line.
  const char* device_info_failed = nullptr;
  /// What the lines of a broadcast query begin with.
  const char* broadcast_prefix = "[Error]: ";
  /// The number of motors is an 8-bit count, and most messages have always shown it as that byte.
  bool count_in_digits = false;
  bool mixed_count_in_digits = true;
  /// The failure line of an operation on one motor names the motor.
  bool failure_names_motor = true;
};

struct HandModel {
  const char* class_name;
  /// Also the product type that adapters are told.
  std::uint8_t model_code;
  std::uint8_t motors;
  /// The family field of the identifier, in place.
  std::uint32_t family;
  const Wording* wording;

  MotorQuantity position;
  MotorQuantity velocity;
  MotorQuantity control_mode;
  MotorQuantity threshold;
  MotorQuantity error;
  MotorQuantity temperature;
  MotorQuantity current;

  /// A reply with all control modes counts by its length, and by the three bits of a mode;
  /// otherwise there is a byte for each motor, as it came.
  bool control_modes_by_length = false;
  /// The product model of the vendor record ends at its first NUL byte; otherwise all 16 bytes of
  /// the field are handed on.
  bool product_model_ends_at_nul = false;
  /// At most so many values are taken from a reply for the whole hand.
  std::size_t max_values = kMaxPayload / 2;
  /// Priority of a mixed command in the serialized queue.
  int mixed_priority = 0;
  /// The hand sends reports on a period.
  bool sends_reports = false;
  /// The callbacks are bound also to a transport whose link is down.
  bool binds_without_link = false;
  /// There is a constructor for a TCP link, which is refused.
  bool has_tcp_form = true;

  UpdateRules update_rules = {};
};

inline constexpr Wording kChineseWording{
    "[Error]: 无效关节电机ID参数",
    " 正确范围：1～",
    "[Error]: 无效参数，需与主动自由度数量 ",
    " 相匹配.",
    "[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.",
    "[Error]: Failed to send device ID request",
};

/// What the models have in common. A row starts here and states its differences.
constexpr HandModel CommonModel(const char* class_name, std::uint8_t model_code,
                                std::uint8_t motors) {
  HandModel model{class_name,
                  model_code,
                  motors,
                  /*family=*/0x100,
                  &kChineseWording,
                  {function_code::kPosition, "GetJointMotorPosi", "GetAllJointMotorPosi",
                   "SetJointMotorPosi", "SetAllJointMotorPosi", -1},
                  {function_code::kVelocity, "GetJointMotorVelo", "GetAllJointMotorVelo",
                   "SetJointMotorVelo", "SetAllJointMotorVelo", -1},
                  {function_code::kControlMode, "GetControlMode", "GetAllControlMode",
                   "SetControlMode", "SetAllControlMode", 10},
                  {function_code::kThreshold, "GetCurrentThreshold", "GetAllCurrentThreshold",
                   "SetCurrentThreshold", "SetAllCurrentThreshold", -1},
                  {function_code::kError, "GetErrorReport", "GetAllErrorReport",
                   "SetErrorReportPeriod", "SetAllErrorReportPeriod", 0},
                  {function_code::kTemperature, "GetTemperatureReport", "GetAllTemperatureReport",
                   "SetTemperReportPeriod", "SetAllTemperReportPeriod", 65535},
                  {function_code::kCurrent, "GetCurrentReport", "GetAllCurrentReport",
                   "SetCurrentReportPeriod", "SetAllCurrentReportPeriod", -1}};
  model.position.set_all_length = static_cast<std::uint8_t>(2 * motors);
  model.control_mode.set_way = model.control_mode.set_all_way = Way::kSendsOnly;
  model.control_mode.set_all_length = motors;
  model.control_mode.send_failed = "[Error]: Failed to send control mode request";
  model.update_rules.class_name = class_name;
  model.update_rules.family = model.family;
  return model;
}

}  // namespace talvera::korvane
