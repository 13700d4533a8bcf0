#include "korvane_tessel_solver.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <stdexcept>

#include "solver/solver_support.h"
#include "util/log.h"

namespace talvera::korvane::ts9 {
namespace {

using Doubles = std::vector<double>;
using Ints = std::vector<int>;
using solver::Column;
using solver::HasSize;

/// One joint's limits, the same on both sides of the hand.
struct JointRow {
  double min, max;
};

constexpr JointRow kJoints[] = {
    {0.0, 0.94},    // thumb
    {-1.39, 0.0},   // thumb
    {-0.83, 0.0},   // thumb
    {-1.29, 0.0},   // thumb
    {-0.26, 0.26},  // first finger, sideways
    {0.0, 1.35},    // first finger, knuckle
    {0.0, 1.53},    // first finger, middle joint
    {-0.26, 0.26},  // second finger, sideways
    {0.0, 1.36},    // second finger, knuckle
    {0.0, 1.82},    // second finger, middle joint
    {0.0, 1.55},    // third finger
    {0.0, 1.54},    // fourth finger
};

/// One motor: the limits of its length, and its inputs there.
struct MotorRow {
  double length_min, length_max;
  int input_at_min, input_at_max;
};

constexpr MotorRow kMotors[] = {
    {-0.01456, 0.0, 0, 2000}, {-0.01456, 0.0, 0, 2000}, {-0.01456, 0.0, 0, 2000},
    {-0.01456, 0.0, 0, 2000}, {0.0, 0.01, 2000, 0},     {-0.0059, 0.0, 0, 2000},
    {-0.00876, 0.0, 0, 2000}, {-0.00908, 0.0, 0, 2000}, {-0.01549, 0.0, 0, 2000},
    {-0.01549, 0.0, 0, 2000}, {0.0, 0.01, 2000, 0},     {0.0, 0.01, 2000, 0},
};
constexpr std::size_t kMotorCount = std::size(kMotors);
constexpr int kInputMax = 2000;

/// A value for each joint or motor, where a vector would be another allocation.
using Twelve = std::array<double, kMotorCount>;

/// Active joint positions by gesture number. They aren't mirrored.
constexpr double kGestures[][kMotorCount] = {
    {},
    {0.34, 0.0, -0.33, -0.375, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0},
    {0.5, -0.2, 0.0, -1.2, 0.0, 1.35, 1.53, 0.0, 1.36, 1.82, 1.55, 1.54},
    {0.3, -0.531, 0.0, -0.95, 0.0, 0.5, 0.65, 0.0, 0.0, 0.0, 0.0, 0.0},
};

/// The thumb and the last two fingers are fitted in millimetres, the rest in metres.
constexpr double kMetres = 0.001;
constexpr double kMillimetres = 1000.0;

// How far a knuckle must and may bend, by how far its finger stands sideways.
constexpr double kLowerSlope = 0.6293692307692308;
constexpr double kUpperBound = 1.35;
constexpr double kUpperSlope = 0.6818076923076924;

/// What the two sides of the hand do with the signs of the joints, on the way to the motors and on
/// the way back. Hands in the field are calibrated to it, uneven as it is for joint 1.
void ChangeSigns(Twelve& joints, bool mirrored) {
  const auto negate = [&joints](std::size_t i) { joints[i] = -joints[i]; };
  negate(2);
  negate(3);
  if (mirrored) {
    negate(4);
    negate(7);
  } else {
    negate(1);
  }
}

/// What is missing counts as 0.0, what is too much as not there.
Twelve ToTwelve(const Doubles& values) {
  Twelve twelve{};
  std::copy_n(values.begin(), std::min(values.size(), twelve.size()), twelve.begin());
  return twelve;
}

/// As KorvaneTesselSolver::Clamp does, for limits of the right size.
template <class Values>
void HoldWithin(const Doubles& max, const Doubles& min, Values& values) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    values[i] = solver::Confine(std::min(min[i], max[i]), std::max(min[i], max[i]), values[i]);
  }
}

