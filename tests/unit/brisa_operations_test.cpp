// The joint commands and reports of a KorvaneBrisa over CAN: what each operation puts on
// the wire, what it makes of the answer, and what it says and returns when there is none.

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>

#include "impl/korvane_brisa_can_impl.h"
#include "support/capture.h"
#include "support/recording_device.h"

namespace talvera::korvane {
namespace {

using namespace test;
using Hand = KorvaneBrisaCanImpl;

constexpr std::uint8_t kId = 0x27;
constexpr std::uint8_t kIndex = 3;
const std::vector<short> kWords{1, -2, 300, -400, 5, 6, 7, 8, 9, 4096};
const Bytes kWordBytes{1, 0, 0xFE, 0xFF, 0x2C, 1, 0x70, 0xFE, 5, 0, 6, 0, 7, 0, 8, 0, 9, 0, 0, 16};
const Bytes kModes{0, 1, 2, 3, 4, 5, 6, 7, 8, 255};

MixCtrl Target(int index, int mode, std::optional<short> position, std::optional<short> velocity,
               std::optional<short> current) {
  MixCtrl target{};
  target.joint_index = index & 0x1F;
  target.mix_mode = mode & 7;
  target.position = position;
  target.velocity = velocity;
  target.current = current;
  return target;
}

std::vector<MixCtrl> Targets(std::size_t count, int mode) {
  return std::vector<MixCtrl>(count, Target(1, mode, short{2}, short{3}, short{4}));
}

std::vector<short> Words(std::size_t count) { return std::vector<short>(count); }

std::unique_ptr<Hand> HandWithoutTransport() {
  return std::make_unique<Hand>(HandType::RIGHT, kId, NoTransport());
}

struct Operation {
  const char* name;
  Call<Hand> call;
  /// For device 0x27, and motor 3 where a motor is asked.
  std::uint32_t id;
  std::uint8_t len;
  Bytes payload;
  /// Empty: the operation doesn't wait for a reply.
  Bytes reply;
  const char* result;
  const char* failed;
  /// Null: the operation has no index.
  const char* bad_index = nullptr;
  /// In place of the usual failure line.
  const char* fixed_text = nullptr;
};

constexpr char kModeNotSent[] = "[Error]: Failed to send control mode request\n";
constexpr char kWordsShown[] = "1 -2 300 -400 5 6 7 8 9 4096";
constexpr char kUnsignedShown[] = "1 65534 300 65136 5 6 7 8 9 4096";

// clang-format off
const std::vector<Operation> kOperations{
    {"SetJointMotorPosi", One<Hand>(&Hand::SetJointMotorPosi, short{-2}),
     0x031301A7, 64, {0xFE, 0xFF}, {0x34, 0x12}, "4660", "-1", "-1"},
    {"GetJointMotorPosi", One<Hand>(&Hand::GetJointMotorPosi),
     0x03130127, 64, {}, {0xFE, 0xFF}, "-2", "0", "-1"},
    {"SetAllJointMotorPosi", All<Hand>(&Hand::SetAllJointMotorPosi, kWords),
     0x001301A7, 20, kWordBytes, kWordBytes, kWordsShown, ""},
    {"GetAllJointMotorPosi", All<Hand>(&Hand::GetAllJointMotorPosi),
     0x00130127, 64, {}, kWordBytes, kWordsShown, ""},
    {"SetJointMotorVelo", One<Hand>(&Hand::SetJointMotorVelo, short{0x1234}),
     0x031201A7, 64, {0x34, 0x12}, {0}, "", "", ""},
    {"GetJointMotorVelo", One<Hand>(&Hand::GetJointMotorVelo),
     0x03120127, 64, {}, {0x00, 0x80}, "-32768", "0", "-1"},
    {"SetAllJointMotorVelo", All<Hand>(&Hand::SetAllJointMotorVelo, kWords),
     0x001201A7, 64, kWordBytes, {0}, "", ""},
    {"GetAllJointMotorVelo", All<Hand>(&Hand::GetAllJointMotorVelo),
     0x00120127, 64, {}, kWordBytes, kWordsShown, ""},
    {"SetControlMode", One<Hand>(&Hand::SetControlMode, static_cast<ControlMode>(0xF5)),
     0x031001A7, 64, {0xF5}, {}, "", "", "", kModeNotSent},
    {"GetControlMode", One<Hand>(&Hand::GetControlMode),
     0x03100127, 64, {}, {0xFD, 0xFF}, "5", "10", "10"},
    {"SetAllControlMode", All<Hand>(&Hand::SetAllControlMode, kModes),
     0x001001A7, 10, kModes, {}, "", "", nullptr, kModeNotSent},
    {"GetAllControlMode", All<Hand>(&Hand::GetAllControlMode),
     0x00100127, 64, {}, kModes, "0 1 2 3 4 5 6 7 8 255", ""},
    {"SetCurrentThreshold", One<Hand>(&Hand::SetCurrentThreshold, short{-1}),
     0x030301A7, 64, {0xFF, 0xFF}, {0}, "", "", ""},
    {"GetCurrentThreshold", One<Hand>(&Hand::GetCurrentThreshold),
     0x03030127, 64, {}, {0x2C, 1}, "300", "0", "-1"},
    {"SetAllCurrentThreshold", All<Hand>(&Hand::SetAllCurrentThreshold, kWords),
     0x000301A7, 64, kWordBytes, {0}, "", ""},
    {"GetAllCurrentThreshold", All<Hand>(&Hand::GetAllCurrentThreshold),
     0x00030127, 64, {}, kWordBytes, kWordsShown, ""},
    {"MixCtrlJointMotor", All<Hand>(&Hand::MixCtrlJointMotor, Targets(2, 4)),
     0x001401A7, 64, {0x81, 2, 0, 4, 0, 0x81, 2, 0, 4, 0}, {0}, "", ""},
    {"GetErrorReport", One<Hand>(&Hand::GetErrorReport),
     0x03200127, 64, {}, {0xFE, 0xFF}, "65534", "0", "0"},
    {"GetAllErrorReport", All<Hand>(&Hand::GetAllErrorReport),
     0x00200127, 64, {}, kWordBytes, kUnsignedShown, ""},
    {"GetTemperatureReport", One<Hand>(&Hand::GetTemperatureReport),
     0x03210127, 64, {}, {0xFE, 0xFF}, "65534", "0", "65535"},
    {"GetAllTemperatureReport", All<Hand>(&Hand::GetAllTemperatureReport),
     0x00210127, 64, {}, kWordBytes, kUnsignedShown, ""},
    {"GetCurrentReport", One<Hand>(&Hand::GetCurrentReport),
     0x03220127, 64, {}, {0xFE, 0xFF}, "-2", "0", "-1"},
    {"GetAllCurrentReport", All<Hand>(&Hand::GetAllCurrentReport),
     0x00220127, 64, {}, kWordBytes, kWordsShown, ""},
};
// clang-format on

CanfdFrame RequestOf(const Operation& operation) {
  return FullFrame(operation.id, operation.payload, operation.len);
}

RecordingDevice::Script AnswerTo(const Operation& operation) {
  const bool whole_hand = operation.reply.size() == 20;
  return Replies(operation.reply, whole_hand ? 20 : 64);
}

std::string FailureLine(const Operation& operation, const std::string& what) {
  const std::string index = operation.bad_index ? "[index:3]" : "";
  return std::string("[ERROR][KorvaneBrisaCanImpl][") + operation.name + "]" + index + " " + what +
         "\n";
}

std::string FailureLineOrFixedText(const Operation& operation, const std::string& what) {
  return operation.fixed_text ? operation.fixed_text : FailureLine(operation, what);
}

TEST(BrisaOperations, PutTheirRequestOnTheWireAndReadTheReply) {
  for (const std::uint8_t id : {kId, std::uint8_t{kId | 0x80}}) {
    for (const Operation& operation : kOperations) {
      SCOPED_TRACE(operation.name);
      const Rig<Hand> rig(id);
      rig.device->script = AnswerTo(operation);
      const StreamCapture errors(stderr);
      EXPECT_EQ(operation.call(*rig.hand, kIndex), operation.result);
      EXPECT_EQ(Show(rig.device->TakeSent()), Show({RequestOf(operation)}));
      EXPECT_EQ(errors.Text(), "");
    }
  }
}

TEST(BrisaOperations, ReachTheFirstAndTheLastMotorAndNoOther) {
  for (const Operation& operation : kOperations) {
    if (operation.bad_index == nullptr) continue;
    SCOPED_TRACE(operation.name);
    const Rig<Hand> rig(kId);
    rig.device->script = AnswerTo(operation);
    const auto without_transport = HandWithoutTransport();
    for (const std::uint8_t index : {std::uint8_t{1}, std::uint8_t{10}}) {
      EXPECT_EQ(operation.call(*rig.hand, index), operation.result);
      CanfdFrame request = RequestOf(operation);
      request.can_id = (request.can_id & 0x00FFFFFF) | std::uint32_t{index} << 24;
      EXPECT_EQ(Show(rig.device->TakeSent()), Show({request}));
    }
    for (const int index : {0, 11, 35, 255}) {
      for (Hand* const hand : {rig.hand.get(), without_transport.get()}) {
        const StreamCapture errors(stderr);
        EXPECT_EQ(operation.call(*hand, static_cast<std::uint8_t>(index)), operation.bad_index);
        EXPECT_EQ(errors.Text(),
                  "[Error]: 无效关节电机ID参数" + std::to_string(index) + " 正确范围：1～\x0A.\n");
      }
    }
    EXPECT_TRUE(rig.device->TakeSent().empty());
  }
}

TEST(BrisaOperations, TimeOutOnASilentHandIfTheyWaitForIt) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    const Rig<Hand> rig(kId);
    rig.hand->SetFrameRecvTimeout(10);
    const StreamCapture errors(stderr);
    EXPECT_EQ(operation.call(*rig.hand, kIndex), operation.failed);
    EXPECT_EQ(rig.device->TakeSent().size(), 1U);
    const bool waits = !operation.reply.empty();
    const std::string what = FrameText(RequestOf(operation)) + " request timeout (10ms)";
    EXPECT_EQ(errors.Text(), waits ? FailureLine(operation, what) : "");
  }
}

