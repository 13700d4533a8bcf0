#include "korvane_sim/simulated_hand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/exchange_script.h"

namespace talvera::korvane::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Bytes;
using test::DataOf;
using test::Hex;
using test::MakeFrame;

/// A hand with id 0x27 and a time that the test moves.
class SimulatedHandTest : public testing::Test {
 protected:
  SimulatedHandTest() { hand_.Advance(now_); }

  /// The data of all replies to "031301A7 E803", each of which has the identifier that it must.
  Bytes Ask(const std::string& request) {
    std::size_t end = 0;
    const auto id = static_cast<std::uint32_t>(std::stoul(request, &end, 16));
    const std::uint32_t expected_id = (id & ~0xFFU) | hand_.DeviceId();
    Bytes all;
    for (const Frame& reply : hand_.Handle(MakeFrame(id, Hex(request.substr(end))), now_)) {
      EXPECT_EQ(reply.id, expected_id) << request;
      all.insert(all.end(), reply.data.begin(), reply.data.begin() + reply.len);
    }
    return all;
  }
  void Play(const std::string& script) {
    const auto ask = [this](const std::string& request) { return Ask(request); };
    test::Play(
        script, ask, [this](auto time) { Pass(time); }, [this] { hand_.Restart(now_); });
  }
  void Pass(std::chrono::nanoseconds time) { hand_.Advance(now_ += time); }

  int Value(const std::string& request) {
    const Bytes data = Ask(request);
    return data.size() < 2 ? -1 : static_cast<std::int16_t>(data[0] | data[1] << 8);
  }

  void Become(const ModelRow& model) {
    hand_ = SimulatedHand(model, 0x27);
    hand_.Advance(now_);
  }

  SimulatedHand hand_{kBrisa, 0x27};
  SimulatedHand::TimePoint now_{seconds(1000)};
};

TEST_F(SimulatedHandTest, AnswersEachKindOfFrameAtALengthThatCanFdHas) {
  Play(
      "03130127 > 0010; 00130127 > 0010*10; 02030127 > 2003; 00210127 > 1900*10;"
      "01100127 > 04; 00100127 > 04*10 00*2; 02050127 > 00*16; 06050127 00*64 > 00*32;"
      "031301A7 E803 > E803; 001301A7 E803*9 0102 00*44 > E803*9 0102; 020301A7 2C01 > 2C01;"
      "02030127 > 2C01; 001001A7 04*9 05 > 04*9 05 00*2; 0A100127 > 05;"
      "00020127 > 27 00*4; 00020100 > 27 00*4; 01060127 > 0100 00*62;"
      "07060127 > 0200 00*62 0201 00*62; 00060127 > 0A00 00*62 0A01 00*62 0A02 00*62 0A03 00*62"
      " 0A04 00*62 0A05 00*62 0A06 00*62 0A07 00*62 0A08 00*62 0A09 00*62;"
      "010201A7 05 > 05; 00130127 >; 00020105 > 05 00*4");
  Become(kBrisa);
  hand_.GetIdentity() = {std::string(20, 'A'), "SN-1", {1, 2, 3, 4}, {5, 6, 7, 8}, 23456, 10};
  Play("00010127 > 41*16 534E2D31 00*10 0102030405060708 A05B 0A 00*7");
}

TEST_F(SimulatedHandTest, IsPressedHardestInTheMiddleOfASensor) {
  hand_.SetContact(1, 0.5);
  const Bytes bytes = hand_.TactileBytes(1, 5);
  EXPECT_TRUE(std::is_sorted(bytes.begin(), bytes.begin() + 3));
  EXPECT_EQ(bytes, Bytes(bytes.rbegin(), bytes.rend())) << "as far to one side as to the other";
  EXPECT_EQ(bytes[2], 128);
  EXPECT_GT(bytes[0], 128 * 4 / 10);
}

TEST_F(SimulatedHandTest, IgnoresWhatIsNotForItOrMakesNoSense) {
  Play(
      "03130128 >; 03130727 >; 03138127 >; 23130127 >; 00000127 >;"  // Of others, and no identifier
      "00130100 >; 00020180 05 >;"                                   // More than a query to all
      "00FE0127 >; 01000127 >; 002001A7 00*64 >; 00140127 >; 01010127 >;"  // Functions
      "0B130127 >; 0B1301A7 00*64 >; 1F1301A7 00*64 >; 08050127 >;"        // Motors and sensors
      "031301A7 01 >; 001301A7 00*19 >; 010201A7 >; 010201A7 80 >;"        // Parts of values, id 0
      "001401A7 >; 001401A7 61 00*63 >; 00020127 > 27 00*4");              // Mixed control
  EXPECT_TRUE(hand_.Handle({0x031301A7, 200, {}}, now_).empty());
  Become(kLumen);
  Play("01050127 >; 01060127 >; 01130127 > 0010");  // No sensors
}

