// The rules by which commands move a hand, or don't: every one, without a hand and without DDS.
#include "command_gate.h"

#include <gtest/gtest.h>
#include <korvane_brisa.h>
#include <korvane_tessel.h>

#include <cmath>
#include <limits>
#include <string>

#include "health.h"
#include "joint_rules.h"
#include "mailbox.h"
#include "options.h"

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;
using std::chrono::milliseconds;

const Instant kStart = Instant() + std::chrono::hours(1);
const double kNan = std::numeric_limits<double>::quiet_NaN();
const double kInfinity = std::numeric_limits<double>::infinity();

/// Two joints that can be commanded, one that can't and a coupled one; two motors.
SpaceRules Joints() {
  return {{{"a", 0, 1, 0, true},
           {"b", -1, 1, 1, true},
           {"fixed", 0, 1, 2, false},
           {"coupled", 0, 1, -1, false}},
          3,
          3,
          0.1,
          [](const std::vector<double>& angles) { return angles[0] + angles[1] < 1.9; }};
}
SpaceRules Motors() { return {{{"", 0, 100, 0, true}, {"", 0, 100, 1, true}}, 2, 50, 7, {}}; }

GateSettings Allowing() {
  GateSettings settings;
  settings.allow = true;
  return settings;
}

Command ByName(std::vector<std::string> names, std::vector<double> values) {
  Command command;
  command.names = std::move(names);
  command.values = std::move(values);
  command.commander = 1;
  return command;
}

Command ByMotor(std::vector<double> values) {
  Command command = ByName({}, std::move(values));
  command.space = Space::MOTORS;
  return command;
}

/// A gate in front of a hand that stands at 0.2, 0.2, 0.2.
CommandGate Gate(const GateSettings& settings = Allowing()) {
  CommandGate gate(Joints(), Motors(), settings);
  gate.Measured({0.2, 0.2, 0.2}, {10, 20});
  return gate;
}

template <class Change>
Command With(Command command, Change change) {
  change(command);
  return command;
}

TEST(CommandGate, EachWayToBeWrongIsRefusedWholeAndCounted) {
  const Command good = ByName({"a"}, {0.3});
  struct Row {
    const char* what;
    Command command;
    Refusal refusal;
  };
  const Row rows[] = {
      {"older", With(good, [](auto& c) { c.age = milliseconds(101); }), Refusal::OLD},
      {"of tomorrow", With(good, [](auto& c) { c.age = milliseconds(-101); }), Refusal::AHEAD},
      {"more names", ByName({"a", "b"}, {0.3}), Refusal::SIZE},
      {"more values", ByName({"a"}, {0.3, 0.3}), Refusal::SIZE},
      {"nothing", ByName({}, {}), Refusal::SIZE},
      {"huge", With(ByName({}, {}), [](auto& c) { c.is_too_large = true; }), Refusal::SIZE},
      {"one motor", ByMotor({50}), Refusal::SIZE},
      {"three motors", ByMotor({50, 50, 50}), Refusal::SIZE},
      {"unknown", ByName({"a", "c"}, {0.3, 0.3}), Refusal::UNKNOWN_NAME},
      {"twice", ByName({"a", "a"}, {0.3, 0.3}), Refusal::REPEATED_NAME},
      {"coupled", ByName({"a", "coupled"}, {0.3, 0.3}), Refusal::NOT_COMMANDABLE},
      {"fixed", ByName({"fixed"}, {0.2}), Refusal::NOT_COMMANDABLE},
      {"no number", ByName({"a", "b"}, {0.3, kNan}), Refusal::NOT_FINITE},
      {"infinite", ByMotor({-kInfinity, 1}), Refusal::NOT_FINITE},
      {"velocity", With(good, [](auto& c) { c.has_velocity_or_effort = true; }),
       Refusal::VELOCITY_OR_EFFORT},
      {"beyond", ByName({"b", "a"}, {0.3, 1.01}), Refusal::BEYOND_LIMITS},
      {"below", ByName({"a"}, {-0.01}), Refusal::BEYOND_LIMITS},
      {"motor beyond", ByMotor({50, 101}), Refusal::BEYOND_LIMITS},
      {"not together", ByName({"a", "b"}, {1, 1}), Refusal::NOT_TOGETHER},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    CommandGate gate = Gate();
    EXPECT_EQ(gate.Take(row.command, kStart), row.refusal);
    EXPECT_EQ(gate.Refused(row.refusal), 1U);
    EXPECT_EQ(gate.Accepted(), 0U);
    EXPECT_EQ(gate.State(), Arming::FRESH);
    EXPECT_FALSE(gate.Walk(kStart, Seconds(1)));
    EXPECT_FALSE(gate.Take(good, kStart)) << "a good one is taken afterwards";
  }
}

