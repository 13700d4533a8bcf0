#include "korvane_sim/virtual_bus.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "korvane_sim/in_process_adapters.h"
#include "support/manual_clock.h"

namespace talvera::korvane::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
constexpr std::chrono::nanoseconds kNow{0};

Frame Read(std::uint32_t id) {
  Frame frame;
  frame.id = id;
  frame.len = 64;
  return frame;
}

std::vector<std::uint32_t> IdsAt(VirtualBus::Port& port) {
  std::vector<std::uint32_t> ids;
  while (const auto frame = port.Receive(kNow)) ids.push_back(frame->id);
  return ids;
}

class VirtualBusTest : public testing::Test {
 protected:
  ManualClock clock_;
  VirtualBus bus_{clock_, 7};
  std::unique_ptr<VirtualBus::Port> port_ = bus_.Open();
};

TEST_F(VirtualBusTest, FramesReachHandsAndOtherPortsButNotTheirSender) {
  bus_.Add({kBrisa, 1});
  bus_.Add({kVanta, 2});
  bus_.Add({kQuill, 3});  // Of another family, which the broadcast doesn't ask.
  const auto other = bus_.Open();
  EXPECT_TRUE(port_->Send(Read(0x00020100)));
  EXPECT_EQ(IdsAt(*port_), (std::vector<std::uint32_t>{0x00020101, 0x00020102}));
  EXPECT_EQ(IdsAt(*other), (std::vector<std::uint32_t>{0x00020100, 0x00020101, 0x00020102}));
}

TEST_F(VirtualBusTest, CarriesCanFdLengthsAndRefusesWhatIsNoFrame) {
  const auto other = bus_.Open();
  Frame frame = Read(0x00100181);
  frame.len = 10;
  frame.data.fill(0xAA);
  EXPECT_TRUE(port_->Send(frame));
  const auto received = other->Receive(kNow);
  ASSERT_TRUE(received);
  EXPECT_EQ(received->len, 12);
  EXPECT_EQ(received->data[9], 0xAA);
  EXPECT_EQ(received->data[10], 0);
  frame.len = 65;
  EXPECT_FALSE(port_->Send(frame));
  EXPECT_FALSE(port_->Send(Read(0x20000000)));
}

TEST_F(VirtualBusTest, AWaitEndsWhenTheDelayedReplyIsDue) {
  bus_.Add({kBrisa, 1});
  Faults faults;
  faults.delay = milliseconds(30);
  bus_.SetFaults(faults);
  port_->Send(Read(0x00130101));
  EXPECT_FALSE(port_->Receive(kNow));
  std::optional<Frame> received;
  const auto start = clock_.Now();
  std::thread receiver([&] { received = port_->Receive(seconds(10)); });
  clock_.AwaitWaiters(1);
  EXPECT_TRUE(clock_.AdvanceToNextDeadline());
  receiver.join();
  EXPECT_EQ(clock_.Now() - start, milliseconds(30));
  ASSERT_TRUE(received);
  EXPECT_EQ(received->id, 0x00130101U);
}

TEST_F(VirtualBusTest, AFrameOrAClosingPortEndsAWaitThatTimeDoesNot) {
  const auto other = bus_.Open();
  const auto receive_while = [&](const std::function<void()>& action) {
    std::optional<Frame> received;
    std::thread receiver([&] { received = port_->Receive(seconds(10)); });
    clock_.AwaitWaiters(1);
    action();
    receiver.join();
    return received.has_value();
  };
  EXPECT_TRUE(receive_while([&] { other->Send(Read(0x00130101)); }));
  EXPECT_FALSE(receive_while([&] { port_->Close(); }));
  EXPECT_FALSE(port_->Send(Read(0x00130101)));
  EXPECT_FALSE(port_->Receive(seconds(10)));
}

