#include "korvane_diagnostics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "support/all_operations.h"
#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

using test::AnyOperation;
using test::HandOperation;
using Names = std::set<std::string>;

std::string Show(const Failure& failure) {
  return std::string(ToString(failure.kind)) + " in " + failure.operation;
}

/// What the last operation of this thread came to, "NONE" or "KIND in Operation".
template <class Hand>
std::string Ends(Hand& hand, const std::function<void(Hand&)>& call) {
  test::CaptureStreams([&] { call(hand); });
  const Failure failure = LastFailure(hand);
  return failure.kind == FailureKind::NONE ? "NONE" : Show(failure);
}

/// Which operations end in a way of their own, by model.
struct Expectation {
  test::TestedHand hand;
  Names not_supported;
  Names sends_only;
  /// Answered from reports that the hand sends unasked.
  Names from_reports;
};

const Names kPeriods = {"SetErrorReportPeriod",   "SetAllErrorReportPeriod",
                        "SetTemperReportPeriod",  "SetAllTemperReportPeriod",
                        "SetCurrentReportPeriod", "SetAllCurrentReportPeriod"};
const Names kAngles = {"SetAllActiveJointAngles", "GetAllActiveJointAngles", "GetAllJointAngles",
                       "GetAllJointPos"};

Names operator+(Names names, const Names& more) {
  names.insert(more.begin(), more.end());
  return names;
}

Names AllBut(const Names& names) {
  Names others;
  for (const HandOperation& operation : test::HandOperations(10)) {
    if (names.count(operation.name) == 0) others.insert(operation.name);
  }
  return others;
}

const Names kModes = {"SetControlMode", "SetAllControlMode", "SetDeviceId"};
// Asks nobody.
const Names kLocal = {"SetRequestInterval", "GetFrameRecvTimeout", "GetAllJointPos"};

const Expectation kExpectations[] = {
    {test::kBrisa, kPeriods, kModes, {}},
    {test::kTessel,
     {},
     kModes + Names{"SetJointMotorVelo", "SetAllJointMotorVelo", "SetErrorReportPeriod",
                    "SetAllTemperReportPeriod", "SetCurrentReportPeriod",
                    "SetAllCurrentReportPeriod"},
     {"GetTemperatureReport", "GetAllTemperatureReport", "GetCurrentReport",
      "GetAllCurrentReport"}},
    {test::kQuill,
     AllBut(kLocal + Names{"GetVendorInfo", "GetDeviceInfo", "GetJointMotorPosi",
                           "GetAllJointMotorPosi", "SetDeviceId"}) +
         Names{"GetAllJointPos"},
     kModes,
     {}},
    {test::kLumen, kPeriods + kAngles + Names{"SetHandGesture"}, kModes, {}},
    {test::kVanta, kPeriods + kAngles + Names{"SetHandGesture"}, kModes, {}},
};

class DiagnosticsOf : public testing::TestWithParam<Expectation> {
 protected:
  std::string Expected(const std::string& name, FailureKind kind) const {
    const Expectation& expectation = GetParam();
    if (expectation.not_supported.count(name) != 0) kind = FailureKind::NOT_SUPPORTED;
    return kind == FailureKind::NONE ? "NONE" : std::string(ToString(kind)) + " in " + name;
  }

  std::vector<HandOperation> operations_ = test::HandOperations(GetParam().hand.motors);
  test::HandPair<KorvaneBase> hands_{GetParam().hand.make};
};

// A program that can't tell "no fault" from "no answer" lies to whoever reads what it prints.
TEST_P(DiagnosticsOf, EachOperationTellWhatASilentHandLeavesOpen) {
  hands_.hand_.SetFrameRecvTimeout(10);
  for (const HandOperation& operation : operations_) {
    const bool waits = (GetParam().sends_only + kLocal).count(operation.name) == 0;
    EXPECT_EQ(Ends(hands_.hand_, operation.call),
              Expected(operation.name, waits ? FailureKind::NO_REPLY : FailureKind::NONE))
        << operation.name;
  }
  hands_.device_.script = test::CantSend();
  for (const HandOperation& operation : operations_) {
    if ((kLocal + GetParam().from_reports).count(operation.name) != 0) continue;
    EXPECT_EQ(Ends(hands_.hand_, operation.call),
              Expected(operation.name, FailureKind::SEND_FAILED));
  }
}

TEST_P(DiagnosticsOf, EachOperationTellsThatThereIsNoLink) {
  const Names asks_nobody = GetParam().from_reports + Names{"GetAllJointPos"};
  for (const HandOperation& operation : operations_) {
    if (asks_nobody.count(operation.name) != 0) continue;
    EXPECT_EQ(Ends(*hands_.without_transport_, operation.call),
              Expected(operation.name, FailureKind::NO_LINK));
  }
  EXPECT_EQ(StatisticsOf(*hands_.without_transport_).requests, 0U);
}

TEST_P(DiagnosticsOf, EachOperationTellsBadArgumentsAndForgetsThemWhenAllIsWell) {
  // Positions that every solver takes, and a mode for each motor.
  hands_.device_.script = test::Replies(test::Bytes(64, 1), 2 * GetParam().hand.motors);
  for (const HandOperation& operation : operations_) {
    if (operation.bad_call) {
      EXPECT_EQ(Ends(hands_.hand_, operation.bad_call),
                Expected(operation.name, FailureKind::BAD_ARGUMENT));
    }
    const bool report = GetParam().from_reports.count(operation.name) != 0;
    EXPECT_EQ(Ends(hands_.hand_, operation.call),
              Expected(operation.name, report ? FailureKind::NO_REPLY : FailureKind::NONE));
  }
}

