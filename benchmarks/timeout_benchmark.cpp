// How late a reply time-out ends a request that nobody answers, and that none ends early: on
// SocketCAN and on a serial line, as ever and by events, on a machine left alone and beside two
// busy loops for each processor. The baselines wait the same time without the library: on a
// condition variable, and for a frame on a socket to which a request was written, as a thread that
// has just computed is treated in another way by the scheduler.

#include <benchmark/benchmark.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "busy_loops.h"
#include "can_socket.h"
#include "korvane_brisa.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_sim/serial_hand.h"
#include "samples.h"
#include "socket_pair_can.h"

namespace talvera::korvane {
namespace {

constexpr int kTimeoutMs = 20;
constexpr int kRequests = 100;
constexpr std::uint8_t kId = 1;
constexpr std::uint8_t kNobody = 2;
constexpr int kBaud = 115200;

enum class Waits : std::uint8_t { kConditionVariable, kSocket, kCan, kSerial };

/// A hand object that asks an id that no hand on its link has.
class NobodyThere {
 public:
  NobodyThere(Waits on, Receiving how) {
    SetLogSink(SilentLog());
    SetDefaultReceiving(how);
    if (on == Waits::kCan) {
      can_.emplace(1);
      hand_ = KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kNobody, "pair");
    } else {
      serial_.emplace(sim::SimulatedHand(sim::kBrisa, kId));
      hand_ = KorvaneBrisa::createHandByUsb(HandType::RIGHT, kNobody, serial_->Path(), kBaud);
    }
    hand_->SetFrameRecvTimeout(kTimeoutMs);
  }

  void Ask() const { benchmark::DoNotOptimize(hand_->GetJointMotorPosi(3)); }

 private:
  std::optional<bench::SocketPairHands> can_;
  std::optional<sim::SerialHand> serial_;
  std::unique_ptr<KorvaneBrisa> hand_;
};

template <class Wait>
std::vector<double> LatenessOf(const Wait& wait) {
  std::vector<double> microseconds;
  for (int i = 0; i < kRequests; ++i) {
    const auto start = std::chrono::steady_clock::now();
    wait();
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    microseconds.push_back(took.count() - kTimeoutMs * 1000.0);
  }
  return microseconds;
}

std::vector<double> LatenessOnAConditionVariable() {
  std::mutex mutex;
  std::condition_variable never;
  std::unique_lock lock(mutex);
  return LatenessOf([&] {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kTimeoutMs);
    while (never.wait_until(lock, end) == std::cv_status::no_timeout) {
    }
  });
}

std::vector<double> LatenessOnASocket() {
  const bench::SocketPairHands hands(1);
  const int fd = bench::OpenCanSocket();
  canfd_frame request{};
  request.can_id = kNobody | CAN_EFF_FLAG;
  request.len = CANFD_MAX_DLEN;
  auto late = LatenessOf([&] {
    bench::OrThrow(static_cast<int>(write(fd, &request, sizeof request)), "write");
    pollfd watched{fd, POLLIN, 0};
    bench::OrThrow(poll(&watched, 1, kTimeoutMs), "poll");
  });
  close(fd);
  return late;
}

std::vector<double> Lateness(const benchmark::State& state) {
  const auto on = static_cast<Waits>(state.range(0));
  if (on == Waits::kConditionVariable) return LatenessOnAConditionVariable();
  if (on == Waits::kSocket) return LatenessOnASocket();
  const NobodyThere hand(on, state.range(1) != 0 ? Receiving::BY_EVENTS : Receiving::AS_EVER);
  return LatenessOf([&] { hand.Ask(); });
}

void TimeOut(benchmark::State& state) {
  const bench::BusyLoops loops(static_cast<unsigned>(state.range(2)));
  for ([[maybe_unused]] auto _ : state) {
    std::vector<double> late = Lateness(state);
    const double least = bench::Percentile(late, 0.0);
    state.counters["least_us"] = least;
    state.counters["p50_us"] = bench::Percentile(late, 0.5);
    state.counters["p99_us"] = bench::Percentile(late, 0.99);
    if (least < 0) state.SkipWithError("a time-out came early");
  }
}
// `on`: 0 a condition variable, 1 a socket, 2 SocketCAN, 3 a serial line.
BENCHMARK(TimeOut)
    ->ArgNames({"on", "by_events", "loops"})
    ->ArgsProduct({{0, 1}, {0}, {0, 2}})
    ->ArgsProduct({{2, 3}, {0, 1}, {0, 2}})
    ->Apply(&bench::WithSpread);

}  // namespace
}  // namespace talvera::korvane
