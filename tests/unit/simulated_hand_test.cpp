#include "korvane_sim/simulated_hand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <random>
#include <set>
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

  void Become(const ModelRow& model) {
    hand_ = SimulatedHand(model, 0x27);
    hand_.Advance(now_);
  }

  /// A motor that closes with that much current and finds something in the way.
  Motor& PressAgainst(std::size_t index, double obstacle, std::int16_t threshold) {
    Motor& motor = hand_.JointMotor(index);
    motor.SetFreeRange(obstacle, 4096);
    motor.SetThreshold(threshold);
    motor.SetTarget(0);
    return motor;
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
  for (const ModelRow* model : kModels) {
    const std::uint32_t id = 0x27U | std::uint32_t{model->family} << 8;
    Become(*model);
    for (int i = 0; i < 8000; ++i) {
      // Most frames get as far as a handler.
      Frame frame = MakeFrame(id | (random() & 0x1F3F0080), {},
                              static_cast<std::uint8_t>(random() % 3 == 0 ? 0 : random() % 65));
      for (auto& byte : frame.data) byte = static_cast<std::uint8_t>(random());
      if (frame.id >> 16 != 0x0102) now_ += milliseconds(random() % 20);
      hand_.Handle(frame, now_);
      hand_.TakeDue(now_);
      if (hand_.DeviceId() != 0x27) Become(*model);
    }
    EXPECT_EQ(Ask(0x00130000 | id).id, 0x00130000 | id) << model->name;
  }
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
  Motor& motor = PressAgainst(2, 2000, 500);
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
  const Motor& motor = PressAgainst(1, 3000, 2000);
  Pass(seconds(1));
  EXPECT_EQ(motor.Errors(), kStalled | kOvercurrent);
  Pass(seconds(120));
  EXPECT_EQ(motor.Errors(), kStalled | kOvercurrent | kOverheat);
  hand_.JointMotor(1).SetFault(kCommunicationException);
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
  const std::vector<std::size_t> lengths{16, 18, 18, 18, 18, 78, 102};
  for (const ModelRow* model : {&kBrisa, &kQuill}) {
    Become(*model);
    const std::uint32_t id = 0x00060027U | std::uint32_t{model->family} << 8;
    const std::size_t sensors = model == &kBrisa ? 7 : 6;
    Bytes expected;
    for (std::size_t sensor = 1; sensor <= sensors; ++sensor) {
      hand_.SetContact(sensor, 0.1 * static_cast<double>(sensor));
      const Bytes bytes = hand_.TactileBytes(sensor, lengths[sensor - 1]);
      expected.insert(expected.end(), bytes.begin(), bytes.end());
    }
    const auto read = [&](std::uint32_t sensor, std::size_t count) {
      const auto frames = Send(id | sensor << 24);
      EXPECT_EQ(frames.size(), count);
      Bytes bytes;
      for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].id, id | sensor << 24);
        EXPECT_EQ(frames[i].len, 64);
        EXPECT_EQ(frames[i].data[0], count);
        EXPECT_EQ(frames[i].data[1], i);
        bytes.insert(bytes.end(), frames[i].data.begin() + 2, frames[i].data.end());
      }
      return bytes;
    };
    Bytes last(expected.end() - static_cast<long>(lengths[sensors - 1]), expected.end());
    last.resize(124);
    EXPECT_EQ(read(static_cast<std::uint32_t>(sensors), 2), last);
    expected.resize(620);
    EXPECT_EQ(read(0, 10), expected);
    Bytes thumb = hand_.TactileBytes(1, 16);
    thumb.resize(62);
    EXPECT_EQ(read(1, 1), thumb);
  }
}

