#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "korvane_sim/firmware_partition.h"
#include "korvane_sim/in_process_adapters.h"
#include "korvane_sim/serial_hand.h"
#include "specs.h"

namespace talvera::korvane::sim {

struct Options {
  std::vector<std::string> can_interfaces;
  bool serves_adapters = false;
  std::string socket_path;
  AdapterOptions adapters;
  std::optional<BitRates> bit_rates;  ///< Of each bus.
  Faults faults;
  FirmwarePartition firmware;  ///< What each hand begins with.
  std::optional<std::array<std::uint8_t, 4>> firmware_version;
  std::vector<HandSpec> hands;
  std::vector<HandSpec> serial_hands;
  SerialFaults serial_faults;  ///< In addition to `faults`.
};

/// What the command line asks for. Throws std::invalid_argument with a text for people if it is
/// wrong, and ends the program after --help.
Options ParseOptions(int argc, char** argv);

}  // namespace talvera::korvane::sim
