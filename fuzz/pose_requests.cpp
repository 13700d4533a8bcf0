// What the page of `korvane serve`, or whoever speaks like it, posts to move a hand.

#include <nlohmann/json.hpp>

#include "serve/pose_request.h"
#include "tool_hands.h"

using namespace talvera::korvane::fuzz;
using namespace korvane_tool;

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const OpenedHand hand = ToolHand(input);
  const Pose measured(static_cast<std::size_t>(hand.Info().positions), input.Take<short>());
  const auto within = PositionsWithin(hand.Info(), measured);
  const Pose pose(within.begin(), within.end());
  const Json body = Json::parse(input.Rest(), nullptr, false);
  RunOrRefuse([&] { RequireWithin(PoseIn(body, hand, pose), hand.Info()); });
}