TEST_F(SimulatedHandTest, ATesselMovesInItsOwnRangeAndFeelsWithItsFingertips) {
  Become(kTessel);
  EXPECT_EQ(Value(Ask(0x07130127)), 2000);
  const Bytes open = DataOf(Ask(0x02050127));
  EXPECT_EQ(open, Bytes(32));  // 29 bytes, padded.
  Ask(0x071301A7, {0x00, 0x00});
  Ask(0x081301A7, {0xB8, 0x0B});  // 3000 is more than it can do.
  Pass(seconds(2));
  EXPECT_EQ(Value(Ask(0x07130127)), 0);
  EXPECT_EQ(Value(Ask(0x08130127)), 2000);
  const Bytes closed = DataOf(Ask(0x02050127));
  EXPECT_EQ(std::count(closed.begin(), closed.end(), 0), 3);
  EXPECT_EQ(DataOf(Ask(0x03050127)), open);  // The middle finger is still open.

  PressAgainst(1, 1000, 700);
  hand_.JointMotor(12).SetFault(kMotorException | kOverheat);
  Pass(seconds(1));
  const Frame errors = Ask(0x00200127);
  EXPECT_EQ(errors.len, 24);
  EXPECT_EQ(Value(errors, 0), kStalled);
  EXPECT_EQ(Value(errors, 7), 0);  // Its end was as far as motor 8 wanted to go.
  EXPECT_EQ(Value(errors, 11), 0x0A);
}

TEST_F(SimulatedHandTest, ReportsGoOutOnTheirPeriodAndOnceAfterALongPause) {
  Become(kTessel);
  EXPECT_FALSE(hand_.NextEvent());
  EXPECT_EQ(Ask(0x002101A7, Bytes(24, 20), 24).len, 24);  // 0x1414 ms
  EXPECT_EQ(hand_.NextEvent(), now_ + milliseconds(0x1414));
  EXPECT_TRUE(hand_.TakeDue(now_ + milliseconds(0x1413)).empty());
  Ask(0x0C2001A7, {0x64, 0x00});
  hand_.JointMotor(12).SetFault(kOvercurrent);
  now_ += seconds(1000);
  const auto due = hand_.TakeDue(now_);
  ASSERT_EQ(due.size(), 2U);
  EXPECT_EQ(due[0].id, 0x0C200127U);
  EXPECT_EQ(DataOf(due[0]), (Bytes{kOvercurrent, 0}));
  EXPECT_EQ(due[1].id, 0x00210127U);
  EXPECT_EQ(due[1].len, 24);
  EXPECT_EQ(hand_.NextEvent(), now_ + milliseconds(100));
  Ask(0x002101A7);
  Ask(0x0C2001A7);
  EXPECT_FALSE(hand_.NextEvent());
}

TEST_F(SimulatedHandTest, AQuillFollowsItsWearerBetweenTheEndsThatItWasTaught) {
  Become(kQuill);
  const auto read = [this](std::uint32_t joint) { return Value(Ask(0x00130727 | joint << 24)); };
  std::set<int> readings;
  for (int i = 0; i < 20; ++i) {
    readings.insert(read(3));
    Pass(milliseconds(150));
  }
  EXPECT_GT(readings.size(), 15U);
  EXPECT_GT(*readings.rbegin() - *readings.begin(), 2000);

  const auto hold = [this](double sensor) {
    for (std::size_t joint = 1; joint <= 10; ++joint) hand_.Joint(joint).Hold(sensor);
    Pass(seconds(1));
  };
  hold(1000);
  EXPECT_EQ(read(3), 1000);
  EXPECT_EQ(Ask(0x000807A7, {}, 0).id, 0x00080727U);
  EXPECT_EQ(read(3), 0);
  EXPECT_TRUE(Send(0x000707A7, {}, 0).size() == 1 && read(3) == 0) << "no range would be left";
  hold(3000);
  EXPECT_EQ(Ask(0x030707A7, {}, 0).len, 0);
  EXPECT_EQ(read(3), 4096);
  EXPECT_LT(read(4), 4096) << "only joint 3 was taught its maximum";
  hold(2000);
  EXPECT_EQ(read(3), 2048);
  hold(500);
  EXPECT_EQ(read(3), 0);
  EXPECT_TRUE(Send(0x0B0707A7, {}, 0).empty());
  EXPECT_TRUE(Send(0x030707A7).empty()) << "calibration has no data";
  hand_.Joint(3).Release();
  Pass(milliseconds(1));
  EXPECT_NE(read(3), 0);
}

using Functions = std::set<int>;

/// What the protocol says of a model.
struct Expectation {
  const char* name;
  const char* product_model;
  std::uint32_t family;
  int active_dof;
  int position_bytes;  ///< Of the whole hand, as CAN FD carries them.
  int mode_bytes;
  int summaries;  ///< Sensors that answer 0x05, and 0x06.
  int raw_sensors;
  Functions reads;
  Functions writes;
};

