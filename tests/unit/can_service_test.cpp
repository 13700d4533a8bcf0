// The service protocol over CAN: what each operation of both hands puts on the wire, and what it
// makes of replies of any length.

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

#include "korvane_diagnostics.h"
#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "support/service_calls.h"
#include "support/tested_hands.h"

namespace talvera::korvane {

namespace {

using namespace test;
using Brisa = KorvaneBrisaCanPrivateImpl;
using Lumen = KorvaneLumenCanPrivateImpl;

/// As failures are told, with what is made of replies.
struct Command {
  ServiceCall call;
  Outcomes outcomes;

  CanfdFrame Request() const {
    return FullFrame(9, call.request, static_cast<int>(call.request.size()));
  }
};

/// The commands that both hands have, and what the whole hand's positions make of short replies.
template <class Hand>
std::vector<Command> CommonCommands(std::uint8_t motors, const Outcomes& echo) {
  const auto shorts = Ramp<short>(motors);
  const Outcomes position = From("-1", 3, Words(1, 2));
  std::vector<Command> commands{
      {{CALL(SetSingleAxisPos(12, 4096)), {6, 12, 0, 0x10}}, From("0", 3, Words(1, 2))},
      {{CALL(GetSingleAxisPos(12)), {7, 12}}, From("0", 3, Words(1, 2))},
      {{CALL(SetJointMotorPosi(motors, -2)), {6, motors, 0xFE, 0xFF}}, position},
      {{CALL(GetJointMotorPosi(1)), {7, 1}}, position},
      {{CALL(SetAllJointMotorPosi(shorts)), Bytes{8} + RampBytes(motors)}, echo},
      {{CALL(GetAllJointMotorPosi()), {9}}, From("", std::size_t{2} * motors, Words(motors))},
  };
  for (const auto& read : ServiceReads(motors)) commands.push_back({read.call, read.can});
  for (const auto& call : Settings(motors, 1)) commands.push_back({call, From("0", 1, "1")});
  return commands;
}

template <class Hand>
std::vector<Command> CommandsOf();

template <>
std::vector<Command> CommandsOf<Brisa>() {
  using Hand = Brisa;
  // The last of the positions may lack a byte.
  auto commands =
      CommonCommands<Brisa>(10, Outcomes({{0, ""}, {19, Words(9) + " 19"}, {20, Words(10)}}));
  for (const auto& read : FingertipReads()) commands.push_back({read.call, read.can});
  const Outcomes nothing({{0, ""}});
  for (const ServiceCall& call : std::vector<ServiceCall>{
           {TOLD_AS("SetRunMode", SetControlMode(10, static_cast<ControlMode>(9))), {21, 10, 9}},
           {TOLD_AS("SetProtectiveCurrent", SetCurrentThreshold(1, 3251)), {37, 1, 0xB2, 0x0C}},
           {TOLD_AS("SetProtectiveCurrent", SetCurrentThreshold(10, -1)), {37, 10, 0, 0}}}) {
    commands.push_back({call, nothing});
  }
  for (const auto& [mode, payload] : MixedPayloads()) {
    auto targets = MixedTargets(mode);
    targets.insert(targets.begin() + 2, Target(11, 0, 9, 9, 999));
    commands.push_back(
        {{TOLD_AS("SetPosSpeedCurData", MixCtrlJointMotor(targets)), payload}, nothing});
  }
  return commands;
}

template <>
std::vector<Command> CommandsOf<Lumen>() {
  using Hand = Lumen;
  const auto speeds = Ramp<short>(4);
  const Outcomes four = From("0 0 0 0", 20, Words(4)), nothing({{0, ""}});
  // clang-format off
  return CommonCommands<Lumen>(4, From("", 8, Words(4))) + std::vector<Command>{
      {{TOLD_AS("SetAllJointMotorVelo", SetJointMotorVelo(3, -2)),
        Bytes{32} + Bytes{0, 0, 0, 0, 0xFE, 0xFF} + Bytes(14)}, nothing},
      {{CALL(SetAllJointMotorVelo(speeds)), Bytes{32} + RampBytes(4) + Bytes(12)}, nothing},
      {{TOLD_AS("GetAllAxisVelocity", GetJointMotorVelo(4)), {11}}, From("0", 20, Words(1, 7))},
      {{TOLD_AS("GetAllAxisVelocity", GetAllJointMotorVelo()), {11}}, four},
      {{TOLD_AS("GetAllAxisCurrent", GetCurrentReport(1)), {10}}, From("0", 20, Words(1))},
      {{TOLD_AS("GetAllAxisCurrent", GetAllCurrentReport()), {10}}, four},
      {{TOLD_AS("GetAllAxisTemp", GetTemperatureReport(4)), {12}}, From("0", 10, "4")},
      {{TOLD_AS("GetAllAxisTemp", GetAllTemperatureReport()), {12}},
       From("0 0 0 0", 10, Numbers(4))},
      {{TOLD_AS("GetErrorCode", GetErrorReport(2)), {13}}, Outcomes({{0, "0"}})},
      {{TOLD_AS("GetErrorCode", GetAllErrorReport()), {13}}, Outcomes({{0, "0 0 0 0"}})}};
  // clang-format on
}

template <class Hand>
const char* ClassName() {
  return std::is_same_v<Hand, Brisa> ? "[KorvaneBrisaCanPrivateImpl] "
                                     : "[KorvaneLumenCanPrivateImpl] ";
}

RecordingDevice::Script Says(const Bytes& reply) {
  return [=](const CanfdFrame&) { return std::vector<CanfdFrame>{MakeFrame(9, reply)}; };
}

template <class Impl>
class ServiceOverCan : public testing::Test {
 protected:
  /// With a link or without one: that result, no frame, and no line but that one.
  void ExpectRefusals(const std::string& line, const std::string& result,
                      const std::vector<ServiceCall>& calls) {
    for (const ServiceCall& call : calls) {
      const std::string expected =
          line.empty() ? "" : ClassName<Impl>() + (call.name + line) + "\n";
      for (Impl* const hand : {&hand_, closed_.hand.get(), &none_}) {
        EXPECT_EQ(Told([&] { EXPECT_EQ(call.call(*hand), result); }), expected) << call.name;
      }
    }
    EXPECT_TRUE(device_.TakeSent().empty());
    EXPECT_TRUE(closed_.device->TakeSent().empty());
  }