TEST_F(SimulatedHandTest, SurvivesAnyFrame) {
  std::mt19937 random(1);
  for (const ModelRow* model : kModels) {
    const std::uint32_t id = 0x27U | std::uint32_t{model->family} << 8;
    for (int i = 0; i < 16000; ++i) {
      if (i % 1000 == 0) {
        Become(*model);
        hand_.Firmware().SetRestartTime(milliseconds(1));
        hand_.Handle(MakeFrame(id | 0x01F10080, Hex("001000000200")), now_);
      }
      // Most frames get as far as a handler, and packets of an update become whole.
      const auto any = static_cast<std::uint32_t>(random() & 0x1F3F0080);
      const std::uint32_t parts[] = {any, (any & 0x1F000080) | 0x00F10000, 0x01F00080, 0x01F00080};
      Frame frame = MakeFrame(id | parts[random() % 4]);
      frame.len = static_cast<std::uint8_t>(random() % 3 == 0 ? random() % 65 : 64);
      for (auto& byte : frame.data) byte = static_cast<std::uint8_t>(random());
      hand_.Handle(frame, now_ += milliseconds(random() % 20));
      hand_.TakeDue(now_);
      hand_.SetDeviceId(0x27);
    }
    Pass(seconds(1));
    EXPECT_EQ(hand_.Handle(MakeFrame(0x00130000 | id), now_).size(), 1U) << model->name;
  }
}

TEST_F(SimulatedHandTest, MotorsTakeTimeArriveExactlyAndKeepToTheirSpeedAndCurrent) {
  Play("051301A7 0000 > 0000; pass 100");
  const int early = Value("05130127");
  EXPECT_LT(early, 4096);
  EXPECT_GT(early, 2500);
  EXPECT_LT(Value("05120127"), -7000) << "near the speed limit";
  EXPECT_LT(Value("05220127"), -100) << "current has the same direction";
  Play("pass 1000; 05130127 > 0000; 05120127 > 0000; 06130127 > 0010; 05200127 > 0000");
  Play(
      "011201A7 E803 > E803; 011301A7 0000 > 0000;"  // 1000 units a second
      "020301A7 0000 > 0000; 021301A7 0000 > 0000; pass 1000");
  EXPECT_NEAR(Value("01130127"), 4096 - 1000, 20);
  Play("pass 3600000; 01130127 > 0000; 02130127 > 0010");  // Motor 2 has no current.
}

TEST_F(SimulatedHandTest, MotionDoesNotDependOnHowOftenTimeIsLookedAt) {
  SimulatedHand other = hand_;
  for (SimulatedHand* hand : {&hand_, &other}) hand->JointMotor(1).SetTarget(1024);
  for (const auto end = now_ + milliseconds(333); now_ < end;) Pass(std::chrono::microseconds(700));
  other.Advance(now_);
  EXPECT_EQ(hand_.JointMotor(1).Position(), other.JointMotor(1).Position());
  EXPECT_EQ(hand_.JointMotor(1).Current(), other.JointMotor(1).Current());
}

TEST_F(SimulatedHandTest, AnObstacleStallsAMotorWhichWarmsAndHardPressingIsAnErrorOfItsOwn) {
  for (const auto& [index, obstacle, threshold] : {std::tuple{1U, 3000, 2000}, {2U, 2000, 500}}) {
    Motor& motor = hand_.JointMotor(index);
    motor.SetFreeRange(obstacle, 4096);
    motor.SetThreshold(static_cast<std::int16_t>(threshold));
    motor.SetTarget(0);
  }
  Play("pass 2000; 02130127 > D007; 02220127 > 0CFE; 02200127 > 0100; 01200127 > 0500");
  EXPECT_GT(Value("02210127"), 25);
  hand_.JointMotor(2).SetTarget(4096);
  Play("pass 120000; 01200127 > 0700; 02130127 > 0010; 02200127 > 0000");
  for (const std::size_t index : {1U, 2U}) {
    hand_.JointMotor(index).SetFault(kMotorException | kCommunicationException);
  }
  Play("01200127 > 1F00; 02200127 > 1800; pass 600000; 02210127 > 1900");
}

