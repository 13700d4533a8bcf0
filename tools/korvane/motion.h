#pragma once

#include <functional>
#include <vector>

#include "interrupt.h"
#include "poses.h"
#include "tool.h"

// The one way in which the tool moves hands.

namespace korvane_tool {

/// Where the motors stand. Throws what failed.
Pose PoseOf(const OpenedHand& hand);

/// Moves hands side by side, and counts what they answered.
class Mover {
 public:
  Mover(const std::vector<OpenedHand>& hands, const Interrupt& interrupt);

  /// Sends each hand the pose that `pose_at` gives for it and the time since the begin [s], 50
  /// times a second for `seconds`, the last one exactly at the end. Stops at once at an interrupt,
  /// and when a hand hasn't answered three times in a row: throws what failed then. False after an
  /// interrupt.
  bool Run(double seconds, const std::function<Pose(std::size_t hand, double time)>& pose_at);

  /// Straight from `from` to `to`, a pose for each hand.
  bool Glide(double seconds, const std::vector<Pose>& from, const std::vector<Pose>& to);

  /// Waits until no motor moves any more, at most 3 s. False after an interrupt.
  bool Settle();

  std::size_t Sent() const { return sent_; }
  std::size_t Lost() const;

 private:
  void Send(std::size_t hand, const Pose& pose);

  const std::vector<OpenedHand>& hands_;
  const Interrupt& interrupt_;
  std::vector<Patience> patience_;
  std::size_t sent_ = 0;
};

/// Carries out `motion`, which is false if it was interrupted, and tells where the hands stand
/// then, also if it failed. The exit status.
int MoveAndTell(const Tool& tool, const std::vector<OpenedHand>& hands, const Mover& mover,
                const std::function<bool()>& motion);

}  // namespace korvane_tool
