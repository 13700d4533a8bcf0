// From a factory to the first reply, on each link; and the memory that a hand takes. The baselines
// are a request of a hand that is there already, and threads that do nothing.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_sim/in_process_adapters.h"
#include "korvane_sim/serial_hand.h"
#include "samples.h"
#include "socket_pair_can.h"

namespace talvera::korvane {
namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr std::uint8_t kId = 1;
constexpr int kBaud = 115200;
constexpr int kStarts = 30;
constexpr int kHands = 20;

enum class Link : std::uint8_t { kSocketCan, kZlg, kHcan, kSerial };

/// Simulated hands behind one kind of link, and the factory for it.
class Place {
 public:
  explicit Place(Link link) : link_(link) {
    SetLogSink(SilentLog());
    if (link == Link::kSerial) serial_.emplace(sim::SimulatedHand(sim::kBrisa, kId));
    if (link == Link::kZlg || link == Link::kHcan) {
      adapters_.emplace();
      adapters_->Bus(0, 0).Add({sim::kBrisa, kId});
    }
  }

  /// A SocketCAN hand needs a pair of its own each time. Another hand has an answer before, so that
  /// the process of the simulated ones has started.
  void Prepare();

  std::unique_ptr<KorvaneBrisa> Make() const {
    switch (link_) {
      case Link::kSocketCan:
        return MakeOnSocketCan(kId + 1);
      case Link::kZlg:
        return KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, kId, 0, 0);
      case Link::kHcan:
        return KorvaneBrisa::createHandByHcan(HandType::RIGHT, kId, 0, 0);
      case Link::kSerial:
        return KorvaneBrisa::createHandByUsb(HandType::RIGHT, kId, serial_->Path(), kBaud);
    }
    return nullptr;
  }

 private:
  static std::unique_ptr<KorvaneBrisa> MakeOnSocketCan(std::uint8_t id) {
    return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, id, "pair");
  }

  const Link link_;
  std::optional<sim::InProcessAdapters> adapters_;
  std::optional<sim::SerialHand> serial_;
  std::optional<bench::SocketPairHands> pairs_;
};

bool Ask(KorvaneBrisa& hand) {
  return bool(Checked(hand, [](auto& h) { return h.GetJointMotorPosi(3); }));
}

void Place::Prepare() {
  if (link_ != Link::kSocketCan) return;
  pairs_.reset();
  pairs_.emplace(2);
  const auto first = MakeOnSocketCan(kId);
  first->SetFrameRecvTimeout(1000);
  Ask(*first);
}

struct Times {
  std::vector<double> first, next, end;
  int failed = 0;
};

void StartOnce(Place& place, Times& times) {
  place.Prepare();
  const auto start = Clock::now();
  auto hand = place.Make();
  hand->SetFrameRecvTimeout(500);
  times.failed += Ask(*hand) ? 0 : 1;
  const auto answered = Clock::now();
  times.failed += Ask(*hand) ? 0 : 1;
  const auto again = Clock::now();
  hand.reset();
  times.first.push_back(Microseconds(answered - start).count());
  times.next.push_back(Microseconds(again - answered).count());
  times.end.push_back(Microseconds(Clock::now() - again).count());
}

void FactoryToFirstReply(benchmark::State& state) {
  SetDefaultReceiving(state.range(1) != 0 ? Receiving::BY_EVENTS : Receiving::AS_EVER);
  Place place(static_cast<Link>(state.range(0)));
  for ([[maybe_unused]] auto _ : state) {
    Times times;
    for (int i = 0; i < kStarts; ++i) StartOnce(place, times);
    state.counters["first_us"] = bench::Percentile(times.first, 0.5);
    state.counters["first_p90_us"] = bench::Percentile(times.first, 0.9);
    state.counters["next_us"] = bench::Percentile(times.next, 0.5);
    state.counters["destroyed_us"] = bench::Percentile(times.end, 0.5);
    state.counters["failed"] = times.failed;
  }
}
// `link`: 0 SocketCAN, 1 ZLG, 2 HCAN, 3 a serial line.
BENCHMARK(FactoryToFirstReply)
    ->ArgNames({"link", "by_events"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Apply(&bench::WithSpread);

double ResidentKib() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

void MemoryOfAHand(benchmark::State& state) {
  SetLogSink(SilentLog());
  SetDefaultReceiving(state.range(0) != 0 ? Receiving::BY_EVENTS : Receiving::AS_EVER);
  for ([[maybe_unused]] auto _ : state) {
    const bench::SocketPairHands pairs(kHands);
    std::vector<std::unique_ptr<KorvaneBrisa>> hands;
    const double before = ResidentKib();
    for (int i = 1; i <= kHands; ++i) {
      hands.push_back(
          KorvaneBrisa::createHandSocketCan(HandType::RIGHT, static_cast<std::uint8_t>(i), "pair"));
      Ask(*hands.back());
    }
    state.counters["kib_each"] = (ResidentKib() - before) / kHands;
  }
}
BENCHMARK(MemoryOfAHand)->ArgName("by_events")->Arg(0)->Arg(1)->Apply(&bench::WithSpread);

void MemoryOfAThread(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    bool over = false;
    std::vector<std::thread> threads;
    threads.reserve(kHands);
    const double before = ResidentKib();
    for (int i = 0; i < kHands; ++i) {
      threads.emplace_back([&] {
        std::unique_lock lock(mutex);
        ++running;
        changed.notify_all();
        changed.wait(lock, [&] { return over; });
      });
    }
    {
      std::unique_lock lock(mutex);
      changed.wait(lock, [&] { return running == kHands; });
      state.counters["kib_each"] = (ResidentKib() - before) / kHands;
      over = true;
      changed.notify_all();
    }
    for (std::thread& thread : threads) thread.join();
  }
}
BENCHMARK(MemoryOfAThread)->Apply(&bench::WithSpread);

}  // namespace
}  // namespace talvera::korvane
