#pragma once

#include <memory>

#include "../tool.h"
#include "control_desk.h"
#include "http_message.h"

namespace korvane_tool {

/// A hand as clients have it: what it tells, who moves it, and where to. Any thread.
class ServedHand {
 public:
  ServedHand() = default;
  ServedHand(const ServedHand&) = delete;
  ServedHand& operator=(const ServedHand&) = delete;
  virtual ~ServedHand() = default;

  /// What doesn't change but by an update.
  virtual Json Description() const = 0;
  /// Readings as events.
  virtual std::shared_ptr<const Newest> Events() const = 0;
  virtual ControlDesk& Desk() = 0;
  /// The pose that a request means: "positions", "motors", "joints" or "gesture". Motors that it
  /// doesn't name keep their target, or stay. Throws a usage error as the tool's own commands do,
  /// and another ToolError if the hand has gone.
  virtual Pose TargetOf(const Json& request) = 0;
};

}  // namespace korvane_tool
