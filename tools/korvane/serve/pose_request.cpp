#include "pose_request.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "common/whole_number.h"

namespace korvane_tool {
namespace {

/// The number that a request holds; NaN, which no limit lets pass, for anything else.
double NumberOrNan(const Json& value) {
  return value.is_number() ? value.get<double>() : std::nan("");
}

Pose WithMotors(const OpenedHand& hand, const Pose& pose, const Json& motors) {
  std::vector<double> positions(pose.begin(), pose.end());
  for (const auto& [name, position] : motors.items()) {
    const auto motor = WholeNumberIn(name, 1, hand.Info().positions);
    if (!motor) {
      throw ToolError(kUsage, fmt::format("a {} has the motors 1 to {}", hand.Info().name,
                                          hand.Info().positions));
    }
    positions[static_cast<std::size_t>(*motor) - 1] = NumberOrNan(position);
  }
  return CheckedPose(hand.Info(), positions);
}

Pose WithJoints(const OpenedHand& hand, const Pose& pose, const Json& joints) {
  std::vector<std::string> names;
  std::vector<double> angles;
  for (const auto& [name, angle] : joints.items()) {
    names.push_back(name);
    angles.push_back(NumberOrNan(angle));
  }
  return WithAngles(hand, pose, names, angles, BeyondLimits::REFUSED);
}

}  // namespace

Pose PoseIn(const Json& request, const OpenedHand& hand, const Pose& pose) {
  if (request.is_object() && request.size() == 1) {
    const std::string key = request.begin().key();
    const Json& value = request.begin().value();
    if (key == "motors" && value.is_object()) return WithMotors(hand, pose, value);
    if (key == "joints" && value.is_object()) return WithJoints(hand, pose, value);
    if (key == "gesture" && value.is_number_integer()) {
      const double gesture = NumberOrNan(value);
      return GesturePose(hand, gesture >= 0 && gesture < 1000 ? static_cast<int>(gesture) : -1);
    }
    if (key == "positions" && value.is_array()) {
      std::vector<double> positions;
      for (const Json& position : value) positions.push_back(NumberOrNan(position));
      return CheckedPose(hand.Info(), positions);
    }
  }
  throw ToolError(kUsage, "expected one of positions, motors, joints and gesture");
}

}  // namespace korvane_tool
