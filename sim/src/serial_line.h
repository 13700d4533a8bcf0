#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "socket_protocol.h"

namespace talvera::korvane::sim {

/// The device's end of a pseudo-terminal, and a symbolic link to the host's end if it has a name.
/// A host that has it open finds it dead once the object is gone.
class SerialLine {
 public:
  /// An empty `link` makes no link. Replaces one that leads nowhere, as a simulator leaves behind
  /// when it is killed. Throws std::runtime_error.
  explicit SerialLine(std::string link);
  SerialLine(const SerialLine&) = delete;
  SerialLine& operator=(const SerialLine&) = delete;
  ~SerialLine();

  int Fd() const { return master_.Get(); }
  const std::string& Device() const { return device_; }

  /// What has arrived, without waiting.
  std::vector<std::uint8_t> Read();
  /// Without waiting: what doesn't fit is lost, as on a line without flow control.
  void Write(const std::vector<std::uint8_t>& bytes);

 private:
  std::string link_;
  UniqueFd master_;
  std::string device_;
  /// Keeps the line and its settings while no host has it open.
  UniqueFd slave_;
};

}  // namespace talvera::korvane::sim
