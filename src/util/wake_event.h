#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

namespace talvera::korvane {

/// Wakes a thread that polls its descriptor. Where the system has none to give it wakes nobody, and
/// that thread looks around when its time is over.
class WakeEvent {
 public:
  WakeEvent() = default;
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;
  ~WakeEvent() {
    if (descriptor_ >= 0) close(descriptor_);
  }

  /// Before any other thread knows this object.
  void Open() {
    if (descriptor_ < 0) descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  }

  /// For poll, which passes over it if it is negative.
  int Descriptor() const { return descriptor_; }
  void Signal() const { eventfd_write(descriptor_, 1); }
  void Clear() const {
    eventfd_t count = 0;
    eventfd_read(descriptor_, &count);
  }

 private:
  int descriptor_ = -1;
};

}  // namespace talvera::korvane
