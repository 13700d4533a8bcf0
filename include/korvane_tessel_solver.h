#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "korvane_export.h"

namespace talvera::korvane::ts9 {

/// Converts between the joint angles of a KorvaneTessel hand and the inputs of its motors.
///
/// A pure calculator: it knows no hand and no link and never blocks. Each KorvaneTessel object owns
/// one; one may also be built alone.
///
/// Joint positions are angles in radians, motor lengths are metres about a zero length, motor
/// inputs are integers from 0 to 2000. Joints reach inputs through the lengths, since a finger's
/// sideways joint and its knuckle are driven together by two motors.
///
/// The twelve active joints, with their limits [rad]:
///
///     0 to 3    thumb                              0 to 0.94, -1.39 to 0, -0.83 to 0, -1.29 to 0
///     4, 5, 6   first finger: sideways, knuckle,   -0.26 to 0.26, 0 to 1.35, 0 to 1.53
///               middle joint
///     7, 8, 9   second finger, as the first        -0.26 to 0.26, 0 to 1.36, 0 to 1.82
///     10, 11    third and fourth finger            0 to 1.55, 0 to 1.54
///
/// First to fourth finger are index, middle, ring and little in JointsOf (korvane_model.h).
///
/// The two sides of the hand share the tables and the limits; `mirrored` decides the signs of some
/// joints alone. It does so unevenly for two joints of the thumb: on the mirrored side the motor of
/// joint 0 is sent to its end (input 2000) wherever the joint is to go, and joint 1 reads as 0.0
/// wherever its motor is.
///
/// An operation that is given a vector of another size than it expects writes one line to the
/// standard error stream ("[ERROR]: GetAllJointPos: Invalid input size. Got 9, expected 12") and
/// returns an empty vector, unless its description says otherwise. Only the operations that say so
/// throw (but for std::bad_alloc).
///
/// Any number of threads may use one solver at once, without a lock: its tables never change.
class KORVANE_EXPORT KorvaneTesselSolver {
 public:
  /// `mirrored` is true for HandType::LEFT.
  explicit KorvaneTesselSolver(bool const& mirrored);

  /// Converts 12 joint positions [rad] to 12 motor inputs.
  ///
  /// Positions are first brought within their limits as by CheckJointPos, with its warnings. On a
  /// wrong size its text is written and the result is empty.
  std::vector<int> ConvertJoint2Actuator(std::vector<double> const& joint_pos) const;

  /// Converts 12 motor inputs to 12 joint positions [rad], held within their limits.
  ///
  /// A single input outside 0 to 2000 makes the whole result empty, as a wrong size does: after the
  /// line of CheckActuatorInput and one of its own.
  std::vector<double> ConvertActuator2Joint(std::vector<int> const& actuator_input) const;

  /// Derives all 19 joint positions [rad] from the 12 active ones.
  ///
  /// The active positions are passed on as they are, neither checked nor clamped. The result is
  ///
  ///     0 to 4     thumb: its four joints, then its coupled one
  ///     5 to 8     first finger: sideways, knuckle, middle joint, coupled joint
  ///     9 to 12    second finger, as the first
  ///     13 to 15   third finger: its joint, two joints that are coupled to the fourth finger's
  ///     16 to 18   fourth finger: its joint, two joints that are coupled to it
  std::vector<double> GetAllJointPos(std::vector<double> const& joint_pos) const;

  /// Gives the 12 motor inputs of gesture 0 to 3, on both sides of the hand from the same joint
  /// positions. Any other number gives those of gesture 0, in which all positions are 0.0. Sends
  /// nothing. Gesture 2 bends a knuckle beyond its range and so always warns.
  std::vector<int> SetHandGesture(int const& gesture) const;

  /// Converts 12 joint positions [rad], taken as they are, to 12 motor lengths [m], held within
  /// their limits. `joint_pos` must hold 12 elements; that isn't reported, and what is missing
  /// counts as 0.0.
  std::vector<double> ActiveJoint2MotorLength(std::vector<double> const& joint_pos) const;

