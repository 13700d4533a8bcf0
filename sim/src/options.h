#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "korvane_sim/firmware_partition.h"
#include "korvane_sim/in_process_adapters.h"
#include "korvane_sim/model.h"
#include "korvane_sim/serial_hand.h"

namespace talvera::korvane::sim {

/// A hand of the command line. `place` is empty for "on every link", otherwise a CAN interface or
/// "ADAPTER.CHANNEL". Of a hand on a serial line it is the link to its port, empty for none.
struct HandSpec {
  const ModelRow* model = nullptr;
  std::uint8_t device_id = 0;
  std::string place;
};

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

/// "brisa", "brisa:0x27@0.1" and the like. Throws std::invalid_argument.
HandSpec ParseHand(const std::string& text);

/// "packet:5@2" and the like, without the status where `kind` has none. Throws
/// std::invalid_argument.
UpdateFault ParseUpdateFault(UpdateFault::Kind kind, const std::string& text);

}  // namespace talvera::korvane::sim