/// One value of KorvaneTesselSolver::Scale.
double Rescaled(double value, double source_max, double source_min, double target_max,
                double target_min) {
  if (source_max == source_min) {
    throw std::invalid_argument("Scale: max and min values must differ for each element");
  }
  const double held =
      solver::Confine(std::min(source_min, source_max), std::max(source_min, source_max), value);
  const double ratio = (held - source_min) / (source_max - source_min);
  return ratio * (target_max - target_min) + target_min;
}

[[noreturn]] void ThrowScaleSizes() {
  throw std::invalid_argument("Scale: all input vectors must have the same length");
}

template <class Joints>
void BringWithinLimits(const KorvaneTesselSolver& s, Joints& joints) {
  HoldWithin(s.joint_max, s.joint_min, joints);
  s.ClampAbadMcpJoint(joints[4], joints[5]);
  s.ClampAbadMcpJoint(joints[7], joints[8]);
}

bool AreJoints(std::size_t count) {
  if (count == kMotorCount) return true;
  // Applications that read this text know it without a line end.
  LogErrorText("Joint input size does not match expected joint count.");
  return false;
}

Twelve LengthsOf(const KorvaneTesselSolver& s, Twelve j) {
  ChangeSigns(j, s.mirrored);
  // Only on this way, so that the motor stands at its end on the mirrored side wherever the joint
  // is. Applications rely on it: don't make it the inverse of the way back.
  if (s.mirrored) j[0] = -j[0];
  Twelve m{};
  m[5] = kMetres * s.PredictPoly(j[0], s.thumb_forward_0);
  m[4] = kMetres * s.PredictPoly(j[1], s.thumb_forward_1);
  m[11] = kMetres * s.PredictPoly(j[2], s.thumb_forward_2);
  m[10] = kMetres * s.PredictPoly(j[3], s.thumb_forward_3);
  m[0] = s.PredictPoly33(j[4], j[5], s.abad_mcp_forward_a);
  m[1] = s.PredictPoly33(j[4], j[5], s.abad_mcp_forward_b);
  m[2] = s.PredictPoly33(j[7], j[8], s.abad_mcp_forward_a);
  m[3] = s.PredictPoly33(j[7], j[8], s.abad_mcp_forward_b);
  m[6] = s.FingerPIPFitPredict(j[4], j[5], j[6], s.pip_forward_first);
  m[7] = s.FingerPIPFitPredict(j[7], j[8], j[9], s.pip_forward_second);
  m[8] = kMetres * s.PredictPoly(j[10], s.single_forward);
  m[9] = kMetres * s.PredictPoly(j[11], s.single_forward);
  HoldWithin(s.motor_length_max, s.motor_length_min, m);
  return m;
}

Twelve JointsOf(const KorvaneTesselSolver& s, Twelve m) {
  HoldWithin(s.motor_length_max, s.motor_length_min, m);
  Twelve j{};
  j[0] = s.PredictPoly(kMillimetres * m[5], s.thumb_inverse_0);
  j[1] = s.PredictPoly(kMillimetres * m[4], s.thumb_inverse_1);
  j[2] = s.PredictPoly(kMillimetres * m[11], s.thumb_inverse_2);
  j[3] = s.PredictPoly(kMillimetres * m[10], s.thumb_inverse_3);
  j[4] = s.PredictPoly33(m[1], m[0], s.abad_mcp_inverse_a);
  j[5] = s.PredictPoly33(m[1], m[0], s.abad_mcp_inverse_b);
  j[6] = s.FingerPIPFitPredict(j[4], j[5], m[6], s.pip_inverse_first);
  j[7] = s.PredictPoly33(m[3], m[2], s.abad_mcp_inverse_a);
  j[8] = s.PredictPoly33(m[3], m[2], s.abad_mcp_inverse_b);
  j[9] = s.FingerPIPFitPredict(j[7], j[8], m[7], s.pip_inverse_second);
  j[10] = s.PredictPoly(kMillimetres * m[8], s.single_inverse);
  j[11] = s.PredictPoly(kMillimetres * m[9], s.single_inverse);
  ChangeSigns(j, s.mirrored);
  HoldWithin(s.joint_max, s.joint_min, j);
  return j;
}

