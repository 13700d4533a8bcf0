#pragma once

#include <vector>

#include "backend.h"
#include "korvane_sim/in_process_adapters.h"
#include "korvane_sim/virtual_bus.h"

namespace talvera::korvane::sim {

/// A place on a virtual bus as a link.
std::shared_ptr<Link> MakeLink(VirtualBus& bus);

/// Adapters whose channels lead to virtual buses. Both closed libraries see the same buses.
class World final : public Backend {
 public:
  /// Throws std::invalid_argument for numbers out of range.
  World(const AdapterOptions& options, Clock& clock);

  /// Throws std::out_of_range.
  VirtualBus& Bus(std::size_t adapter, std::size_t channel);

  std::size_t Count(AdapterKind kind) override;
  std::optional<AdapterInfo> Info(AdapterKind kind, std::size_t adapter) override;
  std::shared_ptr<Link> Attach(std::size_t adapter, std::size_t channel) override;

 private:
  AdapterOptions options_;
  std::vector<VirtualBus> buses_;
};

}  // namespace talvera::korvane::sim
