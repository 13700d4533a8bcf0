// Hands on SocketCAN that receive as ever and by events: requests a second, what they take of the
// processors, and how long a request takes. On the interface that KORVANE_TEST_CAN names, with the
// hands in korvane-sim, all on one bus; without it on socket pairs, on separate buses, on one, or
// on one that takes the time of a real one. The baseline is the same exchange of frames on the same
// sockets without the library. The simulated hands run in another process, whose time isn't
// counted, but which shares the processors. Compare within one run only.

#include <benchmark/benchmark.h>
#include <linux/can.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "can_socket.h"
#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "samples.h"
#include "socket_pair_can.h"
#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;

constexpr auto kMeasuredTime = std::chrono::seconds(1);
/// Of a request, and of its reply.
constexpr std::uint32_t kPositionOfMotor3 = 0x03130100;
constexpr int kLongestTimeoutMs = 1000;

bench::Buses BusesOf(const benchmark::State& state) {
  return static_cast<bench::Buses>(state.range(1));
}

enum class Way : std::uint8_t { kAsEver, kByEvents, kBare };

Way WayOf(const benchmark::State& state) { return static_cast<Way>(state.range(2)); }

/// Simulated Brisas with the ids 1 to `count`.
class Simulated {
 public:
  Simulated(int count, bench::Buses buses) {
    if (bench::Interface() == nullptr) {
      pairs_.emplace(count, buses);
      return;
    }
    std::vector<std::string> arguments{"--can", bench::Interface()};
    for (int i = 1; i <= count; ++i) {
      arguments.insert(arguments.end(), {"--hand", "brisa:" + std::to_string(i)});
    }
    if (buses == bench::Buses::kOnePaced) arguments.emplace_back("--paced");
    simulator_.emplace(arguments);
    if (!simulator_->AwaitReady()) throw std::runtime_error(simulator_->Said());
  }

  std::chrono::nanoseconds BusyTime() const {
    return pairs_ ? pairs_->BusyTime() : std::chrono::nanoseconds(0);
  }

 private:
  std::optional<bench::SocketPairHands> pairs_;
  std::optional<test::SimulatorProcess> simulator_;
};

/// What asks one hand for a position.
class Asker {
 public:
  Asker() = default;
  Asker(const Asker&) = delete;
  Asker& operator=(const Asker&) = delete;
  virtual ~Asker() = default;
  virtual bool Ask() = 0;
};

class Hand final : public Asker {
 public:
  explicit Hand(std::uint8_t id)
      : hand_(KorvaneBrisa::createHandSocketCan(HandType::RIGHT, id, bench::InterfaceName())) {
    // So that a late reply counts as slow, not as none.
    hand_->SetFrameRecvTimeout(kLongestTimeoutMs);
  }
  bool Ask() override {
    return bool(Checked(*hand_, [](auto& h) { return h.GetJointMotorPosi(3); }));
  }

 private:
  std::unique_ptr<KorvaneBrisa> hand_;
};

/// The frames alone: a write, and reads up to the reply.
class BareSocket final : public Asker {
 public:
  explicit BareSocket(std::uint8_t id) : id_(kPositionOfMotor3 | id) {}
  BareSocket(const BareSocket&) = delete;
  BareSocket& operator=(const BareSocket&) = delete;
  ~BareSocket() override { close(fd_); }

  bool Ask() override {
    canfd_frame frame{};
    frame.can_id = id_ | CAN_EFF_FLAG;
    frame.len = CANFD_MAX_DLEN;
    if (write(fd_, &frame, sizeof frame) != sizeof frame) return false;
    pollfd watched{fd_, POLLIN, 0};
    while (poll(&watched, 1, kLongestTimeoutMs) > 0 &&
           read(fd_, &frame, sizeof frame) == sizeof frame) {
      if ((frame.can_id & CAN_EFF_MASK) == id_) return true;
    }
    return false;
  }

 private:
  const std::uint32_t id_;
  const int fd_ = bench::OpenCanSocket();
};

/// Simulated hands, and what asks each of them.
class Hands {
 public:
  explicit Hands(const benchmark::State& state)
      : simulated_(static_cast<int>(state.range(0)), BusesOf(state)) {
    SetLogSink(SilentLog());
    const Way way = WayOf(state);
    SetDefaultReceiving(way == Way::kByEvents ? Receiving::BY_EVENTS : Receiving::AS_EVER);
    for (int i = 1; i <= state.range(0); ++i) {
      const auto id = static_cast<std::uint8_t>(i);
      if (way == Way::kBare) {
        askers_.push_back(std::make_unique<BareSocket>(id));
      } else {
        askers_.push_back(std::make_unique<Hand>(id));
      }
    }
  }