std::ostream& operator<<(std::ostream& out, const Expectation& e) { return out << e.name; }

Functions With(Functions functions, const Functions& more) {
  functions.insert(more.begin(), more.end());
  return functions;
}

std::vector<Expectation> Expectations() {
  const Functions reads{1, 2, 3, 0x10, 0x12, 0x13, 0x20, 0x21, 0x22};
  const Functions writes{2, 3, 0x10, 0x12, 0x13, 0x14, 0xF1};
  const Functions periods{0x20, 0x21, 0x22};
  return {
      {"brisa", "KorvaneBrisa", 0x100, 10, 20, 12, 7, 7, With(reads, {5, 6}), writes},
      {"tessel", "KorvaneTessel", 0x100, 12, 24, 12, 5, 0, With(reads, {5}), With(writes, periods)},
      {"quill", "KorvaneQuill", 0x700, 0, 20, 0, 0, 6, {1, 2, 6, 0x13}, {2, 7, 8, 0xF1}},
      {"lumen", "KorvaneLumen", 0x100, 4, 8, 4, 0, 0, reads, writes},
      {"vanta", "KorvaneVanta", 0x100, 20, 48, 20, 0, 0, reads, writes},
  };
}

class EveryModel : public testing::TestWithParam<Expectation> {
 protected:
  /// What a new hand with id 4 says. The data are a mode 4 element and, in 7 bits, another id.
  static std::vector<Frame> Send(std::uint32_t id, std::uint8_t length = 64) {
    SimulatedHand hand(*FindModel(GetParam().name), 4);
    return hand.Handle(MakeFrame(id | GetParam().family | 4, {0x81}, length), {});
  }

  static int LengthOf(std::uint32_t id) {
    const auto replies = Send(id);
    return replies.empty() ? 0 : replies[0].len;
  }

  static int SensorsThatAnswer(std::uint32_t id) {
    int count = 0;
    for (std::uint32_t sensor = 1; sensor < 32; ++sensor) {
      count += Send(id | sensor << 24).empty() ? 0 : 1;
    }
    return count;
  }

  /// The functions that are answered at all, each under the hand's own id and family.
  static Functions Answered(std::uint32_t write_flag) {
    Functions functions;
    for (std::uint32_t id = 0; id < 0x02000000; id += 0x10000) {
      for (const std::uint8_t length : {std::uint8_t{0}, std::uint8_t{64}}) {
        for (const Frame& reply : Send(id | write_flag, length)) {
          functions.insert(static_cast<int>(id >> 16 & 0xFF));
          const std::uint32_t flag = (reply.id >> 16 & 0xFF) == 0xF2 ? write_flag : 0;
          EXPECT_EQ(reply.id & 0xFFFF, GetParam().family | flag | 4) << std::hex << id;
        }
      }
    }
    return functions;
  }
};

INSTANTIATE_TEST_SUITE_P(Models, EveryModel, testing::ValuesIn(Expectations()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_P(EveryModel, TellsWhoItIs) {
  const auto vendor = Send(0x00010000);
  ASSERT_EQ(vendor.size(), 1U);
  const auto& data = vendor[0].data;
  EXPECT_STREQ(std::string(data.begin(), data.begin() + 16).c_str(), GetParam().product_model);
  EXPECT_EQ(data[40], GetParam().active_dof);
  EXPECT_EQ(kModels.size(), Expectations().size());
}

TEST_P(EveryModel, AnswersItsFunctionsAtTheirLengthsAndNoOthers) {
  EXPECT_EQ(LengthOf(0x00130000), GetParam().position_bytes);
  EXPECT_EQ(LengthOf(0x00100000), GetParam().mode_bytes);
  EXPECT_EQ(SensorsThatAnswer(0x00050000), GetParam().summaries);
  EXPECT_EQ(SensorsThatAnswer(0x00060000), GetParam().raw_sensors);
  EXPECT_EQ(Answered(0), GetParam().reads);
  EXPECT_EQ(Answered(0x80), GetParam().writes);
}

}  // namespace
}  // namespace talvera::korvane::sim
