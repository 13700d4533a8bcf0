#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands.h"
#include "common/whole_number.h"
#include "interrupt.h"
#include "motion.h"
#include "tool.h"

namespace korvane_tool {
namespace {

/// "3=1200": a name and a number.
std::pair<std::string, double> Assignment(const std::string& text) {
  const auto sign = text.find('=');
  const auto number = sign == std::string::npos ? std::nullopt : NumberIn(text.substr(sign + 1));
  if (!number) {
    throw ToolError(kUsage,
                    fmt::format("\"{}\": expected a name, an equals sign and a number", text));
  }
  return {text.substr(0, sign), *number};
}

int MotorNamed(const ModelInfo& model, const std::string& text) {
  const auto motor = WholeNumberIn(text, 1, model.positions);
  if (!motor) {
    throw ToolError(kUsage, fmt::format("a {} has the motors 1 to {}, not {}", model.name,
                                        model.positions, text));
  }
  return *motor;
}

/// Of two targets for one neither is meant more than the other.
template <class Name>
void NeedNew(std::set<Name>& named, const Name& name, const char* what) {
  if (!named.insert(name).second) {
    throw ToolError(kUsage, fmt::format("{} {} is named twice", what, name));
  }
}

/// A pose in one text, as --to and --end take it.
Pose NamedPose(const OpenedHand& hand, const std::string& text, const Pose& start) {
  if (text == "start") return start;
  constexpr std::string_view kGesture = "gesture:";
  if (text.rfind(kGesture, 0) == 0) {
    constexpr int kMost = std::numeric_limits<int>::max();
    return GesturePose(hand, WholeNumberIn(text.substr(kGesture.size()), 0, kMost).value_or(-1));
  }
  std::vector<double> positions;
  for (const std::string& part : SplitAtCommas(text)) {
    const auto number = NumberIn(part);
    if (!number) {
      throw ToolError(kUsage,
                      fmt::format("\"{}\" is no pose: expected start, gesture:N, one position for "
                                  "all motors, or one for each with commas",
                                  text));
    }
    positions.push_back(*number);
  }
  if (positions.size() == 1) {
    positions.resize(static_cast<std::size_t>(hand.Info().positions), positions.front());
  }
  return CheckedPose(hand.Info(), positions);
}

class Move : public Command {
 public:
  explicit Move(Options options) {
    options
        .Add("--to", to_,
             "Where to: gesture:N, one position for all motors, or one for each with commas")
        .Value("POSE");
    options.Add("--motor", motors_, "One motor's position, such as 3=1200; repeatable")
        .Value("MOTOR=POSITION");
    options
        .Add("--joint", joints_,
             "One joint's angle in rad, such as index_flexion=0.8; repeatable. "
             "`korvane info` lists the joints")
        .Value("JOINT=ANGLE");
    options.Add("--gesture", gesture_, "A gesture of the model").Value("N");
    options
        .Add("--seconds", seconds_,
             "How long the way takes; without this the hand goes as fast as it can")
        .Within(0.0, 3600.0)
        .Value("S");
    options.Add("--hold", hold_, "How long it stays there before it goes to --end")
        .Within(0.0, 3600.0)
        .Value("S")
        .ShowDefault();
    options.Add("--end", end_, "Where it ends: stay, start (where it stood before), or a POSE")
        .Value("POSE")
        .ShowDefault();
  }

  int Run(Tool& tool) override {
    CheckOptions();
    std::vector<OpenedHand> hands;
    for (const HandAddress& address : tool.Addresses()) hands.push_back(tool.Open(address));
    // Everything is checked for every hand before any of them moves.
    std::vector<Pose> start;
    std::vector<Pose> target;
    std::vector<Pose> end;
    for (const OpenedHand& hand : hands) {
      start.push_back(PoseOf(hand));
      target.push_back(Target(hand, start.back()));
      end.push_back(end_ == "stay" ? target.back() : NamedPose(hand, end_, start.back()));
    }
    const Interrupt interrupt;
    Mover mover(hands, interrupt);
    return MoveAndTell(tool, hands, mover,
                       [&] { return MoveAll(mover, interrupt, start, target, end); });
  }

 private:
  void CheckOptions() const {
    const int ways = (to_.empty() ? 0 : 1) + (gesture_ ? 1 : 0) + (motors_.empty() ? 0 : 1) +
                     (joints_.empty() ? 0 : 1);
    if (ways != 1) {
      throw ToolError(kUsage, "where to? One of --gesture, --motor, --joint or --to");
    }
  }

  Pose Target(const OpenedHand& hand, const Pose& start) const {
    if (!hand.Info().has_motors)
      throw ToolError(kUsage, fmt::format("a {} has no motors", hand.Info().name));
    if (gesture_) return GesturePose(hand, *gesture_);
    if (!to_.empty()) return NamedPose(hand, to_, start);
    return joints_.empty() ? WithMotors(hand, start) : WithJoints(hand, start);
  }

  Pose WithMotors(const OpenedHand& hand, const Pose& start) const {
    std::vector<double> positions = PositionsWithin(hand.Info(), start);
    std::set<int> named;
    for (const std::string& text : motors_) {
      const auto [name, position] = Assignment(text);
      const int motor = MotorNamed(hand.Info(), name);
      NeedNew(named, motor, "motor");
      positions[static_cast<std::size_t>(motor) - 1] = position;
    }
    return CheckedPose(hand.Info(), positions);
  }

  Pose WithJoints(const OpenedHand& hand, const Pose& start) const {
    std::vector<std::string> names;
    std::vector<double> angles;
    std::set<std::string> named;
    for (const std::string& text : joints_) {
      const auto [name, angle] = Assignment(text);
      NeedNew(named, name, "joint");
      names.push_back(name);
      angles.push_back(angle);
    }
    return WithAngles(hand, start, names, angles, BeyondLimits::REFUSED);
  }

  bool MoveAll(Mover& mover, const Interrupt& interrupt, const std::vector<Pose>& start,
               const std::vector<Pose>& target, const std::vector<Pose>& end) const {
    if (!mover.Glide(seconds_, start, target) || !mover.Settle()) return false;
    if (end == target) return true;
    return !interrupt.WaitFor(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
               std::chrono::duration<double>(hold_))) &&
           mover.Glide(seconds_, target, end) && mover.Settle();
  }

  std::string to_;
  std::vector<std::string> motors_;
  std::vector<std::string> joints_;
  std::optional<int> gesture_;
  double seconds_ = 0;
  double hold_ = 1;
  std::string end_ = "stay";
};

}  // namespace

std::unique_ptr<Command> MakeMove(Options options) { return std::make_unique<Move>(options); }

}  // namespace korvane_tool
