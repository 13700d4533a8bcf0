#include "recorded_path.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "common/whole_number.h"

namespace korvane_tool {

namespace kv = talvera::korvane;

Pose Path::At(double time) const {
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

Mapping::Mapping(const Recording& recording, const OpenedHand& hand, std::string by,
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
  } else if (pairs.empty()) {
    MapByOrder(same);
  } else {
    MapPairs(pairs);
  }
}

Pose Mapping::PoseOf(const Sample& sample, const Pose& start) const {
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

std::string Mapping::Describe() const {
  return fmt::format("{} of a {}{}", by_, ToString(recording_.head.model),
                     by_ == "angles" ? ", by the names of joints" : "");
}

bool Mapping::HasAngles() const {
  return recording_.IndexOf("angles") >= 0 &&
         !kv::JointsOf(hand_.Info().model, hand_.address.side).empty();
}

std::size_t Mapping::Recorded() const {
  return recording_.samples.front().values[static_cast<std::size_t>(index_)].size();
}

/// Joints of one name correspond, whatever the models are.
void Mapping::MapAngles() {
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
void Mapping::MapByOrder(bool same_model) {
  if (Recorded() != static_cast<std::size_t>(hand_.Info().positions)) {
    throw ToolError(kUsage,
                    fmt::format("the recording has {} positions of a {}, and a {} has {}: say with "
                                "--map which goes where, such as --map 1=3",
                                Recorded(), ToString(recording_.head.model), hand_.Info().name,
                                hand_.Info().positions));
  }
  if (!same_model && recording_.head.model != Model::QUILL) {
    throw ToolError(
        kUsage,
        fmt::format("which motor of a {} corresponds to which of a {} isn't known: say with --map",
                    ToString(recording_.head.model), hand_.Info().name));
  }
  for (std::size_t i = 0; i < Recorded(); ++i) {
    sources_.push_back(i);
    targets_.push_back(i);
  }
}

void Mapping::MapPairs(const std::vector<std::string>& pairs) {
  for (const std::string& pair : pairs) {
    const auto sign = pair.find('=');
    const auto from = WholeNumberIn(pair.substr(0, sign), 1, static_cast<int>(Recorded()));
    const auto to = sign == std::string::npos
                        ? std::nullopt
                        : WholeNumberIn(pair.substr(sign + 1), 1, hand_.Info().positions);
    if (!from || !to) {
      throw ToolError(kUsage,
                      fmt::format("--map {}: expected RECORDED=MOTOR, of 1 to {} and 1 to {}", pair,
                                  Recorded(), hand_.Info().positions));
    }
    const auto target = static_cast<std::size_t>(*to) - 1;
    if (std::find(targets_.begin(), targets_.end(), target) != targets_.end()) {
      throw ToolError(kUsage, fmt::format("--map {}: motor {} is named twice", pair, *to));
    }
    sources_.push_back(static_cast<std::size_t>(*from) - 1);
    targets_.push_back(target);
  }
}

Path Plan(const Recording& recording, const Mapping& mapping, const Pose& start, double speed) {
  Path path;
  const double begin = recording.samples.front().time_s;
  for (const Sample& sample : recording.samples) {
    path.times.push_back((sample.time_s - begin) / speed);
    path.poses.push_back(mapping.PoseOf(sample, start));
  }
  return path;
}

}  // namespace korvane_tool
