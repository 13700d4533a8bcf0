// The commands of the serial link byte by byte: what each operation writes to the port, what it
// makes of replies of any size, and what it says when there is none. The other end of the line is
// the test's own; it answers when the library waits, not before.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <thread>

#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "serial/usb_device.h"
#include "support/capture.h"
#include "support/pseudo_terminal.h"
#include "support/service_calls.h"
#include "util/bytes.h"
#include "util/crc16.h"

namespace talvera::korvane {

namespace {

using namespace test;
using Hand = KorvaneBrisaSerialImpl;
using Frames = std::vector<Bytes>;

constexpr std::uint8_t kId = 0x21;
constexpr std::uint8_t kMark = 0;  // No frame begins with it.
constexpr int kBaud = 921600;

Bytes FrameOf(const Bytes& command, std::uint16_t id = kId) {
  Bytes frame{0xEE, 0xAA, static_cast<std::uint8_t>(id), static_cast<std::uint8_t>(id >> 8),
              static_cast<std::uint8_t>(command.size())};
  frame = frame + command;
  const std::uint16_t crc = Crc16Xmodem(frame.data(), frame.size());
  return frame + Bytes{static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)};
}

class SerialCommands : public testing::Test {
 protected:
  SerialCommands() { Reopen(); }

  /// A new hand object, to which nothing has been said yet.
  void Reopen() {
    hand_.reset();
    CaptureStreams(
        [&] { hand_ = std::make_unique<Hand>(HandType::RIGHT, kId, line_.Path(), kBaud); });
    Device().frame_recv_timeout_ms_ = 60'000;
  }

