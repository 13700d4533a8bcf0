// The service protocol over CAN: what each operation of both hands puts on the wire, and what it
// makes of replies of any length.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <stdexcept>

#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "support/service_calls.h"
#include "support/tested_hands.h"
#include "util/bytes.h"

namespace talvera::korvane {

// Records as text, for ShowCall.
static std::string Show(const DeviceInfo& info) { return ShowBytes(info); }
static std::string Show(const VendorInfo& info) {
  return info.product_model + "|" + info.serial_number + "|" + info.software_version.ToString() +
         "|" + info.hardware_version.ToString() + "|" + std::to_string(info.supply_voltage_mv) +
         "|" + std::to_string(info.active_dof);
}
static std::string Show(const TactileSensorData& sensor) {
  return test::Show(sensor.finger) + ":" + test::Show(sensor.data) + ";";
}

namespace {

using namespace test;
using Brisa = KorvaneBrisaCanPrivateImpl;
using Lumen = KorvaneLumenCanPrivateImpl;

/// What an operation makes of a reply.
using Reading = std::function<std::string(const CanfdFrame&)>;

template <class Value>
std::vector<Value> Values(const CanfdFrame& frame, std::size_t at, std::size_t count) {
  std::vector<Value> values(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint8_t* const bytes = frame.data + at + i * sizeof(Value);
    values[i] = static_cast<Value>(sizeof(Value) == 1 ? bytes[0] : LoadU16(bytes));
  }
  return values;
}

/// From a reply of at least that many bytes behind the command; otherwise what is told last.
template <class Value>
Reading List(std::size_t count, bool zeros = false, std::size_t least = 0) {
  if (least == 0) least = 1 + count * sizeof(Value);
  return [=](const CanfdFrame& f) {
    if (f.len >= least) return Show(Values<Value>(f, 1, count));
    return Show(std::vector<Value>(zeros ? count : 0));
  };
}
template <class Value = std::uint16_t>
Reading Position(const char* otherwise) {
  return [=](const CanfdFrame& f) {
    return f.len >= 4 ? Show(static_cast<Value>(LoadU16(f.data + 2))) : otherwise;
  };
}
Reading Response(std::size_t motors, bool positions_alone) {
  return [=](const CanfdFrame& f) {
    SetAllAxisPosResponse response;
    const bool full = f.len >= 1 + 6 * motors;
    if (full || (positions_alone && f.len >= 1 + 2 * motors)) {
      response.pos = Values<std::uint16_t>(f, 1, motors);
    }
    if (full) {
      response.second = Values<std::uint16_t>(f, 1 + 2 * motors, motors);
      response.third = Values<std::uint8_t>(f, 1 + 4 * motors, motors);
      response.fourth = Values<std::uint8_t>(f, 1 + 5 * motors, motors);
    }
    return Show(response);
  };
}
Reading Limits(std::size_t motors, std::size_t most) {
  return [=](const CanfdFrame& f) {
    std::size_t count = f.len >= 1 + 4 * motors ? motors : 0;
    if (f.len >= 1 + 4 * most) count = most;
    return Show(AxisLimitPos{Values<std::uint16_t>(f, 1, count),
                             Values<std::uint16_t>(f, 1 + 2 * count, count)});
  };
}
std::string Acknowledged(const CanfdFrame& f) { return f.len >= 2 && f.data[1] == 1 ? "1" : "0"; }
std::string Byte(const CanfdFrame& f) { return f.len >= 2 ? Show(f.data[1]) : "0"; }
std::string Nothing(const CanfdFrame&) { return ""; }
std::string ErrorCode(const CanfdFrame& f) { return f.len >= 3 ? Show(LoadU16(f.data + 1)) : "0"; }
std::string SerialNumber(const CanfdFrame& f) {
  return Show(f.len >= 20 ? Values<std::uint8_t>(f, 1, 19) : Bytes(19));
}
std::string Versions(const CanfdFrame& f) {
  const std::uint8_t* const d = f.data;
  if (f.len < 11) return Show(Bytes(13));
  if (f.len == 11) {
    return Show(Bytes{d[1], 0, 0, 0, d[3], d[4], d[5], 0, d[6], d[7], d[8], 0, d[9]});
  }
  return Show(Bytes{d[1], d[2], d[3], 0, d[4], d[5], d[6], 0, d[7], d[8], d[9], 0, d[10]});
}
/// The error of one motor, or of all.
Reading Errors(std::size_t axis = 0) {
  return [=](const CanfdFrame& f) {
    const unsigned code = f.len >= 3 ? LoadU16(f.data + 1) : 0;
    std::vector<unsigned> errors(4);
    for (unsigned place = 0; place < 5; ++place) {
      for (unsigned i = 0; i < 4; ++i) errors[i] |= code == 20 * place + i + 1 ? 1U << place : 0;
    }
    return axis == 0 ? Show(errors) : Show(errors[axis - 1]);
  };
}

template <class Hand>
struct Command {
  /// As failures are told.
  std::string name;
  std::function<std::string(Hand&)> call;
  /// The command byte and its payload.
  Bytes request;
  Reading result;

