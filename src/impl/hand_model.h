#pragma once

#include <cstdint>

#include "ota/update_run.h"

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
  const char* device_info_failed;
  /// What the lines of a broadcast query begin with.
  const char* broadcast_prefix;
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

  /// Priority of a mixed command in the serialized queue.
  int mixed_priority;
  /// The product model of the vendor record ends at its first NUL byte; otherwise all 16 bytes of
  /// the field are handed on.
  bool product_model_ends_at_nul;

  UpdateRules update;
};

inline constexpr Wording kChineseWording{
    "[Error]: 无效关节电机ID参数",
    " 正确范围：1～",
    "[Error]: 无效参数，需与主动自由度数量 ",
    " 相匹配.",
    "[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.",
    "[Error]: Failed to send device ID request",
    nullptr,
    "[Error]: ",
};

}  // namespace talvera::korvane
