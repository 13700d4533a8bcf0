// The commands of the serial link byte by byte: what each operation writes to the port, what it
// makes of replies of any size, and what it says when there is none. The other end of the line is
// the test's own; it answers when the library waits, not before.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
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

static std::string Show(const VendorInfo& info) {
  return info.product_model + "|" + info.serial_number + "|" + info.software_version.ToString() +
         "|" + info.hardware_version.ToString() + "|" + std::to_string(info.active_dof);
}
static std::string Show(const DeviceInfo& info) { return std::to_string(info.device_id); }
static std::string Show(const TactileSensorData& sensor) {
  return test::Show(sensor.finger) + ":" + std::to_string(sensor.data.size()) + ";";
}

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

/// Bytes 1, 2 and so on behind the command.
Bytes Counting(std::uint8_t command, std::size_t size) {
  Bytes reply{command};
  for (std::size_t i = 1; i <= size; ++i) reply.push_back(static_cast<std::uint8_t>(i));
  return reply;
}

std::string Words(std::size_t count, std::size_t first = 1) {
  std::vector<std::size_t> words;
  for (std::size_t i = 0; i < count; ++i)
    words.push_back(first + 2 * i + 256 * (first + 2 * i + 1));
  return Show(words);
}
std::string Numbers(std::size_t count, std::size_t first = 1) {
  std::vector<std::size_t> numbers;
  for (std::size_t i = 0; i < count; ++i) numbers.push_back(first + i);
  return Show(numbers);
}
const std::string kBlock =
    Words(10) + "|" + Words(10, 21) + "|" + Numbers(10, 41) + "|" + Numbers(10, 51);
const std::string kVelocities = [] {
  std::vector<std::size_t> values;
  for (std::size_t i = 0; i < 10; ++i) values.push_back(6 * i + 3 + 256 * (6 * i + 4));
  return Show(values);
}();
const std::string kTenZeros = "0 0 0 0 0 0 0 0 0 0";
const std::string kThirteenZeros = kTenZeros + " 0 0 0";

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
  for (const auto& setting : Settings<Hand>(10, 2)) {
    answers_ = {{setting.request[0], {0x55}}};
    EXPECT_EQ(Run(setting.call), "1") << setting.name;
    EXPECT_EQ(requests_, Frames{FrameOf(setting.request)}) << setting.name;
    EXPECT_EQ(told_.out + told_.err, "");
  }
  EXPECT_EQ(FrameOf({1, 7}), (Bytes{0xEE, 0xAA, 0x21, 0, 2, 1, 7, 0x12, 0xC2}));
  answers_ = {};
  hand_->SetFrameRecvTimeout(10);
  for (const auto& setting : Settings<Hand>(10, 2)) {
    EXPECT_EQ(Run(setting.call), "0") << setting.name;
    EXPECT_EQ(requests_.size(), 1U);
    EXPECT_EQ(told_.out + told_.err, "");
  }
  for (const auto& refused : RefusedSettings<Hand>(10)) {
    EXPECT_EQ(Run(refused.call), "0") << refused.name;
    EXPECT_EQ(requests_, Frames{});
    EXPECT_EQ(told_.out + told_.err, "");
  }
}

struct Read {
  ServiceCall<Hand> call;
  std::size_t size;
  bool exact;
  std::string result;
  std::string failed;
  /// Behind "get", on the standard output stream.
  std::string what = {};

  std::string Text() const { return what.empty() ? "" : "get " + what + "\n"; }
};

