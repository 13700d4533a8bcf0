// What only one of the models over CAN has.

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

using namespace test;

TEST(Reset, MakesTheObjectOneForAnotherIdAndSide) {
  const auto expect_reset = [](auto& hand, int model_code) {
    hand.Reset(0x31, HandType::LEFT);
    EXPECT_EQ(hand.model_code, model_code);
    EXPECT_EQ(hand.device_id, 0x31);
    EXPECT_TRUE(hand.mirrored && hand.connected);
  };
  const Rig<KorvaneTesselCanImpl> tessel(kId);
  expect_reset(*tessel.hand, 1);
  EXPECT_TRUE(tessel.hand->solver->mirrored);
  expect_reset(*Rig<KorvaneVantaCanImpl>(kId).hand, 4);
}

class TesselReports : public testing::Test, protected HandPair<KorvaneTesselCanImpl> {
 protected:
  std::string Receive(std::uint32_t id, const Bytes& data, int len) const {
    return Told([&] { device_.Receive(FullFrame(id, data, len)); });
  }
};

TEST_F(TesselReports, AreWhatReadingATemperatureOrACurrentGives) {
  Bytes report(64);
  for (std::size_t i = 0; i < report.size(); ++i) report[i] = static_cast<std::uint8_t>(0xF0 + i);
  EXPECT_EQ(Show(hand_.GetAllTemperatureReport()) + Show(hand_.GetAllCurrentReport()), "");
  for (const int len : {24, 25, 22, 26, 64, 255, 1, 0}) {
    SCOPED_TRACE(len);
    std::vector<unsigned short> values;
    for (int i = 0; i + 1 < std::min(len, 64); i += 2) {
      values.push_back(static_cast<unsigned short>((0xF1 + i) % 256 << 8 | (0xF0 + i) % 256));
    }
    // Whichever hand sends them, of whichever family.
    EXPECT_EQ(Receive(0x00210000, report, len) + Receive(0x00227F85, report, len), "");
    EXPECT_EQ(hand_.GetAllTemperatureReport(), values);
    EXPECT_EQ(hand_.GetAllCurrentReport(), std::vector<short>(values.begin(), values.end()));
    const bool whole = len == 24 || len == 25;
    EXPECT_EQ(hand_.GetTemperatureReport(1), whole ? 0xF1F0 : 0);
    EXPECT_EQ(hand_.GetCurrentReport(1), whole ? -0x0E10 : 0);
    EXPECT_EQ(hand_.GetTemperatureReport(12), whole ? 0x0706 : 0);
  }
  EXPECT_TRUE(device_.TakeSent().empty());
}

TEST_F(TesselReports, TellEachFaultInALine) {
  const auto line = [](int motor, const std::string& fault) {
    return "[ERROR]: Joint motor " + std::to_string(motor) + " " + fault + "!\n";
  };
  const Bytes report{3, 0, 0x10, 0, 4, 0, 8};
  EXPECT_EQ(Receive(0x00200127, report, 4),
            line(1, "stalled") + line(1, "overheat") + line(2, "communication exception"));
  EXPECT_EQ(Receive(0x00207F05, {0xE0, 0xFF, 0, 0, 4, 0, 8}, 7), line(3, "overcurrent"));
  EXPECT_EQ(Receive(0x00200127, report, 1) + Receive(0x00200127, report, 0), "");
  EXPECT_EQ(Receive(0x05200127, {8, 1}, 2), line(5, "motor exception"));
  EXPECT_EQ(Receive(0x1F207F80, {0xE2}, 1), line(31, "overheat"));
  const std::string lines = Receive(0x00200127, Bytes(64, 1), 255);
  EXPECT_NE(lines.find(line(32, "stalled")), std::string::npos);
  EXPECT_EQ(lines.find(" 33 "), std::string::npos);
}

/// HCAN adapters hand over replies as well; applications know the lines and the values.
TEST_F(TesselReports, AreAlsoTheRepliesOnHcan) {
  KorvaneTesselCanImpl hand(HandType::RIGHT, kId,
                            std::make_unique<RecordingDevice>(true, kHcanDispatch));
  auto& device = static_cast<RecordingDevice&>(*hand.Link().transport);
  device.frame_recv_timeout_ms_ = 60'000;
  device.script = Replies({1, 0});
  EXPECT_EQ(Told([&] { EXPECT_EQ(hand.GetErrorReport(4), 1); }),
            "[ERROR]: Joint motor 4 stalled!\n");
  device.script = Replies(Bytes(24, 7), 24);
  hand.SetAllTemperReportPeriod(std::vector<unsigned short>(12));
  device.Receive(FullFrame(0, {}));
  EXPECT_EQ(hand.GetTemperatureReport(1), 0x0707);
}

