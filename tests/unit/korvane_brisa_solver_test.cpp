#include "korvane_brisa_solver.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/capture.h"

namespace talvera::korvane::br7 {
namespace {

using Ints = std::vector<int>;
using Doubles = std::vector<double>;

template <class Given, class Expected>
struct Row {
  bool mirrored;
  Given given;
  Expected expected;
};
using ForwardRow = Row<Doubles, Ints>;
using InverseRow = Row<Ints, Doubles>;
using AllJointsRow = Row<Doubles, Doubles>;
using GestureRow = Row<int, Ints>;
#include "brisa_solver_table.inc"

constexpr double kTolerance = 1e-12;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr int kIntMin = std::numeric_limits<int>::min();
constexpr int kIntMax = std::numeric_limits<int>::max();

const KorvaneBrisaSolver kPlain(false);
const KorvaneBrisaSolver kMirrored(true);

const KorvaneBrisaSolver& Side(bool mirrored) { return mirrored ? kMirrored : kPlain; }

void ExpectNear(const Doubles& actual, const Doubles& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) {
    EXPECT_NEAR(actual[i], expected[i], kTolerance) << "element " << i;
  }
}

std::string ErrorsOf(const std::function<void()>& action) {
  return test::CaptureStreams(action).err;
}

std::string OutputOf(const std::function<void()>& action) {
  return test::CaptureStreams(action).out;
}

TEST(KorvaneBrisaSolver, GivesTheActuatorInputsOfAnIndependentCalculation) {
  for (const ForwardRow& row : kForwardRows) {
    EXPECT_EQ(Side(row.mirrored).ActiveJointPos2ActuatorInput(row.given), row.expected)
        << "row " << &row - kForwardRows;
  }
}

TEST(KorvaneBrisaSolver, GivesTheJointPositionsOfAnIndependentCalculation) {
  for (const InverseRow& row : kInverseRows) {
    SCOPED_TRACE(&row - kInverseRows);
    ExpectNear(Side(row.mirrored).ActuatorInput2ActiveJointPos(row.given), row.expected);
  }
}

TEST(KorvaneBrisaSolver, DerivesTheSixteenJointsOfAnIndependentCalculation) {
  for (const AllJointsRow& row : kAllJointsRows) {
    SCOPED_TRACE(&row - kAllJointsRows);
    ExpectNear(Side(row.mirrored).GetAllJointPos(row.given), row.expected);
  }
  EXPECT_EQ(kPlain.GetAllJointPos(Doubles(10, 0.0)), Doubles(16, 0.0));
  // No operation uses this table, but applications invert the thumb's coupling with it.
  const double tip = kPlain.CalculatePower(0.5, kPlain.thumb_tip_coupling_a);
  EXPECT_NEAR(kPlain.CalculatePower(tip, kPlain.thumb_tip_inverse_a), 0.5, kTolerance);
}

TEST(KorvaneBrisaSolver, GivesTheGesturesOfAnIndependentCalculation) {
  for (const GestureRow& row : kGestureRows) {
    EXPECT_EQ(Side(row.mirrored).SetHandGesture(row.given), row.expected)
        << "mirrored " << row.mirrored << " gesture " << row.given;
  }
}

TEST(KorvaneBrisaSolver, TakesAPositionBeyondItsLimitAsTheLimit) {
  for (const bool mirrored : {false, true}) {
    const KorvaneBrisaSolver& solver = Side(mirrored);
    const Ints at_min = solver.ActiveJointPos2ActuatorInput(solver.joint_min);
    const Ints at_max = solver.ActiveJointPos2ActuatorInput(solver.joint_max);
    EXPECT_EQ(solver.ActiveJointPos2ActuatorInput(Doubles(10, kInfinity)), at_max);
    EXPECT_EQ(solver.ActiveJointPos2ActuatorInput(Doubles(10, -1e300)), at_min);
    EXPECT_EQ(solver.ActiveJointPos2ActuatorInput(Doubles(10, kNaN)), at_min);
  }
}

TEST(KorvaneBrisaSolver, ReportsPositionsOverTheLimitOnlyWhileDetailsAreShown) {
  KorvaneBrisaSolver solver(false);
  Doubles over = solver.joint_max;
  over[9] += 0.01;
  const Ints expected = solver.ActiveJointPos2ActuatorInput(solver.joint_max);
  const auto convert = [&] { EXPECT_EQ(solver.ActiveJointPos2ActuatorInput(over), expected); };

  EXPECT_FALSE(solver.show_details);
  EXPECT_EQ(OutputOf(convert), "");
  solver.show_details = true;
  EXPECT_EQ(OutputOf(convert), "joint position over limit\n");
  EXPECT_EQ(OutputOf([&] { solver.ActiveJointPos2ActuatorInput(solver.joint_max); }), "");
  // A gesture is brought within the limits before it is converted.
  EXPECT_EQ(OutputOf([&] { solver.SetHandGesture(3); }), "");
}

TEST(KorvaneBrisaSolver, ChecksJointPositionsAgainstBothLimitsIncluded) {
  for (const KorvaneBrisaSolver* solver : {&kPlain, &kMirrored}) {
    EXPECT_TRUE(solver->CheckJointPos(solver->joint_min));
    EXPECT_TRUE(solver->CheckJointPos(solver->joint_max));
    for (std::size_t i = 0; i < 10; ++i) {
      for (const double bad : {solver->joint_min[i] - 1e-9, solver->joint_max[i] + 1e-9, kNaN}) {
        Doubles joint_pos = solver->joint_min;
        joint_pos[i] = bad;
        EXPECT_FALSE(solver->CheckJointPos(joint_pos)) << "joint " << i << " at " << bad;
      }
    }
  }
}

// Applications convert whatever the hand reports, so that the check must not begin to reject.
TEST(KorvaneBrisaSolver, ActuatorCheckIsFalseForAnyTenInputsAndStopsNoConversion) {
  for (const int input : {kIntMin, -1, 0, 2048, 4096, 4097, kIntMax}) {
    EXPECT_EQ(ErrorsOf([&] { EXPECT_FALSE(kPlain.CheckActuatorInput(Ints(10, input))); }), "");
    EXPECT_EQ(kPlain.ActuatorInput2ActiveJointPos(Ints(10, input)).size(), 10U);
  }
  EXPECT_EQ(kPlain.actuator_lower, 4096);
  EXPECT_EQ(kPlain.actuator_upper, 0);
}

TEST(KorvaneBrisaSolver, ClampTakesNaNToTheLowerLimitAndStaysInsideTheVector) {
  Doubles short_vector{5.0, kNaN, -5.0};
  kMirrored.ClampJointPos(short_vector);
  EXPECT_EQ(short_vector, (Doubles{0.03, -0.05, -0.8416}));

  Doubles empty;
  kPlain.ClampJointPos(empty);
  EXPECT_TRUE(empty.empty());

  Doubles long_vector(12, 9.0);
  kPlain.ClampJointPos(long_vector);
  Doubles expected = kPlain.joint_max;
  expected.insert(expected.end(), {9.0, 9.0});
  EXPECT_EQ(long_vector, expected);
}

TEST(KorvaneBrisaSolver, WrongSizesGiveTheFailureValueAndOneLine) {
  const KorvaneBrisaSolver& solver = kPlain;
  for (const std::size_t size : {0U, 9U, 11U}) {
    const Doubles joint_pos(size, 0.1);
    const Ints input(size, 100);
    const std::pair<std::string, std::function<bool()>> cases[] = {
        {"ActiveJointPos2ActuatorInput",
         [&] { return solver.ActiveJointPos2ActuatorInput(joint_pos).empty(); }},
        {"ActuatorInput2ActiveJointPos",
         [&] { return solver.ActuatorInput2ActiveJointPos(input).empty(); }},
        {"CheckActuatorInput", [&] { return !solver.CheckActuatorInput(input); }},
        {"CheckJointPos", [&] { return !solver.CheckJointPos(joint_pos); }},
        {"GetAllJointPos", [&] { return solver.GetAllJointPos(joint_pos).empty(); }},
    };
    for (const auto& [operation, fails] : cases) {
      bool failed = false;
      EXPECT_EQ(ErrorsOf([&failed, run = fails] { failed = run(); }),
                "[ERROR]: " + operation + ": Invalid input size. Got " + std::to_string(size) +
                    ", expected 10\n");
      EXPECT_TRUE(failed) << operation;
    }
  }
}

}  // namespace
}  // namespace talvera::korvane::br7
