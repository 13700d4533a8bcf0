#pragma once

#include "../poses.h"

namespace korvane_tool {

/// The pose that a request means: "positions", "motors", "joints" or "gesture". Motors that it
/// doesn't name are as in `pose`, all of which are within the limits. A usage error for anything
/// that is none.
Pose PoseIn(const Json& request, const OpenedHand& hand, const Pose& pose);

}  // namespace korvane_tool
