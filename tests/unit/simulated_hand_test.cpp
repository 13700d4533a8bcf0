#include "korvane_sim/simulated_hand.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace talvera::korvane::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Bytes = std::vector<std::uint8_t>;

Frame MakeFrame(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
  Frame frame;
  frame.id = id;
  frame.len = length;
  std::copy(data.begin(), data.end(), frame.data.begin());
  return frame;
}

Bytes DataOf(const Frame& frame) { return {frame.data.begin(), frame.data.begin() + frame.len}; }

int Value(const Frame& frame, std::size_t index = 0) {
  return static_cast<std::int16_t>(frame.data[2 * index] | frame.data[2 * index + 1] << 8);
}

/// A hand with id 0x27 and a time that the test moves.
class SimulatedHandTest : public testing::Test {
 protected:
  SimulatedHandTest() { hand_.Advance(now_); }

  std::vector<Frame> Send(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
    return hand_.Handle(MakeFrame(id, data, length), now_);
  }

  /// The one reply that must come.
  Frame Ask(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
    const auto replies = Send(id, data, length);
    EXPECT_EQ(replies.size(), 1U) << std::hex << id;
    return replies.empty() ? Frame{} : replies.front();
  }

  void Pass(std::chrono::nanoseconds time) {
    now_ += time;
    hand_.Advance(now_);
  }

  SimulatedHand hand_{kBrisa, 0x27};
  SimulatedHand::TimePoint now_{seconds(1000)};
};

TEST_F(SimulatedHandTest, AnswersReadsWithTheSameIdentifierAndPaddedLengths) {
  EXPECT_EQ(Ask(0x03130127).id, 0x03130127U);
  EXPECT_EQ(DataOf(Ask(0x03130127)), (Bytes{0x00, 0x10}));
  EXPECT_EQ(Ask(0x00130127).len, 20);
  EXPECT_EQ(Ask(0x00100127).len, 12);  // Ten modes travel in twelve bytes.
  EXPECT_EQ(DataOf(Ask(0x01100127)), Bytes{4});
  EXPECT_EQ(DataOf(Ask(0x00210127)).size(), 20U);
}

TEST_F(SimulatedHandTest, EchoesWritesWithTheWriteFlagClear) {
  const Frame one = Ask(0x031301A7, {0xE8, 0x03});
  EXPECT_EQ(one.id, 0x03130127U);
  EXPECT_EQ(DataOf(one), (Bytes{0xE8, 0x03}));

  Bytes positions(20);
  std::iota(positions.begin(), positions.end(), std::uint8_t{1});
  const Frame all = Ask(0x001301A7, positions, 20);
  EXPECT_EQ(all.id, 0x00130127U);
  EXPECT_EQ(DataOf(all), positions);

  EXPECT_EQ(Ask(0x001001A7, Bytes(10, 5), 10).len, 12);
  EXPECT_EQ(DataOf(Ask(0x00100127))[9], 5);
  EXPECT_EQ(DataOf(Ask(0x020301A7, {0x2C, 0x01})), (Bytes{0x2C, 0x01}));
  EXPECT_EQ(Value(Ask(0x02030127)), 300);
}

TEST_F(SimulatedHandTest, IgnoresWhatIsNotForItOrMakesNoSense) {
  const std::vector<std::pair<const char*, Frame>> frames{
      {"another device", MakeFrame(0x03130128)},
      {"another family", MakeFrame(0x03130727)},
      {"reserved bit", MakeFrame(0x03138127)},
      {"more than 29 bits", MakeFrame(0x23130127)},
      {"standard identifier", MakeFrame(0x127)},
      {"function that no hand has", MakeFrame(0x00FE0127)},
      {"function 0", MakeFrame(0x00000127)},
      {"motor 11", MakeFrame(0x0B130127)},
      {"motor 31", MakeFrame(0x1F1301A7)},
      {"write that only other models take", MakeFrame(0x002001A7)},
      {"read of mixed control", MakeFrame(0x00140127)},
      {"vendor record of a motor", MakeFrame(0x01010127)},
      {"sensor 8", MakeFrame(0x08050127)},
      {"half a value", MakeFrame(0x031301A7, {1}, 1)},
      {"nine and a half values", MakeFrame(0x001301A7, {}, 19)},
      {"a length that no frame has", MakeFrame(0x031301A7, {}, 200)},
      {"new id without a byte", MakeFrame(0x010201A7, {}, 0)},
      {"new id 0", MakeFrame(0x010201A7, {0x80})},
      {"mixed control without elements", MakeFrame(0x001401A7, {}, 0)},
      {"mixed control in mode 3", MakeFrame(0x001401A7, {0x61})},
  };
  for (const auto& [what, frame] : frames) {
    EXPECT_TRUE(hand_.Handle(frame, now_).empty()) << what;
  }
  EXPECT_EQ(hand_.DeviceId(), 0x27);
}