TEST(CommandGate, NothingMovesUnlessAllowedAndMeasured) {
  CommandGate forbidding = Gate(GateSettings());
  EXPECT_EQ(forbidding.Take(ByName({"a"}, {0.3}), kStart), Refusal::NOT_ALLOWED);
  CommandGate blind(Joints(), Motors(), Allowing());
  EXPECT_EQ(blind.Take(ByName({"a"}, {0.3}), kStart), Refusal::NO_POSITION);
  EXPECT_FALSE(blind.Walk(kStart, Seconds(1)));
}

TEST(CommandGate, OptionsClampAndTakeAnyAge) {
  GateSettings settings = Allowing();
  settings.clamp = true;
  settings.check_age = false;
  CommandGate gate = Gate(settings);
  EXPECT_FALSE(
      gate.Take(With(ByName({"b"}, {-5}), [](auto& c) { c.age = std::chrono::hours(5); }), kStart));
  EXPECT_EQ(gate.Walk(kStart, Seconds(1))->values, (std::vector<double>{0.2, -1, 0.2}));
  EXPECT_EQ(gate.Take(ByName({"b"}, {kNan}), kStart), Refusal::NOT_FINITE);
}

TEST(CommandGate, WalksAtTheGreatestSpeedAndKeepsWhatIsNotNamed) {
  CommandGate gate = Gate();
  EXPECT_FALSE(gate.Take(ByName({"a"}, {1}), kStart));
  EXPECT_NEAR(gate.Walk(kStart, Seconds(0.1))->values[0], 0.5, 1e-9);
  EXPECT_FALSE(gate.Take(ByName({"b"}, {-0.1}), kStart));
  const auto values = gate.Walk(kStart, Seconds(0.1))->values;
  EXPECT_NEAR(values[0], 0.8, 1e-9) << "its last target still counts";
  EXPECT_NEAR(values[1], -0.1, 1e-9);
  EXPECT_EQ(values[2], 0.2);
  EXPECT_FALSE(gate.Take(ByMotor({100, 20}), kStart));
  const auto step = gate.Walk(kStart, Seconds(0.1));
  EXPECT_EQ(step->space, Space::MOTORS);
  EXPECT_EQ(step->values, (std::vector<double>{15, 20})) << "from where the motors are";
}

TEST(CommandGate, ASpeedThatIsNoNumberMovesNothing) {
  SpaceRules joints = Joints();
  joints.speed = kNan;
  CommandGate gate(joints, Motors(), Allowing());
  gate.Measured({0.2, 0.2, 0.2}, {10, 20});
  EXPECT_FALSE(gate.Take(ByName({"a"}, {0.9}), kStart));
  EXPECT_FALSE(gate.Walk(kStart, Seconds(0.1)));
}

TEST(CommandGate, SilenceEndsMotionAndAnotherMayCommand) {
  CommandGate gate = Gate();
  const Command own = ByName({"a"}, {1});
  const Command others = With(own, [](auto& c) { c.commander = 2; });
  EXPECT_FALSE(gate.Take(own, kStart));
  EXPECT_EQ(gate.Take(others, kStart + milliseconds(250)), Refusal::OTHER_COMMANDER);
  EXPECT_TRUE(gate.Walk(kStart + milliseconds(250), Seconds(0.01)));
  EXPECT_FALSE(gate.IsSilent());
  EXPECT_FALSE(gate.Walk(kStart + milliseconds(251), Seconds(0.01)));
  EXPECT_TRUE(gate.IsSilent());
  gate.Measured({0.6, 0.2, 0.2}, {10, 20});
  EXPECT_FALSE(gate.Take(others, kStart + milliseconds(252)));
  EXPECT_EQ(gate.Commander(), 2U);
  EXPECT_NEAR(gate.Walk(kStart + milliseconds(252), Seconds(0.1))->values[0], 0.9, 1e-9)
      << "from where the hand is now";
}

TEST(CommandGate, AFaultDisarmsUntilItIsClearAndACommandIsNear) {
  for (const bool was_lost : {false, true}) {
    CommandGate gate = Gate();
    EXPECT_FALSE(gate.Take(ByName({"a"}, {1}), kStart));
    was_lost ? gate.Lost() : gate.SetFault(true);
    EXPECT_EQ(gate.State(), Arming::FAULTED);
    EXPECT_FALSE(gate.Walk(kStart, Seconds(1)));
    EXPECT_EQ(gate.Take(ByName({"a"}, {0.2}), kStart),
              was_lost ? Refusal::NO_POSITION : Refusal::FAULT);
    gate.SetFault(false);
    gate.Measured({0.6, 0.2, 0.2}, {10, 20});
    EXPECT_EQ(gate.Take(ByName({"a"}, {0.71}), kStart), Refusal::FAR);
    EXPECT_FALSE(gate.Walk(kStart, Seconds(1)));
    EXPECT_FALSE(gate.Take(ByName({"a"}, {0.65}), kStart));
    EXPECT_FALSE(gate.Take(ByName({"a"}, {1}), kStart)) << "armed again";
  }
  CommandGate fresh = Gate();
  fresh.SetFault(true);
  EXPECT_EQ(fresh.Take(ByName({"a"}, {1}), kStart), Refusal::FAULT);
  fresh.SetFault(false);
  EXPECT_FALSE(fresh.Take(ByName({"a"}, {1}), kStart)) << "nothing was under way";
}

