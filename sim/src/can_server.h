#pragma once

#include <string>
#include <thread>

#include "bridge.h"
#include "korvane_sim/virtual_bus.h"

namespace talvera::korvane::sim {

/// Puts a virtual bus on a SocketCAN interface.
class CanServer {
 public:
  /// Throws std::runtime_error that says what to do if there is no such interface, or no CAN at
  /// all.
  CanServer(std::string interface_name, VirtualBus& bus);
  CanServer(const CanServer&) = delete;
  CanServer& operator=(const CanServer&) = delete;
  ~CanServer();

 private:
  void Serve();

  const std::string interface_name_;
  StopSignal stop_;
  UniqueFd fd_;
  std::shared_ptr<Link> link_;
  std::thread thread_;
};

}  // namespace talvera::korvane::sim