TEST_F(SimulatedHandTest, SurvivesAnyFrame) {
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    // Most frames get as far as a handler.
    Frame frame =
        MakeFrame(0x127 | (random() & 0x1F3F0080), {}, static_cast<std::uint8_t>(random() % 65));
    for (auto& byte : frame.data) byte = static_cast<std::uint8_t>(random());
    if (frame.id >> 16 != 0x0102) now_ += milliseconds(random() % 20);
    hand_.Handle(frame, now_);
    if (hand_.DeviceId() != 0x27) hand_ = SimulatedHand(kBrisa, 0x27);
  }
  EXPECT_EQ(Ask(0x00130127).len, 20);
}

TEST_F(SimulatedHandTest, MotorsTakeTimeAndArriveExactly) {
  Ask(0x051301A7, {0x00, 0x00});
  Pass(milliseconds(100));
  const int early = Value(Ask(0x05130127));
  EXPECT_LT(early, 4096);
  EXPECT_GT(early, 2500);
  EXPECT_LT(Value(Ask(0x05120127)), -7000);  // Closing, near the speed limit.
  EXPECT_LT(Value(Ask(0x05220127)), -100);   // Draws current in that direction.
  Pass(seconds(1));
  EXPECT_EQ(Value(Ask(0x05130127)), 0);
  EXPECT_EQ(Value(Ask(0x05120127)), 0);
  EXPECT_EQ(Value(Ask(0x06130127)), 4096);  // Its neighbour stayed.
  EXPECT_EQ(Value(Ask(0x05200127)), 0);     // An end that was asked for is no stall.
}

TEST_F(SimulatedHandTest, MotionDoesNotDependOnHowOftenTimeIsLookedAt) {
  SimulatedHand other(kBrisa, 0x27);
  const Frame move = MakeFrame(0x011301A7, {0x00, 0x04});
  hand_.Handle(move, now_);
  other.Handle(move, now_);
  const auto end = now_ + milliseconds(333);
  while (now_ < end) Pass(std::chrono::microseconds(700));
  other.Advance(now_);
  EXPECT_EQ(hand_.JointMotor(1).Position(), other.JointMotor(1).Position());
  EXPECT_EQ(hand_.JointMotor(1).Current(), other.JointMotor(1).Current());
}

TEST_F(SimulatedHandTest, TheSpeedLimitHolds) {
  Ask(0x011201A7, {0xE8, 0x03});  // 1000 units a second.
  Ask(0x011301A7, {0x00, 0x00});
  Pass(seconds(1));
  EXPECT_NEAR(Value(Ask(0x01130127)), 4096 - 1000, 20);
  Pass(seconds(3600));
  EXPECT_EQ(Value(Ask(0x01130127)), 0);
}

TEST_F(SimulatedHandTest, AnObstacleStallsTheMotorAndMovingAwayClearsTheStall) {
  Motor& motor = hand_.JointMotor(2);
  motor.SetFreeRange(2000, 4096);
  motor.SetThreshold(500);
  motor.SetTarget(0);
  Pass(seconds(2));
  EXPECT_EQ(Value(Ask(0x02130127)), 2000);
  EXPECT_EQ(Value(Ask(0x02220127)), -500);
  EXPECT_EQ(Value(Ask(0x02200127)), kStalled);
  const auto warm = motor.Temperature();
  EXPECT_GT(warm, 25);
  motor.SetTarget(4096);
  Pass(seconds(1));
  EXPECT_EQ(Value(Ask(0x02130127)), 4096);
  EXPECT_EQ(Value(Ask(0x02200127)), 0);
  Pass(seconds(600));
  EXPECT_EQ(Value(Ask(0x02210127)), 25);
}