  CanfdFrame Request() const { return FullFrame(9, request, static_cast<int>(request.size())); }
};

/// The commands that both hands have; `least` is the shortest reply with all positions.
template <class Hand>
std::vector<Command<Hand>> CommonCommands(std::uint8_t motors, std::size_t least, bool alone,
                                          std::size_t most_limits) {
  const auto words = Ramp<std::uint16_t>(motors);
  const auto shorts = Ramp<short>(motors);
  const auto speeds = Ramp<std::int16_t>(10);
  const auto ten = Ramp<std::uint16_t>(10);
  const auto currents = Ramp<std::uint8_t>(10);
  using U16 = std::uint16_t;
  using U8 = std::uint8_t;
  std::vector<Command<Hand>> commands{
      {CALL(GetPowerState()), {2}, Byte},
      {CALL(SetSingleAxisPos(12, 4096)), {6, 12, 0, 0x10}, Position("0")},
      {CALL(SetSingleAxisPos(1, 0)), {6, 1, 0, 0}, Position("0")},
      {CALL(SetJointMotorPosi(motors, -2)), {6, motors, 0xFE, 0xFF}, Position("-1")},
      {CALL(GetSingleAxisPos(12)), {7, 12}, Position("0")},
      {CALL(GetJointMotorPosi(1)), {7, 1}, Position<short>("-1")},
      {CALL(SetAllAxisPos(words)), Bytes{8} + RampBytes(motors), Response(motors, alone)},
      {CALL(SetAllJointMotorPosi(shorts)), Bytes{8} + RampBytes(motors),
       List<short>(motors, false, least)},
      {CALL(GetAllAxisPos()), {9}, List<U16>(motors)},
      {CALL(GetAllJointMotorPosi()), {9}, List<short>(motors)},
      {CALL(GetAllAxisCurrent()), {10}, List<U16>(10, true)},
      {CALL(GetAllAxisVelocity()), {11}, List<U16>(10, true)},
      {CALL(GetAllAxisTemp()), {12}, List<U8>(10, true)},
      {CALL(GetErrorCode()), {13}, ErrorCode},
      {CALL(GetAllAxisPosRange()), {16}, List<U16>(motors, true)},
      {CALL(SetSingleActualAxisPos(10, 4096)), {22, 10, 0, 0x10}, Position("0")},
      {CALL(GetSingleActualAxisPos(10)), {23, 10}, Position("0")},
      {CALL(SetAllActualAxisPos(words)), Bytes{24} + RampBytes(motors), List<U16>(motors)},
      {CALL(GetAllActualAxisPos()), {25}, List<U16>(motors, true)},
      {CALL(GetAllLoadData()), {26}, List<U16>(10, true)},
      {CALL(GetAllElectricMotorId()), {38}, List<U8>(10, true)},
      {CALL(GetAllSensorId()), {39}, List<U8>(7, true)},
      {CALL(GetAllAxisCvp()), {41}, List<U8>(60)},
      {CALL(GetAxisLimitPos()), {48}, Limits(motors, most_limits)},
      {CALL(SetPosSpeedCurData(ten, speeds, currents)),
       Bytes{50} + RampBytes(10) + RampBytes(10) + currents, Response(motors, false)},
      {CALL(GetFingerTactileForce()), {51}, List<U8>(35)},
      {CALL(SetControlSource(1)), {128, 1}, Byte},
      {CALL(GetControlSource()), {129}, Byte},
      {CALL(GetProductSerialNumber()), {194}, SerialNumber},
      {CALL(GetFwVersion()), {205}, Versions},
  };
  for (const auto& setting : Settings<Hand>(motors, 1)) {
    commands.push_back({setting.name, setting.call, setting.request, Acknowledged});
  }
  return commands;
}

template <class Hand>
std::vector<Command<Hand>> CommandsOf();

template <>
std::vector<Command<Brisa>> CommandsOf() {
  using Hand = Brisa;
  using Targets = std::vector<MixCtrl>;
  auto commands = CommonCommands<Brisa>(10, 20, false, 12);
  const auto mixed = [](int mode) {
    return Targets{Target(1, mode, 0x102, 0x304, 256), Target(0, mode, 9, 9, 999),
                   Target(11, 0, 9, 9, 999), Target(10, 0, -2, -3, 255)};
  };
  const Targets four = mixed(4);
  const Targets five = mixed(5);
  const Targets six = mixed(6);
  const auto wide = [](std::size_t size) {
    return [=](const CanfdFrame& f) {
      return f.len >= size ? Show(Values<std::uint8_t>(f, 1, size - 1)) : "";
    };
  };
  const std::vector<Command<Brisa>> own{
      {CALL(GetFingertipSensor(5)), {17, 5}, wide(18)},
      {CALL(GetFingertipSensor(6)), {17, 6}, wide(27)},
      {CALL(GetAllFingertipSensorA()), {18}, List<std::uint8_t>(48)},
      {CALL(GetAllFingertipSensorB()), {19}, List<std::uint8_t>(32)},
      {CALL(GetAllFingertipSensorC()), {20}, List<std::uint8_t>(50)},
      {TOLD_AS("SetRunMode", SetControlMode(10, static_cast<ControlMode>(9))),
       {21, 10, 9},
       Nothing},
      {TOLD_AS("SetProtectiveCurrent", SetCurrentThreshold(1, 3251)), {37, 1, 0xB2, 0x0C}, Nothing},
      {TOLD_AS("SetProtectiveCurrent", SetCurrentThreshold(10, -1)), {37, 10, 0, 0}, Nothing},
      {TOLD_AS("SetPosSpeedCurData", MixCtrlJointMotor(four)),
       MixedPayload({{0, 2}, {1, 1}, {40, 1}, {18, 0xFE}, {19, 0xFF}}), Nothing},
      {TOLD_AS("SetPosSpeedCurData", MixCtrlJointMotor(five)),
       MixedPayload({{20, 4}, {21, 3}, {40, 1}, {38, 0xFD}, {39, 0xFF}}), Nothing},
      {TOLD_AS("SetPosSpeedCurData", MixCtrlJointMotor(six)),
       MixedPayload({{0, 2},
                     {1, 1},
                     {18, 0xFE},
                     {19, 0xFF},
                     {20, 4},
                     {21, 3},
                     {38, 0xFD},
                     {39, 0xFF},
                     {40, 1}}),
       Nothing},
  };
  commands.insert(commands.end(), own.begin(), own.end());
  return commands;
}

/// The first of the ten values.
template <class Value>
Reading FirstFour(std::size_t width, std::size_t index = 0) {
  return [=](const CanfdFrame& f) {
    std::vector<Value> values(4);
    for (std::size_t i = 0; i < 4 && f.len >= 1 + 10 * width; ++i) {
      values[i] = static_cast<Value>(width == 1 ? f.data[1 + i] : LoadU16(f.data + 1 + 2 * i));
    }
    return index == 0 ? Show(values) : Show(values[index - 1]);
  };
}

template <>
std::vector<Command<Lumen>> CommandsOf() {
  using Hand = Lumen;
  using U16 = unsigned short;
  auto commands = CommonCommands<Lumen>(4, 9, true, 4);
  const auto speeds = Ramp<short>(4);
  const std::vector<Command<Lumen>> own{
      {TOLD_AS("SetAllJointMotorVelo", SetJointMotorVelo(3, -2)),
       Bytes{32} + Bytes{0, 0, 0, 0, 0xFE, 0xFF} + Bytes(14), Nothing},
      {CALL(SetAllJointMotorVelo(speeds)), Bytes{32} + RampBytes(4) + Bytes(12), Nothing},
      {TOLD_AS("GetAllAxisVelocity", GetJointMotorVelo(4)), {11}, FirstFour<short>(2, 4)},
      {TOLD_AS("GetAllAxisVelocity", GetAllJointMotorVelo()), {11}, FirstFour<short>(2)},
      {TOLD_AS("GetAllAxisCurrent", GetCurrentReport(1)), {10}, FirstFour<short>(2, 1)},
      {TOLD_AS("GetAllAxisCurrent", GetAllCurrentReport()), {10}, FirstFour<short>(2)},
      {TOLD_AS("GetAllAxisTemp", GetTemperatureReport(4)), {12}, FirstFour<U16>(1, 4)},
      {TOLD_AS("GetAllAxisTemp", GetAllTemperatureReport()), {12}, FirstFour<U16>(1)},
      {TOLD_AS("GetErrorCode", GetErrorReport(2)), {13}, Errors(2)},
      {TOLD_AS("GetErrorCode", GetAllErrorReport()), {13}, Errors()},
  };
  commands.insert(commands.end(), own.begin(), own.end());
  return commands;
}

template <class Hand>
const char* ClassName() {
  return std::is_same_v<Hand, Brisa> ? "[KorvaneBrisaCanPrivateImpl] "
                                     : "[KorvaneLumenCanPrivateImpl] ";
}

/// A reply of `len` bytes: each byte is its offset, so that an acknowledgment is one.
CanfdFrame Counting(std::uint8_t command, int len) {
  CanfdFrame reply = FullFrame(9, {command}, len);
  for (int i = 1; i < len; ++i) reply.data[i] = static_cast<std::uint8_t>(i);
  return reply;
}
RecordingDevice::Script Says(const CanfdFrame& reply) {
  return [=](const CanfdFrame&) { return std::vector<CanfdFrame>{reply}; };
}

template <class Impl>
class ServiceOverCan : public testing::Test {
 protected:
  struct Call {
    std::string name;
    std::function<std::string(Impl&)> call;
  };

