// Hands on SocketCAN that receive as ever and by events: requests a second, what they take of the
// processors, and how long a request takes. On the interface that KORVANE_TEST_CAN names, with the
// hands in korvane-sim, all on one bus; without it on socket pairs, a bus for each hand. The
// simulated hands run in another process, whose time isn't counted, but which shares the
// processors. Compare within one run only.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "socket_pair_can.h"
#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

using Seconds = std::chrono::duration<double>;
using Clock = std::chrono::steady_clock;

constexpr auto kMeasuredTime = std::chrono::seconds(1);
constexpr int kLongestTimeoutMs = 1000;

const char* Interface() {
  return std::getenv("KORVANE_TEST_CAN");  // NOLINT(concurrency-mt-unsafe)
}

/// Simulated Brisas with the ids 1 to `count`, and the hand objects for them.
class Hands {
 public:
  Hands(int count, Receiving how) {
    SetLogSink(SilentLog());
    Simulate(count);
    SetDefaultReceiving(how);
    for (int i = 0; i < count; ++i) {
      hands_.push_back(KorvaneBrisa::createHandSocketCan(
          HandType::RIGHT, static_cast<std::uint8_t>(i + 1), Interface() ? Interface() : "pair"));
      // So that a late reply counts as slow, not as none.
      hands_.back()->SetFrameRecvTimeout(kLongestTimeoutMs);
    }
  }
  Hands(const Hands&) = delete;
  Hands& operator=(const Hands&) = delete;
  ~Hands() = default;

  const std::vector<std::unique_ptr<KorvaneBrisa>>& All() const { return hands_; }

 private:
  void Simulate(int count) {
    if (Interface() == nullptr) return void(pairs_.emplace(count));
    std::vector<std::string> arguments{"--can", Interface()};
    for (int i = 1; i <= count; ++i) {
      arguments.insert(arguments.end(), {"--hand", "brisa:" + std::to_string(i)});
    }
    simulator_.emplace(arguments);
    if (!simulator_->AwaitReady()) throw std::runtime_error(simulator_->Said());
  }

  std::optional<bench::SocketPairHands> pairs_;
  std::optional<test::SimulatorProcess> simulator_;
  std::vector<std::unique_ptr<KorvaneBrisa>> hands_;
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

Asked AskUntil(KorvaneBase& hand, Clock::time_point end) {
  Asked asked;
  for (auto start = Clock::now(); start < end;) {
    if (!Checked(hand, [](auto& h) { return h.GetJointMotorPosi(3); })) ++asked.failed;
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

double Percentile(std::vector<double>& values, double share) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

Receiving How(const benchmark::State& state) {
  return state.range(1) != 0 ? Receiving::BY_EVENTS : Receiving::AS_EVER;
}

/// In processors: 1 is one that does nothing else.
double LoadOfEach(const Hands& hands, Seconds used, Clock::time_point since) {
  return used / Seconds(Clock::now() - since) / static_cast<double>(hands.All().size());
}

void HandsThatAreAsked(benchmark::State& state) {
  const Hands hands(static_cast<int>(state.range(0)), How(state));
  for ([[maybe_unused]] auto _ : state) {
    const auto start = Clock::now();
    const Seconds before = ProcessTime();
    Asked asked = AskAll(hands);
    state.counters["load"] = LoadOfEach(hands, ProcessTime() - before, start);
    state.counters["requests"] =
        static_cast<double>(asked.microseconds.size()) / Seconds(Clock::now() - start).count();
    state.counters["p50_us"] = Percentile(asked.microseconds, 0.5);
    state.counters["p99_us"] = Percentile(asked.microseconds, 0.99);
    state.counters["failed"] = asked.failed;
  }
}

void HandsThatAreLeftAlone(benchmark::State& state) {
  const Hands hands(static_cast<int>(state.range(0)), How(state));
  for ([[maybe_unused]] auto _ : state) {
    const auto start = Clock::now();
    const Seconds before = ProcessTime();
    std::this_thread::sleep_for(kMeasuredTime);
    state.counters["load"] = LoadOfEach(hands, ProcessTime() - before, start);
  }
}

double Least(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}
double Most(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

void BothWays(benchmark::internal::Benchmark* registered) {
  registered->ArgNames({"hands", "by_events"})
      ->ArgsProduct({{1, 2, 4, 8}, {0, 1}})
      ->Iterations(1)
      ->UseRealTime()
      ->ComputeStatistics("min", &Least)
      ->ComputeStatistics("max", &Most);
}
BENCHMARK(HandsThatAreAsked)->Apply(&BothWays);
BENCHMARK(HandsThatAreLeftAlone)->Apply(&BothWays);

}  // namespace
}  // namespace talvera::korvane