  const std::vector<Command> commands_ = CommandsOf<Impl>();
  const Rig<Impl> rig_{kId};
  const Rig<Impl> closed_{kId, HandType::RIGHT, false};
  Impl none_{HandType::RIGHT, kId, NoTransport()};
  Impl& hand_ = *rig_.hand;
  RecordingDevice& device_ = *rig_.device;
};

struct HandNames {
  template <class Hand>
  static std::string GetName(int) {
    return std::is_same_v<Hand, Brisa> ? "Brisa" : "Lumen";
  }
};
using Hands = testing::Types<Brisa, Lumen>;
TYPED_TEST_SUITE(ServiceOverCan, Hands, HandNames);

TYPED_TEST(ServiceOverCan, SendsEachCommandAndTakesRepliesByTheirLength) {
  const StreamCapture errors(stderr);
  for (const auto& [call, outcomes] : this->commands_) {
    const auto ask = [&, &asked = call](const Bytes& reply) {
      this->device_.script = Says(reply);
      return asked.call(this->hand_);
    };
    EXPECT_EQ(ask({}), outcomes.Failed()) << call.name;
    for (const auto& [size, result] : outcomes.Cases(63)) {
      this->device_.TakeSent();
      EXPECT_EQ(ask(Counting(call.request[0], size)), result) << call.name << size;
      EXPECT_EQ(Show(this->device_.TakeSent()), Show({Command{call, {}}.Request()}));
    }
  }
  // Whatever isn't 1 is a refusal.
  this->device_.script = Says({5, 2});
  for (const ServiceCall& call : Settings(1, 1)) {
    EXPECT_EQ(call.call(this->hand_), call.name == "SetControlSource" ? "2" : "0") << call.name;
  }
  EXPECT_EQ(this->hand_.GetControlSource(), 2);
  this->device_.script = Says({6, 0, 0xFE, 0xFF});
  EXPECT_EQ(this->hand_.SetJointMotorPosi(1, 0), 0xFFFE);
  EXPECT_EQ(this->hand_.GetJointMotorPosi(1), -2);
  EXPECT_EQ(errors.Text(), "");
}

TYPED_TEST(ServiceOverCan, TellsWhatFailsOnTheLinkAndNothingWithoutALink) {
  for (const auto& command : this->commands_) {
    RecordingDevice& device = *this->rig_.device;
    TypeParam& hand = *this->rig_.hand;
    const auto& call = command.call.call;
    const std::string& name = command.call.name;
    const std::string& failed = command.outcomes.Failed();
    const std::string prefix = ClassName<TypeParam>() + name + ": ";
    const std::string request = FrameText(command.Request());
    const std::string standard = "[CANID:009" + request.substr(request.find(']'));
    const auto expect = [&](const std::string& text) {
      EXPECT_EQ(Told([&] { EXPECT_EQ(call(hand), failed); }), prefix + text + "\n");
    };
    device.script = CantSend();
    expect(standard + " request send failed");
    device.script = RepliesInFrames({});
    hand.SetFrameRecvTimeout(1);
    expect(standard + " request timeout (10ms)");
    device.frame_recv_timeout_ms_ = 60'000;
    device.script = Throws(std::out_of_range("adapter broke"));
    expect("adapter broke");
    device.script = Throws(42);
    EXPECT_THROW(call(hand), int) << "no standard exception, not caught";
    device.TakeSent();
    for (TypeParam* const other : {this->closed_.hand.get(), &this->none_}) {
      EXPECT_EQ(Told([&] { EXPECT_EQ(call(*other), failed); }), "") << name;
    }
    EXPECT_TRUE(this->closed_.device->TakeSent().empty());
  }
}

TYPED_TEST(ServiceOverCan, RefusesWhatIsOutOfRangeSilently) {
  using Hand = TypeParam;
  constexpr std::uint8_t kMotors = std::is_same_v<Hand, Brisa> ? 10 : 4;
  const auto past = static_cast<std::uint8_t>(kMotors + 1);
  this->ExpectRefusals("", "0", RefusedSettings(kMotors));
  for (const auto& [motion, result] : RefusedMotions(kMotors, "0")) {
    this->ExpectRefusals("", result, {motion});
  }
  // clang-format off
  this->ExpectRefusals("", "0", {
      {CALL(GetSingleAxisPos(0))}, {CALL(GetSingleAxisPos(13))},
      {CALL(GetSingleActualAxisPos(0))}, {CALL(GetSingleActualAxisPos(11))}});
  this->ExpectRefusals("", "-1", {
      {CALL(SetJointMotorPosi(0, 1))}, {CALL(SetJointMotorPosi(past, 1))},
      {CALL(GetJointMotorPosi(0))}, {CALL(GetJointMotorPosi(past))}});
  this->ExpectRefusals("", "", {
      {CALL(SetAllJointMotorPosi(Ramp<short>(kMotors - 1U)))},
      {CALL(SetAllJointMotorPosi(Ramp<short>(past)))}});
  // clang-format on
}

TYPED_TEST(ServiceOverCan, IsAHandOfItsModelWhoseRequestsDoNotBearItsId) {
  auto& hand = *this->rig_.hand;
  EXPECT_EQ(hand.model_code, (std::is_same_v<TypeParam, Brisa> ? 0 : 3));
  EXPECT_TRUE(hand.connected);
  EXPECT_FALSE(this->closed_.hand->connected);
  EXPECT_EQ(Show(hand.GetDeviceInfo()), "39 0 0 0 0");
  hand.SetDeviceId(200);
  EXPECT_EQ(Show(hand.GetDeviceInfo()), "200 0 0 0 0");
  EXPECT_EQ(Show(this->closed_.hand->GetDeviceInfo()), "0 0 0 0 0");
  EXPECT_EQ(Show(this->none_.GetDeviceInfo()), "0 0 0 0 0");
  hand.SetRequestInterval(200);
  EXPECT_EQ(hand.GetRequestInterval(), 30);
  EXPECT_EQ(this->rig_.device->GetRequestInterval(), 100);
  hand.SetRequestInterval(0);
  hand.SetFrameRecvTimeout(5000);
  EXPECT_EQ(hand.GetFrameRecvTimeout(), 1000);
  for (const bool on : {true, false}) {
    hand.ShowDataDetails(on);
    EXPECT_EQ(this->rig_.device->show_data_details_, on);
  }
  EXPECT_TRUE(this->rig_.device->TakeSent().empty());
  // Any frame under the identifier is the reply, and no other.
  this->rig_.device->script = [](const CanfdFrame&) {
    return std::vector<CanfdFrame>{FullFrame(8, {2, 5}, 2), FullFrame(0x90009, {2, 6}, 2),
                                   FullFrame(9, {99, 7}, 2)};
  };
  EXPECT_EQ(hand.GetPowerState(), 7);
  this->rig_.device->TakeSent();
  EXPECT_EQ(Show(std::vector<CanfdFrame>{hand.SendStreamRequest(StreamCmd::kSaveParam)}),
            Show({FullFrame(9, {99, 7}, 2)}));
  EXPECT_THROW(this->none_.SendStreamRequest(StreamCmd::kSaveParam), std::runtime_error);
}

TYPED_TEST(ServiceOverCan, IsMadeWithoutALinkTooAndSaysWhy) {
  const auto expect_refused = [](const std::string& line, auto... where) {
    const StreamCapture made(stderr);
    const TypeParam hand(HandType::LEFT, kId, where...);
    const std::string name = ClassName<TypeParam>();
    EXPECT_EQ(made.Text(), "[ERROR] " + name.substr(1, name.size() - 3) + line + "\n");
    EXPECT_TRUE(!hand.connected && hand.mirrored && hand.device_id == kId);
    EXPECT_EQ(hand.GetPowerState(), 0);
  };
  constexpr std::uint8_t kZero = 0;
  constexpr auto kNoKind = static_cast<ECanDeviceType>(2);
  expect_refused(": invalid device type", kZero, kZero, kNoKind);
  expect_refused(": invalid device type", "serial", kZero, kNoKind);
  expect_refused(": TCP CANFD is not supported on this platform.", "127.0.0.1",
                 static_cast<unsigned short>(8080), kZero);
}

TYPED_TEST(ServiceOverCan, TellsWhatItIsInTwoRequests) {
  auto& device = *this->rig_.device;
  Bytes version{205, 2, 9, 9, 1, 2, 3, 4, 5, 6, 10};
  Bytes number{194, 'A', 31, 'z', 127, '~', 0, 'B'};
  int version_length = 12;
  device.script = [&](const CanfdFrame& sent) {
    const bool first = sent.data[0] == 205;
    return std::vector<CanfdFrame>{
        FullFrame(9, first ? version : number, first ? version_length : 20)};
  };
  const auto info = [this] { return Show(this->rig_.hand->GetVendorInfo()); };
  EXPECT_EQ(info(), "BR7|A-z-~|1.2.3|4.5.6|0|10");
  EXPECT_EQ(Show(device.TakeSent()), Show({FullFrame(9, {205}, 1), FullFrame(9, {194}, 1)}));
  version[1] = 1;
  number.assign(20, 'q');
  version_length = 11;
  EXPECT_EQ(info(), "TS9|qqqqqqqqqqqqqqqqqqq|1.2.3|4.5.6|0|10");
  version[1] = 3;
  EXPECT_EQ(info().substr(0, 13), "KorvaneBrisa|");
  device.TakeSent();
  version_length = 10;
  EXPECT_EQ(info(), "||0.0.0|0.0.0|0|0");
  EXPECT_EQ(device.TakeSent().size(), 1U);
}

using BrisaOverCan = ServiceOverCan<Brisa>;
using LumenOverCan = ServiceOverCan<Lumen>;

TEST_F(BrisaOverCan, LacksWhatTheProtocolHasNoCommandFor) {
  using Hand = Brisa;
  const std::string not_fully = " is not fully supported.";
  const std::string invalid = ": Invalid control mode.";
  const auto shorts = Ramp<short>(10);
  const auto ten = Ramp<unsigned short>(10);
  const std::string zeros = "0 0 0 0 0 0 0 0 0 0";
  const std::vector<MixCtrl> none;
  const std::vector<MixCtrl> nine(9, Target(1, 6, 1, 1, 1));
  const std::vector<MixCtrl> eleven(11, Target(1, 4, 1, 1, 1));
  const std::vector<MixCtrl> odd(11, Target(1, 7, 1, 1, 1));
  ExpectRefusals(not_fully, "0", {{CALL(GetCurrentThreshold(0))}, {CALL(GetControlMode(1))}});
  ExpectRefusals(not_fully, zeros, {{CALL(GetAllCurrentThreshold())}, {CALL(GetAllControlMode())}});
  // clang-format off
  ExpectRefusals("", "", {
      {CALL(MixCtrlJointMotor(none))}, {CALL(MixCtrlJointMotor(nine))},
      {CALL(MixCtrlJointMotor(eleven))}, {CALL(SetControlMode(0, ControlMode::MODE_0))},
      {CALL(SetControlMode(11, ControlMode::MODE_0))},
      {CALL(SetAllControlMode(Ramp<std::uint8_t>(9)))}, {CALL(SetCurrentThreshold(0, 1))},
      {CALL(SetCurrentThreshold(11, 1))}, {CALL(SetAllCurrentThreshold(Ramp<short>(11)))},
      {CALL(SetJointMotorVelo(1, 1))}, {CALL(SetAllJointMotorVelo(shorts))},
      {CALL(GetAllJointMotorVelo())}, {CALL(SetErrorReportPeriod(1, 1))},
      {CALL(SetAllErrorReportPeriod(ten))}, {CALL(SetTemperReportPeriod(1, 1))},
      {CALL(SetAllTemperReportPeriod(ten))}, {CALL(SetCurrentReportPeriod(1, 1))},
      {CALL(SetAllCurrentReportPeriod(ten))}, {CALL(GetAllErrorReport())},
      {CALL(GetAllTemperatureReport())}, {CALL(GetAllCurrentReport())},
      {CALL(GetTactileSensorData(static_cast<Finger>(0)))}, {CALL(GetAllTactileSensorDataRaw())},
      {CALL(SetAllActiveJointAngles(std::vector<double>(9)))}});
  // clang-format on
  ExpectRefusals(invalid, "", {{CALL(MixCtrlJointMotor(odd))}});
  // clang-format off
  ExpectRefusals("", "0", {
      {CALL(GetJointMotorVelo(1))}, {CALL(GetErrorReport(1))}, {CALL(GetTemperatureReport(1))},
      {CALL(GetCurrentReport(1))}});
  // clang-format on
  ExpectRefusals("", "6:;", {{CALL(GetTactileSensorDataRaw(Finger::PALM))}});
}

TEST_F(BrisaOverCan, BuildsPublicOperationsFromSeveralCommands) {
  device_.script = [](const CanfdFrame& sent) {
    const std::uint8_t command = sent.data[0];
    return std::vector<CanfdFrame>{MakeFrame(9, Counting(command, command == 19 ? 31 : 63))};
  };
  hand_.SetAllControlMode({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  const auto modes = device_.TakeSent();
  ASSERT_EQ(modes.size(), 10U);
  EXPECT_EQ(Show({modes.back()}), Show({FullFrame(9, {21, 10, 10}, 3)}));
  hand_.SetAllCurrentThreshold({-1, 1, 1, 1, 1, 1, 1, 1, 1, 9999});
  const auto thresholds = device_.TakeSent();
  ASSERT_EQ(thresholds.size(), 10U);
  EXPECT_EQ(Show({thresholds.front()}), Show({FullFrame(9, {37, 1, 0, 0}, 4)}));
  EXPECT_EQ(Show({thresholds.back()}), Show({FullFrame(9, {37, 10, 0xB2, 0x0C}, 4)}));
  const auto sensors = hand_.GetAllTactileSensorData();
  std::vector<Finger> fingers;
  fingers.reserve(sensors.size());
  for (const auto& sensor : sensors) fingers.push_back(sensor.finger);
  EXPECT_EQ(Show(fingers), "1 2 3 6 7") << "a group that came short is left out";
  EXPECT_EQ(sensors[4].data.front(), 26);
}

TEST_F(LumenOverCan, SaysWhatTheProtocolHasNoCommandFor) {
  using Hand = Lumen;
  const std::string no = ": Not supported for LM3 standard frame";
  const std::string no_sensors = ": LM3 不支持触觉传感器";
  const std::string no_solver = ": LM3 has no kinematics solver, use SetAllJointMotorPosi";
  const auto shorts = Ramp<short>(4);
  const auto words = Ramp<unsigned short>(4);
  const std::vector<MixCtrl> none;
  const std::vector<double> angles(4);
  const auto zero = test::Show(angles);
  // clang-format off
  ExpectRefusals(no, "", {
      {CALL(SetAllCurrentThreshold(shorts))}, {CALL(MixCtrlJointMotor(none))},
      {CALL(SetControlMode(1, ControlMode::MODE_0))},
      {CALL(SetAllControlMode(Ramp<std::uint8_t>(4)))}, {CALL(SetTemperReportPeriod(1, 1))},
      {CALL(SetAllErrorReportPeriod(words))}, {CALL(SetErrorReportPeriod(1, 1))},
      {CALL(SetCurrentThreshold(1, 1))}, {CALL(SetCurrentReportPeriod(1, 1))},
      {CALL(SetAllTemperReportPeriod(words))}, {CALL(SetAllCurrentReportPeriod(words))}});
  ExpectRefusals(no_sensors, "", {
      {CALL(GetFingertipSensor(1))}, {CALL(GetAllFingertipSensorA())},
      {CALL(GetAllFingertipSensorB())}, {CALL(GetAllFingertipSensorC())}});
  // clang-format on
  ExpectRefusals(no_solver, "", {{CALL(SetAllActiveJointAngles(angles))}});
  ExpectRefusals("", zero,
                 {{CALL(GetAllActiveJointAngles())},
                  {CALL(GetAllJointAngles())},
                  {CALL(GetAllJointPos(std::vector<double>()))}});
  // clang-format off
  ExpectRefusals("", "0", {
      {CALL(GetCurrentThreshold(1))}, {CALL(GetControlMode(1))}, {CALL(GetJointMotorVelo(5))},
      {CALL(GetErrorReport(0))}, {CALL(GetErrorReport(5))}, {CALL(GetTemperatureReport(5))},
      {CALL(GetCurrentReport(0))}});
  ExpectRefusals("", "", {
      {CALL(GetAllCurrentThreshold())}, {CALL(GetAllControlMode())},
      {CALL(SetJointMotorVelo(0, 1))}, {CALL(SetJointMotorVelo(5, 1))},
      {CALL(SetAllJointMotorVelo(Ramp<short>(5)))}});
  // clang-format on
  // The place of a motor's error, four motors each.
  for (const auto& [code, errors] : std::map<std::uint8_t, std::string>{{1, "1 0 0 0"},
                                                                        {4, "0 0 0 1"},
                                                                        {5, "0 0 0 0"},
                                                                        {20, "0 0 0 0"},
                                                                        {22, "0 2 0 0"},
                                                                        {84, "0 0 0 16"},
                                                                        {101, "0 0 0 0"}}) {
    device_.script = Says({13, code, 0});
    EXPECT_EQ(test::Show(hand_.GetAllErrorReport()), errors);
    EXPECT_EQ(hand_.GetErrorReport(2), code == 22 ? 2 : 0);
  }
  int failures = 0;
  hand_.UpdateFirmware("/nowhere", [&](int current, int total, OtaProgressStatus status) {
    failures += current == -1 && total == 0 && status == OtaProgressStatus::FAILED ? 1 : 0;
  });
  EXPECT_EQ(failures, 1) << "there is no update over this protocol";
  EXPECT_EQ(LastFailure(hand_).kind, FailureKind::NOT_SUPPORTED);
}

}  // namespace
}  // namespace talvera::korvane