TEST(BrisaOperations, TellThatNothingCouldBeSent) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    const Rig<Hand> rig(kId);
    rig.device->script = CantSend();
    const StreamCapture errors(stderr);
    EXPECT_EQ(operation.call(*rig.hand, kIndex), operation.failed);
    const std::string what = FrameText(RequestOf(operation)) + " request send failed";
    EXPECT_EQ(errors.Text(), FailureLineOrFixedText(operation, what));
  }
}

TEST(BrisaOperations, FailWithoutATransport) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    const auto hand = HandWithoutTransport();
    const StreamCapture errors(stderr);
    EXPECT_EQ(operation.call(*hand, kIndex), operation.failed);
    EXPECT_EQ(errors.Text(), FailureLineOrFixedText(operation, "no transport"));
  }
}

TEST(BrisaOperations, CatchStandardExceptionsOfAnAdapterAndNoOthers) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    const Rig<Hand> rig(kId);
    const StreamCapture errors(stderr);
    rig.device->script = Throws(std::out_of_range("adapter broke"));
    EXPECT_EQ(operation.call(*rig.hand, kIndex), operation.failed);
    EXPECT_EQ(errors.Text(), FailureLine(operation, "adapter broke"));
    rig.device->script = Throws(42);
    EXPECT_THROW(operation.call(*rig.hand, kIndex), int);
    rig.device->script = AnswerTo(operation);
    EXPECT_EQ(operation.call(*rig.hand, kIndex), operation.result) << "hand unusable afterwards";
  }
}

