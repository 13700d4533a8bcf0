#include "socket_pair_can.h"

#include <linux/can.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <deque>
#include <iterator>
#include <system_error>

namespace talvera::korvane::bench {
namespace {

/// The near ends that no hand object has asked for yet.
std::deque<int>& NearEnds() {
  static std::deque<int> ends;
  return ends;
}
bool in_use = false;
/// Leads to the same far end for all that ask; negative if there is none.
int lent = -1;

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
    NearEnds().push_back(ends[0]);
    far_ends.push_back(ends[1]);
  }
  process_ = fork();
  if (process_ == 0) {
    for (const int fd : NearEnds()) close(fd);
    Serve(far_ends);
  }
  for (const int fd : far_ends) close(fd);
  in_use = true;
}

SocketPairHands::~SocketPairHands() {
  in_use = false;
  for (const int fd : NearEnds()) close(fd);
  NearEnds().clear();
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

LentSocket::LentSocket(int near_end) {
  lent = near_end;
  in_use = true;
}

LentSocket::~LentSocket() {
  lent = -1;
  in_use = false;
}

}  // namespace talvera::korvane::bench

// In place of the C library's: what the adapter calls to open its socket.
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  using namespace talvera::korvane::bench;
  if (domain == AF_CAN && lent >= 0) return dup(lent);
  if (domain != AF_CAN || NearEnds().empty()) {
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  }
  const int fd = NearEnds().front();
  NearEnds().pop_front();
  return fd;
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  if (talvera::korvane::bench::in_use && address->sa_family == AF_CAN) return 0;
  return static_cast<int>(syscall(SYS_bind, fd, address, size));
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (talvera::korvane::bench::in_use && request == SIOCGIFINDEX) {
    static_cast<ifreq*>(argument)->ifr_ifindex = 1;
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
}
