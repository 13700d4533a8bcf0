#pragma once

#include <sys/eventfd.h>

#include "util/unique_fd.h"

namespace talvera::korvane {

/// Wakes a thread that polls its descriptor. Where the system has none to give it wakes nobody, and
/// that thread looks around when its time is over.
class WakeEvent {
 public:
  /// Before any other thread knows this object.
  void Open() {
    if (!descriptor_) descriptor_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  }

  /// For poll, which passes over it if it is negative.
  int Descriptor() const { return descriptor_.Get(); }
  void Signal() const { eventfd_write(Descriptor(), 1); }
  void Clear() const {
    eventfd_t count = 0;
    eventfd_read(Descriptor(), &count);
  }

 private:
  UniqueFd descriptor_;
};

}  // namespace talvera::korvane