  /// With a link or without one: that result, no frame, and no line but that one.
  void ExpectRefusals(const std::string& line, const std::string& result,
                      const std::vector<Call>& calls) {
    for (const Call& call : calls) {
      const std::string expected =
          line.empty() ? "" : ClassName<Impl>() + (call.name + line) + "\n";
      for (Impl* const hand : {&hand_, closed_.hand.get(), &none_}) {
        EXPECT_EQ(Told([&] { EXPECT_EQ(call.call(*hand), result); }), expected) << call.name;
      }
    }
    EXPECT_TRUE(device_.TakeSent().empty());
    EXPECT_TRUE(closed_.device->TakeSent().empty());
  }

  const std::vector<Command<Impl>> commands_ = CommandsOf<Impl>();
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
  const std::string told = Told([&] {
    for (const auto& command : this->commands_) {
      for (int len = 0; len <= 64; ++len) {
        const CanfdFrame reply = Counting(command.request[0], len);
        this->rig_.device->script = Says(reply);
        EXPECT_EQ(command.call(*this->rig_.hand), command.result(reply)) << command.name << len;
        EXPECT_EQ(Show(this->rig_.device->TakeSent()), Show({command.Request()}));
      }
    }
  });
  EXPECT_EQ(told, "");
}

TYPED_TEST(ServiceOverCan, TakesRandomRepliesAsTold) {
  std::mt19937 random(20261125);
  CanfdFrame reply;
  reply.can_id = 9;
  this->rig_.device->script = [&](const CanfdFrame&) { return std::vector<CanfdFrame>{reply}; };
  for (int round = 0; round < 50000; ++round) {
    const auto& command = this->commands_[random() % this->commands_.size()];
    reply.len = static_cast<std::uint8_t>(random() % 65);
    std::fill(std::begin(reply.data), std::end(reply.data), std::uint8_t{0});
    std::generate_n(reply.data, reply.len, [&] { return static_cast<std::uint8_t>(random()); });
    // Error codes and acknowledgments are small.
    if (random() % 2 == 0) reply.data[2] = 0;
    if (random() % 2 == 0) reply.data[1] = static_cast<std::uint8_t>(random() % 100);
    if (reply.len < 3) std::fill(reply.data + reply.len, reply.data + 3, std::uint8_t{0});
    ASSERT_EQ(command.call(*this->rig_.hand), command.result(reply)) << command.name;
  }
}

TYPED_TEST(ServiceOverCan, TellsWhatFailsOnTheLinkAndNothingWithoutALink) {
  for (const auto& command : this->commands_) {
    RecordingDevice& device = *this->rig_.device;
    TypeParam& hand = *this->rig_.hand;
    const std::string failed = command.result(CanfdFrame{});
    const std::string prefix = ClassName<TypeParam>() + command.name + ": ";
    const std::string request = FrameText(command.Request());
    const std::string standard = "[CANID:009" + request.substr(request.find(']'));
    const auto expect = [&](const std::string& text) {
      EXPECT_EQ(Told([&] { EXPECT_EQ(command.call(hand), failed); }), prefix + text + "\n");
    };
    device.script = CantSend();
    expect(standard + " request send failed");
    device.script = RepliesInFrames({});
    hand.SetFrameRecvTimeout(1);
    expect(standard + " request timeout (10ms)");
    hand.SetFrameRecvTimeout(5000);
    device.script = Throws(std::out_of_range("adapter broke"));
    expect("adapter broke");
    device.script = Throws(42);
    EXPECT_THROW(command.call(hand), int) << "no standard exception, not caught";
    device.TakeSent();
    for (TypeParam* const other : {this->closed_.hand.get(), &this->none_}) {
      EXPECT_EQ(Told([&] { EXPECT_EQ(command.call(*other), failed); }), "") << command.name;
    }
    EXPECT_TRUE(this->closed_.device->TakeSent().empty());
  }
}

TYPED_TEST(ServiceOverCan, RefusesWhatIsOutOfRangeSilently) {
  using Hand = TypeParam;
  constexpr std::uint8_t kMotors = std::is_same_v<Hand, Brisa> ? 10 : 4;
  const auto past = static_cast<std::uint8_t>(kMotors + 1);
  const auto few = Ramp<std::uint16_t>(kMotors - 1);
  const auto many = Ramp<std::uint16_t>(past);
  const auto ten = Ramp<std::uint16_t>(10);
  const auto speeds = Ramp<short>(10);
  const auto currents = Ramp<std::uint8_t>(10);
  std::vector<typename TestFixture::Call> settings;
  for (const auto& refused : RefusedSettings<Hand>(kMotors)) {
    settings.push_back({refused.name, refused.call});
  }
  this->ExpectRefusals("", "0", settings);
  // clang-format off
  this->ExpectRefusals("", "0", {
      {CALL(SetSingleAxisPos(0, 1))}, {CALL(SetSingleAxisPos(13, 1))},
      {CALL(SetSingleAxisPos(1, 4097))}, {CALL(GetSingleAxisPos(0))},
      {CALL(GetSingleAxisPos(13))}, {CALL(SetSingleActualAxisPos(0, 1))},
      {CALL(SetSingleActualAxisPos(11, 1))}, {CALL(SetSingleActualAxisPos(1, 4097))},
      {CALL(GetSingleActualAxisPos(0))}, {CALL(GetSingleActualAxisPos(11))},
      {CALL(SetControlSource(2))}});
  this->ExpectRefusals("", "-1", {
      {CALL(SetJointMotorPosi(0, 1))}, {CALL(SetJointMotorPosi(past, 1))},
      {CALL(GetJointMotorPosi(0))}, {CALL(GetJointMotorPosi(past))}});
  this->ExpectRefusals("", "|||", {
      {CALL(SetAllAxisPos(few))}, {CALL(SetAllAxisPos(many))},
      {CALL(SetPosSpeedCurData(Ramp<std::uint16_t>(9), speeds, currents))},
      {CALL(SetPosSpeedCurData(ten, Ramp<short>(11), currents))},
      {CALL(SetPosSpeedCurData(ten, speeds, Ramp<std::uint8_t>(9)))}});
  this->ExpectRefusals("", "", {
      {CALL(SetAllJointMotorPosi(Ramp<short>(kMotors - 1U)))},
      {CALL(SetAllJointMotorPosi(Ramp<short>(past)))}, {CALL(SetAllActualAxisPos(few))},
      {CALL(SetAllActualAxisPos(many))}});
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
  const auto side = HandType::LEFT;
  const std::string nowhere = "no such adapter";
  CaptureStreams([&] {
    const decltype(TypeParam::createHandSocketCan(side, kId)) hands[] = {
        TypeParam::createHandSocketCan(side, kId, "no-such-can"),
        TypeParam::createHandByZlgcan(side, kId, nowhere, 1),
        TypeParam::createHandByZlgcan(side, kId, std::uint8_t{7}, 1),
        TypeParam::createHandByHcan(side, kId, nowhere, 1),
        TypeParam::createHandByHcan(side, kId, std::uint8_t{200}, 1)};
    for (const auto& hand : hands) {
      EXPECT_NE(dynamic_cast<const TypeParam*>(hand.get()), nullptr);
      EXPECT_FALSE(hand->connected);
    }
  });
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
    return std::vector<CanfdFrame>{Counting(sent.data[0], sent.data[0] == 19 ? 32 : 64)};
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
  int failures = 0;
  hand_.UpdateFirmware("/nowhere", [&](int current, int total, OtaProgressStatus status) {
    failures += current == -1 && total == 0 && status == OtaProgressStatus::FAILED ? 1 : 0;
  });
  EXPECT_EQ(failures, 1) << "there is no update over this protocol";
}

}  // namespace
}  // namespace talvera::korvane
