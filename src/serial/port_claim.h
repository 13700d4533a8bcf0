#pragma once

#include <string>

#include "util/unique_fd.h"

namespace talvera::korvane {

/// Claims a serial port for one object: as long as it lives, a second claim of the port fails, in
/// this program or in another one, which would otherwise take half of the bytes. Programs that
/// don't ask aren't kept out.
///
/// It also refuses what the serial library would trip over: a descriptor that its `fd_set` has no
/// room for, which would end the process, and a port that it can't set up, of which it would lose
/// the descriptor.
class PortClaim {
 public:
  PortClaim() = default;
  /// Throws serial::IOException if the port can't be claimed.
  PortClaim(const std::string& port, unsigned baud);
  PortClaim(PortClaim&&) = default;
  PortClaim& operator=(PortClaim&&) = default;
  ~PortClaim();

  /// Closes the descriptor that the serial library lost, if it opened the port under this claim and
  /// then couldn't set it up.
  void CloseLost() const;

  /// For poll, which tells through it whether the port has bytes; negative without a port.
  int Descriptor() const { return descriptor_.Get(); }

 private:
  UniqueFd descriptor_;
  /// The one that the serial library gets when it opens the port.
  int next_ = -1;
};

}  // namespace talvera::korvane
