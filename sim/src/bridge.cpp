#include "bridge.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>

namespace talvera::korvane::sim {
namespace {

constexpr std::size_t kBatch = 256;
constexpr std::chrono::seconds kPause{1};
constexpr int kRoomPauseMs = 50;

bool CarryInbound(const FrameSocket& socket, Link& link, const StopSignal& stop) {
  while (WaitToRead(socket.fd, stop)) {
    Frame frame;
    ReadResult result = ReadResult::kFrame;
    while ((result = socket.read(socket.fd, frame)) == ReadResult::kFrame) link.Send(frame);
    if (result == ReadResult::kEnd) return true;
  }
  return false;
}

/// While the other side doesn't read, frames wait on the bus, where there is room for many.
void CarryOutbound(const FrameSocket& socket, Link& link, const std::atomic<bool>& done) {
  while (!done) {
    for (const Frame& frame : link.Receive(kBatch, kPause)) {
      while (!done && !socket.write(socket.fd, frame)) {
        pollfd room{socket.fd, POLLOUT, 0};
        poll(&room, 1, kRoomPauseMs);
      }
    }
  }
}

}  // namespace

StopSignal::StopSignal() : fd_(eventfd(0, EFD_CLOEXEC)) {
  if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void StopSignal::Set() const { eventfd_write(fd_.Get(), 1); }

bool WaitToRead(int fd, const StopSignal& stop) {
  std::array<pollfd, 2> waiting{{{stop.Fd(), POLLIN, 0}, {fd, POLLIN, 0}}};
  while (poll(waiting.data(), waiting.size(), -1) < 0 && errno == EINTR) {
  }
  return waiting[0].revents == 0;
}

bool CarryFrames(const FrameSocket& socket, Link& link, const StopSignal& stop) {
  std::atomic<bool> done{false};
  std::thread outbound([&] { CarryOutbound(socket, link, done); });
  const bool ended = CarryInbound(socket, link, stop);
  done = true;
  link.Close();
  outbound.join();
  return ended;
}

}  // namespace talvera::korvane::sim
