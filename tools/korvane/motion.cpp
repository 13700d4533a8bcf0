#include "motion.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "quantities.h"
#include "samples.h"
#include "terminal.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using Clock = std::chrono::steady_clock;

constexpr double kRate = 50;
constexpr int kFailuresInARow = 3;
constexpr double kSettleRate = 20;
constexpr int kSettleReadings = 60;  // 3 s
constexpr int kStillReadings = 4;

/// A usage error for a model without known kinematics.
Kinematics NeedKinematics(const OpenedHand& hand) {
  Kinematics kinematics = KinematicsOf(*hand.hand);
  if (kinematics) return kinematics;
  throw ToolError(kUsage, fmt::format("the joint angles of a {} aren't known; name its motors",
                                      hand.Info().name));
}

std::string NamesOfJoints(const std::vector<kv::JointInfo>& joints) {
  std::string names;
  for (const auto& joint : joints) {
    if (joint.can_be_commanded) names += (names.empty() ? "" : ", ") + joint.name;
  }
  return names;
}

/// The angle as it may be commanded.
double Allowed(const OpenedHand& hand, const kv::JointInfo& joint, double angle,
               BeyondLimits beyond) {
  if (!joint.can_be_commanded) {
    throw ToolError(kUsage,
                    fmt::format("joint {} of a {} {} can't be commanded", joint.name,
                                joint.active_index < 0 ? "coupled" : "left", hand.Info().name));
  }
  const bool within = angle >= joint.lower && angle <= joint.upper;
  if (!within && (beyond == BeyondLimits::REFUSED || std::isnan(angle))) {
    throw ToolError(kUsage, fmt::format("{} rad is beyond the limits of {}, {} to {}", angle,
                                        joint.name, joint.lower, joint.upper));
  }
  return std::clamp(angle, joint.lower, joint.upper);
}

Pose Between(const Pose& from, const Pose& to, double part) {
  Pose pose(to);
  for (std::size_t i = 0; i < pose.size(); ++i) {
    pose[i] = static_cast<short>(std::lround(from[i] + (to[i] - from[i]) * part));
  }
  return pose;
}

/// Where each hand stands, and the errors of its motors.
Json Standing(const std::vector<OpenedHand>& hands) {
  Json all = Json::array();
  for (const OpenedHand& hand : hands) {
    Json json = ToJson(hand.address);
    for (const char* const key : {"positions", "angles", "errors"}) {
      const auto values = Read(hand, QuantityNamed(key));
      if (values) {
        json[key] = NumbersOf(*values);
      } else if (values.failure().kind != FailureKind::NOT_SUPPORTED) {
        json["failure"] = ToJson(values.failure());
        break;
      }
    }
    all.push_back(json);
  }
  return all;
}

std::string Text(const Json& hands) {
  std::string text;
  for (const Json& hand : hands) {
    text += hand["address"].get<std::string>();
    if (hand.contains("positions"))
      text +=
          fmt::format(" stands at {}", fmt::join(hand["positions"].get<std::vector<int>>(), ","));
    if (hand.contains("failure")) {
      text +=
          Coloured(" doesn't say where it stands: " + hand["failure"]["text"].get<std::string>(),
                   Colour::BAD);
    }
    text += "\n";
    for (std::size_t i = 0; hand.contains("errors") && i < hand["errors"].size(); ++i) {
      const std::string errors = ErrorNames(hand["errors"][i].get<unsigned>());
      if (!errors.empty())
        text += Coloured(fmt::format("  motor {}: {}\n", i + 1, errors), Colour::BAD);
    }
  }
  return text;
}

}  // namespace

Pose PoseOf(const OpenedHand& hand) {
  const auto positions = Need(Read(hand, QuantityNamed("positions")));
  if (positions.size() < static_cast<std::size_t>(hand.Info().positions)) {
    throw ToolError(
        {FailureKind::BAD_REPLY, "GetAllJointMotorPosi", "the hand told too few positions", 0});
  }
  return {positions.begin(), positions.end()};
}

Pose CheckedPose(const ModelInfo& model, const std::vector<double>& positions) {
  if (!model.has_motors) throw ToolError(kUsage, fmt::format("a {} has no motors", model.name));
  if (positions.size() != static_cast<std::size_t>(model.positions)) {
    throw ToolError(kUsage, fmt::format("a {} has {} motors; {} positions were given", model.name,
                                        model.positions, positions.size()));
  }
  Pose pose;
  for (const double position : positions) {
    if (!(position >= 0 && position <= model.position_max)) {
      throw ToolError(kUsage, fmt::format("position {} is beyond the limits of a {}, 0 to {}",
                                          position, model.name, model.position_max));
    }
    pose.push_back(static_cast<short>(std::lround(position)));
  }
  return pose;
}

std::vector<double> PositionsWithin(const ModelInfo& model, const Pose& pose) {
  std::vector<double> positions;
  positions.reserve(pose.size());
  for (const short position : pose) {
    positions.push_back(std::clamp<short>(position, 0, model.position_max));
  }
  return positions;
}

