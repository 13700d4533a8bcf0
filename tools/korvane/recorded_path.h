#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "poses.h"
#include "recording.h"

// A recording on its way to the motors of a hand, maybe of another model.

namespace korvane_tool {

/// A recording as poses of one hand.
struct Path {
  std::vector<double> times;  ///< From 0.
  std::vector<Pose> poses;

  double Length() const { return times.back(); }

  /// Between the samples on both sides of `time`.
  Pose At(double time) const;
};

/// What of a recorded sample goes to which motor or joint. The recording and the hand must outlive
/// it.
class Mapping {
 public:
  /// `by` is "positions", "angles" or empty; `pairs` are such as "1=3". A usage error where the
  /// recording doesn't fit.
  Mapping(const Recording& recording, const OpenedHand& hand, std::string by,
          const std::vector<std::string>& pairs);

  Pose PoseOf(const Sample& sample, const Pose& start) const;

  /// "positions of a quill, in their order"
  std::string Describe() const;

 private:
  bool HasAngles() const;
  std::size_t Recorded() const;
  void MapAngles();
  void MapByOrder(bool same_model);
  void MapPairs(const std::vector<std::string>& pairs);

  const Recording& recording_;
  const OpenedHand& hand_;
  std::string by_;
  int index_ = -1;
  std::vector<std::size_t> sources_;
  std::vector<std::size_t> targets_;
  std::vector<std::string> names_;
};

/// All poses of a recording, played at that speed by a hand that stands at `start`.
Path Plan(const Recording& recording, const Mapping& mapping, const Pose& start, double speed);

}  // namespace korvane_tool
