#include "socket_pair_can.h"

#include <linux/can.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <system_error>

namespace talvera::korvane::bench {
namespace {

void Answer(sim::SimulatedHand& hand, int fd) {
  canfd_frame raw{};
  if (read(fd, &raw, sizeof raw) != sizeof raw) return;
  sim::Frame frame;
  frame.id = raw.can_id & CAN_EFF_MASK;
  frame.len = raw.len;
  std::copy_n(raw.data, raw.len, frame.data.begin());
  for (const sim::Frame& reply : hand.Handle(frame, std::chrono::steady_clock::now())) {
    canfd_frame out{};
    out.can_id = reply.id | CAN_EFF_FLAG;
    out.len = reply.len;
    std::copy_n(reply.data.begin(), reply.len, out.data);
    static_cast<void>(!write(fd, &out, sizeof out));
  }
}

[[noreturn]] void Serve(const std::vector<int>& far_ends) {
  std::vector<sim::SimulatedHand> hands;
  std::vector<pollfd> watched;
  for (const int fd : far_ends) {
    hands.emplace_back(sim::kBrisa, static_cast<std::uint8_t>(hands.size() + 1));
    watched.push_back({fd, POLLIN, 0});
  }
  while (poll(watched.data(), watched.size(), -1) > 0) {
    for (std::size_t i = 0; i < hands.size(); ++i) {
      if ((watched[i].revents & POLLIN) != 0) Answer(hands[i], watched[i].fd);
      if ((watched[i].revents & POLLHUP) != 0) watched[i].fd = -1;
    }
  }
  _exit(0);
}

}  // namespace

SocketPairHands::SocketPairHands(int count) {
  std::vector<int> far_ends;
  for (int i = 0; i < count; ++i) {
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    near_ends_.push_back(ends[0]);
    far_ends.push_back(ends[1]);
  }
  process_ = fork();
  if (process_ == 0) {
    for (const int fd : near_ends_) close(fd);
    Serve(far_ends);
  }
  for (const int fd : far_ends) close(fd);
  lent_.emplace(near_ends_);
}

SocketPairHands::~SocketPairHands() {
  for (const int fd : near_ends_) close(fd);
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

}  // namespace talvera::korvane::bench