TEST(BrisaOperations, RefuseVectorsOfAnotherSizeThanTheHandHasMotors) {
  constexpr char kSizeLine[] = "[Error]: 无效参数，需与主动自由度数量 \x0A 相匹配.\n";
  const struct {
    std::function<std::string(Hand&, std::size_t)> call;
    const char* line;
  } rows[] = {
      {[](Hand& hand, std::size_t n) { return Show(hand.SetAllJointMotorPosi(Words(n))); },
       "[ERROR][KorvaneBrisaCanImpl][SetAllJointMotorPosi] Invalid parameter, size must match DOF "
       "\x0A\n"},
      {[](Hand& hand, std::size_t n) { return hand.SetAllJointMotorVelo(Words(n)), ""; },
       kSizeLine},
      {[](Hand& hand, std::size_t n) { return hand.SetAllCurrentThreshold(Words(n)), ""; },
       kSizeLine},
      {[](Hand& hand, std::size_t n) { return hand.SetAllControlMode(Bytes(n)), ""; }, kSizeLine},
      {[](Hand& hand, std::size_t n) {
         return Show(hand.SetAllActiveJointAngles(std::vector<double>(n)));
       },
       kSizeLine},
  };
  const Rig<Hand> rig(kId);
  const auto without_transport = HandWithoutTransport();
  for (const auto& row : rows) {
    for (const std::size_t size : {0U, 1U, 9U, 11U, 33U, 1000U}) {
      for (Hand* const hand : {rig.hand.get(), without_transport.get()}) {
        const StreamCapture errors(stderr);
        EXPECT_EQ(row.call(*hand, size), "");
        EXPECT_EQ(errors.Text(), row.line);
      }
    }
  }
  EXPECT_TRUE(rig.device->TakeSent().empty());
}