Pose GesturePose(const OpenedHand& hand, int gesture) {
  const ModelInfo& model = hand.Info();
  if (gesture < 0 || gesture >= model.gestures) {
    throw ToolError(kUsage, model.gestures == 0 ? fmt::format("a {} has no gestures", model.name)
                                                : fmt::format("a {} has the gestures 0 to {}",
                                                              model.name, model.gestures - 1));
  }
  const auto inputs = NeedKinematics(hand).gesture(gesture);
  return CheckedPose(model, {inputs.begin(), inputs.end()});
}

std::vector<double> AnglesOf(const OpenedHand& hand, const Pose& pose) {
  return korvane_common::AnglesOf(NeedKinematics(hand), pose);
}

Pose WithAngles(const OpenedHand& hand, const Pose& pose, const std::vector<std::string>& names,
                const std::vector<double>& angles, BeyondLimits beyond) {
  const Kinematics kinematics = NeedKinematics(hand);
  const auto& joints = kv::JointsOf(hand.Info().model, hand.address.side);
  const std::vector<double> before = korvane_common::AnglesOf(kinematics, pose);
  std::vector<double> wanted = before;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto joint = std::find_if(joints.begin(), joints.end(), [&](const auto& candidate) {
      return candidate.name == names[i];
    });
    if (joint == joints.end()) {
      throw ToolError(kUsage, fmt::format("a {} has no joint {}; there are {}", hand.Info().name,
                                          names[i], NamesOfJoints(joints)));
    }
    wanted[static_cast<std::size_t>(joint->active_index)] =
        Allowed(hand, *joint, angles[i], beyond);
  }
  if (beyond == BeyondLimits::HELD) wanted = kinematics.held(wanted);
  if (kinematics.held(wanted) != wanted) {
    throw ToolError(kUsage,
                    "these angles don't go together: a knuckle's range is narrower where the "
                    "finger stands sideways");
  }
  const Pose result = Moved(kinematics, pose, before, wanted);
  return CheckedPose(hand.Info(), {result.begin(), result.end()});
}

void Mover::Send(std::size_t hand, const Pose& pose) {
  ++sent_;
  const auto sent = Checked(*hands_[hand], [&](KorvaneBase& h) { h.SetAllJointMotorPosi(pose); });
  patience_[hand].Count(sent.failure());
}

std::size_t Mover::Lost() const {
  std::size_t lost = 0;
  for (const Patience& patience : patience_) lost += patience.Lost();
  return lost;
}

Mover::Mover(const std::vector<OpenedHand>& hands, const Interrupt& interrupt)
    : hands_(hands), interrupt_(interrupt) {
  for (const OpenedHand& hand : hands) patience_.emplace_back(hand, kFailuresInARow);
}

bool Mover::Run(double seconds, const std::function<Pose(std::size_t, double)>& pose_at) {
  const auto begin = Clock::now();
  return AtRate(kRate, interrupt_, [&] {
    const double time =
        std::min(std::chrono::duration<double>(Clock::now() - begin).count(), seconds);
    for (std::size_t hand = 0; hand < hands_.size(); ++hand) Send(hand, pose_at(hand, time));
    return time < seconds;
  });
}

bool Mover::Glide(double seconds, const std::vector<Pose>& from, const std::vector<Pose>& to) {
  return Run(seconds, [&](std::size_t hand, double time) {
    return Between(from[hand], to[hand], seconds > 0 ? time / seconds : 1);
  });
}

bool Mover::Settle() {
  std::vector<Pose> last(hands_.size());
  int still = 0;
  int readings = 0;
  return AtRate(kSettleRate, interrupt_, [&] {
    bool moved = false;
    for (std::size_t i = 0; i < hands_.size(); ++i) {
      const auto positions = Read(hands_[i], QuantityNamed("positions"));
      patience_[i].Count(positions.failure());
      if (!positions) continue;
      const Pose pose(positions->begin(), positions->end());
      moved = moved || pose != std::exchange(last[i], pose);
    }
    still = moved ? 0 : still + 1;
    return still < kStillReadings && ++readings < kSettleReadings;
  });
}

int MoveAndTell(const Tool& tool, const std::vector<OpenedHand>& hands, const Mover& mover,
                const std::function<bool()>& motion) {
  const std::string stopped = "Stopped: nothing more is sent.\n";
  bool ended = false;
  try {
    ended = motion();
  } catch (const ToolError&) {
    tool.Print(stopped + Text(Standing(hands)));
    throw;
  }
  Json document{{"interrupted", !ended}, {"commands", mover.Sent()}, {"lost", mover.Lost()}};
  document["hands"] = Standing(hands);
  tool.PrintJson(document);
  tool.Print((ended ? "" : stopped) + Text(document["hands"]));
  return ended ? kDone : kInterrupted;
}

}  // namespace korvane_tool