TEST_F(SimulatedHandTest, AMotorThatPressesTooHardReportsOvercurrentAndThenOverheat) {
  Motor& motor = hand_.JointMotor(1);
  motor.SetFreeRange(3000, 4096);
  motor.SetThreshold(2000);
  motor.SetTarget(0);
  Pass(seconds(1));
  EXPECT_EQ(motor.Errors(), kStalled | kOvercurrent);
  Pass(seconds(120));
  EXPECT_EQ(motor.Errors(), kStalled | kOvercurrent | kOverheat);
  motor.SetFault(kCommunicationException);
  EXPECT_EQ(Value(Ask(0x01200127)), 0x17);
}

TEST_F(SimulatedHandTest, WithoutCurrentNothingMoves) {
  Ask(0x010301A7, {0x00, 0x00});
  Ask(0x011301A7, {0x00, 0x00});
  Pass(seconds(5));
  EXPECT_EQ(Value(Ask(0x01130127)), 4096);
}

TEST_F(SimulatedHandTest, MixedControlAppliesEveryElementInTheFirstOnesLayout) {
  // Mode 4: motor 1 to 1000 and motor 3 to 2000, both with 300 of current; then zeros.
  const Frame echo = Ask(0x001401A7, {0x81, 0xE8, 0x03, 0x2C, 0x01, 0x83, 0xD0, 0x07, 0x2C, 0x01});
  EXPECT_EQ(echo.id, 0x00140127U);
  EXPECT_EQ(echo.len, 64);
  EXPECT_EQ(echo.data[5], 0x83);
  Pass(seconds(2));
  EXPECT_EQ(Value(Ask(0x01130127)), 1000);
  EXPECT_EQ(Value(Ask(0x03130127)), 2000);
  EXPECT_EQ(Value(Ask(0x03030127)), 300);
  EXPECT_EQ(Value(Ask(0x02030127)), 800);

  // Mode 5: motor 1 opens at 500 units a second, until the end stops it.
  Ask(0x001401A7, {0xA1, 0xF4, 0x01, 0x2C, 0x01});
  Pass(seconds(1));
  EXPECT_NEAR(Value(Ask(0x01130127)), 1500, 10);
  EXPECT_EQ(Ask(0x01100127).data[0], 5);
  Pass(seconds(10));
  EXPECT_EQ(Value(Ask(0x01130127)), 4096);
  EXPECT_EQ(Value(Ask(0x01200127)), kStalled);

  // Mode 6: an element for a motor that isn't there doesn't end the frame, one cut off does.
  Ask(0x001401A7, {0xDF, 1, 2, 3, 4, 5, 6, 0xC2, 0x00, 0x08, 0xE8, 0x03, 0x90, 0x01, 0xC3, 0, 0},
      17);
  Pass(seconds(1));
  EXPECT_NEAR(Value(Ask(0x02130127)), 4096 - 1000, 20);
  EXPECT_EQ(Ask(0x02100127).data[0], 6);
  EXPECT_EQ(Ask(0x03100127).data[0], 4);
}

TEST_F(SimulatedHandTest, TellsWhoItIs) {
  hand_.GetIdentity() = {"Hand", "SN-0001", {1, 2, 3, 4}, {5, 6, 7, 8}, 23456, 10};
  const Frame vendor = Ask(0x00010127);
  EXPECT_EQ(vendor.len, 48);
  Bytes expected(48);
  const std::string model = "Hand";
  const std::string serial = "SN-0001";
  std::copy(model.begin(), model.end(), expected.begin());
  std::copy(serial.begin(), serial.end(), expected.begin() + 16);
  std::iota(expected.begin() + 30, expected.begin() + 38, std::uint8_t{1});
  expected[38] = 0xA0;
  expected[39] = 0x5B;
  expected[40] = 10;
  EXPECT_EQ(DataOf(vendor), expected);

  hand_.GetIdentity().product_model = "A model name that is too long";
  const Bytes cut = DataOf(Ask(0x00010127));
  EXPECT_EQ(std::string(cut.begin(), cut.begin() + 23), "A model name tha" + serial);
}