Ints InputsOf(const KorvaneTesselSolver& s, const Twelve& lengths) {
  Ints inputs(kMotorCount);
  for (std::size_t i = 0; i < kMotorCount; ++i) {
    // Cuts fractions off.
    inputs[i] = static_cast<int>(Rescaled(lengths[i], s.motor_length_max[i], s.motor_length_min[i],
                                          s.motor_input_at_max[i], s.motor_input_at_min[i]));
  }
  return inputs;
}

Twelve LengthsAt(const KorvaneTesselSolver& s, const Ints& inputs) {
  Twelve lengths{};
  for (std::size_t i = 0; i < kMotorCount; ++i) {
    lengths[i] = Rescaled(inputs[i], s.motor_input_at_max[i], s.motor_input_at_min[i],
                          s.motor_length_max[i], s.motor_length_min[i]);
  }
  return lengths;
}

Ints InputsForJoints(const KorvaneTesselSolver& s, Twelve joints) {
  BringWithinLimits(s, joints);
  return InputsOf(s, LengthsOf(s, joints));
}

Doubles ToVector(const Twelve& values) { return {values.begin(), values.end()}; }

}  // namespace

KorvaneTesselSolver::KorvaneTesselSolver(bool const& mirrored_hand)
    : mirrored(mirrored_hand),
      joint_max(Column(kJoints, &JointRow::max)),
      joint_min(Column(kJoints, &JointRow::min)),
      motor_length_max(Column(kMotors, &MotorRow::length_max)),
      motor_length_min(Column(kMotors, &MotorRow::length_min)),
      motor_input_at_max(Column(kMotors, &MotorRow::input_at_max)),
      motor_input_at_min(Column(kMotors, &MotorRow::input_at_min)),
      thumb_forward_0{0.0, -4.414, -2.493, 0.4605, 0.1868},
      thumb_forward_1{0.0, 2.265, 5.312, -1.507, -0.01794},
      thumb_forward_2{0.0, 13.68, -5.975, 4.724, -0.4232},
      thumb_forward_3{0.0, 6.451, 2.701, -1.323, -0.00933},
      thumb_inverse_0{0.0, -0.2217, -0.02095, -0.002611, -0.0001367},
      thumb_inverse_1{0.0, 0.291, -0.04408, 0.005031, -0.0002107},
      thumb_inverse_2{0.0, 0.07162, 0.003203, -0.0001568, -3.044e-06},
      thumb_inverse_3{0.0, 0.1504, -0.006036, 0.0004235, -2.954e-06},
      single_forward{0.0, -6.13, -4.317, 0.5921, 0.306},
      single_inverse{0.0, -0.1488, -0.008172, -0.0004489, -8.805e-06},
      coupling_thumb{0.0, 0.6359, -0.3539, -0.3066, -0.124},
      coupling_first{0.0, 1.063, 0.08942, 0.1845, -0.2169},
      coupling_second{0.0, 1.149, -0.2581, 0.6033, -0.3371},
      coupling_last_a{0.0, 0.7869, 0.3884, -0.4545, 0.1578},
      coupling_last_b{0.0, 0.899, 0.3138, -0.1728, -0.03666},
      abad_mcp_forward_a{0.0,      0.006081,   -0.008884, -0.003837,  0.001554,
                         -0.00396, -0.0009369, 0.005173,  -0.0004128, 0.001921},
      abad_mcp_forward_b{0.0,       -0.006083, -0.008884, -0.003836, -0.001553,
                         -0.003959, 0.0009361, 0.005173,  0.0004146, 0.001921},
      abad_mcp_inverse_a{0.0,   -81.62,   81.62,    -852.2,    -1.366,
                         853.7, -72960.0, 168600.0, -168600.0, 73010.0},
      abad_mcp_inverse_b{0.0,     -54.01,    -54.03,  -2737.0, 2464.0,
                         -2738.0, -137800.0, 69810.0, 70000.0, -137800.0},
      pip_forward_first{-0.003342057, -0.003554716, 0.000605222, -0.000922706, 0.000619337,
                        -0.000479029, -5.98e-05,    5.92e-17,    -1.52e-16,    4.18e-17,
                        -1.36e-16,    9.22e-17,     3.75e-17,    -0.002522849, 0.001113772,
                        0.000426514,  0.0,          6.57e-16,    -0.000158924, 0.0013434},
      pip_inverse_first{-239.38462,   -18084.14901, 0.071080981, 11.66347542,  1735.505584,
                        -0.074887112, 4.73,         -1.56e-14,   -1.49e-13,    4.91e-11,
                        1.38e-14,     2.15e-13,     -3.92e-15,   -0.463491891, -38.51910042,
                        0.0687204,    0.0,          1.51e-13,    -0.023075136, -1244934.545},
      pip_forward_second{-0.004504499, -0.002341199, 0.000697489, -0.000962223, 0.000512516,
                         -0.000609666, 0.000108,     9.45e-18,    1.05e-16,     -5.43e-17,
                         2.4e-17,      -1.31e-17,    -3.95e-17,   -0.002541165, 0.001239013,
                         0.000411984,  0.0,          -4.11e-16,   -0.000147334, 0.000961855},
      pip_inverse_second{-206.3849098, -10893.31803, 0.089069357, 16.01605453,  1535.395248,
                         -0.08634878,  0.933,        -8.18e-14,   -1.75e-12,    1.36e-11,
                         -9.64e-15,    1.5e-13,      4.65e-15,    -0.429062665, -35.49983074,
                         0.059369174,  0.0,          -2.53e-13,   -0.021891079, -768921.6366} {}

