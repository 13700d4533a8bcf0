#pragma once

#include "backend.h"
#include "socket_protocol.h"

namespace talvera::korvane::sim {

/// Tells threads that wait in poll to end. Set once, seen by all.
class StopSignal {
 public:
  StopSignal();
  void Set() const;
  int Fd() const { return fd_.Get(); }

 private:
  UniqueFd fd_;
};

/// Waits until `fd` has something to read. False if the stop signal came.
bool WaitToRead(int fd, const StopSignal& stop);

/// A socket that carries frames, and how.
struct FrameSocket {
  int fd;
  ReadResult (*read)(int fd, Frame& frame);
  /// Never waits. False if there is no room now but will be, and the frame is to be tried again.
  bool (*write)(int fd, const Frame& frame);
};

/// Carries frames between a socket and a bus, both ways, until the socket ends (true) or the stop
/// signal comes (false).
bool CarryFrames(const FrameSocket& socket, Link& link, const StopSignal& stop);

}  // namespace talvera::korvane::sim