TEST_F(SimulatedHandTest, ALoadTakesCurrentOrHoldsAMotorAndAHotOneTellsSo) {
  hand_.JointMotor(2).SetLoad(300);
  hand_.JointMotor(3).SetLoad(900);  // more than the threshold lets through
  hand_.JointMotor(4).SetTemperature(90);
  Play("04210127 > 5A00; 04200127 > 0200");
  for (const std::size_t index : {1U, 2U, 3U}) hand_.JointMotor(index).SetTarget(0);
  Pass(milliseconds(200));
  EXPECT_NEAR(Value("02220127"), Value("01220127") - 300, 20);
  Play("pass 2000; 02130127 > 0000; 03130127 > 0010");
}

TEST_F(SimulatedHandTest, MixedControlAppliesEveryElementInTheFirstOnesLayout) {
  const auto control = [this](const std::string& elements) {
    Play("001401A7 " + elements + " > " + elements);
  };
  control("81 E8032C01 83 D0072C01 00*54");  // Position, current
  Play("pass 2000; 01130127 > E803; 03130127 > D007; 03030127 > 2C01; 02030127 > 2003");
  control("A1 F4012C01 00*59");  // Velocity, current
  Play("pass 1000; 01100127 > 05");
  EXPECT_NEAR(Value("01130127"), 1500, 10);
  Play("pass 10000; 01130127 > 0010; 01200127 > 0100");
  // All three: a motor that isn't there doesn't end the frame, an element that is cut off does.
  control("DF 010203040506 C2 0008E8039001 CA 0008E8039001 C30000");
  Play("pass 1000; 02100127 > 06; 0A100127 > 06; 03100127 > 04");
  EXPECT_NEAR(Value("02130127"), 4096 - 1000, 20);
}

TEST_F(SimulatedHandTest, ReportsGoOutOnTheirPeriodAndOnceAfterALongPause) {
  Become(kTessel);
  EXPECT_FALSE(hand_.NextEvent());
  Play("002101A7 14*24 > 14*24");
  EXPECT_EQ(hand_.NextEvent(), now_ + milliseconds(0x1414));
  EXPECT_TRUE(hand_.TakeDue(now_ + milliseconds(0x1413)).empty());
  Play("0C2001A7 6400 > 6400");
  hand_.JointMotor(12).SetFault(kOvercurrent);
  now_ += seconds(1000);
  const auto due = hand_.TakeDue(now_ + std::chrono::microseconds(900));
  ASSERT_EQ(due.size(), 2U);
  EXPECT_EQ(std::pair(due[0].id, DataOf(due[0])), std::pair(0x0C200127U, Hex("0400")));
  EXPECT_EQ(std::pair(due[1].id, DataOf(due[1])), std::pair(0x00210127U, Hex("1900*12")));
  EXPECT_EQ(hand_.NextEvent(), now_ + milliseconds(100));
  Play("00200127 > 00*22 0400; 002101A7 00*24 > 00*24; 0C2001A7 0000 > 0000");
  EXPECT_FALSE(hand_.NextEvent());
}

TEST_F(SimulatedHandTest, AQuillFollowsItsWearerBetweenTheEndsThatItWasTaught) {
  Become(kQuill);
  const int before = Value("03130727");
  Pass(seconds(3));
  EXPECT_GT(std::abs(Value("03130727") - before), 2000);
  const auto hold = [this](double sensor, const char* script) {
    for (std::size_t joint = 1; joint <= 10; ++joint) hand_.Joint(joint).Hold(sensor);
    Pass(seconds(1));
    Play(script);
  };
  hold(1000,
       "03130727 > E803; 000807A7 >; 03130727 > 0000;"
       "000707A7 >; 03130727 > 0000");  // No range would be left.
  hold(3000, "030707A7 >; 03130727 > 0010");
  EXPECT_EQ(hand_.Handle(MakeFrame(0x030707A7), now_).size(), 1U) << "without data";
  EXPECT_LT(Value("04130727"), 4096) << "only joint 3 was taught its maximum";
  hold(2000, "03130727 > 0008; 0B0707A7 >; 030707A7 00*64 >");
  hold(500, "03130727 > 0000");
  hand_.Joint(3).Release();
  Pass(milliseconds(1));
  EXPECT_NE(Value("03130727"), 0);
}

}  // namespace
}  // namespace talvera::korvane::sim
