#pragma once

#include "can_hands.h"
#include "poses.h"

namespace talvera::korvane::fuzz {

/// A hand of each model as the tool has it, of the side that the input says; nobody answers it.
inline korvane_tool::OpenedHand ToolHand(Input& input) {
  HandAddress address;
  address.model = static_cast<Model>(input.Below(5));
  address.side = static_cast<HandType>(input.Below(2));
  const auto make = kMakers[static_cast<std::size_t>(*address.model)];
  return {address, make(address.side, kId, nullptr)};
}

/// Input that is no good is refused by a usage error with a text.
template <class Action>
void RunOrRefuse(const Action& action) {
  try {
    action();
  } catch (const korvane_tool::ToolError& error) {
    Require(error.Status() == korvane_tool::kUsage && error.what() != std::string());
  }
}

/// What of a pose must hold before it goes to a hand.
inline void RequireWithin(const korvane_tool::Pose& pose, const ModelInfo& model) {
  Require(pose.size() == static_cast<std::size_t>(model.positions) && model.has_motors);
  for (const short position : pose) Require(position >= 0 && position <= model.position_max);
}

}  // namespace talvera::korvane::fuzz