TEST(BrisaOperations, SayThatReportPeriodsAreNotSupported) {
  const std::vector<unsigned short> periods(3);
  const struct {
    Call<Hand> call;
    const char* subject;
  } rows[] = {
      {One<Hand>(&Hand::SetErrorReportPeriod, 1),
       "SetErrorReportPeriod is not supported by Korvane Brisa"},
      {All<Hand>(&Hand::SetAllErrorReportPeriod, periods),
       "SetAllErrorReportPeriod is not supported by KorvaneBrisa"},
      {One<Hand>(&Hand::SetTemperReportPeriod, 1),
       "SetTemperReportPeriod is not supported by KorvaneBrisa"},
      {All<Hand>(&Hand::SetAllTemperReportPeriod, periods),
       "SetAllTemperReportPeriod is not supported by KorvaneBrisa"},
      {One<Hand>(&Hand::SetCurrentReportPeriod, 1),
       "SetCurrentReportPeriod is not supported by KorvaneBrisa"},
      {All<Hand>(&Hand::SetAllCurrentReportPeriod, periods),
       "SetAllCurrentReportPeriod is not supported by KorvaneBrisa"},
  };
  const Rig<Hand> rig(kId);
  const auto without_transport = HandWithoutTransport();
  for (const auto& row : rows) {
    for (Hand* const hand : {rig.hand.get(), without_transport.get()}) {
      const StreamCapture errors(stderr);
      row.call(*hand, 99);
      EXPECT_EQ(errors.Text(),
                "[Error]: " + std::string(row.subject) + " (BR7) when DISABLE_FUNC is enabled.\n");
    }
  }
  EXPECT_TRUE(rig.device->TakeSent().empty());
}

// --- Replies --------------------------------------------------------------------------------

TEST(BrisaReplies, AreTakenAsLongAsTheyCome) {
  Bytes data(64);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i % 2 ? 0 : i);
  const Rig<Hand> rig(kId);
  for (const int len : {0, 1, 2, 5, 18, 20, 21, 64, 200}) {
    SCOPED_TRACE(len);
    rig.device->script = Replies(data, len);
    std::vector<short> expected;
    for (int i = 0; i + 1 < std::min(len, 64); i += 2) {
      expected.push_back(static_cast<short>(i));
    }
    EXPECT_EQ(rig.hand->GetAllJointMotorPosi(), expected);
    EXPECT_EQ(rig.hand->SetAllJointMotorPosi(kWords), expected);
    EXPECT_EQ(rig.hand->GetAllErrorReport(),
              std::vector<unsigned short>(expected.begin(), expected.end()));
    EXPECT_EQ(rig.hand->GetAllControlMode(), Bytes(data.begin(), data.begin() + 10));
  }
  rig.device->script = Replies({9, 0}, 1);
  EXPECT_EQ(rig.hand->GetJointMotorPosi(1), 9);
}