TEST(Mailbox, KeepsTheNewestOfEachCommanderAndNotOfTooMany) {
  Mailbox mailbox;
  mailbox.Put(ByName({"a"}, {1}), 0);
  for (std::uint64_t i = 0; i < 100; ++i) {
    mailbox.Put(With(ByName({"a"}, {2}), [&](auto& c) { c.commander = 2 + i / 2; }), 5);
  }
  mailbox.Put(ByName({"a"}, {3}), 1'000'000);
  const auto commands = mailbox.TakeAll(3'000'000);
  ASSERT_EQ(commands.size(), 16U);
  EXPECT_EQ(commands[0].values[0], 3);
  EXPECT_DOUBLE_EQ(commands[0].age.count(), 0.002);
  EXPECT_EQ(mailbox.Superseded(), 86U);
  EXPECT_TRUE(mailbox.TakeAll(0).empty());
}

TEST(Health, TheWorstIsTold) {
  struct Row {
    void (*change)(Health&);
    Level level;
    const char* text;
  };
  const Row rows[] = {
      {[](Health&) {}, Level::OK, "reading"},
      {[](Health& h) { h.failed_recently = 1; }, Level::WARN, "some requests failed: "},
      {[](Health& h) { h.qos_mismatches = 1; }, Level::WARN,
       "a publisher or subscriber has another quality of service"},
      {[](Health& h) { h.is_silent = true; }, Level::STALE, "no commands any more; the hand holds"},
      {[](Health& h) { h.arming = Arming::FAULTED; }, Level::ERROR,
       "disarmed by a fault; a command close to where the hand stands arms it again"},
      {[](Health& h) {
         h.errors = {0, 3, 0x10};
       },
       Level::ERROR, "motor 2 stalled, overheated; motor 3 communication fault"},
      {[](Health& h) {
         h.link = kv::LinkKind::SERIAL;
         h.errors = {1, 1};
       },
       Level::ERROR, "motor 1 error; motor 2 error"},
      {[](Health& h) { h.answers = false; }, Level::ERROR, "the hand doesn't answer: "},
      {[](Health& h) { h.is_open = false; }, Level::ERROR, "the hand has gone: "},
  };
  Health health;
  health.allows_commands = true;
  for (const Row& row : rows) {  // each is worse than those before
    row.change(health);
    const Status status = ToStatus(health);
    EXPECT_EQ(status.level, row.level) << row.text;
    EXPECT_EQ(status.message, row.text);
  }
  EXPECT_TRUE(HasErrors({0, 0x10}));
  EXPECT_FALSE(HasErrors({0x20, 0}));
}

TEST(Kinematics, AJointThatIsNotNamedKeepsItsMotorToTheUnit) {
  const auto hand = kv::KorvaneTessel::createHandSocketCan(kv::HandType::LEFT, 1, "none");
  const Kinematics kinematics = korvane_common::KinematicsOf(*hand);
  const SpaceRules rules = JointRules(kv::Model::TESSEL, kv::HandType::LEFT, "left_", 3);
  const Pose standing(12, 1003);
  auto angles = kinematics.held(AnglesOf(kinematics, standing));
  angles[10] += 0.2;
  angles[0] = 0.3;  // any target would drive motor 6 to its end
  Pose expected = standing;
  expected[8] = PoseWith(kinematics, rules, angles, standing)[8];
  EXPECT_NE(expected[8], standing[8]);
  EXPECT_EQ(PoseWith(kinematics, rules, angles, standing), expected);
  EXPECT_FALSE(rules.axes[0].can_be_commanded);
  EXPECT_EQ(rules.axes[0].name.rfind("left_", 0), 0U);
}

TEST(Options, HandsHaveTheNamespaceOfTheirSideOrTheirOwn) {
  struct Row {
    const char* text;
    const char* space;  // null: refused
  };
  const Row rows[] = {
      {"can0:brisa:1", "/korvane/right"},
      {"can0:brisa:1?side=left", "/korvane/left"},
      {"zlg:sn=12.1:brisa:1=/a/b_2", "/a/b_2"},
      {"can0=/2a", nullptr},
      {"can0=/a//b", nullptr},
      {"can0=/a__b", nullptr},
      {"can0=/a/", nullptr},
      {"can0=/", nullptr},
      {"can0:nothing=/a", nullptr},
  };
  for (const Row& row : rows) {
    if (row.space == nullptr) {
      EXPECT_THROW(ParseHand(row.text), ProgramError) << row.text;
    } else {
      EXPECT_EQ(ParseHand(row.text).name_space, row.space);
    }
  }
}

}  // namespace
}  // namespace korvane_ros2
