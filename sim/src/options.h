#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korvane_sim/firmware_partition.h"
#include "korvane_sim/in_process_adapters.h"
#include "korvane_sim/model.h"

namespace talvera::korvane::sim {

/// A hand of the command line. `place` is empty for "on every link", otherwise a CAN interface or
/// "ADAPTER.CHANNEL".
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
  Faults faults;
  FirmwarePartition firmware;  ///< What each hand begins with.
  std::vector<HandSpec> hands;
};

/// What the command line asks for. Throws std::invalid_argument with a text for people if it is
/// wrong, and ends the program after --help.
Options ParseOptions(int argc, char** argv);

/// "brisa:0x27@0.1" and the like. Throws std::invalid_argument.
HandSpec ParseHand(const std::string& text);

/// "packet:5@2" and the like, without the status where `kind` has none. Throws
/// std::invalid_argument.
UpdateFault ParseUpdateFault(UpdateFault::Kind kind, const std::string& text);

}  // namespace talvera::korvane::sim
