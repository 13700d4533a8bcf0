#include "korvane_diagnostics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <thread>

#include "korvane_sim/serial_hand.h"
#include "protocol/can/can_identifier.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "serial/usb_device.h"
#include "support/all_operations.h"
#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

using test::HandOperation;
using Names = std::set<std::string>;

std::string Show(const Failure& failure) {
  return std::string(ToString(failure.kind)) + " in " + failure.operation;
}

/// What the last operation of this thread came to, "NONE" or "KIND in Operation".
std::string Ends(KorvaneBase& hand, const std::function<std::string(KorvaneBase&)>& call) {
  test::CaptureStreams([&] { call(hand); });
  const Failure failure = LastFailure(hand);
  return failure.kind == FailureKind::NONE ? "NONE" : Show(failure);
}

/// A hand on some link whose other end the test holds. It is silent at first.
class Rig {
 public:
  virtual ~Rig() = default;
  virtual KorvaneBase& Hand() = 0;
  virtual KorvaneBase& WithoutLink() = 0;
  /// From now on every request gets a good answer; or a frame that is none; or can't be sent.
  virtual void Answer() = 0;
  virtual void AnswerBadly() = 0;
  virtual void Break() = 0;
  /// Returns when all that was said has arrived.
  virtual void Settle() {}
};

class CanRig : public Rig {
 public:
  /// Positions that every solver takes, and a mode for each motor.
  CanRig(const test::TestedHand& hand, int reply_size) : hands_(hand.make), size_(reply_size) {
    hands_.hand_.SetFrameRecvTimeout(10);
  }

  KorvaneBase& Hand() override { return hands_.hand_; }
  KorvaneBase& WithoutLink() override { return *hands_.without_transport_; }
  void Answer() override { Say(size_, 41); }
  void AnswerBadly() override { Say(0, 40); }
  void Break() override { hands_.device_.script = test::CantSend(); }

 private:
  void Say(int size, int size_of_vendor_record) {
    hands_.device_.frame_recv_timeout_ms_ = 60'000;
    hands_.device_.script = [=](const CanfdFrame& sent) {
      const bool of_vendor = FunctionOf(sent.can_id) == function_code::kVendorRecord;
      return test::Replies(test::Bytes(64, 1),
                           of_vendor ? std::max(size, size_of_vendor_record) : size)(sent);
    };
  }

  test::HandPair<KorvaneBase> hands_;
  int size_;
};

class SerialRig : public Rig {
 public:
  SerialRig() {
    test::CaptureStreams([&] {
      hand_ = std::make_unique<KorvaneBrisaSerialImpl>(kSide, test::kId, device_.Path(), 921600);
      closed_ = std::make_unique<KorvaneBrisaSerialImpl>(kSide, test::kId, "/no/such/port", 921600);
    });
    SetReceiving(*hand_, Receiving::BY_EVENTS);
    sim::SerialFaults silent;
    silent.silent_after = 0;
    device_.SetFaults(silent);
    hand_->SetFrameRecvTimeout(10);
    Watch([](std::uint8_t) {});
  }

  KorvaneBase& Hand() override { return *hand_; }
  KorvaneBase& WithoutLink() override { return *closed_; }
  void Answer() override {
    BePatient();
    device_.SetFaults({});
  }
  void AnswerBadly() override {
    BePatient();
    Watch([this](std::uint8_t command) {
      device_.Say({command, {}});
      ++said_;
    });
  }
  void Break() override { device_.Unplug(); }
  /// The answer to a command that wasn't waited for would answer the next request with that
  /// command.
  void Settle() override {
    const auto received = [&] {
      const LinkStatistics counted = StatisticsOf(*hand_);
      return counted.replies + counted.unmatched_frames;
    };
    while (device_.Statistics().from_host < sent_ ||
           received() < device_.Statistics().from_hand + said_) {
      std::this_thread::yield();
    }
  }

 private:
  static constexpr auto kSide = HandType::RIGHT;

