#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "command_gate.h"
#include "dds.h"

// Messages of ROS 2 as this program has them, and their way to DDS and back. The types that are
// generated stand behind it, in messages.cpp alone.

namespace korvane_ros2 {

/// Nanoseconds since the epoch, by the wall clock.
std::int64_t WallClock();

namespace types {
extern const MessageType kJointState;
extern const MessageType kFloat64MultiArray;
extern const MessageType kUInt8MultiArray;
extern const MessageType kDiagnosticArray;
}  // namespace types

struct JointStates {
  std::int64_t stamp_ns;
  std::string frame_id;
  const std::vector<std::string>& names;
  const std::vector<double>& positions;
};
bool Publish(const Writer& writer, const JointStates& states);

/// A Float64MultiArray of one dimension, or a UInt8MultiArray.
bool Publish(const Writer& writer, const char* label, const std::vector<double>& values);
bool Publish(const Writer& writer, const char* label, const std::vector<std::uint8_t>& values);

enum class Level : std::uint8_t { OK = 0, WARN = 1, ERROR = 2, STALE = 3 };

struct Status {
  Level level = Level::OK;
  std::string name;
  std::string message;
  std::string hardware_id;
  std::vector<std::pair<std::string, std::string>> values;
};
bool Publish(const Writer& writer, const std::vector<Status>& statuses);

/// The command that a JointState or a Float64MultiArray is.
Command ToCommand(Space space, const void* message);

}  // namespace korvane_ros2
