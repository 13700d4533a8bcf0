#include "socket_pair_can.h"

#include <linux/can.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <vector>

#include "can_socket.h"
#include "korvane_sim/virtual_bus.h"
#include "support/sim_frames.h"

namespace talvera::korvane::bench {
namespace {

/// What the simulated hands say to the process that measures.
struct Said {
  std::atomic<std::int64_t> busy_ns{0};
};

std::optional<sim::Frame> ReadFrame(int fd) {
  canfd_frame raw{};
  if (read(fd, &raw, sizeof raw) != sizeof raw) return std::nullopt;
  return test::ToSimFrame(raw);
}

/// What a full socket doesn't take is lost, as in the kernel.
void WriteFrame(int fd, const sim::Frame& frame) {
  const canfd_frame raw = test::ToSocketFrame(frame);
  static_cast<void>(send(fd, &raw, sizeof raw, MSG_DONTWAIT));
}

/// The far ends of the socket pairs, and the hands behind them.
class Server {
 public:
  Server(const std::vector<int>& far_ends, Buses buses, Said& said)
      : paced_(buses == Buses::kOnePaced), said_(said) {
    for (const int fd : far_ends) {
      if (buses_.empty() || buses == Buses::kSeparate) buses_.emplace_back();
      buses_.back().Add({sim::kBrisa, static_cast<std::uint8_t>(ports_.size() + 1)});
      ports_.push_back(buses_.back().Open());
      watched_.push_back({fd, POLLIN, 0});
    }
    if (paced_) buses_.front().SetBitRates(sim::BitRates{});
  }

  void Serve() {
    while (Await() >= 0) {
      for (std::size_t i = 0; i < ports_.size(); ++i) TakeRequest(i);
      for (std::size_t i = 0; i < ports_.size(); ++i) GiveWhatCame(i);
      if (paced_) said_.busy_ns = buses_.front().Statistics().busy.count();
    }
  }

 private:
  int Await() {
    // A part of the time of one frame.
    constexpr timespec kStep{0, 20'000};
    return ppoll(watched_.data(), watched_.size(), paced_ ? &kStep : nullptr, nullptr);
  }

  void TakeRequest(std::size_t i) {
    if ((watched_[i].revents & POLLIN) != 0) {
      if (const auto frame = ReadFrame(watched_[i].fd)) ports_[i]->Send(*frame);
    }
    if ((watched_[i].revents & POLLHUP) != 0) watched_[i].fd = -1;
  }

  void GiveWhatCame(std::size_t i) {
    while (const auto frame = ports_[i]->Receive({})) WriteFrame(watched_[i].fd, *frame);
  }

  const bool paced_;
  Said& said_;
  std::deque<sim::VirtualBus> buses_;
  std::vector<std::unique_ptr<sim::VirtualBus::Port>> ports_;
  std::vector<pollfd> watched_;
};

}  // namespace

struct SocketPairHands::Shared : Said {};

SocketPairHands::SocketPairHands(int count, Buses buses) {
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  shared_ = new (memory) Shared;
  std::vector<int> far_ends;
  for (int i = 0; i < count; ++i) {
    int ends[2] = {-1, -1};
    OrThrow(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "socketpair");
    near_ends_.push_back(ends[0]);
    far_ends.push_back(ends[1]);
  }
  process_.emplace([&] {
    for (const int fd : near_ends_) close(fd);
    // Steps of a paced bus end on time, not up to 50 µs later.
    prctl(PR_SET_TIMERSLACK, 1);
    Server(far_ends, buses, *shared_).Serve();
  });
  for (const int fd : far_ends) close(fd);
  lent_.emplace(near_ends_);
}

SocketPairHands::~SocketPairHands() {
  for (const int fd : near_ends_) close(fd);
  process_.reset();
  munmap(shared_, sizeof(Shared));
}

std::chrono::nanoseconds SocketPairHands::BusyTime() const {
  return std::chrono::nanoseconds(shared_->busy_ns);
}

}  // namespace talvera::korvane::bench