TEST(BrisaReplies, AreAcceptedUnderTheirPairedIdentifierToo) {
  const Rig<Hand> rig(kId);
  for (const std::uint32_t reply_id : {0x001301A7U, 0x10100127U, 0x101081A7U}) {
    rig.device->script = [=](const CanfdFrame&) {
      return std::vector<CanfdFrame>{FullFrame(reply_id, {9, 0}, 2)};
    };
    EXPECT_EQ(rig.hand->GetAllJointMotorPosi(), std::vector<short>{9}) << std::hex << reply_id;
  }
}

TEST(BrisaReplies, OfOthersAreLeftAside) {
  const Rig<Hand> rig(kId);
  rig.device->script = [](const CanfdFrame& sent) {
    std::vector<CanfdFrame> frames;
    for (const std::uint32_t difference : {0x1U, 0x8000U, 0x10000U, 0x1000000U, 0x600U, 0x0U}) {
      const std::uint8_t value = difference == 0 ? 7 : 1;
      frames.push_back(FullFrame(sent.can_id ^ difference, {value}));
    }
    return frames;
  };
  EXPECT_EQ(rig.hand->GetJointMotorPosi(4), 7);
}

// --- Mixed control --------------------------------------------------------------------------

TEST(BrisaMixedControl, LaysOutItsElementsByTheModeOfTheFirst) {
  const std::optional<short> none;
  const struct {
    std::vector<MixCtrl> targets;
    Bytes payload;
  } rows[] = {
      {{Target(1, 4, short{0x1234}, none, short{-2}), Target(10, 4, short{-1}, none, short{7})},
       {0x81, 0x34, 0x12, 0xFE, 0xFF, 0x8A, 0xFF, 0xFF, 7, 0}},
      {{Target(2, 5, none, short{-300}, short{1})}, {0xA2, 0xD4, 0xFE, 1, 0}},
      {{Target(31, 6, short{1}, short{2}, short{-32768})}, {0xDF, 1, 0, 2, 0, 0, 0x80}},
      // The other elements keep their own first byte, whatever mode it names.
      {{Target(1, 5, none, short{1}, short{2}), Target(2, 6, short{3}, short{4}, short{5}),
        Target(0, 0, none, short{6}, short{7})},
       {0xA1, 1, 0, 2, 0, 0xC2, 4, 0, 5, 0, 0x00, 6, 0, 7, 0}},
  };
  const Rig<Hand> rig(kId);
  rig.device->script = Replies({});
  for (const auto& row : rows) {
    rig.hand->MixCtrlJointMotor(row.targets);
    EXPECT_EQ(Show(rig.device->TakeSent()), Show({FullFrame(0x001401A7, row.payload)}));
  }
}

TEST(BrisaMixedControl, FillsOneFrameAndRefusesMore) {
  constexpr char kTooManyShort[] = "[Error]: 无效参数，需与主动自由度数量 10 相匹配.\n";
  constexpr char kTooManyFull[] =
      "[Error]: 无效参数，位置速度力控模式最多一次性下发8个关节目标信息.\n";
  const struct {
    int mode;
    std::size_t most;
    Bytes element;
    const char* refusal;
  } rows[] = {
      {4, 10, {0x81, 2, 0, 4, 0}, kTooManyShort},
      {5, 10, {0xA1, 3, 0, 4, 0}, kTooManyShort},
      {6, 8, {0xC1, 2, 0, 3, 0, 4, 0}, kTooManyFull},
  };
  const Rig<Hand> rig(kId);
  const auto without_transport = HandWithoutTransport();
  rig.device->script = Replies({});
  for (const auto& row : rows) {
    for (const std::size_t count : {std::size_t{1}, row.most - 1, row.most}) {
      rig.hand->MixCtrlJointMotor(Targets(count, row.mode));
      Bytes payload;
      for (std::size_t i = 0; i < count; ++i) {
        payload.insert(payload.end(), row.element.begin(), row.element.end());
      }
      EXPECT_EQ(Show(rig.device->TakeSent()), Show({FullFrame(0x001401A7, payload)}));
    }
    for (const std::size_t count : {row.most + 1, std::size_t{500}}) {
      for (Hand* const hand : {rig.hand.get(), without_transport.get()}) {
        // The limit is looked at before the targets are.
        std::vector<MixCtrl> targets(count, Target(1, row.mode, {}, {}, {}));
        const StreamCapture errors(stderr);
        hand->MixCtrlJointMotor(targets);
        EXPECT_EQ(errors.Text(), row.refusal);
      }
    }
  }
  EXPECT_TRUE(rig.device->TakeSent().empty());
}