const std::vector<Read>& Reads() {
  const auto ten = Ramp<std::uint16_t>(10);
  const auto bytes = Ramp<std::uint8_t>(10);
  const auto shorts = Ramp<std::int16_t>(10);
  const Bytes targets = RampBytes(10);
  const std::string one = " failed, joint_motor_index: 2";
  const std::string none = "|||";
  // clang-format off
  static const std::vector<Read> reads{
      {{CALL(GetPowerState()), {0x02}}, 1, false, "1", "0"},
      {{CALL(GetJointMotorPosi(2)), {0x07, 2}}, 3, false, Words(1, 2), "-1",
       "joint motor posi" + one},
      {{CALL(GetSingleAxisPos(2)), {0x07, 2}}, 3, false, Words(1, 2), "65535",
       "joint motor posi" + one},
      {{CALL(GetSingleActualAxisPos(2)), {0x07, 2}}, 3, false, Words(1, 2), "65535",
       "joint motor posi" + one},
      {{CALL(SetAllAxisPos(ten)), Bytes{0x08} + targets}, 60, true, kBlock, none},
      {{CALL(GetAllJointMotorPosi()), {0x09}}, 20, true, Words(10), kTenZeros,
       "all joint motor posi failed"},
      {{CALL(GetAllAxisPos()), {0x09}}, 20, true, Words(10), kTenZeros,
       "all joint motor posi failed"},
      {{CALL(GetCurrentReport(2)), {0x0A}}, 20, true, Words(1, 3), "0", "motor current" + one},
      {{CALL(GetAllCurrentReport()), {0x0A}}, 20, true, Words(10), "", "all motor current failed."},
      {{CALL(GetAllAxisCurrent()), {0x0A}}, 20, true, Words(10), "", "all motor current failed."},
      {{CALL(GetAllForceReport()), {0x0B}}, 20, true, Words(10), "", "all axis force failed."},
      {{CALL(GetTemperatureReport(2)), {0x0C}}, 10, false, "2", "65535", "motor temprature" + one},
      {{CALL(GetAllTemperatureReport()), {0x0C}}, 10, false, Numbers(10), "",
       "all motor temprature failed"},
      {{CALL(GetAllAxisTemp()), {0x0C}}, 10, false, Numbers(10), "", "all motor temprature failed"},
      {{CALL(GetErrorReport(2)), {0x0D}}, 2, true, "1", "0", "error report" + one},
      {{CALL(GetAllErrorReport()), {0x0D}}, 2, true, "1 1 1 1 1 1 1 1 1 1", "",
       "error report failed"},
      {{CALL(GetErrorCode()), {0x0D}}, 2, true, "1023", "0", "error report failed"},
      {{CALL(GetAllAxisPosRange()), {0x10}}, 20, false, Words(10), ""},
      {{CALL(GetAllFingertipSensorA()), {0x12}}, 48, false, Numbers(48), ""},
      {{CALL(GetAllFingertipSensorB()), {0x13}}, 32, false, Numbers(32), ""},
      {{CALL(GetAllFingertipSensorC()), {0x14}}, 50, false, Numbers(50), ""},
      {{CALL(SetAllActualAxisPos(ten)), Bytes{0x18} + targets}, 60, false, Words(10), ""},
      {{CALL(GetAllActualAxisPos()), {0x19}}, 20, false, Words(10), ""},
      {{CALL(GetAllLoadData()), {0x1A}}, 20, false, Words(10), ""},
      {{CALL(GetAllElectricMotorId()), {0x26}}, 10, false, Numbers(10), ""},
      {{CALL(GetAllSensorId()), {0x27}}, 7, false, Numbers(7), ""},
      {{CALL(GetAllAxisCvp()), {0x29}}, 60, true, Numbers(60), ""},
      {{CALL(GetJointMotorVelo(2)), {0x29}}, 60, true, Words(1, 9), "0",
       "joint motor velocity" + one},
      {{CALL(GetAllJointMotorVelo()), {0x29}}, 60, true, kVelocities, "",
       "all joint motor velocity failed"},
      {{CALL(GetAllAxisVelocity()), {0x29}}, 60, true, kVelocities, "",
       "all joint motor velocity failed"},
      {{CALL(GetAxisLimitPos()), {0x30}}, 40, false, Words(10) + "|" + Words(10, 21), "|"},
      {{CALL(SetPosSpeedCurData(ten, shorts, bytes)), Bytes{0x32} + targets + targets + bytes}, 60,
       true, kBlock, none},
      {{CALL(SetControlSource(1)), {0x80, 1}}, 0, false, "1", "0"},
      {{CALL(GetControlSource()), {0x81}}, 1, false, "1", "0"},
      {{CALL(GetProductSerialNumber()), {0xC2}}, 19, false, Numbers(19), Show(Bytes(19))},
      {{CALL(GetFwVersion()), {0xCD}}, 10, false, "1 2 3 0 4 5 6 0 7 8 9 0 10", kThirteenZeros},
  };
  // clang-format on
  return reads;
}