// In all the fits the order of the operations is fixed, as in Polynomial.

double KorvaneTesselSolver::PredictPoly(double const& x, Doubles const& c) const {
  return solver::Polynomial(x, c);
}

double KorvaneTesselSolver::PredictPoly33(double const& x, double const& y,
                                          Doubles const& p) const {
  if (p.size() != 10) {
    throw std::invalid_argument("predictPoly33 requires exactly 10 coefficients.");
  }
  return p[0] + p[1] * x + p[2] * y + p[3] * x * x + p[4] * x * y + p[5] * y * y +
         p[6] * x * x * x + p[7] * x * x * y + p[8] * x * y * y + p[9] * y * y * y;
}

double KorvaneTesselSolver::FingerPIPFitPredict(double const& x, double const& y, double const& z,
                                                Doubles const& f) const {
  if (f.size() != 20) throw std::invalid_argument("Expected 20 coefficients.");
  const double terms[] = {z,         z * z,     y,         y * z,     y * z * z,
                          y * y,     y * y * z, x,         x * z,     x * z * z,
                          x * y,     x * y * z, x * y * y, x * x,     x * x * z,
                          x * x * y, 1.0,       x * x * x, y * y * y, z * z * z};
  double sum = 0.0;
  for (std::size_t k = 0; k < std::size(terms); ++k) sum += f[k] * terms[k];
  return sum;
}

Doubles KorvaneTesselSolver::Scale(Doubles const& value, Doubles const& source_max,
                                   Doubles const& source_min, Doubles const& target_max,
                                   Doubles const& target_min) const {
  for (const Doubles* limits : {&source_max, &source_min, &target_max, &target_min}) {
    if (limits->size() != value.size()) ThrowScaleSizes();
  }
  Doubles result(value.size());
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i] = Rescaled(value[i], source_max[i], source_min[i], target_max[i], target_min[i]);
  }
  return result;
}

void KorvaneTesselSolver::ClampAbadMcpJoint(double const& abad, double& mcp) const {
  const double lower = kLowerSlope * std::abs(abad);
  const double upper = kUpperBound - kUpperSlope * std::abs(abad);
  if (mcp < lower) {
    LogError(Compose("[WARN] the angle of mcp (", mcp, ") is below lower bound ", lower,
                     ",adjusted to boundary."));
    mcp = lower;
  } else if (mcp > upper) {
    LogError(Compose("[WARN] the angle of mcp (", mcp, ") is above upper bound ", upper,
                     ",adjusted to boundary."));
    mcp = upper;
  }
}