TEST_F(VirtualBusTest, TheSameSeedGivesTheSameFaults) {
  Faults faults;
  faults.loss = 0.2;
  faults.duplicate = 0.2;
  faults.reorder = 0.3;
  faults.foreign = 0.2;
  faults.jitter = milliseconds(1);
  const auto run = [&](std::uint64_t seed) {
    ManualClock clock;
    VirtualBus bus(clock, seed);
    bus.Add({kBrisa, 1});
    bus.SetFaults(faults);
    const auto port = bus.Open();
    for (std::uint32_t i = 0; i < 500; ++i) port->Send(Read(0x00130101 | (i % 10 + 1) << 24));
    clock.Advance(seconds(1));
    return IdsAt(*port);
  };
  EXPECT_EQ(run(1), run(1));
  EXPECT_NE(run(1), run(2));
}

TEST_F(VirtualBusTest, EachFaultStrikesAboutAsOftenAsAsked) {
  bus_.Add({kBrisa, 1});
  const auto count = [&](const Faults& faults) {
    bus_.SetFaults(faults);
    for (int i = 0; i < 1000; ++i) port_->Send(Read(0x00130101));
    clock_.Advance(seconds(1));
    return IdsAt(*port_);
  };
  Faults loss;
  loss.loss = 0.5;  // Both ways: one exchange in four succeeds.
  EXPECT_NEAR(static_cast<double>(count(loss).size()), 250, 60);
  Faults duplicate;
  duplicate.duplicate = 0.5;
  EXPECT_NEAR(static_cast<double>(count(duplicate).size()), 1500, 80);
  Faults foreign;
  foreign.foreign = 0.5;
  const auto ids = count(foreign);
  EXPECT_NEAR(static_cast<double>(ids.size()), 1500, 80);
  EXPECT_EQ(std::count(ids.begin(), ids.end(), 0x00130101U), 1000);
  const std::set<std::uint32_t> senders(ids.begin(), ids.end());
  EXPECT_EQ(senders.count(0x00130100), 0U);  // Not even a foreign device has id 0.
  Faults silent;
  silent.silent_after = 3;
  EXPECT_EQ(count(silent).size(), 3U);
  EXPECT_EQ(count({}).size(), 1000U);
}

TEST_F(VirtualBusTest, ReorderingLetsLaterFramesOvertake) {
  bus_.Add({kBrisa, 1});
  Faults faults;
  faults.reorder = 0.5;
  bus_.SetFaults(faults);
  port_->Send(Read(0x00060101));  // Ten frames.
  clock_.Advance(seconds(1));
  std::vector<int> order;
  while (const auto frame = port_->Receive(kNow)) order.push_back(frame->data[1]);
  EXPECT_EQ(order.size(), 10U);
  EXPECT_FALSE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(VirtualBusTest, AnUnpluggedHandIsSilentAndComesBackAsItWas) {
  const auto number = bus_.Add({kBrisa, 1});
  bus_.WithHand(number, [](SimulatedHand& hand) { hand.JointMotor(1).PlaceAt(1234); });
  bus_.SetPlugged(number, false);
  port_->Send(Read(0x01130101));
  EXPECT_FALSE(port_->Receive(kNow));
  bus_.SetPlugged(number, true);
  port_->Send(Read(0x01130101));
  const auto reply = port_->Receive(kNow);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->data[0] | reply->data[1] << 8, 1234);
}

TEST_F(VirtualBusTest, WhoeverReceivesMakesReportsComeOnTime) {
  bus_.Add({kTessel, 1});
  Frame period = Read(0x00220181);
  period.data[0] = 50;
  port_->Send(period);
  EXPECT_TRUE(port_->Receive(kNow));  // The echo.
  for (int i = 0; i < 3; ++i) {
    std::optional<Frame> report;
    std::thread receiver([&] { report = port_->Receive(seconds(10)); });
    clock_.AwaitWaiters(1);
    clock_.Advance(milliseconds(50));
    receiver.join();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->id, 0x00220101U);
  }
}

