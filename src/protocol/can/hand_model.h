#pragma once

#include <cstddef>
#include <cstdint>

#include "hand/refusals.h"
#include "korvane.h"
#include "protocol/can/can_identifier.h"
#include "protocol/can/update_rules.h"
#include "util/models.h"

// How one hand model differs from another in what it logs and does, as data. The engine reads these
// rows; nothing else in the library asks which model a hand is.

namespace talvera::korvane {

/// Whether an operation waits for the hand's reply.
enum class Way : std::uint8_t { kWaits, kSendsOnly };

/// A quantity that each motor has: its function code, the names of its operations, and how they
/// are carried out.
struct MotorQuantity {
  std::uint8_t function = 0;
  const char* get = nullptr;
  const char* get_all = nullptr;
  const char* set = nullptr;
  const char* set_all = nullptr;
  /// The value returned for a motor that doesn't exist.
  int bad_index = -1;
  /// Priority in the serialized queue.
  int priority = 0;
  Way set_way = Way::kWaits;
  Way set_all_way = Way::kWaits;
  /// Payload length of a whole-hand write.
  std::uint8_t set_all_length = kMaxPayload;
  /// The line for a write that only sends and couldn't be sent; null for the usual line, and then
  /// for exceptions only.
  const char* send_failed = nullptr;
  /// The hand reports it on a period; reading takes the last report and asks nothing.
  bool from_reports = false;
};

/// The lines of a model. Texts with a variable part are given up to it, and then from it on.
struct Wording {
  const char* bad_index = nullptr;
  const char* bad_index_range = nullptr;
  const char* wrong_size = nullptr;
  const char* wrong_size_end = nullptr;
  const char* too_many_mixed = nullptr;
  const char* set_id_failed = nullptr;
  /// The line of a failed GetDeviceInfo, up to the hand's id; null for the usual line.
  const char* device_info_failed = nullptr;
  /// The beginning of the lines of a broadcast query.
  const char* broadcast_prefix = "[Error]: ";
  /// The number of motors is an 8-bit count, and most messages have always shown it as that byte.
  bool count_in_digits = false;
  bool mixed_count_in_digits = true;
  /// The failure line of an operation on one motor names the motor.
  bool failure_names_motor = true;
};

struct HandModel {
  const char* class_name = nullptr;
  Model model = Model::BRISA;
  std::uint8_t motors = 0;
  /// The family field of the identifier, in place.
  std::uint32_t family = 0;
  const Wording* wording = nullptr;

  MotorQuantity position;
  MotorQuantity velocity;
  MotorQuantity control_mode;
  MotorQuantity threshold;
  MotorQuantity error;
  MotorQuantity temperature;
  MotorQuantity current;

  /// Reading all control modes takes as many bytes of the reply as its length says, and three bits
  /// of each; otherwise a whole byte for each motor, whatever the length.
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

inline constexpr Wording kChineseWording = [] {
  Wording wording;
  wording.bad_index = "[Error]: 无效关节电机ID参数";
  wording.bad_index_range = " 正确范围：1～";
  wording.wrong_size = refusal::kWrongSize;
  wording.wrong_size_end = refusal::kWrongSizeEnd;
  wording.too_many_mixed = refusal::kTooManyFullTargets;
  wording.set_id_failed = "[Error]: Failed to send device ID request";
  return wording;
}();

/// What the models have in common. A row starts here and states its differences.
constexpr HandModel CommonModel(const char* class_name, Model which) {
  HandModel model;
  model.class_name = class_name;
  model.model = which;
  model.motors = Known(which).motors;
  model.family = Known(which).family;
  model.wording = &kChineseWording;
  // Each with the names of its operations: get, get_all, set, set_all.
  model.position = {function_code::kPosition, "GetJointMotorPosi", "GetAllJointMotorPosi",
                    "SetJointMotorPosi", "SetAllJointMotorPosi"};
  model.velocity = {function_code::kVelocity, "GetJointMotorVelo", "GetAllJointMotorVelo",
                    "SetJointMotorVelo", "SetAllJointMotorVelo"};
  model.control_mode = {function_code::kControlMode, "GetControlMode", "GetAllControlMode",
                        "SetControlMode", "SetAllControlMode"};
  model.threshold = {function_code::kThreshold, "GetCurrentThreshold", "GetAllCurrentThreshold",
                     "SetCurrentThreshold", "SetAllCurrentThreshold"};
  model.error = {function_code::kError, "GetErrorReport", "GetAllErrorReport",
                 "SetErrorReportPeriod", "SetAllErrorReportPeriod"};
  model.temperature = {function_code::kTemperature, "GetTemperatureReport",
                       "GetAllTemperatureReport", "SetTemperReportPeriod",
                       "SetAllTemperReportPeriod"};
  model.current = {function_code::kCurrent, "GetCurrentReport", "GetAllCurrentReport",
                   "SetCurrentReportPeriod", "SetAllCurrentReportPeriod"};
  model.control_mode.bad_index = 10;
  model.error.bad_index = 0;
  model.temperature.bad_index = 65535;
  model.position.set_all_length = static_cast<std::uint8_t>(2 * model.motors);
  model.control_mode.set_way = model.control_mode.set_all_way = Way::kSendsOnly;
  model.control_mode.set_all_length = model.motors;
  model.control_mode.send_failed = "[Error]: Failed to send control mode request";
  model.update_rules.class_name = class_name;
  model.update_rules.family = model.family;
  return model;
}

}  // namespace talvera::korvane