TEST(BrisaMixedControl, ThrowsForATargetThatIsMissingBeforeItSendsAnything) {
  const Rig<Hand> rig(kId);
  const auto without_transport = HandWithoutTransport();
  const StreamCapture errors(stderr);
  for (const int mode : {4, 5, 6}) {
    for (int missing = 0; missing < 3; ++missing) {
      const auto unless = [&](int target) {
        return target == missing ? std::nullopt : std::optional<short>(short{1});
      };
      std::vector<MixCtrl> targets = Targets(2, mode);
      targets[1] = Target(2, mode, unless(0), unless(1), unless(2));
      const bool needed = mode == 6 || missing != (mode == 4 ? 1 : 0);
      if (!needed) continue;
      for (Hand* const hand : {rig.hand.get(), without_transport.get()}) {
        EXPECT_THROW(hand->MixCtrlJointMotor(targets), std::bad_optional_access);
      }
    }
  }
  EXPECT_TRUE(rig.device->TakeSent().empty());
  EXPECT_EQ(errors.Text(), "");
}

TEST(BrisaMixedControl, DoesNothingInOtherModesOrWithoutTargets) {
  const Rig<Hand> rig(kId);
  const auto without_transport = HandWithoutTransport();
  const StreamCapture errors(stderr);
  for (Hand* const hand : {rig.hand.get(), without_transport.get()}) {
    hand->MixCtrlJointMotor({});
    for (const int mode : {0, 1, 2, 3, 7}) {
      auto targets = Targets(20, 6);
      targets[0] = Target(1, mode, {}, {}, {});
      hand->MixCtrlJointMotor(targets);
    }
  }
  EXPECT_TRUE(rig.device->TakeSent().empty());
  EXPECT_EQ(errors.Text(), "");
}

// --- Joint angles and gestures --------------------------------------------------------------

constexpr char kFromNine[] =
    "[ERROR]: ActuatorInput2ActiveJointPos: Invalid input size. Got 9, expected 10\n";
constexpr char kFromNone[] =
    "[ERROR]: ActuatorInput2ActiveJointPos: Invalid input size. Got 0, expected 10\n";
constexpr char kAllFromNone[] = "[ERROR]: GetAllJointPos: Invalid input size. Got 0, expected 10\n";

/// Ten inputs that no joint shares with its neighbour, and their bytes on the wire.
const std::vector<int> kInputs{100, 300, 500, 700, 900, 1100, 1300, 1500, 1700, 1900};

Bytes WireBytes(const std::vector<int>& values) {
  Bytes bytes;
  for (const int value : values) {
    bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(value >> 8 & 0xFF));
  }
  return bytes;
}

