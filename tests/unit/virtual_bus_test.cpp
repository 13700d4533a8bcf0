#include "korvane_sim/virtual_bus.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

#include "korvane_sim/in_process_adapters.h"
#include "support/exchange_script.h"
#include "support/virtual_clock.h"

namespace talvera::korvane::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Ids = std::vector<std::uint32_t>;

Frame Read(std::uint32_t id) { return {id, 64, {}}; }

Ids IdsAt(VirtualBus::Port& port) {
  Ids ids;
  while (const auto frame = port.Receive({})) ids.push_back(frame->id);
  return ids;
}

class VirtualBusTest : public testing::Test {
 protected:
  test::VirtualClock clock_{1};
  VirtualBus bus_{clock_, 7};
  std::unique_ptr<VirtualBus::Port> port_ = bus_.Open();
};

TEST_F(VirtualBusTest, CarriesCanFdLengthsAndRefusesWhatIsNoFrame) {
  const auto other = bus_.Open();
  Frame frame{0x00100181, 10, {}};
  frame.data.fill(0xAA);
  EXPECT_TRUE(port_->Send(frame));
  EXPECT_EQ(test::DataOf(other->Receive({}).value_or(Frame{})), test::Hex("AA*10 00*2"));
  EXPECT_FALSE(port_->Send({0x00100181, 65, {}}));
  EXPECT_FALSE(port_->Send(Read(0x20000000)));
}

TEST_F(VirtualBusTest, WhoeverWaitsGetsRepliesReportsAndUploadsOnTime) {
  for (const ModelRow* model : {&kBrisa, &kTessel, &kLumen}) bus_.Add({*model, 1});
  EXPECT_THROW(bus_.Settings(1), std::out_of_range);
  Faults faults;
  faults.delay = milliseconds(5);
  bus_.SetFaults(faults);
  constexpr std::uint32_t kReport = 0x00220101;
  EXPECT_TRUE(port_->Send({kReport | 0x80, 64, {70}}));  // Of the one hand that has them
  EXPECT_TRUE(port_->Send({9, 3, {0x28, 50}}));          // Of the other two
  std::string came;
  for (int i = 0; i < 9; ++i) {
    const std::uint32_t id = port_->Receive(seconds(10)).value_or(Frame{}).id;
    came += id == kReport ? " r" : id == 9 ? " u" : " other";
    came += std::to_string(clock_.Now().time_since_epoch() / milliseconds(1));
  }
  EXPECT_EQ(came, " r5 u5 u5 u55 u55 r75 u105 u105 r145");
}

TEST(FrameTimeTest, CountsEachBitAndTheStuffedOnes) {
  const auto time = [](std::uint32_t id, std::uint8_t len, std::uint8_t byte, BitRates rates = {}) {
    Frame frame{id, len, {}};
    frame.data.fill(byte);
    return FrameTime(frame, rates).count();
  };
  constexpr std::uint32_t kNothingToStuff = 0x15555555;
  EXPECT_EQ(time(kNothingToStuff, 64, 0x55), 158800);
  EXPECT_EQ(time(kNothingToStuff, 64, 0x87), 158800 + 128 * 200) << "every fourth bit";
  EXPECT_EQ(time(kNothingToStuff, 64, 0x55, {1000000, 1000000}), 598000);
  EXPECT_EQ(time(0x155F0555, 64, 0x55), 158800 + 2000) << "in the identifier";
  EXPECT_EQ(time(0x555, 0, 0), 36400) << "five equal bits at the end need none";
  EXPECT_EQ(time(0x555, 16, 0x55) - time(0x555, 12, 0x55), 4 * 8 * 200);
  EXPECT_EQ(time(0x555, 20, 0x55) - time(0x555, 16, 0x55), (4 * 8 + 5) * 200) << "longer checksum";
}

TEST_F(VirtualBusTest, WithBitRatesFramesPassOneAfterAnother) {
  bus_.Add({kBrisa, 1});
  bus_.SetBitRates(BitRates{});
  const auto other = bus_.Open();
  const auto start = clock_.Now();
  const Ids asked{0x03130101, 0x04130101};
  for (const std::uint32_t id : asked) EXPECT_TRUE(port_->Send(Read(id)));
  auto passed = start;
  for (int i = 0; i < 4; ++i) {  // Both replies are ready before the second request has passed.
    const Frame frame = other->Receive(seconds(1)).value_or(Frame{});
    EXPECT_EQ(frame.id, asked[static_cast<std::size_t>(i % 2)]);
    passed += FrameTime(frame, {});
    EXPECT_EQ(clock_.Now(), passed) << i;
  }
  EXPECT_EQ(bus_.Statistics().busy, passed - start);
  while (port_->Send(Read(asked[0]))) {
  }
  EXPECT_EQ(bus_.Statistics().from_hosts, 2U + 4096U);
}

