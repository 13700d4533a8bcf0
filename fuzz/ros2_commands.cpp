// Commands that come over DDS: whatever they say, the hand is told positions within its limits
// only, and goes no faster than it may.

#include <cmath>

#include "can_hands.h"
#include "joint_rules.h"
#include "messages.h"
#include "ros2.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;
using namespace korvane_common;
using namespace korvane_ros2;

namespace {

double Value(Input& input, const SpaceRules& rules) {
  const std::uint8_t kind = input.Byte();
  if (kind % 4 == 0 || rules.axes.empty()) return input.Take<double>();
  const Axis& axis = input.Of(rules.axes);
  return axis.lower + (axis.upper - axis.lower) * kind / 255;
}

template <class Sequence, class Value>
void Hand(Sequence& sequence, std::vector<Value>& values) {
  const auto count = static_cast<std::uint32_t>(values.size());
  sequence = {count, count, values.data(), false};
}

/// A message as Cyclone hands it over: sequences of some length, and texts.
Command CommandOf(Input& input, Space space, const SpaceRules& rules) {
  std::vector<double> values(input.Below(70));
  for (double& value : values) value = Value(input, rules);
  if (space == Space::MOTORS) {
    std_msgs_msg_dds__Float64MultiArray_ message{};
    Hand(message.data, values);
    return ToCommand(space, &message);
  }
  std::vector<std::string> names(input.Flag() ? values.size() : input.Below(70));
  std::vector<char*> texts;
  for (auto& name : names) {
    const bool any = input.Flag() || rules.axes.empty();
    name = any ? input.Block<std::string>(8) : input.Of(rules.axes).name;
    texts.push_back(name.data());
  }
  sensor_msgs_msg_dds__JointState_ message{};
  Hand(message.name, texts);
  Hand(message.position, values);
  if (input.Byte() == 1) message.velocity = message.position;
  return ToCommand(space, &message);
}

void RequireWithin(const Step& step, const SpaceRules& rules) {
  for (const Axis& axis : rules.axes) {
    if (axis.index < 0 || !axis.can_be_commanded) continue;
    const double value = step.values.at(static_cast<std::size_t>(axis.index));
    Require(value >= axis.lower - 1e-9 && value <= axis.upper + 1e-9);
  }
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const auto model = static_cast<Model>(input.Below(5));
  const auto side = static_cast<HandType>(input.Below(2));
  const auto hand = kMakers[static_cast<std::size_t>(model)](side, kId, nullptr);
  const Kinematics kinematics = KinematicsOf(*hand);
  const SpaceRules rules[] = {JointRules(model, side, "", 2), MotorRules(model, 1000)};
  CommandGate gate(rules[0], rules[1], {true, input.Flag()});
  const Pose pose(static_cast<std::size_t>(InfoOf(model).positions), 500);
  const bool has_joints = static_cast<bool>(kinematics);
  const auto measure = [&] {
    gate.Measured(has_joints ? kinematics.held(AnglesOf(kinematics, pose)) : std::vector<double>(),
                  {pose.begin(), pose.end()});
  };
  measure();
  Instant now{};
  while (!input.IsOver()) {
    const auto space = static_cast<Space>(input.Below(2));
    Command command = CommandOf(input, space, rules[static_cast<std::size_t>(space)]);
    command.commander = input.Below(2);
    command.age = Seconds(input.Byte() == 1 ? input.Take<double>() : 0.0);
    const std::uint8_t event = input.Byte();
    if (event == 1) gate.SetFault(input.Flag());
    if (event == 2) {
      gate.Lost();
      Require(!gate.Walk(now, Seconds(0.01)));
      measure();
    }
    const auto refusal = gate.Take(command, now);
    Require(!refusal || (gate.Refused(*refusal) > 0 && *TextOf(*refusal).text != '\0'));
    now += std::chrono::milliseconds(input.Byte());
    const auto step = gate.Walk(now, Seconds(0.01));
    if (!step) continue;
    RequireWithin(*step, rules[static_cast<std::size_t>(step->space)]);
    if (step->space != Space::JOINTS) continue;
    for (const short position : PoseWith(kinematics, rules[0], step->values, pose)) {
      Require(position >= 0 && position <= InfoOf(model).position_max);
    }
  }
}