bool KorvaneTesselSolver::CheckJointPos(Doubles& joint_pos) const {
  if (!AreJoints(joint_pos.size())) return false;
  BringWithinLimits(*this, joint_pos);
  return true;
}

bool KorvaneTesselSolver::CheckActuatorInput(Ints const& actuator_input) const {
  if (actuator_input.size() != joint_max.size()) {
    LogError(Compose("[ERROR]: Motor input size does not match expected motor count. Got ",
                     actuator_input.size(), ", expected ", joint_max.size()));
    return false;
  }
  for (std::size_t i = 0; i < actuator_input.size(); ++i) {
    if (actuator_input[i] >= 0 && actuator_input[i] <= kInputMax) continue;
    LogError(Compose("[ERROR]: Motor ", i, " input ", actuator_input[i],
                     " is out of global range [", 0, ", ", kInputMax, "]"));
    return false;
  }
  return true;
}

Doubles KorvaneTesselSolver::ActiveJoint2MotorLength(Doubles const& joint_pos) const {
  return ToVector(LengthsOf(*this, ToTwelve(joint_pos)));
}

Doubles KorvaneTesselSolver::MotorLength2ActiveJoint(Doubles const& motor_length) const {
  if (!HasSize("MotorLength2ActiveJoint", motor_length.size(), kMotorCount)) return {};
  return ToVector(JointsOf(*this, ToTwelve(motor_length)));
}

Ints KorvaneTesselSolver::MotorLength2MotorInput(Doubles const& motor_length) const {
  if (motor_length.size() != kMotorCount) ThrowScaleSizes();
  return InputsOf(*this, ToTwelve(motor_length));
}

Doubles KorvaneTesselSolver::MotorInput2MotorLength(Ints const& motor_input) const {
  if (!HasSize("MotorInput2MotorLength", motor_input.size(), kMotorCount)) return {};
  return ToVector(LengthsAt(*this, motor_input));
}

Ints KorvaneTesselSolver::ConvertJoint2Actuator(Doubles const& joint_pos) const {
  if (!AreJoints(joint_pos.size())) return {};
  return InputsForJoints(*this, ToTwelve(joint_pos));
}

Doubles KorvaneTesselSolver::ConvertActuator2Joint(Ints const& actuator_input) const {
  if (!CheckActuatorInput(actuator_input)) {
    LogError("[ERROR]: ConvertActuator2Joint: Invalid actuator input, returning empty vector");
    return {};
  }
  return ToVector(JointsOf(*this, LengthsAt(*this, actuator_input)));
}

/// Both of the last fingers take their coupled joints from the fourth one's active joint.
Doubles KorvaneTesselSolver::GetAllJointPos(Doubles const& a) const {
  if (!HasSize("GetAllJointPos", a.size(), kMotorCount)) return {};
  const double thumb = PredictPoly(a[3], coupling_thumb);
  const double first = PredictPoly(a[6], coupling_first);
  const double second = PredictPoly(a[9], coupling_second);
  const double last_a = PredictPoly(a[11], coupling_last_a);
  const double last_b = PredictPoly(a[11], coupling_last_b);
  return {a[0], a[1], a[2],   a[3],  thumb,  a[4],   a[5],  a[6],   first, a[7],
          a[8], a[9], second, a[10], last_a, last_b, a[11], last_a, last_b};
}

Ints KorvaneTesselSolver::SetHandGesture(int const& gesture) const {
  const bool known = gesture >= 0 && gesture < static_cast<int>(std::size(kGestures));
  Twelve joints{};
  std::copy_n(std::begin(kGestures[known ? gesture : 0]), joints.size(), joints.begin());
  return InputsForJoints(*this, joints);
}

}  // namespace talvera::korvane::ts9
