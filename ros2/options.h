#pragma once

#include <korvane_open.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "command_gate.h"
#include "common/exit_status.h"
#include "dds.h"

namespace korvane_ros2 {

// It ends as the tool `korvane` does.
using korvane_common::ExitStatus;

/// Ends the program with a status and a reason.
class ProgramError : public std::runtime_error {
 public:
  ProgramError(ExitStatus status, const std::string& text)
      : std::runtime_error(text), status_(status) {}
  ExitStatus Status() const { return status_; }

 private:
  ExitStatus status_;
};

/// A hand, and what it is called in ROS 2.
struct HandOptions {
  talvera::korvane::HandAddress address;
  std::string name_space;  ///< Its namespace, such as "/korvane/right".
  std::string prefix;      ///< Of the names of its joints.
  std::string frame_id;
};

struct Options {
  std::vector<HandOptions> hands;
  dds_domainid_t domain = 0;
  bool is_local = false;
  bool is_humble = false;
  bool lists_joints = false;
  double rate = 50;
  int timeout_ms = 0;  ///< 0: the hand's own.
  double joint_speed = 3;
  double motor_speed = 1500;
  Reliability commands = Reliability::RELIABLE;
  GateSettings gate;
};

/// What the command line asks for. Nothing if it asked for help, which has been printed. Throws
/// usage errors.
std::optional<Options> ReadOptions(int argc, char** argv);

/// What "ADDRESS[=/NAMESPACE]" means, with the names that follow from the side. Throws usage
/// errors.
HandOptions ParseHand(const std::string& text);

}  // namespace korvane_ros2
