#pragma once

#include <korvane.h>
#include <korvane_open.h>
#include <korvane_types.h>

#include <vector>

#include "dds.h"
#include "graph.h"
#include "mailbox.h"
#include "options.h"

namespace korvane_ros2 {

/// A topic with the touch of one finger.
struct TouchTopic {
  talvera::korvane::Finger finger;
  Writer writer;
};

/// The topics of one hand: those that its model has.
struct Endpoints {
  /// `hand` tells which sensors there are. Commands go to `mailbox`, which must outlive this.
  Endpoints(const Participant& participant, const HandOptions& options, Reliability commands,
            const talvera::korvane::KorvaneBase& hand, Mailbox& mailbox);

  Writer joint_states;
  Writer motor_positions;
  Writer motor_currents;
  std::vector<TouchTopic> touch;
  Reader joint_commands;
  Reader motor_commands;

  /// The node that these belong to.
  Node ToNode(const std::string& space) const;
  std::uint64_t Mismatches() const;
  /// Commands that were lost since something was thrown at them.
  std::uint64_t Failures() const { return joint_commands.Failures() + motor_commands.Failures(); }
};

}  // namespace korvane_ros2