TEST_F(SerialCommands, ReadRepliesOfTheRightSizeOnly) {
  for (const Read& read : Reads()) {
    const std::uint8_t command = read.call.request[0];
    for (std::size_t size = read.size == 0 ? 0 : read.size - 1; size <= read.size + 1; ++size) {
      SCOPED_TRACE(read.call.name + " " + std::to_string(size));
      Reopen();
      answers_ = {{command, Counting(command, size)}};
      const bool taken = read.exact ? size == read.size : size >= read.size;
      EXPECT_EQ(Run(read.call.call), taken ? read.result : read.failed);
      EXPECT_EQ(requests_, Frames{FrameOf(read.call.request)});
      EXPECT_EQ(told_.out, taken ? "" : read.Text());
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
  for (const Read& read : Reads()) {
    if (read.size == 0) continue;
    Reopen();
    Say(Counting(read.call.request[0], read.size));
    answers_ = {{read.call.request[0], {0x55}}};
    const bool stale = forgets.find(read.call.name + " ") == std::string::npos;
    EXPECT_EQ(Run(read.call.call), stale ? read.result : read.failed) << read.call.name;
    const bool kept = read.failed == kTenZeros || read.call.name == "GetCurrentReport";
    EXPECT_EQ(Run(read.call.call), kept && stale ? read.result : read.failed) << "only once";
  }
}

struct Writes {
  ServiceCall<Hand> call;
  std::string result;
  /// What follows the first command.
  Frames more = {};
};

TEST_F(SerialCommands, WriteWhatIsNotAnsweredAndBuildOperationsFromSeveralCommands) {
  const auto both = [](int mode) {
    return std::vector<MixCtrl>{Target(1, mode, 0x102, 0x304, 256), Target(0, 0, 9, 9, 999),
                                Target(10, 0, -2, -3, 255)};
  };
  const auto four = both(4);
  const auto five = both(5);
  const auto six = both(6);
  const auto ten = Ramp<short>(10);
  const auto eleven = Ramp<short>(11);
  Frames modes, thresholds;
  for (std::uint8_t axis = 2; axis <= 10; ++axis) {
    modes.push_back(FrameOf({0x15, axis, axis}));
    thresholds.push_back(FrameOf({0x25, axis, axis, static_cast<std::uint8_t>(axis + 16)}));
  }
  answers_ = {{0x07, {0x07, 5, 0x34, 0x12}}, {0x09, Counting(0x09, 20)}};
  // clang-format off
  const std::vector<Writes> rows{
      {{CALL(SetDeviceId(9)), {0x04, 9, 0}}, ""},
      {{CALL(SetJointMotorPosi(10, -2)), {0x06, 10, 0xFE, 0xFF}}, "0"},
      {{CALL(SetSingleAxisPos(5, 4096)), {0x06, 5, 0, 0x10}}, "4660", {FrameOf({0x07, 5})}},
      {{CALL(SetSingleActualAxisPos(5, 0)), {0x06, 5, 0, 0}}, "4660", {FrameOf({0x07, 5})}},
      {{CALL(SetAllJointMotorPosi(eleven)), Bytes{0x08} + RampBytes(10)}, Words(10),
       {FrameOf({0x09})}},
      {{CALL(SetControlMode(10, static_cast<ControlMode>(9))), {0x15, 10, 9}}, ""},
      {{CALL(SetAllControlMode({1, 2, 3, 4, 5, 6, 7, 8, 9, 10})), {0x15, 1, 1}}, "", modes},
      {{CALL(SetCurrentThreshold(1, -1)), {0x25, 1, 0xFF, 0xFF}}, ""},
      {{CALL(SetAllCurrentThreshold(ten)), {0x25, 1, 1, 17}}, "", thresholds},
      {{CALL(SetJointMotorVelo(2, -2)), MixedPayload({{22, 0xFE}, {23, 0xFF}})}, ""},
      {{CALL(SetAllJointMotorVelo(ten)), Bytes{0x32} + Bytes(20) + RampBytes(10) + Bytes(10)}, ""},
      {{CALL(MixCtrlJointMotor(four)),
       MixedPayload({{0, 2}, {1, 1}, {40, 1}, {18, 0xFE}, {19, 0xFF}})},
       ""},
      {{CALL(MixCtrlJointMotor(five)),
       MixedPayload({{20, 4}, {21, 3}, {40, 1}, {38, 0xFD}, {39, 0xFF}})},
       ""},
      {{CALL(MixCtrlJointMotor(six)),
       MixedPayload({{0, 2}, {1, 1}, {18, 0xFE}, {19, 0xFF}, {20, 4}, {21,
       3}, {38, 0xFD}, {39, 0xFF}, {40, 1}})}, ""},
  };
  // clang-format on
  for (const Writes& row : rows) {
    Reopen();
    EXPECT_EQ(Run(row.call.call), row.result) << row.call.name;
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
              return ShowCall(hand, [](Hand& h) {
                std::string text;
                for (const auto& sensor : h.GetAllTactileSensorData()) text += Show(sensor);
                return text.size();
              });
            }),
            Show(std::string("1:16;2:16;3:16;6:25;7:25;").size()));
}

