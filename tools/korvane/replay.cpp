#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "motion.h"
#include "recorded_path.h"
#include "samples.h"
#include "tool.h"

namespace korvane_tool {
namespace {

/// The hand takes this long to where the recording begins, so that it doesn't jump.
constexpr double kLeadIn = 1.0;

/// The pose that is nearest to `wanted` and at most `step` from `from`, motor by motor.
Pose Limited(const Pose& from, Pose wanted, double step) {
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    const double way = std::clamp<double>(wanted[i] - from[i], -step, step);
    wanted[i] = static_cast<short>(std::lround(from[i] + way));
  }
  return wanted;
}

class Replay : public Command {
 public:
  explicit Replay(Options options) {
    options.Add("file", path_, "A recording that `korvane record` made").Required().Value("FILE");
    options.Add("--speed", speed_, "2 is twice as fast")
        .Within(0.01, 100.0)
        .Value("FACTOR")
        .ShowDefault();
    options
        .Add("--max-speed", max_speed_,
             "Position units that no motor goes beyond in a second; "
             "without this a whole range in half a second")
        .Within(100.0, 1e6)
        .Value("UNITS/S");
    options
        .Add("--by", by_,
             "Whether positions or angles are played; without this positions on the same "
             "model, angles on another one that has them")
        .OneOf({"positions", "angles"})
        .Value("KEY");
    options
        .Add("--map", map_,
             "Which recorded position goes to which motor, such as 1=3; repeatable. Motors "
             "that aren't named stay")
        .SplitAtCommas()
        .Value("RECORDED=MOTOR");
    options.AddFlag("--check", check_,
                    "Only check that the recording fits the hand; nothing moves");
  }

  int Run(Tool& tool) override {
    const Recording recording = ReadRecording(path_);
    std::vector<OpenedHand> hands;
    hands.push_back(tool.Open());
    const OpenedHand& hand = hands.front();
    const Pose start = PoseOf(hand);
    const Mapping mapping(recording, hand, by_, map_);
    const Path path = Plan(recording, mapping, start, speed_);
    tool.Print(fmt::format("{} samples over {:.1f} s on {}: {}\n", path.times.size(), path.Length(),
                           hand.address.ToString(), mapping.Describe()));
    if (check_) return PrintThatItFits(tool, hand, path);
    const Interrupt interrupt;
    Mover mover(hands, interrupt);
    return MoveAndTell(tool, hands, mover, [&] {
      return mover.Glide(kLeadIn, {start}, {path.poses.front()}) && Play(mover, hand, path);
    });
  }

 private:
  int PrintThatItFits(const Tool& tool, const OpenedHand& hand, const Path& path) const {
    Json document = ToJson(hand.address);
    document["file"] = path_;
    document["samples"] = path.times.size();
    document["seconds"] = path.Length();
    tool.PrintJson(document);
    return kDone;
  }

  /// Plays a path; a motor that is to go faster than it may comes late.
  bool Play(Mover& mover, const OpenedHand& hand, const Path& path) const {
    const double limit = max_speed_ > 0 ? max_speed_ : 2.0 * hand.Info().position_max;
    Pose last = path.poses.front();
    double last_time = 0;
    if (!mover.Run(path.Length(), [&](std::size_t, double time) {
          last = Limited(last, path.At(time), limit * (time - last_time));
          last_time = time;
          return last;
        })) {
      return false;
    }
    return mover.Glide(GreatestWay(last, path.poses.back()) / limit, {last}, {path.poses.back()}) &&
           mover.Settle();
  }

  static double GreatestWay(const Pose& from, const Pose& to) {
    int way = 0;
    for (std::size_t i = 0; i < from.size(); ++i) way = std::max(way, std::abs(to[i] - from[i]));
    return way;
  }

  std::string path_;
  double speed_ = 1;
  double max_speed_ = 0;
  std::string by_;
  std::vector<std::string> map_;
  bool check_ = false;
};

}  // namespace

std::unique_ptr<Command> MakeReplay(Options options) { return std::make_unique<Replay>(options); }

}  // namespace korvane_tool