  /// What `call` returns while the other end answers each command by the table; `requests_` is
  /// what came.
  std::string Run(const std::function<std::string(Hand&)>& call) {
    requests_.clear();
    Device().reply_received_ = true;
    std::thread peer([this] { Serve(); });
    std::string result;
    told_ = CaptureStreams([&] { result = call(*hand_); });
    const int port = open(line_.Path().c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(write(port, &kMark, 1), 1);
    close(port);
    peer.join();
    return result;
  }

  void Serve() {
    for (Bytes frame = line_.Read(1); frame != Bytes{kMark}; frame = line_.Read(1)) {
      frame = frame + line_.Read(4);
      frame = frame + line_.Read(frame.back() + 2U);
      requests_.push_back(frame);
      const auto answer = answers_.find(frame[5]);
      if (answer == answers_.end()) continue;
      AwaitWaiter();
      line_.Write(FrameOf(answer->second));
    }
  }

  /// The library forgets replies that came before it waits.
  void AwaitWaiter() {
    for (bool waits = false; !waits; std::this_thread::yield()) {
      const std::lock_guard lock(Device().reply_mutex_);
      waits = !Device().reply_received_;
    }
  }

  UsbSerialDevice& Device() { return *hand_->Device(); }

  /// A frame that nobody asked for. Returns when it is taken.
  void Say(const Bytes& reply) {
    {
      const std::lock_guard lock(Device().reply_mutex_);
      Device().reply_received_ = false;
    }
    line_.Write(FrameOf(reply));
    for (bool taken = false; !taken; std::this_thread::yield()) {
      const std::lock_guard lock(Device().reply_mutex_);
      taken = Device().reply_received_;
    }
  }

  PseudoTerminal line_;
  std::unique_ptr<Hand> hand_;
  std::map<std::uint8_t, Bytes> answers_;
  Frames requests_;
  Streams told_;
};

TEST_F(SerialCommands, SendSettingsAndTakeAnyFrameForConsent) {
  for (const auto& setting : Settings(10, 2)) {
    answers_ = {{setting.request[0], {0x55}}};
    EXPECT_EQ(Run(setting.call), "1") << setting.name;
    EXPECT_EQ(requests_, Frames{FrameOf(setting.request)}) << setting.name;
    EXPECT_EQ(told_.out + told_.err, "");
  }
  EXPECT_EQ(FrameOf({1, 7}), (Bytes{0xEE, 0xAA, 0x21, 0, 2, 1, 7, 0x12, 0xC2}));
  answers_ = {};
  hand_->SetFrameRecvTimeout(10);
  for (const auto& setting : Settings(10, 2)) {
    EXPECT_EQ(Run(setting.call), "0") << setting.name;
    EXPECT_EQ(requests_.size(), 1U);
    EXPECT_EQ(told_.out + told_.err, "");
  }
  auto refusals = RefusedMotions(10, "65535");
  for (const auto& refused : RefusedSettings(10)) refusals.emplace_back(refused, "0");
  for (const auto& [refused, result] : refusals) {
    EXPECT_EQ(Run(refused.call), result) << refused.name;
    EXPECT_EQ(requests_, Frames{});
    EXPECT_EQ(told_.out + told_.err, "");
  }
}

/// The service operations that the serial link has too, and those that it asks in its own way.
const std::vector<ServiceRead>& Reads() {
  const std::string one = " failed, joint_motor_index: 2", posi = "joint motor posi" + one;
  const std::string temperatures = "all motor temprature failed";
  const std::string velocities = Words(10, 3, 6), ten = "1 1 1 1 1 1 1 1 1 1";
  const auto row = [](ServiceCall call, const Outcomes& outcomes, const std::string& what) {
    return ServiceRead{std::move(call), {}, outcomes, what};
  };
  // clang-format off
  static const std::vector<ServiceRead> reads = ServiceReads(10) + FingertipReads() + std::vector{
      row({CALL(GetJointMotorPosi(2)), {0x07, 2}}, From("-1", 3, Words(1, 2)), posi),
      row({CALL(GetSingleActualAxisPos(2)), {0x07, 2}}, From("65535", 3, Words(1, 2)), posi),
      row({CALL(GetAllJointMotorPosi()), {0x09}}, Only(Zeros(10), 20, Words(10)),
          "all joint motor posi failed"),
      row({CALL(GetCurrentReport(2)), {0x0A}}, Only("0", 20, Words(1, 3)), "motor current" + one),
      row({CALL(GetAllCurrentReport()), {0x0A}}, Only("", 20, Words(10)),
          "all motor current failed."),
      row({CALL(GetAllForceReport()), {0x0B}}, Only("", 20, Words(10)), "all axis force failed."),
      row({CALL(GetTemperatureReport(2)), {0x0C}}, From("65535", 10, "2"),
          "motor temprature" + one),
      row({CALL(GetAllTemperatureReport()), {0x0C}}, From("", 10, Numbers(10)), temperatures),
      row({CALL(GetErrorReport(2)), {0x0D}}, Only("0", 2, "1"), "error report" + one),
      row({CALL(GetAllErrorReport()), {0x0D}}, Only("", 2, ten), "error report failed"),
      row({CALL(GetJointMotorVelo(2)), {0x29}}, Only("0", 60, Words(1, 9)),
          "joint motor velocity" + one),
      row({CALL(GetAllJointMotorVelo()), {0x29}}, Only("", 60, velocities),
          "all joint motor velocity failed"),
      row({CALL(GetAllAxisVelocity()), {0x29}}, Only("", 60, velocities),
          "all joint motor velocity failed")};
  // clang-format on
  return reads;
}

TEST_F(SerialCommands, ReadRepliesOfTheRightSizeOnly) {
  for (const ServiceRead& read : Reads()) {
    const std::uint8_t command = read.call.request[0];
    for (const auto& [size, result] : read.serial.Cases(61)) {
      SCOPED_TRACE(read.call.name + " " + std::to_string(size));
      Reopen();
      answers_ = {{command, Counting(command, size)}};
      EXPECT_EQ(Run(read.call.call), result);
      EXPECT_EQ(requests_, Frames{FrameOf(read.call.request)});
      EXPECT_EQ(told_.out, result == read.serial.Failed() ? read.Text() : "");
      EXPECT_EQ(told_.err, "");
    }
  }
}

/// Reports that come unasked are taken for the next read of their kind, but by those operations
/// that forget them first.
TEST_F(SerialCommands, TakeOlderRepliesThatNobodyRead) {
  const std::string forgets =
      "SetAllAxisPos SetAllActualAxisPos GetAllActualAxisPos "
      "GetAxisLimitPos SetPosSpeedCurData ";
  for (const ServiceRead& read : Reads()) {
    if (read.serial.Empty()) continue;
    const auto& [size, result] = read.serial.Good();
    const std::string& failed = read.serial.Failed();
    Reopen();
    Say(Counting(read.call.request[0], size));
    answers_ = {{read.call.request[0], {0x55}}};
    const bool stale = forgets.find(read.call.name + " ") == std::string::npos;
    EXPECT_EQ(Run(read.call.call), stale ? result : failed) << read.call.name;
    const bool kept = failed == Zeros(10) || read.call.name == "GetCurrentReport";
    EXPECT_EQ(Run(read.call.call), kept && stale ? result : failed) << "only once";
  }
}

struct Writes {
  ServiceCall call;
  std::string result;
  /// What follows the first command.
  Frames more = {};
  std::chrono::milliseconds at_least{0};
};

TEST_F(SerialCommands, WriteWhatIsNotAnsweredAndBuildOperationsFromSeveralCommands) {
  const auto ten = Ramp<short>(10);
  const auto eleven = Ramp<short>(11);
  // A millisecond for each of ten writes, and another before the next.
  constexpr std::chrono::milliseconds kPauses{20};
  Frames modes, thresholds;
  for (std::uint8_t axis = 2; axis <= 10; ++axis) {
    modes.push_back(FrameOf({0x15, axis, axis}));
    thresholds.push_back(FrameOf({0x25, axis, axis, static_cast<std::uint8_t>(axis + 16)}));
  }
  answers_ = {{0x07, {0x07, 5, 0x34, 0x12}}, {0x09, Counting(0x09, 20)}};
  // clang-format off
  std::vector<Writes> rows{
      {{CALL(SetDeviceId(9)), {0x04, 9, 0}}, ""},
      {{CALL(SetJointMotorPosi(10, -2)), {0x06, 10, 0xFE, 0xFF}}, "0"},
      {{CALL(SetSingleAxisPos(5, 4096)), {0x06, 5, 0, 0x10}}, "4660", {FrameOf({0x07, 5})}},
      {{CALL(SetSingleActualAxisPos(5, 0)), {0x06, 5, 0, 0}}, "4660", {FrameOf({0x07, 5})}},
      {{CALL(SetAllJointMotorPosi(eleven)), Bytes{0x08} + RampBytes(10)}, Words(10),
       {FrameOf({0x09})}},
      {{CALL(SetControlMode(10, static_cast<ControlMode>(9))), {0x15, 10, 9}}, ""},
      {{CALL(SetAllControlMode({1, 2, 3, 4, 5, 6, 7, 8, 9, 10})), {0x15, 1, 1}}, "", modes, kPauses},
      {{CALL(SetCurrentThreshold(1, -1)), {0x25, 1, 0xFF, 0xFF}}, ""},
      {{CALL(SetAllCurrentThreshold(ten)), {0x25, 1, 1, 17}}, "", thresholds, kPauses},
      {{CALL(SetJointMotorVelo(2, -2)), MixedPayload({{22, 0xFE}, {23, 0xFF}})}, ""},
      {{CALL(SetAllJointMotorVelo(ten)), Bytes{0x32} + Bytes(20) + RampBytes(10) + Bytes(10)}, ""},
  };
  // clang-format on
  for (const auto& [mode, payload] : MixedPayloads()) {
    const auto targets = MixedTargets(mode);
    rows.push_back({{CALL(MixCtrlJointMotor(targets)), payload}, ""});
  }
  for (const Writes& row : rows) {
    Reopen();
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(Run(row.call.call), row.result) << row.call.name;
    EXPECT_GE(std::chrono::steady_clock::now() - began, row.at_least) << row.call.name;
    Frames expected{FrameOf(row.call.request)};
    expected.insert(expected.end(), row.more.begin(), row.more.end());
    EXPECT_EQ(requests_, expected) << row.call.name;
    EXPECT_EQ(told_.out + told_.err, "");
    EXPECT_EQ(hand_->device_id, row.call.name == "SetDeviceId" ? 9 : kId);
  }
}

TEST_F(SerialCommands, ReadTactileSensorsOfAnyHandWithTheirNumberInFrontOrNot) {
  const auto read = [this](int finger) {
    return Run(
        [=](Hand& hand) { return Show(hand.GetTactileSensorData(static_cast<Finger>(finger))); });
  };
  const std::string zeros16 = Show(Bytes(16)), zeros25 = Show(Bytes(25));
  const auto numbered = [](std::uint8_t number, std::size_t size) {
    return Bytes{0x11, number} + Bytes(size, 7);
  };
  const std::string sevens16 = Show(Bytes(16, 7)), sevens25 = Show(Bytes(25, 7));
  for (const auto& [finger, reply, expected] : std::vector<std::tuple<int, Bytes, std::string>>{
           {1, Counting(0x11, 16), Numbers(16)},
           {7, Counting(0x11, 25), Numbers(25)},
           {3, numbered(2, 16), sevens16},
           {6, numbered(5, 25), sevens25},
           {3, Counting(0x11, 17), Numbers(16)},
           {2, numbered(1, 15), "1 " + Show(Bytes(15, 7))},
           {6, Counting(0x11, 16), Numbers(16) + " 0 0 0 0 0 0 0 0 0"},
           {1, Counting(0x11, 25), Numbers(16)},
           {1, Counting(0x11, 15), zeros16},
           {1, Counting(0x11, 18), zeros16},
           {7, Counting(0x11, 24), zeros25},
           {7, Counting(0x11, 27), zeros25}}) {
    Reopen();
    answers_ = {{0x11, reply}};
    EXPECT_EQ(read(finger), expected) << finger << " " << reply.size();
    EXPECT_EQ(requests_, Frames{FrameOf({0x11, static_cast<std::uint8_t>(finger - 1)}, 0x7FF)});
    const bool ignored = expected == zeros16 || expected == zeros25;
    EXPECT_EQ(told_.out,
              ignored ? "get joint sensor data failed, finger type: " + Show(finger) + "\n" : "");
  }
  EXPECT_EQ(Run([](Hand& hand) {
              return Show(hand.GetFingertipSensor(8)) + Show(hand.GetFingertipSensor(0));
            }),
            "");
  EXPECT_EQ(requests_, Frames{});
  for (const int finger : {0, 8}) {
    EXPECT_THROW(hand_->GetTactileSensorData(static_cast<Finger>(finger)), std::invalid_argument);
  }
  answers_ = {{0x12, Counting(0x12, 48)}, {0x13, Counting(0x13, 31)}, {0x14, Counting(0x14, 50)}};
  EXPECT_EQ(Run([](Hand& hand) {
              std::string text;
              for (const auto& sensor : hand.GetAllTactileSensorData()) {
                text += Show(sensor.finger) + ":" + Show(sensor.data.size()) + " ";
              }
              return text;
            }),
            "1:16 2:16 3:16 6:25 7:25 ");
}

TEST_F(SerialCommands, TellWhatTheHandIs) {
  const auto vendor = [this] { return Run([](Hand& hand) { return Show(hand.GetVendorInfo()); }); };
  Bytes number{0xC2, 'A', 'b', 0, 0x80, 'c', 31, 0};
  number.resize(20);
  answers_ = {{0xCD, {0xCD, 2, 9, 9, 1, 2, 3, 4, 5, 6, 10}}, {0xC2, number}};
  EXPECT_EQ(vendor(), std::string("BR7|Ab\0\x80"
                                  "c|1.2.3|4.5.6|0|10",
                                  26));
  EXPECT_EQ(requests_, (Frames{FrameOf({0xCD}), FrameOf({0xC2})}));
  answers_ = {{0xCD, {0xCD, 1, 9, 9, 1, 2, 3, 4, 5, 6, 10}}, {0xC2, Bytes{0xC2} + Bytes(19)}};
  EXPECT_EQ(vendor(), "TS9||1.2.3|4.5.6|0|10");
  answers_ = {{0xCD, Counting(0xCD, 9)}};
  EXPECT_EQ(vendor(), "||0.0.0|0.0.0|0|0");
  EXPECT_EQ(requests_, Frames{FrameOf({0xCD})});
  EXPECT_EQ(told_.out, "get vendor info failed.\n");
  // Without a checksum where the hand's own isn't known yet.
  answers_ = {{0xCD, Counting(0xCD, 10)}};
  Run([](Hand& hand) { return Show(hand.GetFwVersionInternal(true)); });
  EXPECT_EQ(requests_, (Frames{{0xEE, 0xAA, kId, 0, 1, 0xCD, 0x55, 0x55}}));
  const auto device = [this] {
    return Run([](Hand& hand) { return Show(hand.GetDeviceInfo().device_id); });
  };
  EXPECT_EQ(device(), "33");
  EXPECT_EQ(requests_, Frames{}) << "the id is known";
  Reopen();
  EXPECT_EQ(device(), "33");
  EXPECT_EQ(requests_, Frames{FrameOf({0xCD}, 0x7FF)});
  Reopen();
  hand_->SetFrameRecvTimeout(10);
  answers_ = {};
  EXPECT_EQ(device(), "0");
}

// What the hand said before counts also when it is silent now.
TEST_F(SerialCommands, TellWhatTheHandIsByWhatItSaidBefore) {
  Say(Counting(0xCD, 10));
  Say(Bytes{0xC2} + Bytes(19, 'q'));
  hand_->SetFrameRecvTimeout(10);
  const auto vendor = [this] { return Run([](Hand& hand) { return Show(hand.GetVendorInfo()); }); };
  EXPECT_EQ(vendor(), "TS9|qqqqqqqqqqqqqqqqqqq|4.5.6|7.8.9|0|10");
  EXPECT_EQ(told_.out, "");
  EXPECT_EQ(vendor(), "||0.0.0|0.0.0|0|0") << "only once";
  EXPECT_EQ(told_.out, "get vendor info failed.\n");
}

/// The number in front of a reading is looked for once after each request.
TEST_F(SerialCommands, TakeTheNumberOfASensorOnce) {
  const auto read = [](Hand& hand) { return Show(hand.GetTactileSensorData(Finger::MIDDLE)); };
  answers_ = {{0x11, Bytes{0x11, 2} + Bytes(16, 7)}};
  EXPECT_EQ(Run(read), Show(Bytes(16, 7)));
  Say(Bytes{0x11, 2} + Bytes(16, 7));
  answers_ = {{0x11, {0x55}}};
  EXPECT_EQ(Run(read), Show(Bytes{2} + Bytes(15, 7)));
}

TEST_F(SerialCommands, WriteTheStepsOfAnUpdate) {
  const auto frame = [](const Bytes& command, bool modbus) {
    Bytes bytes = FrameOf(command);
    bytes.resize(bytes.size() - 2);
    const std::uint16_t crc = (modbus ? Crc16Modbus : Crc16Xmodem)(bytes.data(), bytes.size());
    return bytes + Bytes{static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)};
  };
  std::array<char, 2048> packet;
  for (std::size_t i = 0; i < packet.size(); ++i) packet[i] = static_cast<char>(i * 7);
  const Bytes bytes(packet.begin(), packet.end());
  hand_->ota_package_index = 0x102;
  for (const bool modbus : {true, false}) {
    hand_->ota_validation_type = modbus ? 255 : 0;
    const std::uint16_t crc = (modbus ? Crc16Modbus : Crc16Xmodem)(bytes.data(), bytes.size());
    Frames expected{
        FrameOf({0xF1, 1, 4, 3, 2, 1, 6, 5}),
        frame({0xF1, 2, 2, 1, static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)},
              modbus)};
    expected[0][13] = expected[0][14] = 0x55;
    for (auto at = bytes.begin(); at != bytes.end(); at += 64) {
      expected.push_back(frame(Bytes{0xF0, 0} + Bytes(at, at + 64), modbus));
    }
    expected.push_back(frame({0xF1, 3, 0, 0, 0, 0}, modbus));
    expected.push_back(frame({0xF1, 4, 0, 0, 0, 0}, modbus));
    Run([&](Hand& hand) {
      hand.SendOtaUpgradeRequest(0x01020304, 0x506);
      hand.SendOtaPackage(packet);
      hand.SendOtaFinish();
      hand.SendOtaRestart();
      hand.QueryOtaResult();
      return "";
    });
    EXPECT_EQ(requests_, expected);
  }
}

