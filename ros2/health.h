#pragma once

#include <korvane_open.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "command_gate.h"
#include "messages.h"

namespace korvane_ros2 {

/// How a hand is, as /diagnostics tells it.
struct Health {
  bool is_open = true;
  bool answers = true;
  std::string trouble;  ///< What failed last, if the hand doesn't answer or has gone.
  std::uint64_t readings = 0;
  std::uint64_t failed_requests = 0;
  std::uint64_t failed_recently = 0;  ///< Since the last report.
  std::uint64_t reopened = 0;
  std::uint64_t late_cycles = 0;
  std::uint64_t unsent_messages = 0;
  talvera::korvane::LinkKind link = talvera::korvane::LinkKind::SOCKET_CAN;
  std::vector<unsigned short> errors;        ///< Of each motor.
  std::vector<unsigned short> temperatures;  ///< Of each motor, in the hand's unit.

  bool allows_commands = false;
  Arming arming = Arming::FRESH;
  bool is_silent = false;
  std::optional<std::uint64_t> commander;
  std::optional<std::uint64_t> refused_commander;  ///< The last one who was refused for another.
  std::uint64_t accepted = 0;
  std::uint64_t superseded = 0;
  std::uint64_t failed_commands = 0;  ///< Lost on the way in, for want of memory.
  std::array<std::uint64_t, kRefusals> refused{};
  std::uint64_t qos_mismatches = 0;  ///< Publishers and subscribers that can't match.
};

/// Whether any motor has one of the errors that end motion.
bool HasErrors(const std::vector<unsigned short>& errors);

/// The level, the message and the values; name and identity are left to the caller.
Status ToStatus(const Health& health);

}  // namespace korvane_ros2