class BrisaJointAngles : public testing::TestWithParam<HandType> {
 protected:
  const br7::KorvaneBrisaSolver solver_{GetParam() == HandType::LEFT};
  const Rig<Hand> rig_{kId, GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Sides, BrisaJointAngles, testing::Values(HandType::LEFT, HandType::RIGHT));

TEST_P(BrisaJointAngles, AreThePositionsOfTheHandPutThroughTheSolver) {
  rig_.device->script = Replies(WireBytes(kInputs), 20);
  const auto active = solver_.ActuatorInput2ActiveJointPos(kInputs);
  EXPECT_EQ(rig_.hand->GetAllActiveJointAngles(), active);
  EXPECT_EQ(rig_.hand->GetAllJointAngles(), solver_.GetAllJointPos(active));
  const CanfdFrame request = FullFrame(0x00130127, {});
  EXPECT_EQ(Show(rig_.device->TakeSent()), Show({request, request}));

  EXPECT_EQ(rig_.hand->GetAllJointPos(active), solver_.GetAllJointPos(active));
  EXPECT_TRUE(rig_.device->TakeSent().empty());
}

TEST_P(BrisaJointAngles, AreSentAsInputsAndComeBackAsTheHandEchoesThem) {
  const std::vector<double> angles(10, 0.1);
  rig_.device->script = Replies(WireBytes(kInputs), 20);
  EXPECT_EQ(rig_.hand->SetAllActiveJointAngles(angles),
            solver_.ActuatorInput2ActiveJointPos(kInputs));
  const Bytes inputs = WireBytes(solver_.ActiveJointPos2ActuatorInput(angles));
  EXPECT_EQ(Show(rig_.device->TakeSent()), Show({FullFrame(0x001301A7, inputs, 20)}));

  const StreamCapture errors(stderr);
  for (const int len : {0, 19, 22, 64}) {
    rig_.device->script = Replies(WireBytes(kInputs), len);
    EXPECT_TRUE(rig_.hand->SetAllActiveJointAngles(angles).empty()) << len;
  }
  EXPECT_EQ(errors.Text(), "");
}

TEST_P(BrisaJointAngles, AreEmptyWhenTheHandAnswersTooLittleOrNotAtAll) {
  const auto expect_lines = [](Hand& hand, const std::string& read, const std::string& written) {
    const StreamCapture active(stderr);
    EXPECT_TRUE(hand.GetAllActiveJointAngles().empty());
    EXPECT_EQ(active.Text(), read);
    const StreamCapture all(stderr);
    EXPECT_TRUE(hand.GetAllJointAngles().empty());
    EXPECT_EQ(all.Text(), read + kAllFromNone);
    const StreamCapture set(stderr);
    EXPECT_TRUE(hand.SetAllActiveJointAngles(std::vector<double>(10)).empty());
    EXPECT_EQ(set.Text(), written);
  };
  rig_.device->script = Replies({}, 18);
  expect_lines(*rig_.hand, kFromNine, "");

  const std::string of_class = "[ERROR][KorvaneBrisaCanImpl]";
  expect_lines(*HandWithoutTransport(),
               of_class + "[GetAllJointMotorPosi] no transport\n" + kFromNone,
               of_class + "[SetAllJointMotorPosi] no transport\n");
}

TEST_P(BrisaJointAngles, PassThroughOperationsThatAnApplicationOverrides) {
  struct OverridingHand : Hand {
    using Hand::Hand;
    std::vector<short> GetAllJointMotorPosi() const override { return positions; }
    std::vector<short> SetAllJointMotorPosi(const std::vector<short>& values) override {
      written = values;
      return positions;
    }
    const std::vector<short> positions{kInputs.begin(), kInputs.end()};
    std::vector<short> written;
  };
  OverridingHand hand(GetParam(), kId, NoTransport());
  const auto angles = solver_.ActuatorInput2ActiveJointPos(kInputs);
  EXPECT_EQ(hand.GetAllActiveJointAngles(), angles);
  EXPECT_EQ(hand.GetAllJointAngles(), solver_.GetAllJointPos(angles));
  EXPECT_EQ(hand.SetAllActiveJointAngles(std::vector<double>(10)), angles);
  const auto rest = solver_.ActiveJointPos2ActuatorInput(std::vector<double>(10));
  EXPECT_EQ(hand.written, std::vector<short>(rest.begin(), rest.end()));
  hand.SetHandGesture(3);
  const auto gesture = solver_.SetHandGesture(3);
  EXPECT_EQ(hand.written, std::vector<short>(gesture.begin(), gesture.end()));

  hand.solver.reset();
  hand.written.clear();
  hand.SetHandGesture(3);
  EXPECT_TRUE(hand.written.empty());
}

TEST_P(BrisaJointAngles, MoveIntoEveryGesture) {
  rig_.device->script = Replies({});
  for (const int gesture : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, -1}) {
    rig_.hand->SetHandGesture(gesture);
    const Bytes inputs = WireBytes(solver_.SetHandGesture(gesture));
    EXPECT_EQ(Show(rig_.device->TakeSent()), Show({FullFrame(0x001301A7, inputs, 20)}));
  }
}

}  // namespace
}  // namespace talvera::korvane