TEST_F(SerialCommands, HandTheirSettingsToThePort) {
  for (const bool on : {true, false}) {
    hand_->ShowDataDetails(on);
    EXPECT_EQ(Device().print_frames_, on);
    EXPECT_EQ(hand_->solver->show_details, on);
  }
  hand_->SetRequestInterval(501);
  hand_->SetFrameRecvTimeout(9);
  hand_->SetFrameSendTimeout(9);
  EXPECT_EQ(hand_->GetRequestInterval(), 500);
  EXPECT_EQ(hand_->GetFrameRecvTimeout(), 10);
  EXPECT_EQ(hand_->GetFrameSendTimeout(), 0);
}

struct Says {
  ServiceCall call;
  std::string out, err;
  std::string result = {};
};

TEST_F(SerialCommands, RefuseWithoutAFrameWhatIsOutOfRangeOrNotThere) {
  const std::string motor = "the joint motor index input error, should be 1 -10, \n";
  const std::string joint = "the joint index input error, should be 1 -10, \n";
  const std::string size = "[Error]: 无效参数，需与主动自由度数量 10 相匹配.\n";
  const std::string eight = "[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.\n";
  const std::string least =
      "[ERROR][KorvaneBrisaSerialImpl][SetAllJointMotorPosi] Invalid parameter, size must be at "
      "least 10\n";
  const auto by_usb = [](const std::string& name) {
    return "[Error]: " + name + " is not supported by KorvaneBrisa (BR7) via USB.\n";
  };
  const auto not_fully = [](const std::string& name) {
    return "[Warning]: " + name + " is not fully supported via USB.\n";
  };
  const auto no_raw = [](const std::string& name) {
    return "[Error]: " + name + " is not supported by USB communication.\n";
  };
  const auto nine = Ramp<short>(9);
  const auto words = Ramp<std::uint16_t>(9);
  const auto bytes = Ramp<std::uint8_t>(9);
  const std::vector<double> angles(9);
  const std::vector<MixCtrl> none, full(9, Target(1, 6, 1, 1, 1)),
      eleven(11, Target(1, 5, 1, 1, 1)), odd(11, Target(1, 7, 1, 1, 1));
  const auto mode = ControlMode::MODE_1;
  // clang-format off
  const std::vector<Says> rows{
      {{CALL(SetJointMotorPosi(0, 1))}, motor, "", "-1"},
      {{CALL(SetJointMotorPosi(11, 1))}, motor, "", "-1"},
      {{CALL(GetJointMotorPosi(0))}, joint, "", "-1"},
      {{CALL(GetJointMotorPosi(11))}, joint, "", "-1"},
      {{CALL(GetSingleAxisPos(11))}, joint, "", "65535"},
      {{CALL(GetSingleActualAxisPos(0))}, joint, "", "65535"},
      {{CALL(GetJointMotorVelo(11))}, motor, "", "0"}, {{CALL(SetJointMotorVelo(0, 1))}, motor, ""},
      {{CALL(SetControlMode(0, mode))}, motor, ""}, {{CALL(SetCurrentThreshold(11, 1))}, motor, ""},
      {{CALL(GetErrorReport(0))}, motor, "", "0"},
      {{CALL(GetTemperatureReport(11))}, motor, "", "65535"},
      {{CALL(GetCurrentReport(0))}, motor, "", "0"}, {{CALL(GetControlMode(0))}, motor, "", "0"},
      {{CALL(GetCurrentThreshold(11))}, motor, "", "0"},
      {{CALL(SetAllJointMotorPosi(nine))}, "", least},
      {{CALL(SetAllJointMotorVelo(nine))}, "", size}, {{CALL(SetAllControlMode(bytes))}, "", size},
      {{CALL(SetAllCurrentThreshold(nine))}, "", size},
      {{CALL(SetAllActiveJointAngles(angles))}, "", size},
      {{CALL(MixCtrlJointMotor(none))}, "", ""},
      {{CALL(MixCtrlJointMotor(full))}, "", eight}, {{CALL(MixCtrlJointMotor(eleven))}, "", size},
      {{CALL(MixCtrlJointMotor(odd))}, "", "[Error]: Invalid control mode for mixed control.\n"},
      {{CALL(SetErrorReportPeriod(1, 1))}, "", by_usb("SetErrorReportPeriod")},
      {{CALL(SetAllErrorReportPeriod(words))}, "", by_usb("SetAllErrorReportPeriod")},
      {{CALL(SetCurrentReportPeriod(1, 1))}, "", by_usb("SetCurrentReportPeriod")},
      {{CALL(SetAllCurrentReportPeriod(words))}, "", by_usb("SetAllCurrentReportPeriod")},
      {{CALL(SetTemperReportPeriod(1, 1))}, "", by_usb("SetTemperReportPeriod")},
      {{CALL(SetAllTemperReportPeriod(words))}, "", by_usb("SetAllTemperReportPeriod")},
      {{CALL(GetTactileSensorDataRaw(Finger::PALM))}, "", no_raw("GetTactileSensorDataRaw"),
       "6:;"},
      {{CALL(GetAllTactileSensorDataRaw())}, "", no_raw("GetAllTactileSensorDataRaw")},
      {{CALL(GetFingerTactileForce())}, "",
       "[KorvaneBrisaSerialImpl] GetFingerTactileForce: Not implemented for USB (br7_hmi has no matching cmd)\n"},
      {{CALL(GetAllCurrentThreshold())}, "", not_fully("GetAllCurrentThreshold"), Zeros(10)},
      {{CALL(GetAllControlMode())}, "", not_fully("GetAllControlMode"), Zeros(10)},
      {{CALL(GetCurrentThreshold(1))}, "", not_fully("GetCurrentThreshold"), "0"},
      {{CALL(GetControlMode(10))}, "", not_fully("GetControlMode"), "0"},
  };
  // clang-format on
  for (const Says& row : rows) {
    EXPECT_EQ(Run(row.call.call), row.result) << row.call.name;
    EXPECT_EQ(requests_, Frames{}) << row.call.name;
    EXPECT_EQ(told_.out, row.out) << row.call.name;
    EXPECT_EQ(told_.err, row.err) << row.call.name;
  }
}

