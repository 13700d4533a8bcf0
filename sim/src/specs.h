#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "korvane_sim/firmware_partition.h"
#include "korvane_sim/model.h"

// The texts of the command line that say more than one thing.

namespace talvera::korvane::sim {

/// A hand of the command line. `place` is empty for "on every link", otherwise a CAN interface or
/// "ADAPTER.CHANNEL". Of a hand on a serial line it is the link to its port, empty for none.
struct HandSpec {
  const ModelRow* model = nullptr;
  std::uint8_t device_id = 0;
  std::string place;
};

/// "brisa, tessel" and so on: the names of all models.
std::string ModelNames();

/// "brisa", "brisa:0x27@0.1" and the like. Throws std::invalid_argument.
HandSpec ParseHand(const std::string& text);

/// "packet:5@2" and the like, without the status where `kind` has none. Throws
/// std::invalid_argument.
UpdateFault ParseUpdateFault(UpdateFault::Kind kind, const std::string& text);

/// "1.0.0" or "15.0.0.1". Throws std::invalid_argument.
std::array<std::uint8_t, 4> ParseVersion(const std::string& text);

}  // namespace talvera::korvane::sim
