#pragma once

namespace talvera::korvane {

/// The lines by which hands refuse arguments, the same on CAN and on a serial link.
namespace refusal {
/// A list for all motors has another size. Up to the number of motors, and from it on.
inline constexpr const char* kWrongSize = "[Error]: 无效参数，需与主动自由度数量 ";
inline constexpr const char* kWrongSizeEnd = " 相匹配.";
/// More than kMaxFullTargets in one mixed command.
inline constexpr const char* kTooManyFullTargets =
    "[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.";
}  // namespace refusal

}  // namespace talvera::korvane