TEST(SerialCommandsWithoutAPort, FailEachWithItsLines) {
  std::unique_ptr<Hand> hand;
  const auto opened = CaptureStreams(
      [&] { hand = std::make_unique<Hand>(HandType::RIGHT, kId, "/no/such/port", kBaud); });
  EXPECT_EQ(opened.err.find("[Error]: Failed to open USB serial port /no/such/port: "), 0U);
  EXPECT_FALSE(hand->connected);
  for (const auto& call : Settings(10, 2) + RefusedSettings(10)) {
    const auto told = CaptureStreams([&] { EXPECT_EQ(call.call(*hand), "0") << call.name; });
    EXPECT_EQ(told.out + told.err, "");
  }
  // Service operations say nothing, also those that are built on public ones.
  const std::string silent =
      " GetSingleAxisPos GetSingleActualAxisPos GetAllAxisPos GetAllAxisCurrent GetAllAxisTemp "
      "GetErrorCode GetAllAxisVelocity ";
  const std::string prefix = "[KorvaneBrisaSerialImpl] ";
  for (const ServiceRead& read : Reads()) {
    if (read.serial.Empty()) continue;
    std::string result;
    const auto told = CaptureStreams([&] { result = read.call.call(*hand); });
    const bool tells =
        !read.what.empty() && silent.find(" " + read.call.name + " ") == std::string::npos;
    EXPECT_EQ(result, read.call.name == "GetAllAxisPos" ? "" : read.serial.Failed())
        << read.call.name;
    EXPECT_EQ(told.out, tells ? read.Text() : "");
    EXPECT_EQ(told.err, tells ? prefix + read.call.name + ": no transport\n" : "");
  }
}

}  // namespace
}  // namespace talvera::korvane