  const std::vector<std::unique_ptr<Asker>>& All() const { return askers_; }
  std::chrono::nanoseconds BusyTime() const { return simulated_.BusyTime(); }

 private:
  Simulated simulated_;
  std::vector<std::unique_ptr<Asker>> askers_;
};

Seconds ProcessTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return Seconds(std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec));
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Asked {
  std::vector<double> microseconds;
  int failed = 0;
};

Asked AskUntil(Asker& hand, Clock::time_point end) {
  Asked asked;
  for (auto start = Clock::now(); start < end;) {
    if (!hand.Ask()) ++asked.failed;
    const auto answered = Clock::now();
    asked.microseconds.push_back(Seconds(answered - start).count() * 1e6);
    start = answered;
  }
  return asked;
}

/// Each hand by a thread of its own, without a pause.
Asked AskAll(const Hands& hands) {
  const auto end = Clock::now() + kMeasuredTime;
  std::vector<Asked> each(hands.All().size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < each.size(); ++i) {
    threads.emplace_back([&, i] { each[i] = AskUntil(*hands.All()[i], end); });
  }
  Asked all;
  for (std::size_t i = 0; i < each.size(); ++i) {
    threads[i].join();
    const auto& some = each[i].microseconds;
    all.microseconds.insert(all.microseconds.end(), some.begin(), some.end());
    all.failed += each[i].failed;
  }
  return all;
}

/// In processors: 1 is one that does nothing else.
double LoadOfEach(const Hands& hands, Seconds used, Clock::time_point since) {
  return used / Seconds(Clock::now() - since) / static_cast<double>(hands.All().size());
}

void HandsThatAreAsked(benchmark::State& state) {
  const Hands hands(state);
  for ([[maybe_unused]] auto _ : state) {
    const auto start = Clock::now();
    const Seconds before = ProcessTime();
    const auto busy = hands.BusyTime();
    Asked asked = AskAll(hands);
    state.counters["load"] = LoadOfEach(hands, ProcessTime() - before, start);
    const Seconds took = Clock::now() - start;
    state.counters["requests"] = static_cast<double>(asked.microseconds.size()) / took.count();
    if (BusesOf(state) == bench::Buses::kOnePaced && bench::Interface() == nullptr) {
      state.counters["bus_busy"] = Seconds(hands.BusyTime() - busy) / took;
    }
    state.counters["p50_us"] = bench::Percentile(asked.microseconds, 0.5);
    state.counters["p99_us"] = bench::Percentile(asked.microseconds, 0.99);
    state.counters["failed"] = asked.failed;
  }
}

void HandsThatAreLeftAlone(benchmark::State& state) {
  const Hands hands(state);
  for ([[maybe_unused]] auto _ : state) {
    const auto start = Clock::now();
    const Seconds before = ProcessTime();
    std::this_thread::sleep_for(kMeasuredTime);
    state.counters["load"] = LoadOfEach(hands, ProcessTime() - before, start);
  }
}

// `bus`: 0 separate ones, 1 one for all, 2 one with the time of a real one. `way`: 0 as ever, 1 by
// events, 2 without the library. A kernel's bus is one for all.
void Asked3Ways(benchmark::internal::Benchmark* registered) {
  registered->ArgNames({"hands", "bus", "way"})->Apply(&bench::WithSpread);
  const std::vector<std::int64_t> buses =
      bench::Interface() ? std::vector<std::int64_t>{1} : std::vector<std::int64_t>{0, 1, 2};
  registered->ArgsProduct({{1, 2, 5, 10, 20}, buses, {0, 1, 2}});
}
BENCHMARK(HandsThatAreAsked)->Apply(&Asked3Ways);

void Alone2Ways(benchmark::internal::Benchmark* registered) {
  registered->ArgNames({"hands", "bus", "way"})->Apply(&bench::WithSpread);
  registered->ArgsProduct({{1, 5, 20}, {bench::Interface() ? 1 : 0}, {0, 1}});
}
BENCHMARK(HandsThatAreLeftAlone)->Apply(&Alone2Ways);

}  // namespace
}  // namespace talvera::korvane