TEST(LumenAngles, AreRefusedForWantOfASolver) {
  const HandPair<KorvaneLumenCanImpl> hands;
  const std::vector<double> angles(4);
  const auto expect_refused = [&](const char* operation, const char* instead, auto call) {
    for (KorvaneLumen* const hand : hands.both_) {
      EXPECT_EQ(Told([&] { EXPECT_TRUE(call(*hand).empty()); }),
                std::string("[Warning]: ") + operation + " is not supported for Korvane Lumen S " +
                    "(no kinematics solver available)." + instead + "\n");
    }
  };
  expect_refused("SetAllActiveJointAngles",
                 " Please use SetAllJointMotorPosi() instead to set motor positions directly.",
                 [&](auto& hand) { return hand.SetAllActiveJointAngles(angles); });
  expect_refused("GetAllActiveJointAngles",
                 " Please use GetAllJointMotorPosi() instead to get motor positions directly.",
                 [](auto& hand) { return hand.GetAllActiveJointAngles(); });
  expect_refused("GetAllJointAngles", "", [](auto& hand) { return hand.GetAllJointAngles(); });
  expect_refused("GetAllJointPos", "", [&](auto& hand) { return hand.GetAllJointPos(angles); });
  expect_refused("SetHandGesture",
                 " Please use SetAllJointMotorPosi() to set motor positions directly.",
                 [](auto& hand) { return hand.SetHandGesture(1), std::string(); });
  EXPECT_TRUE(hands.device_.TakeSent().empty());
}

TEST(VantaAngles, AreStandIns) {
  const HandPair<KorvaneVantaCanImpl> hands;
  const std::string unknown =
      "[WARN][KorvaneVanta] GetAllActiveJointAngles: 运动学未实现，请使用 GetAllJointMotorPosi "
      "获取电机位置.\n";
  const std::vector<double> zeros(20);
  const std::vector<double> three{1, 2, 3};
  for (auto* const hand : hands.both_) {
    EXPECT_EQ(Told([&] { EXPECT_TRUE(hand->SetAllActiveJointAngles(three).empty()); }),
              "[WARN][KorvaneVanta] SetAllActiveJointAngles: 运动学未实现，请使用 "
              "SetAllJointMotorPosi 直接设置电机位置.\n");
    EXPECT_EQ(Told([&] { EXPECT_EQ(hand->GetAllActiveJointAngles(), zeros); }), unknown);
    EXPECT_EQ(Told([&] { EXPECT_EQ(hand->GetAllJointAngles(), zeros); }), unknown);
    EXPECT_EQ(Told([&] { EXPECT_EQ(hand->GetAllJointPos(three), three); }), "");
    EXPECT_EQ(Told([&] { hand->SetHandGesture(1); }), "");
  }
  EXPECT_TRUE(hands.device_.TakeSent().empty());
}

TEST(VantaAngles, OfAllJointsAreThoseOfTheActiveOnesAsAnApplicationMayDefineThem) {
  struct WithAngles : KorvaneVantaCanImpl {
    using KorvaneVantaCanImpl::KorvaneVantaCanImpl;
    std::vector<double> GetAllActiveJointAngles() const override { return {0.5}; }
  };
  const WithAngles hand(HandType::RIGHT, kId, NoTransport());
  EXPECT_EQ(hand.GetAllJointAngles(), std::vector<double>{0.5});
}

using Quill = KorvaneQuillCanImpl;

const struct {
  std::string end;
  std::uint32_t id;
  void (Quill::*all)();
  void (Quill::*joint)(std::uint8_t);
} kCalibrations[] = {
    {"minimum", 0x000807A7, &Quill::SetMinPositionCalibration, &Quill::SetMinPositionCalibration},
    {"maximum", 0x000707A7, &Quill::SetMaxPositionCalibration, &Quill::SetMaxPositionCalibration}};

TEST(QuillCalibration, SendsAnEmptyFrameAndWaitsForNothing) {
  const Rig<Quill> rig(kId);
  for (const auto& [end, id, all, joint] : kCalibrations) {
    (rig.hand.get()->*all)();
    (rig.hand.get()->*joint)(1);
    (rig.hand.get()->*joint)(10);
    EXPECT_EQ(Show(rig.device->TakeSent()),
              Show({FullFrame(id, {}, 0), FullFrame(id | 0x01000000, {}, 0),
                    FullFrame(id | 0x0A000000, {}, 0)}));
  }
}

TEST(QuillCalibration, TellsWhatItCouldntDo) {
  const HandPair<Quill> hands;
  hands.device_.script = CantSend();
  for (const auto& calibration : kCalibrations) {
    const std::string line =
        "[Error]: Failed to send " + calibration.end + " position calibration request";
    for (Quill* const hand : hands.both_) {
      EXPECT_EQ(Told([&] { (hand->*calibration.all)(); }), line + "\n");
      EXPECT_EQ(Told([&] { (hand->*calibration.joint)(7); }), line + " for joint 7\n");
    }
    EXPECT_EQ(hands.device_.TakeSent().size(), 2U);
    for (const int joint : {0, 11, 42, 255}) {
      for (Quill* const hand : hands.both_) {
        const auto index = static_cast<std::uint8_t>(joint);
        EXPECT_EQ(
            Told([&] { (hand->*calibration.joint)(index); }),
            "[Error]: Invalid joint index " + std::to_string(joint) + ". Valid range is 1-10\n");
      }
    }
    EXPECT_TRUE(hands.device_.TakeSent().empty());
  }
}

TEST(QuillCalibration, LetsNoStandardExceptionOfAnAdapterOut) {
  const Rig<Quill> rig(kId);
  rig.device->script = Throws(std::runtime_error("adapter broke"));
  for (const auto& calibration : kCalibrations) {
    const std::string told =
        Told([&] { EXPECT_NO_THROW((rig.hand.get()->*calibration.joint)(7)); });
    EXPECT_NE(told.find("adapter broke"), std::string::npos);
  }
}

}  // namespace
}  // namespace talvera::korvane
