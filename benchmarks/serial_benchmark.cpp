// How many reads a second a serial hand gives, as ever and by events, on a line that takes the time
// of a real one: a pseudo-terminal has no speed, so that the simulated hand waits out the bytes of
// the request and then says its reply byte by byte. Compare within one run only.

#include <benchmark/benchmark.h>

#include <chrono>

#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_sim/serial_hand.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"

namespace talvera::korvane {
namespace {

constexpr std::uint8_t kId = 1;
/// A command with one byte, between head and checksum.
constexpr int kRequestBytes = 9;
constexpr int kBitsPerByte = 10;

sim::SerialFaults WireTime(std::int64_t baud) {
  const auto byte = std::chrono::nanoseconds(std::chrono::seconds(kBitsPerByte)) / baud;
  sim::SerialFaults times;
  times.delay = kRequestBytes * byte;
  times.split = byte;
  return times;
}

void GetJointMotorPosiOverSerial(benchmark::State& state) {
  SetLogSink(SilentLog());
  sim::SerialHand device(sim::SimulatedHand(sim::kBrisa, kId));
  device.SetFaults(WireTime(state.range(0)));
  KorvaneBrisaSerialImpl hand(HandType::RIGHT, kId, device.Path(),
                              static_cast<int>(state.range(0)));
  SetReceiving(hand, state.range(1) != 0 ? Receiving::BY_EVENTS : Receiving::AS_EVER);
  // So that a lost reply is seen as one, and not as a slow one.
  hand.SetFrameRecvTimeout(200);
  std::int64_t failed = 0;
  for ([[maybe_unused]] auto _ : state) {
    if (!Checked(hand, [](auto& h) { return h.GetJointMotorPosi(3); })) ++failed;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["failed"] = static_cast<double>(failed);
}
BENCHMARK(GetJointMotorPosiOverSerial)
    ->ArgNames({"baud", "by_events"})
    ->ArgsProduct({{115200, 921600}, {0, 1}})
    ->UseRealTime();

}  // namespace
}  // namespace talvera::korvane
