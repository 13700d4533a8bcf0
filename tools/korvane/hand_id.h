#pragma once

#include <cstdint>

#include "tool.h"

namespace korvane_tool {

/// Throws if another hand on the bus has that id: the two would answer each other's requests.
void NeedFreeId(const OpenedHand& hand, std::uint8_t id);

/// Gives the hand that id, and asks under it whether it took it. The hand then has it in its
/// address. Throws with a text that tells under which id it answers.
void GiveId(OpenedHand& hand, std::uint8_t id);

}  // namespace korvane_tool
