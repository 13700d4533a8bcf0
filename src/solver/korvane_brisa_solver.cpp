#include "korvane_brisa_solver.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>

#include "solver/solver_support.h"
#include "util/log.h"

namespace talvera::korvane::br7 {
namespace {

using solver::Column;
using solver::Difference;
using solver::HasSize;

/// One joint. The limits are those of the plain hand; the mirrored one negates and swaps those of
/// the joints whose direction is -1. Its actuators don't follow from a rule, so both are given.
struct JointRow {
  double joint_min;
  double joint_max;
  double linear_min;
  double linear_max;
  int direction;
  int actuator_at_min;
  int actuator_at_max;
  int mirrored_at_min;
  int mirrored_at_max;
};

constexpr JointRow kJoints[] = {
    {-0.03, 1.12, -0.03, 1.12, -1, 4096, 0, 0, 4096},  // thumb
    {-1.64, 0.05, -1.64, 0.05, -1, 4096, 0, 4096, 0},  // thumb
    {0.0, 0.8416, 0.0, 1.33, -1, 4096, 0, 0, 4096},    // thumb
    {-0.16, 0.0, -0.16, 0.0, -1, 4096, 0, 4096, 0},    // index, sideways
    {0.0, 1.48, 0.0, 1.43, 1, 4096, 0, 4096, 0},       // index
    {0.0, 1.48, 0.0, 1.43, 1, 4096, 0, 4096, 0},       // middle
    {0.0, 0.17, 0.0, 0.17, -1, 0, 4096, 0, 4096},      // ring, sideways
    {0.0, 1.48, 0.0, 1.43, 1, 4096, 0, 4096, 0},       // ring
    {0.0, 0.19, 0.0, 0.19, -1, 4096, 0, 4096, 0},      // little, sideways
    {0.0, 1.48, 0.0, 1.43, 1, 4096, 0, 4096, 0},       // little
};
constexpr std::size_t kJointCount = std::size(kJoints);

/// A value for each joint, where a vector would be another allocation.
using JointArray = std::array<double, kJointCount>;

/// The joints whose position isn't linear in the actuator input.
constexpr std::size_t kThumbJoint = 2;
constexpr std::size_t kFlexionJoints[] = {4, 5, 7, 9};

/// Active joint positions by gesture number, as for the plain hand.
constexpr double kGestures[][kJointCount] = {
    {0.58, -0.21, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0},
    {0.43, -0.3, 0.66, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48},
    {0.5, -1.0, 0.75, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48},
    {-0.03, -1.51, 0.7, -0.16, 0.85, 0.21, 0.07, 0.153, 0.107, 0.1},
    {0.8, -0.4, 0.47, 0.0, 0.82, 1.48, 0.0, 1.48, 0.0, 1.48},
    {0.27, 0.0, 0.0, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48},
    {0.33, 0.0, 0.0, -0.1, 0.0, 1.48, 0.07, 1.48, 0.11, 0.0},
    {0.32, -1.12, 0.79, -0.06, 0.0, 1.48, 0.0, 1.48, 0.0, 1.48},
    {0.48, -1.5, 0.79, -0.16, 0.0, 0.0, 0.0, 1.48, 0.0, 1.48},
    {0.64, -1.48, 0.81, -0.16, 0.0, 0.0, 0.09, 0.0, 0.09, 1.48},
    {0.64, -1.48, 0.81, -0.16, 0.0, 0.0, 0.07, 0.0, 0.15, 0.0},
    {0.4, 0.0, 0.0, 0.0, 1.48, 1.48, 0.05, 1.48, 0.17, 0.0},
    {0.4, 0.0, 0.0, 0.0, 0.0, 1.48, 0.0, 1.48, 0.0, 1.48},
    {-0.03, -1.36, 0.0, 0.0, 0.65, 0.65, 0.0, 0.65, 0.0, 0.65},
    {0.3, -0.1, 0.66, 0.0, 1.1, 1.1, 0.0, 1.1, 0.0, 1.1},
    {0.0, -1.56, 0.46, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0},
    {0.5, -0.8, 0.2, -0.16, 0.6, 0.6, 0.17, 0.6, 0.17, 0.6},
};

JointRow Mirrored(const JointRow& plain) {
  JointRow row = plain;
  row.actuator_at_min = plain.mirrored_at_min;
  row.actuator_at_max = plain.mirrored_at_max;
  if (plain.direction == -1) {
    row.joint_min = -plain.joint_max;
    row.joint_max = -plain.joint_min;
    row.linear_min = -plain.linear_max;
    row.linear_max = -plain.linear_min;
  }
  return row;
}

/// The joint table as it is on one side of the hand.
std::vector<JointRow> Joints(bool mirrored) {
  std::vector<JointRow> rows(std::begin(kJoints), std::end(kJoints));
  if (mirrored) std::transform(rows.begin(), rows.end(), rows.begin(), Mirrored);
  return rows;
}

/// Takes the joints that aren't linear from the one scale to the other.
template <class Joints>
void ApplyFits(Joints& joints, const std::vector<double>& thumb_fit,
               const std::vector<double>& flexion_fit) {
  joints[kThumbJoint] = solver::Polynomial(joints[kThumbJoint], thumb_fit);
  for (const std::size_t i : kFlexionJoints) {
    joints[i] = solver::Polynomial(joints[i], flexion_fit);
  }
}

template <class Joints>
void HoldWithinLimits(const KorvaneBrisaSolver& s, Joints& joints) {
  const std::size_t count = std::min(joints.size(), kJointCount);
  for (std::size_t i = 0; i < count; ++i) {
    joints[i] = solver::Confine(s.joint_min[i], s.joint_max[i], joints[i]);
  }
}

std::vector<int> ActuatorInputs(const KorvaneBrisaSolver& s, JointArray joints) {
  HoldWithinLimits(s, joints);
  ApplyFits(joints, s.mirrored ? s.thumb_forward_mirrored : s.thumb_forward_plain,
            s.flexion_forward);
  std::vector<int> inputs(kJointCount);
  for (std::size_t i = 0; i < kJointCount; ++i) {
    const double offset = Difference(s.actuator_at_max[i], s.actuator_at_min[i]) *
                          (joints[i] - s.linear_min[i]) / (s.linear_max[i] - s.linear_min[i]);
    // The limits left nothing that an int can't hold. Truncating before the addition, and no second
    // clamp: the fits miss the ends of the scale by some units, and applications see those.
    inputs[i] = static_cast<int>(offset) + s.actuator_at_min[i];
  }
  return inputs;
}

}  // namespace

KorvaneBrisaSolver::KorvaneBrisaSolver(bool const& mirrored_hand)
    : mirrored(mirrored_hand),
      actuator_at_max(Column(Joints(mirrored), &JointRow::actuator_at_max)),
      actuator_at_min(Column(Joints(mirrored), &JointRow::actuator_at_min)),
      joint_max(Column(Joints(mirrored), &JointRow::joint_max)),
      joint_min(Column(Joints(mirrored), &JointRow::joint_min)),
      linear_max(Column(Joints(mirrored), &JointRow::linear_max)),
      linear_min(Column(Joints(mirrored), &JointRow::linear_min)),
      direction(Column(Joints(mirrored), &JointRow::direction)),
      distal_coupling{0.0, 2.192, -1.425, 0.747, -0.167},
      flexion_forward{0.00944480234881967, 0.455882677008572, 0.683758090072141, -0.916673507519311,
                      0.459387725400186},
      flexion_inverse{-0.000257594494466942, 1.57144033291557, 0.217395210463076,
                      -0.768328304426314, 0.248168989312469},
      thumb_tip_coupling_a{0.0, 1.33},
      thumb_tip_coupling_b{0.0, 1.846, mirrored ? 0.853 : -0.853, 0.28},
      thumb_tip_inverse_a{0.0, 0.7518796992481203},
      thumb_forward_plain{0.00126371020922368, 0.919140692758276, 0.550958572722048,
                          -0.785384985903032, 1.25635285116862},
      thumb_forward_mirrored{-0.00126371020922368, 0.919140692758276, -0.550958572722048,
                             -0.785384985903032, -1.25635285116862},
      thumb_inverse_plain{-0.000677604838762652, 1.05175893483608, -0.280133575638901,
                          -0.115384415912668, 0.0676128925382166},
      thumb_inverse_mirrored{0.000677604838762652, 1.05175893483608, 0.280133575638901,
                             -0.115384415912668, -0.0676128925382166} {}

std::vector<int> KorvaneBrisaSolver::ActiveJointPos2ActuatorInput(
    std::vector<double> const& joint_pos) const {
  if (!HasSize("ActiveJointPos2ActuatorInput", joint_pos.size(), kJointCount)) return {};
  if (show_details && !CheckJointPos(joint_pos)) LogInfo("joint position over limit");

  JointArray joints{};
  std::copy(joint_pos.begin(), joint_pos.end(), joints.begin());
  return ActuatorInputs(*this, joints);
}

std::vector<double> KorvaneBrisaSolver::ActuatorInput2ActiveJointPos(
    std::vector<int> const& actuator_input) const {
  if (!HasSize("ActuatorInput2ActiveJointPos", actuator_input.size(), kJointCount)) return {};

  std::vector<double> joint_pos(kJointCount);
  for (std::size_t i = 0; i < kJointCount; ++i) {
    joint_pos[i] = (linear_max[i] - linear_min[i]) *
                       Difference(actuator_input[i], actuator_at_min[i]) /
                       Difference(actuator_at_max[i], actuator_at_min[i]) +
                   linear_min[i];
  }
  ApplyFits(joint_pos, mirrored ? thumb_inverse_mirrored : thumb_inverse_plain, flexion_inverse);
  ClampJointPos(joint_pos);
  return joint_pos;
}

std::vector<double> KorvaneBrisaSolver::GetAllJointPos(std::vector<double> const& joint_pos) const {
  if (!HasSize("GetAllJointPos", joint_pos.size(), kJointCount)) return {};
  const auto& a = joint_pos;
  const auto distal = [this](double flexion) { return CalculatePower(flexion, distal_coupling); };
  return {a[0],
          a[1],
          a[2],
          CalculatePower(a[2], thumb_tip_coupling_a),
          CalculatePower(a[2], thumb_tip_coupling_b),
          a[3],
          a[4],
          distal(a[4]),
          a[5],
          distal(a[5]),
          a[6],
          a[7],
          distal(a[7]),
          a[8],
          a[9],
          distal(a[9])};
}

std::vector<int> KorvaneBrisaSolver::SetHandGesture(int const& gesture) const {
  JointArray joints{};
  // As unsigned a negative number is beyond the table too.
  const auto row = static_cast<unsigned>(gesture);
  if (row < std::size(kGestures)) {
    std::copy(std::begin(kGestures[row]), std::end(kGestures[row]), joints.begin());
  }
  for (std::size_t i = 0; i < kJointCount; ++i) joints[i] *= mirrored ? direction[i] : 1;
  return ActuatorInputs(*this, joints);
}

double KorvaneBrisaSolver::CalculatePower(double x, std::vector<double> const& coefficients) const {
  return solver::Polynomial(x, coefficients);
}

bool KorvaneBrisaSolver::CheckJointPos(std::vector<double> const& joint_pos) const {
  if (!HasSize("CheckJointPos", joint_pos.size(), kJointCount)) return false;
  bool within_limits = true;
  for (std::size_t i = 0; i < kJointCount; ++i) {
    within_limits = within_limits && joint_min[i] <= joint_pos[i] && joint_pos[i] <= joint_max[i];
  }
  return within_limits;
}

// No number is at least 4096 and at most 0, so that the answer is false for every ten inputs.
// Applications rely on it, as on the conversion that takes any input: don't put the pair in order.
bool KorvaneBrisaSolver::CheckActuatorInput(std::vector<int> const& actuator_input) const {
  if (!HasSize("CheckActuatorInput", actuator_input.size(), kJointCount)) return false;
  return std::all_of(actuator_input.begin(), actuator_input.end(), [this](int input) {
    return actuator_lower <= input && input <= actuator_upper;
  });
}

void KorvaneBrisaSolver::ClampJointPos(std::vector<double>& joint_pos) const {
  HoldWithinLimits(*this, joint_pos);
}

}  // namespace talvera::korvane::br7
