// The joint commands and reports of all hands over CAN: what each operation puts on the wire,
// what it makes of the answer, and what it says and returns when there is none.

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

using namespace test;
using Hand = KorvaneBase;

/// A write for the whole hand sends the first of these, every whole-hand reply holds them all.
const std::vector<short> kWords{1,     -2,     300, -400, 5,  6,  7,  8,  9,  4096, 11,
                                32767, -32768, 14,  -1,   16, 17, 18, 19, 20, 21,   22,
                                23,    24,     25,  26,   27, 28, 29, 30, 31, -32};
const Bytes kWordBytes = [] {
  Bytes bytes;
  for (const int word : kWords) {
    bytes.push_back(static_cast<std::uint8_t>(word & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(word >> 8 & 0xFF));
  }
  return bytes;
}();

template <class Value>
std::vector<Value> First(int count, const std::vector<Value>& values) {
  return {values.begin(), values.begin() + count};
}

std::vector<MixCtrl> Targets(std::size_t count, int mode) {
  MixCtrl target{1, 0, 2, 3, 4};
  target.mix_mode = mode & 7;
  return std::vector<MixCtrl>(count, target);
}

/// What an operation returns after a reply that is `len` bytes long, 64 at most.
using Result = std::function<std::string(int len)>;

Result Always(const std::string& text) {
  return [=](int) { return text; };
}
template <class Value = short>
Result Words(int most = 32) {
  return [=, all = std::vector<Value>(kWords.begin(), kWords.end())](int len) {
    return Show(First(std::min(len / 2, most), all));
  };
}

struct Operation {
  std::string name;
  std::function<std::string(Hand&, std::uint8_t index)> call;
  /// For device 0x27, and motor 3 where a motor is asked.
  std::uint32_t id;
  Bytes payload;
  int len;
  /// Empty: the operation doesn't wait for a reply.
  Bytes reply;
  Result result = Always("");
  std::string failed = {};
  /// None: the operation has no index.
  std::optional<std::string> bad_index = {};
  /// All that an operation that only sends tells when it can't; empty: it doesn't look.
  std::string not_sent = {};
  /// The same with a vector of any size, where one is given.
  std::function<std::string(Hand&, std::size_t size)> sized = {};
  int priority = 0;

  bool Waits() const { return !reply.empty(); }
  CanfdFrame Request() const { return FullFrame(id, payload, len); }
  RecordingDevice::Script Answer(int reply_len = 64) const {
    return Waits() ? Replies(reply, reply_len) : RepliesInFrames({});
  }
};

#define NAMED(operation) #operation, &Hand::operation

template <class Function>
Operation Get(const char* name, Function function, std::uint32_t id, const Bytes& reply,
              const char* result, const char* bad_index, const char* failed = "0") {
  const auto call = [=](Hand& hand, auto index) { return ShowCall(hand, function, index); };
  return {name, call, id, {}, 64, reply, Always(result), failed, bad_index};
}
template <class Function>
Operation GetAll(const char* name, Function function, std::uint32_t id, const Result& result) {
  const auto call = [=](Hand& hand, auto) { return ShowCall(hand, function); };
  return {name, call, id, {}, 64, kWordBytes, result};
}
template <class Function, class Value>
Operation Set(const char* name, Function function, std::uint32_t id, Value value,
              const Bytes& payload, const char* failed = "") {
  const auto call = [=](Hand& hand, auto index) { return ShowCall(hand, function, index, value); };
  return {name, call, id, payload, 64, {0}, Always(""), failed, failed};
}
template <class Function, class Value>
Operation SetAll(const char* name, Function function, std::uint32_t id, const Value& values,
                 const Bytes& payload, int len = 64) {
  const auto call = [=](Hand& hand, auto) { return ShowCall(hand, function, values); };
  Operation operation{name, call, id, payload, len, {0}};
  operation.sized = [=](Hand& hand, auto size) { return ShowCall(hand, function, Value(size)); };
  return operation;
}

Operation SendsOnly(Operation operation, const char* not_sent = "") {
  operation.reply = {};
  operation.not_sent = not_sent;
  return operation;
}

Operation Echoes(Operation operation, const Bytes& reply, const Result& result) {
  operation.reply = reply;
  operation.result = result;
  return operation;
}

/// The operations of a hand with `n` motors, with what single readings give for a bad index.
std::vector<Operation> MotorOperations(
    std::uint8_t n, const char* bad = "-1", const char* bad_temperature = "65535",
    const char* mode_not_sent = "[Error]: Failed to send control mode request\n") {
  const auto words = First(n, kWords);
  const Bytes bytes = First(2 * n, kWordBytes);
  const Bytes modes = First(n, kWordBytes);
  const auto odd_mode = static_cast<ControlMode>(0xF5);
  const Bytes mixed{0x81, 2, 0, 4, 0, 0x81, 2, 0, 4, 0};
  return {
      Echoes(Set(NAMED(SetJointMotorPosi), 0x031301A7, short{-2}, {0xFE, 0xFF}, "-1"), {0x34, 0x12},
             Always("4660")),
      Get(NAMED(GetJointMotorPosi), 0x03130127, {0xFE, 0xFF}, "-2", bad),
      Echoes(SetAll(NAMED(SetAllJointMotorPosi), 0x001301A7, words, bytes, 2 * n), kWordBytes,
             Words()),
      GetAll(NAMED(GetAllJointMotorPosi), 0x00130127, Words()),
      Set(NAMED(SetJointMotorVelo), 0x031201A7, short{0x1234}, {0x34, 0x12}),
      Get(NAMED(GetJointMotorVelo), 0x03120127, {0, 0x80}, "-32768", bad),
      SetAll(NAMED(SetAllJointMotorVelo), 0x001201A7, words, bytes),
      GetAll(NAMED(GetAllJointMotorVelo), 0x00120127, Words()),
      SendsOnly(Set(NAMED(SetControlMode), 0x031001A7, odd_mode, {0xF5}), mode_not_sent),
      Get(NAMED(GetControlMode), 0x03100127, {0xFD, 0xFF}, "5", "10", "10"),
      SendsOnly(SetAll(NAMED(SetAllControlMode), 0x001001A7, modes, modes, n), mode_not_sent),
      GetAll(NAMED(GetAllControlMode), 0x00100127, Always(Show(modes))),
      Set(NAMED(SetCurrentThreshold), 0x030301A7, short{-1}, {0xFF, 0xFF}),
      Get(NAMED(GetCurrentThreshold), 0x03030127, {0x2C, 1}, "300", bad),
      SetAll(NAMED(SetAllCurrentThreshold), 0x000301A7, words, bytes),
      GetAll(NAMED(GetAllCurrentThreshold), 0x00030127, Words()),
      SetAll(NAMED(MixCtrlJointMotor), 0x001401A7, Targets(2, 4), mixed),
      Get(NAMED(GetErrorReport), 0x03200127, {0xFE, 0xFF}, "65534", "0"),
      GetAll(NAMED(GetAllErrorReport), 0x00200127, Words<unsigned short>()),
      Get(NAMED(GetTemperatureReport), 0x03210127, {0xFE, 0xFF}, "65534", bad_temperature),
      GetAll(NAMED(GetAllTemperatureReport), 0x00210127, Words<unsigned short>()),
      Get(NAMED(GetCurrentReport), 0x03220127, {0xFE, 0xFF}, "-2", bad),
      GetAll(NAMED(GetAllCurrentReport), 0x00220127, Words()),
  };
}

std::vector<Operation> PeriodOperations() {
  const unsigned short period = 0xFE01;
  const std::vector<unsigned short> periods(kWords.begin(), kWords.begin() + 12);
  const Bytes each = First(24, kWordBytes);
  return {SendsOnly(Set(NAMED(SetErrorReportPeriod), 0x032001A7, period, {0x01, 0xFE})),
          SetAll(NAMED(SetAllErrorReportPeriod), 0x002001A7, periods, each),
          Set(NAMED(SetTemperReportPeriod), 0x032101A7, period, {0x01, 0xFE}),
          SendsOnly(SetAll(NAMED(SetAllTemperReportPeriod), 0x002101A7, periods, each)),
          SendsOnly(Set(NAMED(SetCurrentReportPeriod), 0x032201A7, period, {0x01, 0xFE})),
          SendsOnly(SetAll(NAMED(SetAllCurrentReportPeriod), 0x002201A7, periods, each))};
}

struct HandRow : TestedHand {
  std::vector<Operation> operations;
  /// Told with the index between the two.
  std::string bad_index;
  std::string bad_index_end;
  std::string wrong_size;
  std::string too_many_short;
  std::string too_many_full;
  /// Elements of a mixed command in modes 4 and 5: one frame holds 12.
  std::size_t most_short;
  bool failures_name_motor = true;
};

void PrintTo(const HandRow& model, std::ostream* out) { *out << model.class_name; }

/// Most lines show the number of motors as a raw byte.
std::string Count(const TestedHand& hand) { return {static_cast<char>(hand.motors)}; }

HandRow CommonRow(const TestedHand& hand) {
  const std::string size = "[Error]: 无效参数，需与主动自由度数量 ";
  const std::string end = " 相匹配.\n";
  return {hand,
          MotorOperations(hand.motors),
          "[Error]: 无效关节电机ID参数",
          " 正确范围：1～" + Count(hand) + ".\n",
          size + Count(hand) + end,
          size + std::to_string(hand.motors) + end,
          "[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.\n",
          std::min<std::size_t>(hand.motors, 12)};
}

HandRow Lumen() {
  HandRow model = CommonRow(kLumen);
  for (Operation& operation : model.operations) {
    operation.priority = operation.name.find("Report") == std::string::npos ? 1 : 0;
  }
  return model;
}

HandRow Quill() {
  HandRow model = CommonRow(kQuill);
  model.operations = {Get(NAMED(GetJointMotorPosi), 0x03130727, {0xFE, 0xFF}, "-2", "-1"),
                      GetAll(NAMED(GetAllJointMotorPosi), 0x00130727, Words(10))};
  model.bad_index = "[Error]: Invalid joint motor ID parameter ";
  model.bad_index_end = ", valid range: 1~10.\n";
  return model;
}

HandRow Tessel() {
  HandRow model = CommonRow(kTessel);
  auto& all = model.operations;
  all = MotorOperations(12, "0", "0", "[ERROR]: Failed to send control mode request\n");
  for (Operation& operation : all) {
    const std::string& name = operation.name;
    if (name == "SetAllJointMotorPosi") operation.len = 64;
    if (name == "SetJointMotorVelo" || name == "SetAllJointMotorVelo") {
      operation = SendsOnly(operation, "[ERROR]: Failed to send velocity request\n");
    }
    if (name == "GetAllControlMode") {
      operation.result = [](int len) {
        Bytes modes = First(std::min(len, 12), kWordBytes);
        for (auto& mode : modes) mode &= 7;
        return Show(modes);
      };
    }
  }
  all.resize(all.size() - 4);  // Temperatures and currents aren't asked for.
  for (const Operation& operation : PeriodOperations()) all.push_back(operation);
  model.bad_index = "[ERROR]: Invalid joint motor ID parameter ";
  model.bad_index_end = ", valid range: 1~\x0C.\n";
  model.wrong_size = model.too_many_short =
      "[ERROR]: Invalid parameter, must match the number of active degrees of freedom: \x0C.\n";
  model.too_many_full =
      "[ERROR]: Invalid parameter, position/velocity/torque control mode can send at most 8 joint "
      "target information at once.\n";
  model.failures_name_motor = false;
  return model;
}

class HandOperations : public testing::TestWithParam<HandRow>, protected HandPair<Hand> {
 protected:
  HandOperations() : HandPair(GetParam().make) {}

  std::string FailureLine(const Operation& operation, const std::string& what) const {
    const bool names_motor = operation.bad_index && model_.failures_name_motor;
    return model_.OfClass() + "[" + operation.name + "]" + (names_motor ? "[index:3] " : " ") +
           what + "\n";
  }

  const HandRow& model_ = GetParam();
};

class MotorHands : public HandOperations {};

INSTANTIATE_TEST_SUITE_P(All, MotorHands,
                         testing::Values(CommonRow(kBrisa), Tessel(), Lumen(), CommonRow(kVanta)),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(All, HandOperations,
                         testing::Values(CommonRow(kBrisa), Tessel(), Quill(), Lumen(),
                                         CommonRow(kVanta)),
                         testing::PrintToStringParamName());

TEST_P(HandOperations, PutTheirRequestOnTheWireAndReadAReplyOfAnyLength) {
  const StreamCapture errors(stderr);
  for (const std::uint8_t id : {kId, std::uint8_t{kId | 0x80}}) {
    const Rig<Hand> rig(id, HandType::RIGHT, true, model_.make);
    for (const Operation& operation : model_.operations) {
      for (int len = 0; len <= 65; ++len) {
        SCOPED_TRACE(operation.name + " " + std::to_string(len));
        rig.device->script = operation.Answer(len == 65 ? 200 : len);
        EXPECT_EQ(operation.call(*rig.hand, 3), operation.result(std::min(len, 64)));
        EXPECT_EQ(Show(rig.device->TakeSent()), Show({operation.Request()}));
      }
    }
  }
  EXPECT_EQ(errors.Text(), "");
}

TEST_P(HandOperations, ReachTheFirstAndTheLastMotorAndNoOther) {
  for (const Operation& operation : model_.operations) {
    if (!operation.bad_index) continue;
    SCOPED_TRACE(operation.name);
    device_.script = operation.Answer();
    for (const std::uint8_t index : {std::uint8_t{1}, model_.motors}) {
      EXPECT_EQ(operation.call(hand_, index), operation.result(64));
      CanfdFrame request = operation.Request();
      request.can_id = (request.can_id & 0x00FFFFFF) | std::uint32_t{index} << 24;
      EXPECT_EQ(Show(device_.TakeSent()), Show({request}));
    }
    for (const int index : {0, model_.motors + 1, 35, 255}) {
      for (Hand* const hand : both_) {
        const auto raw_index = static_cast<std::uint8_t>(index);
        EXPECT_EQ(Told([&] { EXPECT_EQ(operation.call(*hand, raw_index), operation.bad_index); }),
                  model_.bad_index + std::to_string(index) + model_.bad_index_end);
      }
    }
    EXPECT_TRUE(device_.TakeSent().empty());
  }
}

TEST_P(HandOperations, FailWithOneLineThatSaysWhyAndGoOnAfterwards) {
  for (const Operation& operation : model_.operations) {
    SCOPED_TRACE(operation.name);
    const auto expect_failure = [&](Hand& hand, const std::string& line) {
      EXPECT_EQ(Told([&] { EXPECT_EQ(operation.call(hand, 3), operation.failed); }), line);
    };
    const auto if_waiting = [&](const std::string& what, const std::string& otherwise) {
      const std::string request = FrameText(operation.Request());
      return operation.Waits() ? FailureLine(operation, request + what) : otherwise;
    };
    hand_.SetFrameRecvTimeout(10);
    device_.script = RepliesInFrames({});
    expect_failure(hand_, if_waiting(" request timeout (10ms)", ""));
    device_.frame_recv_timeout_ms_ = 60'000;
    device_.script = CantSend();
    expect_failure(hand_, if_waiting(" request send failed", operation.not_sent));
    device_.script = Throws(std::out_of_range("adapter broke"));
    expect_failure(hand_, FailureLine(operation, "adapter broke"));
    const std::string none = FailureLine(operation, "no transport");
    expect_failure(*without_transport_, operation.not_sent.empty() ? none : operation.not_sent);
    device_.script = Throws(42);
    EXPECT_THROW(operation.call(hand_, 3), int) << "no standard exception, not caught";
    device_.script = operation.Answer();
    EXPECT_EQ(operation.call(hand_, 3), operation.result(64)) << "unusable afterwards";
    EXPECT_EQ(device_.TakeSent().size(), 5U) << "each sends once";
  }
}

TEST_P(HandOperations, GoBeforeOlderRequestsOfLowerPriorityOnly) {
  const CanfdFrame urgent = FullFrame(0x01130101, {});
  const CanfdFrame other = FullFrame(0x02200101, {});
  std::vector<Operation> operations = model_.operations;
  const std::uint32_t family = model_.family;
  operations.push_back(GetAll(
      "GetVendorInfo", [](Hand& hand) { hand.GetVendorInfo(); }, 0x00010027 | family, Always("")));
  operations.push_back(GetAll(
      "GetDeviceInfo", [](Hand& hand) { hand.GetDeviceInfo(); }, 0x00020027 | family, Always("")));
  for (const Operation& operation : operations) {
    device_.script = operation.Answer();
    // Two requests that wait, as if other threads had come first.
    for (const int priority : {0, 1}) {
      const auto item = std::make_shared<CanBusDeviceBase::SerializedRequestItem>();
      item->frame = priority == 1 ? urgent : other;
      item->priority = priority;
      device_.serialized_queue_.push_back(item);
    }
    operation.call(hand_, 3);
    std::vector<CanfdFrame> expected{urgent, other, operation.Request()};
    if (operation.priority == 1) expected = {urgent, operation.Request()};
    if (!operation.Waits()) expected = {operation.Request()};
    EXPECT_EQ(Show(device_.TakeSent()), Show(expected)) << operation.name;
    device_.serialized_queue_.clear();
  }
}

TEST_P(MotorHands, RefuseVectorsOfAnotherSizeThanTheHandHasMotors) {
  std::vector<Operation> operations = model_.operations;
  if (model_.class_name == kTessel.class_name || model_.class_name == kBrisa.class_name) {
    operations.push_back(
        SetAll(NAMED(SetAllActiveJointAngles), 0, std::vector<double>(), kWordBytes));
  }
  for (const Operation& operation : operations) {
    if (!operation.sized || operation.name == "MixCtrlJointMotor") continue;
    const bool of_positions = operation.name == "SetAllJointMotorPosi";
    const std::string line =
        of_positions ? model_.OfClass() + "[SetAllJointMotorPosi] Invalid parameter, size must " +
                           "match DOF " + Count(model_) + "\n"
                     : model_.wrong_size;
    for (const std::size_t size : {0U, model_.motors - 1U, model_.motors + 1U, 1000U}) {
      for (Hand* const hand : both_) {
        EXPECT_EQ(Told([&] { EXPECT_EQ(operation.sized(*hand, size), ""); }), line);
      }
    }
  }
  EXPECT_TRUE(device_.TakeSent().empty());
}

/// The lines name one model, whichever it is, and once in another spelling.
TEST(ReportPeriods, AreRefusedByHandsThatSendNoReports) {
  for (const TestedHand& tested : {kBrisa, kLumen, kVanta}) {
    const HandPair<Hand> hands(tested.make);
    for (const Operation& operation : PeriodOperations()) {
      const char* const name = operation.name == "SetErrorReportPeriod" ? "Korvane " : "Korvane";
      for (Hand* const hand : hands.both_) {
        EXPECT_EQ(Told([&] { operation.call(*hand, 99); }),
                  "[Error]: " + operation.name + " is not supported by " + name +
                      "Brisa (BR7) when DISABLE_FUNC is enabled.\n");
      }
    }
    EXPECT_TRUE(hands.device_.TakeSent().empty());
  }
}

TEST_P(MotorHands, LayOutMixedCommandsByTheModeOfTheirFirstElement) {
  const struct {
    std::vector<MixCtrl> targets;
    Bytes payload;
  } rows[] = {
      {{{1, 4, 0x1234, {}, -2}, {10, 4, -1, {}, 7}},
       {0x81, 0x34, 0x12, 0xFE, 0xFF, 0x8A, 0xFF, 0xFF, 7, 0}},
      {{{2, 5, {}, -300, 1}}, {0xA2, 0xD4, 0xFE, 1, 0}},
      {{{31, 6, 1, 2, -32768}}, {0xDF, 1, 0, 2, 0, 0, 0x80}},
      // The other elements keep their own first byte, whatever mode it names.
      {{{1, 5, {}, 1, 2}, {2, 6, 3, 4, 5}, {0, 0, {}, 6, 7}},
       {0xA1, 1, 0, 2, 0, 0xC2, 4, 0, 5, 0, 0x00, 6, 0, 7, 0}},
  };
  device_.script = Replies({});
  for (const auto& row : rows) {
    hand_.MixCtrlJointMotor(row.targets);
    EXPECT_EQ(Show(device_.TakeSent()), Show({FullFrame(0x001401A7, row.payload)}));
  }
}

TEST_P(MotorHands, FillOneFrameWithAMixedCommandAndRefuseMore) {
  const std::size_t too_many = model_.motors + 1U;
  const struct {
    int mode;
    std::size_t most;
    std::size_t too_many;
    Bytes element;
    std::string refusal;
  } rows[] = {
      {4, model_.most_short, too_many, {0x81, 2, 0, 4, 0}, model_.too_many_short},
      {5, model_.most_short, too_many, {0xA1, 3, 0, 4, 0}, model_.too_many_short},
      {6, 8, 9, {0xC1, 2, 0, 3, 0, 4, 0}, model_.too_many_full},
  };
  device_.script = Replies({});
  for (const auto& row : rows) {
    Bytes payload;
    for (std::size_t count = 1; count <= row.most; ++count) {
      hand_.MixCtrlJointMotor(Targets(count, row.mode));
      payload.insert(payload.end(), row.element.begin(), row.element.end());
      EXPECT_EQ(Show(device_.TakeSent()), Show({FullFrame(0x001401A7, payload)}));
    }
    const auto expect_refused = [&](std::size_t count, const std::string& refusal) {
      for (Hand* const hand : both_) {
        auto targets = Targets(count, row.mode);
        targets[1].current = {};  // The limit is looked at before the targets are.
        EXPECT_EQ(Told([&] { hand->MixCtrlJointMotor(targets); }), refusal);
      }
    };
    for (std::size_t count = row.most + 1; count < row.too_many; ++count) {
      expect_refused(
          count, "[Error]: A frame holds 12 joint targets, got " + std::to_string(count) + "\n");
    }
    for (const std::size_t count : {row.too_many, std::size_t{500}}) {
      expect_refused(count, row.refusal);
    }
  }
  EXPECT_TRUE(device_.TakeSent().empty());
}

TEST_P(MotorHands, SendNothingForAMixedCommandWithoutTargetsOrInAnotherMode) {
  const MixCtrl incomplete[] = {{2, 4, {}, 1, 1}, {2, 4, 1, 1, {}}, {2, 5, 1, {}, 1},
                                {2, 5, 1, 1, {}}, {2, 6, {}, 1, 1}, {2, 6, 1, {}, 1},
                                {2, 6, 1, 1, {}}};
  const StreamCapture errors(stderr);
  for (Hand* const hand : both_) {
    for (const MixCtrl& target : incomplete) {
      auto targets = Targets(2, target.mix_mode);
      targets[1] = target;
      EXPECT_THROW(hand->MixCtrlJointMotor(targets), std::bad_optional_access);
    }
    for (const int mode : {0, 1, 2, 3, 7}) {
      auto targets = Targets(21, 6);
      targets[0] = Targets(1, mode)[0];
      hand->MixCtrlJointMotor(targets);
    }
    hand->MixCtrlJointMotor({});
  }
  EXPECT_TRUE(device_.TakeSent().empty());
  EXPECT_EQ(errors.Text(), "");
}

template <class Impl>
struct OverridingHand : Impl {
  using Impl::Impl;
  std::vector<short> GetAllJointMotorPosi() const override { return positions; }
  std::vector<short> SetAllJointMotorPosi(const std::vector<short>& values) override {
    written = values;
    return positions;
  }
  std::vector<short> positions, written;
};

/// Angles go through the position operations, also where an application overrides them.
template <class Impl, class ToInputs, class ToAngles>
void ExpectAnglesThroughSolver(std::size_t motors, ToInputs to_inputs, ToAngles to_angles) {
  OverridingHand<Impl> hand(HandType::LEFT, kId, NoTransport());
  const auto& solver = *hand.solver;
  const std::vector<double> angles(motors, 0.1);
  std::vector<int> inputs(motors);
  for (std::size_t i = 0; i < motors; ++i) inputs[i] = static_cast<int>(150 * i);
  hand.positions.assign(inputs.begin(), inputs.end());
  const auto active = std::invoke(to_angles, solver, inputs);
  EXPECT_EQ(hand.GetAllActiveJointAngles(), active);
  EXPECT_EQ(hand.GetAllJointAngles(), solver.GetAllJointPos(active));
  EXPECT_EQ(hand.GetAllJointPos(active), solver.GetAllJointPos(active));
  EXPECT_EQ(hand.SetAllActiveJointAngles(angles), active) << "the echo, not what was set";
  EXPECT_EQ(Show(hand.written), Show(std::invoke(to_inputs, solver, angles)));
}

template <class Impl>
void ExpectGesturesAndNoAnglesOfSomeMotors(std::size_t motors) {
  OverridingHand<Impl> hand(HandType::LEFT, kId, NoTransport());
  const std::vector<double> angles(motors);
  for (const std::size_t count : {std::size_t{0}, motors - 1, motors + 1}) {
    hand.positions.assign(count, 9);
    EXPECT_EQ(Told([&] { EXPECT_TRUE(hand.SetAllActiveJointAngles(angles).empty()); }), "");
    EXPECT_NE(Told([&] { EXPECT_TRUE(hand.GetAllActiveJointAngles().empty()); }), "");
    EXPECT_NE(Told([&] { EXPECT_TRUE(hand.GetAllJointAngles().empty()); }), "");
  }
  const StreamCapture errors(stderr);  // The solver may warn of what it adjusts.
  for (int gesture = -1; gesture <= 17; ++gesture) {
    hand.SetHandGesture(gesture);
    EXPECT_EQ(Show(hand.written), Show(hand.solver->SetHandGesture(gesture)));
  }
  hand.written.clear();
  hand.solver.reset();
  hand.SetHandGesture(3);
  EXPECT_TRUE(hand.written.empty());
}

TEST(HandsWithSolver, PassAnglesAndGesturesThroughIt) {
  using Brisa = br7::KorvaneBrisaSolver;
  ExpectAnglesThroughSolver<KorvaneBrisaCanImpl>(10, &Brisa::ActiveJointPos2ActuatorInput,
                                                 &Brisa::ActuatorInput2ActiveJointPos);
  using Tessel = ts9::KorvaneTesselSolver;
  ExpectAnglesThroughSolver<KorvaneTesselCanImpl>(12, &Tessel::ConvertJoint2Actuator,
                                                  &Tessel::ConvertActuator2Joint);
  ExpectGesturesAndNoAnglesOfSomeMotors<KorvaneBrisaCanImpl>(10);
  ExpectGesturesAndNoAnglesOfSomeMotors<KorvaneTesselCanImpl>(12);
}

}  // namespace
}  // namespace talvera::korvane
