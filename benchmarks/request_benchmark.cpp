// What a request costs on top of the bus that carries it. The baseline is the same exchange of
// frames with the simulated hand, without the library; compare within one run only.

#include <benchmark/benchmark.h>

#include "protocol/can/korvane_brisa_can_impl.h"
#include "socket_pair_can.h"
#include "support/bus_device.h"

namespace talvera::korvane {
namespace {

constexpr std::uint8_t kId = 1;

void BareExchange(benchmark::State& state) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, kId});
  const auto port = bus.Open();
  sim::Frame frame;
  frame.id = 0x03130100U | kId;
  frame.len = 64;
  for ([[maybe_unused]] auto _ : state) {
    port->Send(frame);
    benchmark::DoNotOptimize(port->Receive(std::chrono::seconds(1)));
  }
}
BENCHMARK(BareExchange);

void ExchangeThroughAThread(benchmark::State& state) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, kId});
  test::BusDevice device(bus);
  std::atomic<int> answers{0};
  device.BindCallbacks([&](const CanfdFrame&) { ++answers; }, nullptr, nullptr);
  std::uint8_t data[64] = {};
  int expected = 0;
  for ([[maybe_unused]] auto _ : state) {
    device.SendFrame(0x03130100U | kId, data, 64);
    ++expected;
    while (answers < expected) {
    }
  }
}
BENCHMARK(ExchangeThroughAThread)->UseRealTime();

void GetJointMotorPosi(benchmark::State& state) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, kId});
  KorvaneBrisaCanImpl hand(HandType::RIGHT, kId, std::make_unique<test::BusDevice>(bus));
  if (state.range(0) == 0) EnableConcurrentCalls(hand);
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(hand.GetJointMotorPosi(3));
}
BENCHMARK(GetJointMotorPosi)->ArgName("queue")->Arg(0)->Arg(1)->UseRealTime();

/// Every request is answered before its sending is over, so that no thread has to wake another and
/// the library's own work is all there is.
class InstantDevice : public CanBusDeviceBase {
 public:
  int OpenDevice() override { return 0; }
  int CloseDevice() override { return 0; }
  void RecvFrame() override {}
  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override
      KORVANE_REQUIRES(request_mutex_) {
    CanfdFrame& reply = umap_rep_[matched_rep_id_(id)];
    reply.can_id = id;
    reply.len = len;
    std::copy_n(data, len, reply.data);
    return 0;
  }
};

void GetJointMotorPosiAnsweredAtOnce(benchmark::State& state) {
  KorvaneBrisaCanImpl hand(HandType::RIGHT, kId, std::make_unique<InstantDevice>());
  if (state.range(0) == 0) EnableConcurrentCalls(hand);
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(hand.GetJointMotorPosi(3));
}
BENCHMARK(GetJointMotorPosiAnsweredAtOnce)->ArgName("queue")->Arg(0)->Arg(1);

void GetJointMotorPosiOverASocketPair(benchmark::State& state) {
  const bench::SocketPairHands simulated(1);
  const auto hand = KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, "pair");
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(hand->GetJointMotorPosi(3));
}
BENCHMARK(GetJointMotorPosiOverASocketPair)->UseRealTime();

}  // namespace
}  // namespace talvera::korvane
