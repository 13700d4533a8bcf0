#pragma once

#include <vector>

#include "korvane_export.h"

namespace talvera::korvane::ts9 {

/// Converts between the joint positions of a KorvaneTessel hand and the inputs of its motors.
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
/// The two sides of the hand share the tables; `mirrored` decides the signs of some joints. On the
/// mirrored side joint 0 is negated on the way to the motors and not on the way back, so that its
/// motor always stands at its end.
///
/// An operation that is given a vector of another size than it expects writes one line to the
/// standard error stream ("[ERROR]: GetAllJointPos: Invalid input size. Got 9, expected 12") and
/// returns an empty vector, unless its description says otherwise.
///
/// Any number of threads may use one solver at once, without a lock.
class KORVANE_EXPORT KorvaneTesselSolver {
 public:
  /// `mirrored` is true for HandType::LEFT.
  explicit KorvaneTesselSolver(bool const& mirrored);

  /// Converts 12 joint positions [rad] to 12 motor inputs. Positions beyond their limits convert as
  /// if they stood there, as by CheckJointPos, with its lines. On a wrong size the line is that of
  /// CheckJointPos.
  std::vector<int> ConvertJoint2Actuator(std::vector<double> const& joint_pos) const;

  /// Converts 12 motor inputs to 12 joint positions [rad]. A single input outside 0 to 2000 makes
  /// the whole result empty, after two lines.
  std::vector<double> ConvertActuator2Joint(std::vector<int> const& actuator_input) const;

  /// Derives all 19 joint positions [rad] from the 12 active ones, which are passed on as they are:
  /// the thumb's four and its coupled joint, then the first and the second finger's three and their
  /// coupled joint, then the third and the fourth finger's one and their two coupled joints.
  std::vector<double> GetAllJointPos(std::vector<double> const& joint_pos) const;

  /// Gives the 12 motor inputs of gesture 0 to 3; any other number is gesture 0. Sends nothing.
  std::vector<int> SetHandGesture(int const& gesture) const;

  /// Converts 12 joint positions [rad], taken as they are, to 12 motor lengths [m]. Doesn't look at
  /// the size: what is missing counts as 0.
  std::vector<double> ActiveJoint2MotorLength(std::vector<double> const& joint_pos) const;

  /// The way back, held within the limits of the joints.
  std::vector<double> MotorLength2ActiveJoint(std::vector<double> const& motor_length) const;

  /// Between lengths [m] and inputs, both held within their ranges. The first one cuts fractions
  /// off, and throws std::invalid_argument unless it is given 12 lengths.
  std::vector<int> MotorLength2MotorInput(std::vector<double> const& motor_length) const;
  std::vector<double> MotorInput2MotorLength(std::vector<int> const& motor_input) const;

  /// Brings 12 joint positions [rad] within their limits, in place, and the knuckles within what
  /// their sideways joints leave them. On a wrong size false, after a text without a line end.
  bool CheckJointPos(std::vector<double>& joint_pos) const;

  /// Tells whether there are 12 inputs, all from 0 to 2000. If not, one line tells of the first
  /// that is wrong.
  bool CheckActuatorInput(std::vector<int> const& actuator_input) const;

  /// Holds a knuckle [rad] to the range that narrows with its sideways joint; one line if it had
  /// to.
  void ClampAbadMcpJoint(double const& abad, double& mcp) const;

  /// A polynomial with coefficients in ascending powers; 0.0 without any.
  double PredictPoly(double const& x, std::vector<double> const& coefficients) const;

  /// A cubic in two variables. Throws std::invalid_argument unless there are 10 coefficients.
  double PredictPoly33(double const& x, double const& y,
                       std::vector<double> const& coefficients) const;

  /// A fit in three variables. Throws std::invalid_argument unless there are 20 coefficients.
  double FingerPIPFitPredict(double const& x, double const& y, double const& z,
                             std::vector<double> const& coefficients) const;

  /// Holds each value between its two bounds, whichever of them is the greater; a NaN becomes the
  /// lower one. For doubles and ints. Throws std::invalid_argument unless all sizes are the same.
  template <class Number>
  void Clamp(std::vector<Number> const& max, std::vector<Number> const& min,
             std::vector<Number>& value) const;

  /// Maps each value, held to its source range, linearly to its target range. Between doubles, and
  /// from ints and to ints. Throws std::invalid_argument unless all sizes are the same, and if a
  /// source range is empty.
  template <class Source, class Target>
  std::vector<double> Scale(std::vector<Source> const& values,
                            std::vector<Source> const& source_max,
                            std::vector<Source> const& source_min,
                            std::vector<Target> const& target_max,
                            std::vector<Target> const& target_min) const;

  const bool mirrored;

  /// Calibration of the hand: limits of the joints [rad] and of the motors' lengths [m], and the
  /// inputs at those lengths.
  const std::vector<double> joint_max;
  const std::vector<double> joint_min;
  const std::vector<double> motor_length_max;
  const std::vector<double> motor_length_min;
  const std::vector<int> motor_input_at_max;
  const std::vector<int> motor_input_at_min;

  /// Fits for PredictPoly: between a joint [rad] and its motor [mm], and from an active joint to
  /// the one that is coupled to it.
  const std::vector<double> thumb_forward_0;
  const std::vector<double> thumb_forward_1;
  const std::vector<double> thumb_forward_2;
  const std::vector<double> thumb_forward_3;
  const std::vector<double> thumb_inverse_0;
  const std::vector<double> thumb_inverse_1;
  const std::vector<double> thumb_inverse_2;
  const std::vector<double> thumb_inverse_3;
  const std::vector<double> single_forward;
  const std::vector<double> single_inverse;
  const std::vector<double> coupling_thumb;
  const std::vector<double> coupling_first;
  const std::vector<double> coupling_second;
  const std::vector<double> coupling_last_a;
  const std::vector<double> coupling_last_b;

  /// Fits for PredictPoly33: between a finger's sideways joint and knuckle and their two motors
  /// [m].
  const std::vector<double> abad_mcp_forward_a;
  const std::vector<double> abad_mcp_forward_b;
  const std::vector<double> abad_mcp_inverse_a;
  const std::vector<double> abad_mcp_inverse_b;

  /// Fits for FingerPIPFitPredict: between a finger's three joints and its third motor [m].
  const std::vector<double> pip_forward_first;
  const std::vector<double> pip_inverse_first;
  const std::vector<double> pip_forward_second;
  const std::vector<double> pip_inverse_second;
};

}  // namespace talvera::korvane::ts9