TEST_F(SerialCommands, TellWhatTheHandIs) {
  const auto vendor = [this] { return Run([](Hand& hand) { return Show(hand.GetVendorInfo()); }); };
  Bytes number{0xC2, 'A', 'b', 0, 0x80, 'c', 31, 0};
  number.resize(20);
  answers_ = {{0xCD, {0xCD, 2, 9, 9, 1, 2, 3, 4, 5, 6, 10}}, {0xC2, number}};
  EXPECT_EQ(vendor(), std::string("BR7|Ab\0\x80"
                                  "c|1.2.3|4.5.6|10",
                                  24));
  EXPECT_EQ(requests_, (Frames{FrameOf({0xCD}), FrameOf({0xC2})}));
  answers_ = {{0xCD, {0xCD, 1, 9, 9, 1, 2, 3, 4, 5, 6, 10}}, {0xC2, Bytes{0xC2} + Bytes(19)}};
  EXPECT_EQ(vendor(), "TS9||1.2.3|4.5.6|10");
  answers_ = {{0xCD, Counting(0xCD, 9)}};
  EXPECT_EQ(vendor(), "||0.0.0|0.0.0|0");
  EXPECT_EQ(requests_, Frames{FrameOf({0xCD})});
  EXPECT_EQ(told_.out, "get vendor info failed.\n");
  // Without a checksum where the hand's own isn't known yet.
  answers_ = {{0xCD, Counting(0xCD, 10)}};
  Run([](Hand& hand) { return Show(hand.GetFwVersionInternal(true)); });
  EXPECT_EQ(requests_, (Frames{{0xEE, 0xAA, kId, 0, 1, 0xCD, 0x55, 0x55}}));
  const auto device = [this] { return Run([](Hand& hand) { return Show(hand.GetDeviceInfo()); }); };
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
  EXPECT_EQ(vendor(), "TS9|qqqqqqqqqqqqqqqqqqq|4.5.6|7.8.9|10");
  EXPECT_EQ(told_.out, "");
  EXPECT_EQ(vendor(), "||0.0.0|0.0.0|0") << "only once";
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
  ServiceCall<Hand> call;
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
      {{CALL(SetSingleAxisPos(11, 1))}, "", "", "65535"},
      {{CALL(SetSingleActualAxisPos(1, 4097))}, "", "", "65535"},
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
      {{CALL(SetAllAxisPos(words))}, "", "", "|||"}, {{CALL(SetAllActualAxisPos(words))}, "", ""},
      {{CALL(SetPosSpeedCurData(words, nine, bytes))}, "", "", "|||"},
      {{CALL(SetControlSource(2))}, "", "", "0"}, {{CALL(MixCtrlJointMotor(none))}, "", ""},
      {{CALL(MixCtrlJointMotor(full))}, "", eight}, {{CALL(MixCtrlJointMotor(eleven))}, "", size},
      {{CALL(MixCtrlJointMotor(odd))}, "", "[Error]: Invalid control mode for mixed control.\n"},
      {{CALL(SetErrorReportPeriod(1, 1))}, "", by_usb("SetErrorReportPeriod")},
      {{CALL(SetAllErrorReportPeriod(words))}, "", by_usb("SetAllErrorReportPeriod")},
      {{CALL(SetCurrentReportPeriod(1, 1))}, "", by_usb("SetCurrentReportPeriod")},
      {{CALL(SetAllCurrentReportPeriod(words))}, "", by_usb("SetAllCurrentReportPeriod")},
      {{CALL(SetTemperReportPeriod(1, 1))}, "", by_usb("SetTemperReportPeriod")},
      {{CALL(SetAllTemperReportPeriod(words))}, "", by_usb("SetAllTemperReportPeriod")},
      {{CALL(GetTactileSensorDataRaw(Finger::PALM))}, "", no_raw("GetTactileSensorDataRaw"),
       "6:0;"},
      {{CALL(GetAllTactileSensorDataRaw())}, "", no_raw("GetAllTactileSensorDataRaw")},
      {{CALL(GetFingerTactileForce())}, "",
       "[KorvaneBrisaSerialImpl] GetFingerTactileForce: Not implemented for USB (br7_hmi has no matching cmd)\n"},
      {{CALL(GetAllCurrentThreshold())}, "", not_fully("GetAllCurrentThreshold"), kTenZeros},
      {{CALL(GetAllControlMode())}, "", not_fully("GetAllControlMode"), kTenZeros},
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
  for (const auto& calls : {Settings<Hand>(10, 2), RefusedSettings<Hand>(10)}) {
    for (const auto& call : calls) {
      const auto told = CaptureStreams([&] { EXPECT_EQ(call.call(*hand), "0") << call.name; });
      EXPECT_EQ(told.out + told.err, "");
    }
  }
  // Service operations say nothing, also those that are built on public ones.
  const std::string silent =
      " GetSingleAxisPos GetSingleActualAxisPos GetAllAxisPos GetAllAxisCurrent GetAllAxisTemp "
      "GetErrorCode GetAllAxisVelocity ";
  const std::string prefix = "[KorvaneBrisaSerialImpl] ";
  for (const Read& read : Reads()) {
    std::string result;
    const auto told = CaptureStreams([&] { result = read.call.call(*hand); });
    const bool tells =
        !read.what.empty() && silent.find(" " + read.call.name + " ") == std::string::npos;
    EXPECT_EQ(result, read.call.name == "GetAllAxisPos" ? "" : read.failed) << read.call.name;
    EXPECT_EQ(told.out, tells ? read.Text() : "");
    EXPECT_EQ(told.err, tells ? prefix + read.call.name + ": no transport\n" : "");
  }
}

}  // namespace
}  // namespace talvera::korvane