TEST_F(VirtualBusTest, AllHandsWithServiceCommandsAnswerAndUploadOnTime) {
  for (const ModelRow* model : {&kBrisa, &kTessel, &kLumen}) bus_.Add({*model, 1});
  EXPECT_THROW(bus_.Settings(1), std::out_of_range);
  EXPECT_TRUE(port_->Send({9, 3, {0x28, 50}}));
  EXPECT_EQ(IdsAt(*port_), std::vector<std::uint32_t>(2, 9));
  std::optional<Frame> upload;
  std::thread receiver([&] { upload = port_->Receive(seconds(10)); });
  clock_.AwaitWaiters(1);
  clock_.Advance(milliseconds(50));
  receiver.join();
  EXPECT_EQ(upload.value_or(Frame{}).data[0], 0x29);
  EXPECT_EQ(IdsAt(*port_).size(), 1U);
}

TEST_F(VirtualBusTest, AFullBufferLosesFramesAndAPortOutlivesItsBus) {
  auto bus = std::make_unique<VirtualBus>(clock_);
  bus->Add({kBrisa, 1});
  const auto port = bus->Open();
  for (int i = 0; i < 5000; ++i) port->Send(Read(0x00130101));
  EXPECT_GT(bus->Statistics().overruns, 0U);
  EXPECT_EQ(bus->Statistics().from_hosts, 5000U);
  bus.reset();
  EXPECT_EQ(IdsAt(*port).size(), 4096U);
  EXPECT_TRUE(port->Send(Read(0x00130101)));
}

TEST(VirtualBusOnTheSystemClock, ServesManyThreadsAtOnce) {
  VirtualBus bus;
  constexpr std::uint8_t kHands = 4;
  for (std::uint8_t id = 1; id <= kHands; ++id) bus.Add({kBrisa, id});
  std::vector<std::thread> hosts;
  std::array<int, kHands> answered{};
  for (std::uint32_t id = 1; id <= kHands; ++id) {
    hosts.emplace_back([&bus, &answered, id] {
      const auto port = bus.Open();
      for (int i = 0; i < 200; ++i) {
        port->Send(Read(0x00130100 | id));
        while (const auto frame = port->Receive(seconds(10))) {
          if (frame->id != (0x00130100 | id) || frame->len != 20) continue;
          ++answered[id - 1];
          break;
        }
      }
    });
  }
  bus.WithHand(0, [](SimulatedHand& hand) { hand.JointMotor(1).SetTarget(0); });
  for (auto& host : hosts) host.join();
  EXPECT_EQ(answered, (std::array<int, kHands>{200, 200, 200, 200}));
}

TEST(InProcessAdaptersTest, ServeTheAdapterFunctionsOfTheProcessWhileTheyLive) {
  using Open = std::uint32_t(std::uint32_t, std::uint32_t, std::uint32_t);
  // As a library without the closed one at hand finds it.
  auto* const open = reinterpret_cast<Open*>(dlsym(RTLD_DEFAULT, "VCI_OpenDevice"));
  auto* const scan = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "CAN_ScanDevice"));
  ASSERT_TRUE(open != nullptr && scan != nullptr);
  EXPECT_EQ(open(33, 0, 0), 0U);
  for (const std::size_t adapters : {1U, 3U}) {
    AdapterOptions options;
    options.adapters = adapters;
    InProcessAdapters world(options);
    EXPECT_EQ(scan(), static_cast<int>(adapters));
    EXPECT_EQ(open(33, 0, 0), 1U);
    EXPECT_EQ(open(33, 0, 0), 0U);  // Until the next world, where nothing is open yet.
    EXPECT_THROW(InProcessAdapters second, std::logic_error);
    EXPECT_THROW(world.Bus(0, 2), std::out_of_range);
  }
  EXPECT_LT(scan(), 0);
  AdapterOptions none;
  none.channels = 0;
  EXPECT_THROW(InProcessAdapters{none}, std::invalid_argument);
}

}  // namespace
}  // namespace talvera::korvane::sim