  void BePatient() { hand_->Device()->frame_recv_timeout_ms_ = 60'000; }
  void Watch(const std::function<void(std::uint8_t command)>& on_sent) {
    ObserveFrames(*hand_, [this, on_sent](const FrameEvent& frame) {
      if (!frame.sent) return;
      ++sent_;
      on_sent(frame.data[kUsbFrameCommand]);
    });
  }

  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> said_{0};
  sim::SerialHand device_{sim::SimulatedHand(sim::kBrisa, test::kId)};
  std::unique_ptr<KorvaneBrisaSerialImpl> hand_;
  std::unique_ptr<KorvaneBrisaSerialImpl> closed_;
};

/// Which operations end in a way of their own, by class.
struct Expectation {
  std::string name;
  std::function<std::unique_ptr<Rig>()> make;
  std::vector<HandOperation> operations;
  Names not_supported;
  Names sends_only;
  /// Answered from reports that the hand sends unasked.
  Names from_reports = {};
  /// Ask the hand nothing.
  Names local = {"SetRequestInterval", "GetFrameRecvTimeout", "GetAllJointPos"};
  /// Of those, the ones that a hand without a link has too.
  Names needs_no_link = {"GetAllJointPos"};
  /// Ask whether an argument is good before they say that they aren't supported.
  Names checks_first = {};
  /// For which any frame is an answer.
  Names takes_anything = {};
};

void PrintTo(const Expectation& row, std::ostream* out) { *out << row.name; }

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
const Names kMotions = {"SetJointMotorVelo", "SetAllJointMotorVelo", "GetJointMotorVelo",
                        "GetAllJointMotorVelo"};
const Names kModeReads = {"GetControlMode", "GetAllControlMode", "GetCurrentThreshold",
                          "GetAllCurrentThreshold"};
const Names kModeWrites = {"SetControlMode", "SetAllControlMode", "SetCurrentThreshold",
                           "SetAllCurrentThreshold"};
const Names kReports = {"GetErrorReport",          "GetAllErrorReport", "GetTemperatureReport",
                        "GetAllTemperatureReport", "GetCurrentReport",  "GetAllCurrentReport"};
const Names kRawTouch = {"GetTactileSensorDataRaw", "GetAllTactileSensorDataRaw"};
const Names kServiceSettings = [] {
  Names names;
  for (const auto& setting : test::Settings(10, 2)) names.insert(setting.name);
  return names;
}();

/// A hand that answers a write has taken it, whatever the answer says.
const Names kWrites = {"SetJointMotorPosi",    "SetAllJointMotorPosi", "SetJointMotorVelo",
                       "SetAllJointMotorVelo", "SetCurrentThreshold",  "SetAllCurrentThreshold",
                       "MixCtrlJointMotor",    "SetHandGesture"};

Expectation OnCan(const test::TestedHand& hand, Names not_supported, Names sends_only,
                  Names from_reports = {}) {
  Expectation row = {hand.class_name,
                     [=] { return std::make_unique<CanRig>(hand, 2 * hand.motors); },
                     test::HandOperations(hand.motors),
                     std::move(not_supported),
                     std::move(sends_only),
                     std::move(from_reports)};
  row.takes_anything = kWrites + kPeriods;
  return row;
}

template <class Hand>
Expectation InServiceProtocol(const char* name, std::uint8_t motors, Names not_supported) {
  const auto hand = test::Tested<Hand>(name, 0, motors, 0);
  Expectation row = OnCan(hand, std::move(not_supported), {});
  row.make = [=] { return std::make_unique<CanRig>(hand, 64); };
  row.operations = row.operations + test::ServiceOperations(motors);
  row.takes_anything = {};
  row.local = row.local + Names{"SetDeviceId", "GetDeviceInfo"};
  row.needs_no_link.insert("SetDeviceId");
  return row;
}

/// A step of an update that a program takes itself.
template <class Hand>
HandOperation Step(const char* name, void (*take)(Hand&)) {
  return {name, [=](KorvaneBase& hand) {
            Checked(dynamic_cast<Hand&>(hand), take);
            return std::string();
          }};
}

Expectation OnSerial() {
  Expectation row;
  row.name = "KorvaneBrisaSerialImpl";
  row.make = [] { return std::make_unique<SerialRig>(); };
  row.operations = test::HandOperations(10) + test::TouchOperations() + test::ServiceOperations(10);
  using Hand = KorvaneBrisaSerialImpl;
  row.operations.push_back(
      Step<Hand>("SendOtaUpgradeRequest", [](Hand& hand) { hand.SendOtaUpgradeRequest(0, 0); }));
  row.not_supported = kPeriods + kModeReads + kRawTouch + Names{"GetFingerTactileForce"};
  row.sends_only =
      kModeWrites + Names{"SetDeviceId",          "SetJointMotorPosi", "SetJointMotorVelo",
                          "SetAllJointMotorVelo", "MixCtrlJointMotor", "SendOtaUpgradeRequest"};
  row.checks_first = {"GetControlMode", "GetCurrentThreshold"};
  row.takes_anything = kServiceSettings + Names{"GetDeviceInfo"};
  return row;
}

const Expectation kPublicProtocol[] = {
    OnCan(test::kBrisa, kPeriods, kModes),
    OnCan(test::kTessel, {},
          kModes + Names{"SetJointMotorVelo", "SetAllJointMotorVelo", "SetErrorReportPeriod",
                         "SetAllTemperReportPeriod", "SetCurrentReportPeriod",
                         "SetAllCurrentReportPeriod"},
          {"GetTemperatureReport", "GetAllTemperatureReport", "GetCurrentReport",
           "GetAllCurrentReport"}),
    OnCan(test::kQuill,
          AllBut({"SetRequestInterval", "GetFrameRecvTimeout", "GetVendorInfo", "GetDeviceInfo",
                  "GetJointMotorPosi", "GetAllJointMotorPosi", "SetDeviceId"}),
          kModes),
    OnCan(test::kLumen, kPeriods + kAngles + Names{"SetHandGesture"}, kModes),
    OnCan(test::kVanta, kPeriods + kAngles + Names{"SetHandGesture"}, kModes),
};

const Expectation kServiceCommands[] = {
    [] {
      auto row = InServiceProtocol<KorvaneBrisaCanPrivateImpl>(
          "KorvaneBrisaCanPrivateImpl", 10,
          kPeriods + kMotions + kReports + kModeReads + kRawTouch + Names{"GetTactileSensorData"});
      row.operations = row.operations + test::TouchOperations();
      using Hand = KorvaneBrisaCanPrivateImpl;
      row.operations.push_back(
          Step<Hand>("SendOtaRequestSynch", [](Hand& hand) { hand.SendOtaRequestSynch(1, 2, 3); }));
      row.operations.push_back(
          Step<Hand>("SendOtaFinish", [](Hand& hand) { hand.SendOtaFinish(); }));
      row.sends_only = {"SendOtaFinish"};
      row.takes_anything = {"SendOtaRequestSynch"};
      return row;
    }(),
    InServiceProtocol<KorvaneLumenCanPrivateImpl>(
        "KorvaneLumenCanPrivateImpl", 4,
        kPeriods + kAngles + kModeReads + kModeWrites +
            Names{"SetHandGesture", "MixCtrlJointMotor", "GetFingertipSensor",
                  "GetAllFingertipSensorA", "GetAllFingertipSensorB", "GetAllFingertipSensorC"}),
    OnSerial(),
};

class DiagnosticsOf : public testing::TestWithParam<Expectation> {
 protected:
  /// Asks an operation. `good` is how it ends if it is supported.
  void Expect(KorvaneBase& hand, const HandOperation& operation, FailureKind good,
              bool bad_argument = false) {
    const std::string& name = operation.name;
    const bool checked = bad_argument && row_.checks_first.count(name) != 0;
    const bool supported = row_.not_supported.count(name) == 0 || checked;
    const FailureKind kind = supported ? good : FailureKind::NOT_SUPPORTED;
    EXPECT_EQ(Ends(hand, bad_argument ? operation.bad_call : operation.call),
              kind == FailureKind::NONE ? "NONE" : std::string(ToString(kind)) + " in " + name)
        << name;
    if (kind == FailureKind::BAD_REPLY) ++bad_replies_;
    rig_->Settle();
  }

