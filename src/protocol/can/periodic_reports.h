#pragma once

#include <cstdint>
#include <vector>

#include "can/can_frame.h"
#include "util/guarded.h"

namespace talvera::korvane {

/// The reports that a hand sends on its own: the last temperatures and currents are kept, faults
/// are logged and not kept. Frames come in on the receive thread; values may be read from any
/// thread.
///
/// A report counts whichever hand sent it: on a bus that carries several hands with reports, each
/// host object sees them all. Applications rely on it.
class PeriodicReports {
 public:
  /// Keeps or logs a report. False for any other frame, which is left alone.
  bool StoreIfReport(const CanfdFrame& frame);

  /// The values of the last report with that function code, as many as it held; none before the
  /// first. They may be of any age.
  std::vector<std::uint16_t> Values(std::uint8_t function) const;

 private:
  struct Cache {
    mutable Mutex mutex;
    std::vector<std::uint16_t> values KORVANE_GUARDED_BY(mutex);
  };

  static void Store(Cache& cache, const CanfdFrame& frame);

  Cache temperature_;
  Cache current_;
};

}  // namespace talvera::korvane
