#include "motion.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "quantities.h"
#include "samples.h"
#include "terminal.h"

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kRate = 50;
constexpr int kFailuresInARow = 3;
constexpr double kSettleRate = 20;
constexpr int kSettleReadings = 60;  // 3 s
constexpr int kStillReadings = 4;

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
        if (QuantityNamed(key).is_error_word)
          json["error_names"] = ErrorTexts(*values, hand.address.link);
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
    for (std::size_t i = 0; hand.contains("error_names") && i < hand["error_names"].size(); ++i) {
      const auto errors = hand["error_names"][i].get<std::string>();
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
        {FailureKind::BAD_REPLY, "GetAllJointMotorPosi", "the hand told too few positions"});
  }
  return {positions.begin(), positions.end()};
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