  /// Converts 12 motor lengths [m], held within their limits first, to 12 joint positions [rad],
  /// held within theirs.
  std::vector<double> MotorLength2ActiveJoint(std::vector<double> const& motor_length) const;

  /// Converts 12 motor lengths [m], held within their limits first, to 12 motor inputs, cut off to
  /// whole numbers. Throws as Scale does on a wrong size.
  std::vector<int> MotorLength2MotorInput(std::vector<double> const& motor_length) const;

  /// Converts 12 motor inputs to 12 motor lengths [m]. Any integer is taken; one outside 0 to 2000
  /// counts as the nearer end.
  std::vector<double> MotorInput2MotorLength(std::vector<int> const& motor_input) const;

  /// Brings 12 joint positions [rad] within their limits, silently, then both fingers' knuckles by
  /// ClampAbadMcpJoint; all in place. True if there were 12. If not, "Joint input size does not
  /// match expected joint count." goes to the standard error stream without a line end, the vector
  /// stays as it is, and the result is false.
  bool CheckJointPos(std::vector<double>& joint_pos) const;

  /// Tells whether there are 12 motor inputs and all lie from 0 to 2000. If not, one line on the
  /// standard error stream tells of the size or of the first input that doesn't.
  bool CheckActuatorInput(std::vector<int> const& actuator_input) const;

  /// Holds a finger's knuckle [rad] to the range that narrows as its sideways joint [rad] leaves
  /// the middle: 0 to 1.35 there, about 0.164 to 1.173 at its limits. Writes one warning to the
  /// standard error stream if it had to. The lower bound is looked at first and the upper one only
  /// if that held, which tells where they cross, beyond the limits. A NaN stays.
  void ClampAbadMcpJoint(double const& abad, double& mcp) const;

  /// Gives the value at `x` of a polynomial whose coefficients stand in ascending powers, the
  /// constant term first; 0.0 if there are none.
  double PredictPoly(double const& x, std::vector<double> const& coefficients) const;

  /// Gives the value at (`x`, `y`) of a cubic. The 10 coefficients are those of 1, x, y, x^2, xy,
  /// y^2, x^3, x^2 y, x y^2, y^3; throws std::invalid_argument if there aren't 10.
  double PredictPoly33(double const& x, double const& y,
                       std::vector<double> const& coefficients) const;

  /// Gives the value at (`x`, `y`, `z`) of a fit in three variables. The 20 coefficients are those
  /// of z, z^2, y, yz, y z^2, y^2, y^2 z, x, xz, x z^2, xy, xyz, x y^2, x^2, x^2 z, x^2 y, 1, x^3,
  /// y^3, z^3; throws std::invalid_argument if there aren't 20.
  double FingerPIPFitPredict(double const& x, double const& y, double const& z,
                             std::vector<double> const& coefficients) const;

  /// Holds each double or int of `value` between its `min` and its `max`, in place, whichever of
  /// the two is the greater. A NaN becomes the lesser one. Throws std::invalid_argument unless all
  /// three have the same length.
  template <class Number>
  void Clamp(std::vector<Number> const& max, std::vector<Number> const& min,
             std::vector<Number>& value) const;

  /// Maps each value, held within its source range as by Clamp, linearly to its target range, min
  /// to min and max to max. Throws std::invalid_argument unless all five have the same length, then
  /// if the two ends of a source range are the same.
  std::vector<double> Scale(std::vector<double> const& value, std::vector<double> const& source_max,
                            std::vector<double> const& source_min,
                            std::vector<double> const& target_max,
                            std::vector<double> const& target_min) const;

  /// The same where the values and their range, or the target range, are integers.
  template <class Source, class Target>
  std::vector<double> Scale(std::vector<Source> const& value, std::vector<Source> const& source_max,
                            std::vector<Source> const& source_min,
                            std::vector<Target> const& target_max,
                            std::vector<Target> const& target_min) const;

  /// Whether the signs are those of the mirrored hand.
  const bool mirrored;

  /// Calibration of the hand, by joint: limits of the positions [rad].
  const std::vector<double> joint_max;  ///< Upper limit [rad].
  const std::vector<double> joint_min;  ///< Lower limit [rad].