INSTANTIATE_TEST_SUITE_P(Models, DiagnosticsOf, testing::ValuesIn(kExpectations),
                         [](const auto& row) { return row.param.hand.class_name; });

class Diagnostics : public testing::Test, protected test::HandPair<KorvaneBase> {
 protected:
  Diagnostics() : HandPair(test::kBrisa.make) { hand_.SetFrameRecvTimeout(10); }
};

TEST_F(Diagnostics, HoldTheLineThatWasLoggedAndNothingOfOtherThreads) {
  const std::string line = test::Told([&] { hand_.GetJointMotorPosi(3); });
  EXPECT_EQ(LastFailure(hand_).text + "\n", line);
  EXPECT_EQ(Show(LastFailure(*without_transport_)), "NO_LINK in Open");
  std::thread([&] { EXPECT_EQ(LastFailure(hand_).kind, FailureKind::NONE); }).join();
  EXPECT_EQ(LastFailure(hand_).kind, FailureKind::NO_REPLY);
}

TEST_F(Diagnostics, CountWhatHappensOnTheLink) {
  device_.script = test::Replies({1, 0});
  hand_.GetJointMotorPosi(1);
  hand_.SetControlMode(1, ControlMode::MODE_0);
  device_.script = [](const auto&) { return std::vector<CanfdFrame>{}; };
  test::CaptureStreams([&] { hand_.GetJointMotorPosi(1); });
  device_.Receive(test::MakeFrame(0x7F0, {1}));
  device_.script = test::CantSend();
  test::CaptureStreams([&] { hand_.GetJointMotorPosi(1); });
  const LinkStatistics counted = StatisticsOf(hand_);
  EXPECT_EQ(counted.requests, 3U);
  EXPECT_EQ(counted.replies, 1U);
  EXPECT_EQ(counted.timeouts, 1U);
  EXPECT_EQ(counted.send_failures, 1U);
  EXPECT_GE(counted.unmatched_frames, 1U);
  EXPECT_NE(counted.last_reply, std::chrono::steady_clock::time_point());
}

TEST_F(Diagnostics, CheckedGivesTheValueOrTheFirstFailure) {
  device_.script = test::Replies({7, 0});
  const auto position = Checked(hand_, [](auto& h) { return h.GetJointMotorPosi(3); });
  ASSERT_TRUE(position);
  EXPECT_EQ(*position, 7);
  EXPECT_EQ(position.failure().kind, FailureKind::NONE);

  test::CaptureStreams([&] {
    const auto none = Checked(hand_, [](auto& h) { return h.GetJointMotorPosi(99); });
    EXPECT_FALSE(none);
    EXPECT_EQ(none.value_or(5), 5);
    EXPECT_EQ(none.failure().kind, FailureKind::BAD_ARGUMENT);
    EXPECT_THROW(*none, std::logic_error);

    const auto several = Checked(hand_, [](auto& h) {
      h.SetControlMode(99, ControlMode::MODE_0);
      return h.GetAllJointMotorPosi();
    });
    EXPECT_EQ(Show(several.failure()), "BAD_ARGUMENT in SetControlMode");
    EXPECT_EQ(LastFailure(hand_).kind, FailureKind::NONE);
  });
}

TEST_F(Diagnostics, CheckedTurnsWhatOperationsThrowIntoAFailureAndNothingElse) {
  MixCtrl target = test::PositionTarget(1);
  target.current = std::nullopt;
  const auto mixed = Checked(hand_, [&](auto& h) { h.MixCtrlJointMotor({target}); });
  EXPECT_EQ(Show(mixed.failure()), "BAD_ARGUMENT in MixCtrlJointMotor");
  EXPECT_THROW(Checked(hand_, [](auto&) { throw std::domain_error("own"); }), std::domain_error);

  auto& brisa = dynamic_cast<KorvaneBrisa&>(hand_);
  const auto touch =
      Checked(brisa, [](auto& h) { return h.GetTactileSensorData(static_cast<Finger>(9)); });
  EXPECT_EQ(Show(touch.failure()), "BAD_ARGUMENT in GetTactileSensorData");
}

TEST_F(Diagnostics, AnOperationMadeOfOthersFailsIfOneOfThemDoes) {
  int requests = 0;
  device_.script = [&requests](const CanfdFrame& sent) {
    std::vector<CanfdFrame> replies;
    if (++requests != 3) replies = *test::Replies({1})(sent);
    return replies;
  };
  auto& brisa = dynamic_cast<KorvaneBrisa&>(hand_);
  test::CaptureStreams([&] { brisa.GetAllTactileSensorData(); });
  EXPECT_EQ(Show(LastFailure(hand_)), "NO_REPLY in GetAllTactileSensorData");
  brisa.GetAllTactileSensorData();
  EXPECT_EQ(LastFailure(hand_).kind, FailureKind::NONE);
}

}  // namespace
}  // namespace talvera::korvane
