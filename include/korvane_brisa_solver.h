#pragma once

#include <atomic>
#include <vector>

#include "korvane_export.h"

namespace talvera::korvane::br7 {

/// Converts between the joint angles of a KorvaneBrisa hand and the inputs of its actuators.
///
/// A pure calculator: it knows no hand and no link, never blocks and never throws (but for
/// std::bad_alloc). Each KorvaneBrisa object owns one; one may also be built alone.
///
/// Joint positions are angles in radians. Actuator inputs are integers on the scale 0 to 4096;
/// which end of it is which differs by joint and by side of the hand.
///
/// The ten active joints, with their limits on the hand that isn't mirrored [rad]:
///
///     index   joint                        limits
///     0, 1, 2 thumb                        -0.03 to 1.12, -1.64 to 0.05, 0 to 0.8416
///     3, 4    index: sideways, flexion     -0.16 to 0, 0 to 1.48
///     5       middle: flexion              0 to 1.48
///     6, 7    ring: sideways, flexion      0 to 0.17, 0 to 1.48
///     8, 9    little: sideways, flexion    0 to 0.19, 0 to 1.48
///
/// On the mirrored hand the thumb and the sideways joints count the other way (`direction` is -1):
/// their limits are negated and change places. Flexion is the same on both.
///
/// An operation that is given a vector of another size than it expects writes one line to the
/// standard error stream ("[ERROR]: <operation>: Invalid input size. Got 9, expected 10") and
/// returns its failure value: an empty vector, or false.
///
/// Any number of threads may use one solver at once, without a lock: its tables never change, and
/// `show_details` is atomic.
class KORVANE_EXPORT KorvaneBrisaSolver {
 public:
  /// Builds the tables of one side of the hand: `mirrored` is true for HandType::LEFT.
  explicit KorvaneBrisaSolver(bool const& mirrored);

  /// Converts 10 joint positions [rad] to 10 actuator inputs; empty on a wrong size.
  ///
  /// A position beyond its limit converts as if it stood at the limit, a NaN as the lower limit.
  /// The inputs of joint 2 and of the flexion joints don't reach the ends of the scale: flexion at
  /// 0.0 gives 4069, at 1.48 it gives 46. With `show_details` on, "joint position over limit" goes
  /// to the standard output stream first if a position was beyond its limit.
  std::vector<int> ActiveJointPos2ActuatorInput(std::vector<double> const& joint_pos) const;

  /// Converts 10 actuator inputs to 10 joint positions [rad]; empty on a wrong size.
  ///
  /// Any integer is taken, also one outside the scale; what comes out is held within the limits.
  std::vector<double> ActuatorInput2ActiveJointPos(std::vector<int> const& actuator_input) const;

  /// Derives all 16 joint positions [rad] from the 10 active ones; empty on a wrong size.
  ///
  /// The active positions are passed on as they are, neither checked nor clamped. The result is
  ///
  ///     0 to 4     thumb: joints 0, 1, 2, then its two passive joints
  ///     5 to 7     index: sideways, flexion, distal (passive)
  ///     8, 9       middle: flexion, distal (passive)
  ///     10 to 12   ring, as index
  ///     13 to 15   little, as index
  std::vector<double> GetAllJointPos(std::vector<double> const& joint_pos) const;

  /// Gives the 10 actuator inputs of gesture 0 to 16, mirrored as the hand is. Any other number
  /// gives those of the pose in which all positions are 0.0. Sends nothing.
  std::vector<int> SetHandGesture(int const& gesture) const;

  /// Gives the value at `x` of a polynomial whose coefficients stand in ascending powers, the
  /// constant term first; 0.0 if there are none. Takes any of the polynomials below.
  double CalculatePower(double x, std::vector<double> const& coefficients) const;

  /// Tells whether 10 joint positions [rad] lie within their limits, both ends included. A NaN
  /// doesn't. False on a wrong size.
  bool CheckJointPos(std::vector<double> const& joint_pos) const;

  /// Always false; writes the size error if there aren't 10 inputs. It compares with
  /// `actuator_lower` and `actuator_upper`, which stand in the wrong order. Use it for its message
  /// only: no conversion depends on its answer, and all integers can be converted.
  bool CheckActuatorInput(std::vector<int> const& actuator_input) const;

  /// Brings 10 joint positions [rad] within their limits, in place; a NaN becomes the lower limit.
  ///
  /// `joint_pos` must hold 10 elements; that isn't reported. Of a shorter vector all elements are
  /// clamped, of a longer one the first 10.
  void ClampJointPos(std::vector<double>& joint_pos) const;

  /// Whether the tables are those of the mirrored hand.
  const bool mirrored;

  /// Calibration of the hand, by joint: actuator inputs at the ends of the linear scale.
  const std::vector<int> actuator_at_max;  ///< At `linear_max`.
  const std::vector<int> actuator_at_min;  ///< At `linear_min`.

  /// See CheckActuatorInput.
  const int actuator_lower = 4096;  ///< The greater one.
  const int actuator_upper = 0;     ///< The smaller one.

  /// Calibration of the hand, by joint: limits of the joint positions [rad], limits of the same
  /// joints on the scale that is linear in the actuator input, sign between the two sides.
  const std::vector<double> joint_max;   ///< Upper limit [rad].
  const std::vector<double> joint_min;   ///< Lower limit [rad].
  const std::vector<double> linear_max;  ///< Upper limit on the linear scale.
  const std::vector<double> linear_min;  ///< Lower limit on the linear scale.
  const std::vector<int> direction;      ///< 1 or -1.

  /// Calibration of the hand: polynomials for CalculatePower. "Coupling" gives a passive joint
  /// from the joint that drives it, "forward" leads from joint position to linear scale, "inverse"
  /// back. The thumb ones are for joint 2. `thumb_tip_inverse_a` serves applications only.
  const std::vector<double> distal_coupling;         ///< Flexion of a finger to its distal joint.
  const std::vector<double> flexion_forward;         ///< Joints 4, 5, 7 and 9.
  const std::vector<double> flexion_inverse;         ///< Joints 4, 5, 7 and 9.
  const std::vector<double> thumb_tip_coupling_a;    ///< Joint 2 to the first passive joint.
  const std::vector<double> thumb_tip_coupling_b;    ///< Joint 2 to the second one.
  const std::vector<double> thumb_tip_inverse_a;     ///< Not used by the library.
  const std::vector<double> thumb_forward_plain;     ///< Joint 2.
  const std::vector<double> thumb_forward_mirrored;  ///< Joint 2, mirrored hand.
  const std::vector<double> thumb_inverse_plain;     ///< Joint 2.
  const std::vector<double> thumb_inverse_mirrored;  ///< Joint 2, mirrored hand.

  /// Whether ActiveJointPos2ActuatorInput reports positions beyond their limits. Off at first; may
  /// be written at any time from any thread.
  std::atomic<bool> show_details{false};
};

}  // namespace talvera::korvane::br7