  /// Calibration of the hand, by motor: limits of the lengths [m], and the inputs there.
  const std::vector<double> motor_length_max;  ///< Greatest length [m].
  const std::vector<double> motor_length_min;  ///< Least length [m].
  const std::vector<int> motor_input_at_max;   ///< At the greatest length.
  const std::vector<int> motor_input_at_min;   ///< At the least length.

  /// Calibration of the hand, motors counted from 1: polynomials for PredictPoly. "Forward" leads
  /// from a joint [rad] to its motor [mm], "inverse" back, "coupling" from an active joint to one
  /// that is coupled to it.
  const std::vector<double> thumb_forward_0;  ///< Joint 0 to motor 6.
  const std::vector<double> thumb_forward_1;  ///< Joint 1 to motor 5.
  const std::vector<double> thumb_forward_2;  ///< Joint 2 to motor 12.
  const std::vector<double> thumb_forward_3;  ///< Joint 3 to motor 11.
  const std::vector<double> thumb_inverse_0;  ///< Motor 6 to joint 0.
  const std::vector<double> thumb_inverse_1;  ///< Motor 5 to joint 1.
  const std::vector<double> thumb_inverse_2;  ///< Motor 12 to joint 2.
  const std::vector<double> thumb_inverse_3;  ///< Motor 11 to joint 3.
  const std::vector<double> single_forward;   ///< Joints 10 and 11 to motors 9 and 10.
  const std::vector<double> single_inverse;   ///< Motors 9 and 10 to joints 10 and 11.
  const std::vector<double> coupling_thumb;   ///< From joint 3.
  const std::vector<double> coupling_first;   ///< From joint 6.
  const std::vector<double> coupling_second;  ///< From joint 9.
  const std::vector<double> coupling_last_a;  ///< From the fourth finger.
  const std::vector<double> coupling_last_b;  ///< From the fourth finger.

  /// Calibration of the hand: fits for PredictPoly33, between a finger's sideways joint and knuckle
  /// [rad] and their two motors [m].
  const std::vector<double> abad_mcp_forward_a;  ///< To motors 1 and 3.
  const std::vector<double> abad_mcp_forward_b;  ///< To motors 2 and 4.
  const std::vector<double> abad_mcp_inverse_a;  ///< To the sideways joint.
  const std::vector<double> abad_mcp_inverse_b;  ///< To the knuckle.

  /// Calibration of the hand: fits for FingerPIPFitPredict, between a finger's sideways joint and
  /// knuckle with its middle joint [rad] and its third motor [m].
  const std::vector<double> pip_forward_first;   ///< To motor 7.
  const std::vector<double> pip_inverse_first;   ///< To joint 6.
  const std::vector<double> pip_forward_second;  ///< To motor 8.
  const std::vector<double> pip_inverse_second;  ///< To joint 9.
};

template <class Number>
void KorvaneTesselSolver::Clamp(std::vector<Number> const& max, std::vector<Number> const& min,
                                std::vector<Number>& value) const {
  if (max.size() != value.size() || min.size() != value.size()) {
    throw std::invalid_argument(
        "Clamp: 'max', 'min' and 'value' vectors must have the same length");
  }
  for (std::size_t i = 0; i < value.size(); ++i) {
    const Number low = std::min(min[i], max[i]);
    const Number high = std::max(min[i], max[i]);
    value[i] = std::min(std::max(low, value[i]), high);  // a NaN fails the comparison with `low`
  }
}

template <class Source, class Target>
std::vector<double> KorvaneTesselSolver::Scale(std::vector<Source> const& value,
                                               std::vector<Source> const& source_max,
                                               std::vector<Source> const& source_min,
                                               std::vector<Target> const& target_max,
                                               std::vector<Target> const& target_min) const {
  // A double holds any int, and any difference of two ints without overflow.
  const auto doubles = [](const auto& v) { return std::vector<double>(v.begin(), v.end()); };
  return Scale(doubles(value), doubles(source_max), doubles(source_min), doubles(target_max),
               doubles(target_min));
}

}  // namespace talvera::korvane::ts9