  /// All operations but some.
  void ExpectAll(KorvaneBase& hand, FailureKind kind, const Names& succeed, const Names& skipped) {
    for (const HandOperation& operation : row_.operations) {
      if (skipped.count(operation.name) != 0) continue;
      const bool good = succeed.count(operation.name) != 0;
      Expect(hand, operation, good ? FailureKind::NONE : kind);
    }
  }

  const Expectation& row_ = GetParam();
  const std::unique_ptr<Rig> rig_ = GetParam().make();
  std::uint64_t bad_replies_ = 0;
};

// A program that can't tell "no fault" from "no answer" lies to whoever reads what it prints.
TEST_P(DiagnosticsOf, EachOperationTellsWhatASilentHandLeavesOpen) {
  ExpectAll(rig_->Hand(), FailureKind::NO_REPLY, row_.sends_only + row_.local, {});
  rig_->Break();
  ExpectAll(rig_->Hand(), FailureKind::SEND_FAILED, row_.local, row_.from_reports);
}

TEST_P(DiagnosticsOf, EachOperationTellsThatThereIsNoLink) {
  ExpectAll(rig_->WithoutLink(), FailureKind::NO_LINK, row_.needs_no_link, row_.from_reports);
  EXPECT_EQ(StatisticsOf(rig_->WithoutLink()).requests, 0U);
}

TEST_P(DiagnosticsOf, EachOperationTellsBadArgumentsAndForgetsThemWhenAllIsWell) {
  rig_->Answer();
  for (const HandOperation& operation : row_.operations) {
    if (operation.bad_call) {
      Expect(rig_->Hand(), operation, FailureKind::BAD_ARGUMENT, /*bad_argument=*/true);
    }
    const bool report = row_.from_reports.count(operation.name) != 0;
    Expect(rig_->Hand(), operation, report ? FailureKind::NO_REPLY : FailureKind::NONE);
  }
}

class BadRepliesTo : public DiagnosticsOf {};

TEST_P(BadRepliesTo, TellWhichOperationTheyFail) {
  rig_->AnswerBadly();
  ExpectAll(rig_->Hand(), FailureKind::BAD_REPLY,
            row_.sends_only + row_.local + row_.takes_anything, row_.from_reports);
  EXPECT_EQ(StatisticsOf(rig_->Hand()).bad_replies, bad_replies_) << "operations, not replies";
}

constexpr auto kNameOfRow = [](const testing::TestParamInfo<Expectation>& row) {
  return row.param.name;
};
INSTANTIATE_TEST_SUITE_P(PublicProtocol, DiagnosticsOf, testing::ValuesIn(kPublicProtocol),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(ServiceCommands, DiagnosticsOf, testing::ValuesIn(kServiceCommands),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(PublicProtocol, BadRepliesTo, testing::ValuesIn(kPublicProtocol),
                         kNameOfRow);
INSTANTIATE_TEST_SUITE_P(ServiceCommands, BadRepliesTo, testing::ValuesIn(kServiceCommands),
                         kNameOfRow);

TEST(DiagnosticsOnSerial, TellWhyThereIsNoPortAndTheLinesThatWereLogged) {
  SerialRig rig;
  std::unique_ptr<KorvaneBrisaSerialImpl> closed;
  const auto tells = [&](KorvaneBase& hand, const std::function<void(PrivateKorvane&)>& call) {
    test::CaptureStreams([&] { call(dynamic_cast<PrivateKorvane&>(hand)); });
    return LastFailure(hand);
  };
  const auto opening = test::CaptureStreams([&] {
    closed = std::make_unique<KorvaneBrisaSerialImpl>(HandType::LEFT, 1, "/no/such/port", 115200);
  });
  const Failure open = LastFailure(*closed);
  EXPECT_EQ(Show(open), "NO_LINK in Open");
  EXPECT_EQ(open.text + "\n", opening.err);
  EXPECT_NE(AdviceOn(open).find("no such port"), std::string::npos);
  const Failure silent = tells(*closed, [](auto& hand) { hand.GetPowerState(); });
  EXPECT_EQ(silent.text, open.text);
  EXPECT_EQ(silent.system_error, ENOENT);

  const auto written = test::CaptureStreams([&] { rig.Hand().GetAllActiveJointAngles(); });
  EXPECT_EQ(Show(LastFailure(rig.Hand())), "NO_REPLY in GetAllActiveJointAngles");
  EXPECT_EQ(LastFailure(rig.Hand()).text + "\n", written.out);
  EXPECT_EQ(tells(rig.Hand(), [](auto& hand) { hand.GetPowerState(); }).text,
            "no frame within 10 ms");
  const auto touch = Checked(dynamic_cast<KorvaneBrisa&>(rig.Hand()),
                             [](auto& hand) { hand.GetTactileSensorData(Finger{9}); });
  EXPECT_EQ(Show(touch.failure()), "BAD_ARGUMENT in GetTactileSensorData");
}

TEST(DiagnosticsOfService, TellARefusalAndWhatSendStreamRequestThrows) {
  const test::Rig<KorvaneBrisaCanPrivateImpl> rig(test::kId);
  rig.device->script = test::Replies({5, 0});
  EXPECT_FALSE(rig.hand->SaveParam());
  EXPECT_EQ(Show(LastFailure(*rig.hand)), "REFUSED in SaveParam");
  rig.device->script = test::CantSend();
  const auto reply =
      Checked(*rig.hand, [](auto& hand) { return hand.SendStreamRequest(StreamCmd::kSaveParam); });
  EXPECT_EQ(Show(reply.failure()), "SEND_FAILED in SendStreamRequest");
}

class Diagnostics : public testing::Test, protected test::HandPair<KorvaneBase> {
 protected:
  Diagnostics() : HandPair(test::kBrisa.make) {}
};

TEST_F(Diagnostics, HoldTheLineThatWasLoggedAndNothingOfOtherThreads) {
  hand_.SetFrameRecvTimeout(10);
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
  hand_.SetFrameRecvTimeout(10);
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
  device_.script = [&](const CanfdFrame& sent) {
    std::vector<CanfdFrame> replies;
    device_.frame_recv_timeout_ms_ = ++requests == 3 ? 10 : 60'000;
    if (requests != 3) replies = *test::Replies({1})(sent);
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