TEST_F(SimulatedHandTest, AnswersTheBroadcastWithItsIdAndAcknowledgesANewIdUnderTheOldOne) {
  EXPECT_EQ(Ask(0x00020100).id, 0x00020127U);
  EXPECT_TRUE(Send(0x00130100).empty());  // Only the device query goes to all.
  EXPECT_TRUE(Send(0x00020180).empty());
  const Frame acknowledgment = Ask(0x010201A7, {5});
  EXPECT_EQ(acknowledgment.id, 0x01020127U);
  EXPECT_EQ(acknowledgment.data[0], 5);
  EXPECT_TRUE(Send(0x00130127).empty());
  EXPECT_EQ(DataOf(Ask(0x00020105)), (Bytes{5, 0, 0, 0, 0}));
}

TEST_F(SimulatedHandTest, TactileSensorsFeelTheClosingHandAndAContact) {
  const auto sum = [](const Frame& frame) {
    return std::accumulate(frame.data.begin(), frame.data.end(), 0);
  };
  EXPECT_EQ(Ask(0x02050127).len, 16);
  EXPECT_EQ(Ask(0x06050127).len, 32);  // 25 bytes, padded.
  EXPECT_EQ(sum(Ask(0x02050127)), 0);
  hand_.JointMotor(5).SetTarget(0);
  Pass(seconds(1));
  EXPECT_GT(sum(Ask(0x02050127)), 500);
  EXPECT_EQ(sum(Ask(0x03050127)), 0);  // The middle finger is still open.
  hand_.SetContact(3, 1.0);
  EXPECT_GT(sum(Ask(0x03050127)), 500);
}

TEST_F(SimulatedHandTest, RawTactileDataComeInNumberedFrames) {
  hand_.SetContact(1, 0.5);
  hand_.SetContact(7, 1.0);
  EXPECT_EQ(Send(0x01060127).size(), 1U);
  const auto dorsum = Send(0x07060127);
  ASSERT_EQ(dorsum.size(), 2U);
  const auto all = Send(0x00060127);
  ASSERT_EQ(all.size(), 10U);
  Bytes whole;
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i].id, 0x00060127U);
    EXPECT_EQ(all[i].len, 64);
    EXPECT_EQ(all[i].data[0], 10);
    EXPECT_EQ(all[i].data[1], i);
    whole.insert(whole.end(), all[i].data.begin() + 2, all[i].data.end());
  }
  const auto at = [&](std::size_t from, std::size_t count) {
    return Bytes(whole.begin() + static_cast<long>(from),
                 whole.begin() + static_cast<long>(from + count));
  };
  EXPECT_EQ(at(0, 16), hand_.TactileBytes(1, 16));
  EXPECT_EQ(at(166, 102), hand_.TactileBytes(7, 102));
  EXPECT_EQ(at(268, 352), Bytes(352));
  Bytes alone(dorsum[0].data.begin() + 2, dorsum[0].data.end());
  alone.insert(alone.end(), dorsum[1].data.begin() + 2, dorsum[1].data.begin() + 42);
  EXPECT_EQ(alone, at(166, 102));
}

TEST(SimulatedHandReports, GoOutOnTheirPeriodAndOnceAfterALongPause) {
  ModelRow row = kBrisa;
  for (FunctionRow& function : row.functions) {
    function.write |= function.function == Function::kTemperatureReport;
  }
  SimulatedHand hand(row, 1);
  SimulatedHand::TimePoint now{seconds(1)};
  EXPECT_FALSE(hand.NextEvent());
  EXPECT_EQ(hand.Handle(MakeFrame(0x00210181, Bytes(20, 20)), now).size(), 1U);  // 0x1414 ms
  ASSERT_TRUE(hand.NextEvent());
  EXPECT_EQ(*hand.NextEvent(), now + milliseconds(0x1414));
  EXPECT_TRUE(hand.TakeDue(now + milliseconds(0x1413)).empty());
  now += seconds(1000);
  const auto due = hand.TakeDue(now);
  ASSERT_EQ(due.size(), 1U);
  EXPECT_EQ(due[0].id, 0x00210101U);
  EXPECT_EQ(due[0].len, 20);
  EXPECT_GT(*hand.NextEvent(), now);
  hand.Handle(MakeFrame(0x00210181), now);
  EXPECT_FALSE(hand.NextEvent());
}

}  // namespace
}  // namespace talvera::korvane::sim
