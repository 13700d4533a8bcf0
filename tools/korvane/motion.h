#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/kinematics.h"
#include "interrupt.h"
#include "tool.h"

// Poses of hands, checked against the limits of their models before anything moves, and the one way
// in which the tool moves hands.

namespace korvane_tool {

/// Where the motors stand. Throws what failed.
Pose PoseOf(const OpenedHand& hand);

/// `positions`, once they are as many as the model has motors and all within 0 to its greatest one.
/// A usage error otherwise, and for a model without motors.
Pose CheckedPose(const ModelInfo& model, const std::vector<double>& positions);

/// The positions of a pose, brought within the model's scale: what a hand tells may lie a little
/// beyond it.
std::vector<double> PositionsWithin(const ModelInfo& model, const Pose& pose);

/// The pose of a gesture. A usage error if the model has no such gesture.
Pose GesturePose(const OpenedHand& hand, int gesture);

/// The angles of the active joints in a pose [rad]. A usage error for a model without them.
std::vector<double> AnglesOf(const OpenedHand& hand, const Pose& pose);

/// What becomes of angles beyond the limits.
enum class BeyondLimits { REFUSED, HELD };

/// The pose that has these angles at these joints, and is `pose` otherwise. `names` are those of
/// JointsOf. A usage error for a name that isn't one, for a joint that can't be commanded, and for
/// angles that are refused: beyond a joint's limits, or beyond what two joints of a finger allow
/// each other.
Pose WithAngles(const OpenedHand& hand, const Pose& pose, const std::vector<std::string>& names,
                const std::vector<double>& angles, BeyondLimits beyond);

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
