#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "motion.h"
#include "samples.h"
#include "tool.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

/// The hand takes this long to where the recording begins, so that it doesn't jump.
constexpr double kLeadIn = 1.0;

/// A recording as poses of one hand.
struct Path {
  std::vector<double> times;  ///< From 0.
  std::vector<Pose> poses;

  double Length() const { return times.back(); }

  /// Between the samples on both sides of `time`.
  Pose At(double time) const {
    const auto after = std::upper_bound(times.begin(), times.end(), time);
    if (after == times.end()) return poses.back();
    const auto i = static_cast<std::size_t>(after - times.begin());
    if (i == 0) return poses.front();
    const double part = (time - times[i - 1]) / (times[i] - times[i - 1]);
    Pose pose = poses[i];
    for (std::size_t motor = 0; motor < pose.size(); ++motor) {
      const double from = poses[i - 1][motor];
      pose[motor] = static_cast<short>(std::lround(from + (pose[motor] - from) * part));
    }
    return pose;
  }
};

/// What of a recorded sample goes to which motor or joint.
class Mapping {
 public:
  Mapping(const Recording& recording, const OpenedHand& hand, std::string by,
          const std::vector<std::string>& pairs)
      : recording_(recording), hand_(hand), by_(std::move(by)) {
    if (!hand.Info().has_motors)
      throw ToolError(kUsage, fmt::format("a {} has no motors", hand.Info().name));
    const bool same = recording.head.model == hand.Info().model;
    if (by_.empty()) by_ = !pairs.empty() || same || !HasAngles() ? "positions" : "angles";
    index_ = recording.IndexOf(by_);
    if (index_ < 0) throw ToolError(kUsage, fmt::format("the recording holds no {}", by_));
    if (by_ == "angles") {
      MapAngles();
    } else {
      pairs.empty() ? MapByOrder(same) : MapPairs(pairs);
    }
  }

  Pose PoseOf(const Sample& sample, const Pose& start) const {
    const auto& values = sample.values[static_cast<std::size_t>(index_)];
    if (by_ == "angles") {
      std::vector<double> angles;
      for (const std::size_t source : sources_) angles.push_back(values[source]);
      // What was measured, maybe on another model, may lie beyond what may be commanded.
      return WithAngles(hand_, start, names_, angles, BeyondLimits::HELD);
    }
    std::vector<double> positions(start.begin(), start.end());
    for (std::size_t i = 0; i < sources_.size(); ++i) {
      const double scale = static_cast<double>(hand_.Info().position_max) /
                           kv::InfoOf(recording_.head.model).position_max;
      positions[targets_[i]] =
          std::clamp<double>(values[sources_[i]] * scale, 0, hand_.Info().position_max);
    }
    return CheckedPose(hand_.Info(), positions);
  }

  /// "positions of a quill, in their order"
  std::string Describe() const {
    return fmt::format("{} of a {}{}", by_, ToString(recording_.head.model),
                       by_ == "angles" ? ", by the names of joints" : "");
  }

 private:
  bool HasAngles() const {
    return recording_.IndexOf("angles") >= 0 &&
           !kv::JointsOf(hand_.Info().model, hand_.address.side).empty();
  }
  std::size_t Recorded() const {
    return recording_.samples.front().values[static_cast<std::size_t>(index_)].size();
  }

  /// Joints of one name correspond, whatever the models are.
  void MapAngles() {
    const auto& from = kv::JointsOf(recording_.head.model, recording_.head.side);
    for (const auto& joint : kv::JointsOf(hand_.Info().model, hand_.address.side)) {
      const auto source = std::find_if(from.begin(), from.end(),
                                       [&](const auto& other) { return other.name == joint.name; });
      if (!joint.can_be_commanded || source == from.end()) continue;
      const auto place = static_cast<std::size_t>(source - from.begin());
      if (place >= Recorded()) continue;
      sources_.push_back(place);
      names_.push_back(joint.name);
    }
    if (names_.empty())
      throw ToolError(kUsage, "no joint of the recording has the name of one of the hand's");
  }

  /// Models with as many values correspond one by one; others only as --map says.
  void MapByOrder(bool same_model) {
    if (Recorded() != static_cast<std::size_t>(hand_.Info().positions)) {
      throw ToolError(
          kUsage, fmt::format("the recording has {} positions of a {}, and a {} has {}: say with "
                              "--map which goes where, such as --map 1=3",
                              Recorded(), ToString(recording_.head.model), hand_.Info().name,
                              hand_.Info().positions));
    }
    if (!same_model && recording_.head.model != Model::QUILL) {
      throw ToolError(
          kUsage,
          fmt::format(
              "which motor of a {} corresponds to which of a {} isn't known: say with --map",
              ToString(recording_.head.model), hand_.Info().name));
    }
    for (std::size_t i = 0; i < Recorded(); ++i) {
      sources_.push_back(i);
      targets_.push_back(i);
    }
  }

  void MapPairs(const std::vector<std::string>& pairs) {
    for (const std::string& pair : pairs) {
      const auto sign = pair.find('=');
      const double from = NumberIn(pair.substr(0, sign)).value_or(0);
      const double to = sign == std::string::npos ? 0 : NumberIn(pair.substr(sign + 1)).value_or(0);
      const bool good = from >= 1 && from <= static_cast<double>(Recorded()) && to >= 1 &&
                        to <= hand_.Info().positions;
      if (!good) {
        throw ToolError(
            kUsage, fmt::format("--map {}: expected RECORDED=MOTOR, of 1 to {} and 1 to {}", pair,
                                Recorded(), hand_.Info().positions));
      }
      sources_.push_back(static_cast<std::size_t>(from) - 1);
      targets_.push_back(static_cast<std::size_t>(to) - 1);
    }
  }

  const Recording& recording_;
  const OpenedHand& hand_;
  std::string by_;
  int index_ = -1;
  std::vector<std::size_t> sources_;
  std::vector<std::size_t> targets_;
  std::vector<std::string> names_;
};

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
    const Path path = Plan(recording, mapping, start);
    tool.Print(fmt::format("{} samples over {:.1f} s on {}: {}\n", path.times.size(), path.Length(),
                           hand.address.ToString(), mapping.Describe()));
    if (check_) return kDone;
    const Interrupt interrupt;
    Mover mover(hands, interrupt);
    return MoveAndTell(tool, hands, mover, [&] {
      return mover.Glide(kLeadIn, {start}, {path.poses.front()}) && Play(mover, hand, path);
    });
  }

 private:
  Path Plan(const Recording& recording, const Mapping& mapping, const Pose& start) const {
    Path path;
    const double begin = recording.samples.front().time_s;
    for (const Sample& sample : recording.samples) {
      path.times.push_back((sample.time_s - begin) / speed_);
      path.poses.push_back(mapping.PoseOf(sample, start));
    }
    return path;
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