TEST(VirtualBusOfTwoThreads, AFrameOrAClosingPortEndsAWaitThatTimeDoesNot) {
  test::VirtualClock clock(2);
  VirtualBus bus(clock);
  const auto port = bus.Open();
  const auto other = bus.Open();
  const auto receive = [&] {
    auto result =
        std::async(std::launch::async, [&] { return port->Receive(seconds(10)).has_value(); });
    clock.SleepFor(seconds(1));  // Passes when the other thread waits too.
    return result;
  };
  auto received = receive();
  other->Send(Read(0x00130101));
  EXPECT_TRUE(received.get());
  received = receive();
  port->Close();
  EXPECT_FALSE(received.get());
  EXPECT_FALSE(port->Send(Read(0x00130101)));
  EXPECT_FALSE(port->Receive(seconds(10)));
}

/// What comes to a host that reads the position of each motor a hundred times.
std::pair<Ids, BusStatistics> ReadManyTimes(const Faults& faults, std::uint64_t seed = 1) {
  test::VirtualClock clock(1);
  VirtualBus bus(clock, seed);
  bus.Add({kBrisa, 1});
  bus.SetFaults(faults);
  const auto port = bus.Open();
  for (std::uint32_t i = 0; i < 1000; ++i) port->Send(Read(0x00130101 | (i % 10 + 1) << 24));
  clock.SleepFor(seconds(1));
  return {IdsAt(*port), bus.Statistics()};
}

TEST(VirtualBusFaults, StrikeAsOftenAsAskedAndAreCountedAndComeAgainWithTheSameSeed) {
  Faults faults;
  faults.loss = 0.1;  // Of 1000 requests, and of the 900 replies to the others.
  faults.foreign = 0.5;
  faults.duplicate = 0.8;
  faults.reorder = 0.4;
  faults.jitter = milliseconds(1);
  const auto [ids, counts] = ReadManyTimes(faults);
  EXPECT_EQ(ReadManyTimes(faults).first, ids);
  EXPECT_NE(ReadManyTimes(faults, 2).first, ids);
  EXPECT_NEAR(static_cast<double>(counts.from_hands), 900, 60);
  EXPECT_NEAR(static_cast<double>(counts.lost), 190, 60);
  EXPECT_NEAR(static_cast<double>(counts.foreign), 450, 60);
  EXPECT_NEAR(static_cast<double>(counts.duplicated), 648, 60);
  EXPECT_NEAR(static_cast<double>(counts.reordered), 324, 60);
  std::array<std::size_t, 128> from{};
  for (const std::uint32_t id : ids) ++from[id & 0x7F];
  EXPECT_EQ(from[0], 0U) << "no device has that id";
  EXPECT_EQ(from[1], 1000 - counts.lost + counts.duplicated);
  EXPECT_EQ(ids.size(), from[1] + counts.foreign);
}

TEST_F(VirtualBusTest, AFullBufferLosesFramesAndAPortOutlivesItsBus) {
  auto bus = std::make_unique<VirtualBus>(clock_);
  bus->Add({kBrisa, 1});
  const auto port = bus->Open();
  for (int i = 0; i < 5000; ++i) port->Send(Read(0x00130101));
  EXPECT_EQ(bus->Statistics().overruns, 5000U - 4096U);
  EXPECT_EQ(bus->Statistics().from_hosts, 5000U);
  EXPECT_EQ(bus->Statistics().from_hands, 5000U);
  bus.reset();
  EXPECT_EQ(IdsAt(*port).size(), 4096U);
  EXPECT_TRUE(port->Send(Read(0x00130101)));
}

TEST(InProcessAdaptersTest, AreOneToEightOfOneToSixteenChannels) {
  for (const AdapterOptions& bad : {AdapterOptions{0, 1}, {9, 1}, {1, 0}, {1, 17}}) {
    EXPECT_THROW(InProcessAdapters{bad}, std::invalid_argument);
  }
  InProcessAdapters all({8, 16});
  EXPECT_EQ(all.Bus(7, 15).HandCount(), 0U);
  EXPECT_THROW(all.Bus(8, 0), std::out_of_range);
  EXPECT_THROW(all.Bus(0, 16), std::out_of_range);
}

}  // namespace
}  // namespace talvera::korvane::sim
