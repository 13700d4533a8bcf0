#include "korvane_tessel_solver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/capture.h"

namespace talvera::korvane::ts9 {
namespace {

using test::CaptureStreams;
using testing::ElementsAre;
using testing::IsEmpty;
using Ints = std::vector<int>;
using Doubles = std::vector<double>;

struct TableRow {
  const Doubles KorvaneTesselSolver::*table;
  Doubles numbers;
};
struct ConversionRow {
  bool mirrored;
  Doubles joint_pos, other_joints, motor_length;
  Ints motor_input;
};
struct GestureRow {
  bool mirrored;
  int gesture;
  Ints motor_input;
};
#include "tessel_solver_table.inc"

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr int kIntMin = std::numeric_limits<int>::min();
constexpr int kIntMax = std::numeric_limits<int>::max();
constexpr char kEmptyLine[] =
    "[ERROR]: ConvertActuator2Joint: Invalid actuator input, returning empty vector\n";

const KorvaneTesselSolver kPlain(false);
const KorvaneTesselSolver kMirrored(true);

const KorvaneTesselSolver& Side(bool mirrored) { return mirrored ? kMirrored : kPlain; }

auto Near(const Doubles& expected) {
  return testing::Pointwise(testing::DoubleNear(1e-12), expected);
}

template <class Action>
std::string ErrorsOf(const Action& action) {
  return CaptureStreams(action).err;
}

auto Refuses(const std::string& text) {
  return testing::ThrowsMessage<std::invalid_argument>(text);
}

std::string Warning(const std::string& knuckle, const std::string& bound) {
  return "[WARN] the angle of mcp (" + knuckle + ") is " + bound + ",adjusted to boundary.\n";
}

TEST(KorvaneTesselSolver, HoldsTheSameCalibrationOnBothSidesToTheLastDigit) {
  for (const TableRow& row : kTableRows) {
    SCOPED_TRACE(&row - kTableRows);
    EXPECT_EQ(kPlain.*row.table, row.numbers);
    EXPECT_EQ(kMirrored.*row.table, row.numbers);
  }
  EXPECT_FALSE(kPlain.mirrored);
  EXPECT_TRUE(kMirrored.mirrored);
}

TEST(KorvaneTesselSolver, GivesTheMotorInputsOfAnIndependentCalculation) {
  for (const ConversionRow& row : kForwardRows) {
    SCOPED_TRACE(&row - kForwardRows);
    const KorvaneTesselSolver& solver = Side(row.mirrored);
    Doubles checked = row.joint_pos;
    ErrorsOf([&] {
      EXPECT_TRUE(solver.CheckJointPos(checked));
      EXPECT_EQ(solver.ConvertJoint2Actuator(row.joint_pos), row.motor_input);
    });
    EXPECT_THAT(checked, Near(row.other_joints));
    EXPECT_THAT(solver.ActiveJoint2MotorLength(row.other_joints), Near(row.motor_length));
    EXPECT_EQ(solver.MotorLength2MotorInput(row.motor_length), row.motor_input);
  }
}

TEST(KorvaneTesselSolver, GivesTheJointPositionsOfAnIndependentCalculation) {
  for (const ConversionRow& row : kInverseRows) {
    SCOPED_TRACE(&row - kInverseRows);
    const KorvaneTesselSolver& solver = Side(row.mirrored);
    EXPECT_THAT(solver.MotorInput2MotorLength(row.motor_input), Near(row.motor_length));
    EXPECT_THAT(solver.MotorLength2ActiveJoint(row.motor_length), Near(row.joint_pos));
    EXPECT_THAT(solver.ConvertActuator2Joint(row.motor_input), Near(row.joint_pos));
    EXPECT_THAT(solver.GetAllJointPos(row.joint_pos), Near(row.other_joints));
  }
}

TEST(KorvaneTesselSolver, GivesTheGesturesOfAnIndependentCalculation) {
  for (const GestureRow& row : kGestureRows) {
    const auto convert = [&row = row] {
      EXPECT_EQ(Side(row.mirrored).SetHandGesture(row.gesture), row.motor_input) << row.gesture;
    };
    EXPECT_EQ(ErrorsOf(convert), row.gesture == 2 ? Warning("1.36", "above upper bound 1.35") : "");
  }
}

TEST(KorvaneTesselSolver, HoldsAKnuckleToWhatItsSidewaysJointLeavesIt) {
  const std::string above = Warning("1.35", "above upper bound 1.17273");
  const std::string below = Warning("0", "below lower bound 0.163636");
  const double least = 0.6293692307692308 * 0.26;
  const double most = 1.35 - 0.6818076923076924 * 0.26;
  struct {
    double sideways, knuckle, adjusted;
    std::string warning;
  } const cases[] = {
      {0.26, 0.0, least, below},
      {-0.26, 0.0, least, below},
      {0.26, 1.35, most, above},
      {-0.26, 1.35, most, above},
      {0.26, 0.5, 0.5, ""},
      {0.0, 0.0, 0.0, ""},
      {0.0, 1.35, 1.35, ""},
      {1.5, 0.5, 0.6293692307692308 * 1.5, Warning("0.5", "below lower bound 0.944054")}};
  for (auto [sideways, knuckle, adjusted, warning] : cases) {
    EXPECT_EQ(ErrorsOf([&s = sideways, &k = knuckle] { kPlain.ClampAbadMcpJoint(s, k); }), warning);
    EXPECT_EQ(knuckle, adjusted);
  }
  double mcp = kNaN;
  EXPECT_EQ(ErrorsOf([&] { kPlain.ClampAbadMcpJoint(0.1, mcp); }), "");
  EXPECT_TRUE(std::isnan(mcp));
}

TEST(KorvaneTesselSolver, BringsPositionsWithinTheirLimitsSilentlyButForTheKnuckles) {
  Doubles joint_pos(12, kInfinity);
  joint_pos[4] = joint_pos[7] = kNaN;  // becomes -0.26
  joint_pos[5] = joint_pos[8] = 0.5;
  EXPECT_EQ(ErrorsOf([&] { EXPECT_TRUE(kPlain.CheckJointPos(joint_pos)); }), "");
  EXPECT_THAT(joint_pos,
              ElementsAre(0.94, 0.0, 0.0, 0.0, -0.26, 0.5, 1.53, -0.26, 0.5, 1.82, 1.55, 1.54));

  Doubles nothing(12, kNaN);
  ErrorsOf([&] { kPlain.CheckJointPos(nothing); });
  nothing[5] = nothing[8] = 0.0;
  EXPECT_EQ(nothing, kPlain.joint_min);
}

TEST(KorvaneTesselSolver, PassesInputsFrom0To2000AndNamesTheFirstThatIsNot) {
  EXPECT_TRUE(kPlain.CheckActuatorInput(Ints(12, 0)));
  EXPECT_TRUE(kPlain.CheckActuatorInput(Ints(12, 2000)));
  for (const int bad : {2001, -1, kIntMin, kIntMax}) {
    Ints input(12);
    input[3] = bad;
    input[4] = -7;
    const std::string line =
        "[ERROR]: Motor 3 input " + std::to_string(bad) + " is out of global range [0, 2000]\n";
    EXPECT_EQ(ErrorsOf([&] { EXPECT_FALSE(kPlain.CheckActuatorInput(input)); }), line);
    EXPECT_EQ(ErrorsOf([&] { EXPECT_THAT(kPlain.ConvertActuator2Joint(input), IsEmpty()); }),
              line + kEmptyLine);
  }
}

TEST(KorvaneTesselSolver, TakesWhatLiesBeyondARangeAsItsEnd) {
  EXPECT_EQ(kPlain.MotorInput2MotorLength(Ints(12, kIntMin)),
            kPlain.MotorInput2MotorLength(Ints(12, 0)));
  EXPECT_EQ(kPlain.MotorInput2MotorLength(Ints(12, kIntMax)), Doubles(12, 0.0));
  EXPECT_EQ(kPlain.MotorInput2MotorLength(Ints(12, 0))[0], -0.01456);
  EXPECT_EQ(kPlain.MotorInput2MotorLength(Ints(12, 0))[4], 0.01);

  const std::pair<Doubles, Doubles> lengths[] = {{Doubles(12, kInfinity), kPlain.motor_length_max},
                                                 {Doubles(12, -1e300), kPlain.motor_length_min},
                                                 {Doubles(12, kNaN), kPlain.motor_length_min}};
  for (const auto& [beyond, end] : lengths) {
    EXPECT_EQ(kPlain.MotorLength2MotorInput(beyond), kPlain.MotorLength2MotorInput(end));
    EXPECT_EQ(kPlain.MotorLength2ActiveJoint(beyond), kPlain.MotorLength2ActiveJoint(end));
  }
}

TEST(KorvaneTesselSolver, WrongSizesGiveTheFailureValueAndTheirText) {
  for (const std::size_t size : {0U, 11U, 13U}) {
    const Doubles numbers(size, 9.0);
    const Ints input(size, 100);
    const std::string got = ". Got " + std::to_string(size) + ", expected 12\n";
    const std::string invalid = ": Invalid input size" + got;
    const auto expect_errors = [](const std::string& text, const auto& operation) {
      EXPECT_EQ(ErrorsOf([&] { EXPECT_THAT(operation(), IsEmpty()); }), text);
    };
    expect_errors("[ERROR]: GetAllJointPos" + invalid,
                  [&] { return kPlain.GetAllJointPos(numbers); });
    expect_errors("[ERROR]: MotorLength2ActiveJoint" + invalid,
                  [&] { return kPlain.MotorLength2ActiveJoint(numbers); });
    expect_errors("[ERROR]: MotorInput2MotorLength" + invalid,
                  [&] { return kPlain.MotorInput2MotorLength(input); });
    expect_errors(
        "[ERROR]: Motor input size does not match expected motor count" + got + kEmptyLine,
        [&] { return kPlain.ConvertActuator2Joint(input); });
    // This one has no line end.
    const std::string count = "Joint input size does not match expected joint count.";
    expect_errors(count, [&] { return kPlain.ConvertJoint2Actuator(numbers); });
    Doubles checked = numbers;
    EXPECT_EQ(ErrorsOf([&] { EXPECT_FALSE(kPlain.CheckJointPos(checked)); }), count);
    EXPECT_EQ(checked, numbers);
    EXPECT_THAT([&] { kPlain.MotorLength2MotorInput(numbers); },
                Refuses("Scale: all input vectors must have the same length"));
    EXPECT_EQ(kPlain.ActiveJoint2MotorLength(Doubles(size)), Doubles(12, 0.0));
  }
}

TEST(KorvaneTesselSolver, EvaluatesFitsOfTheRightSizeOnly) {
  EXPECT_EQ(kPlain.PredictPoly(3.0, {}), 0.0);
  EXPECT_EQ(kPlain.PredictPoly(-2.0, {1.0, 2.0, 3.0, 4.0}), -23.0);
  for (const std::size_t size : {9U, 11U, 19U, 21U}) {
    EXPECT_THAT([&] { kPlain.PredictPoly33(2, 3, Doubles(size)); },
                Refuses("predictPoly33 requires exactly 10 coefficients."));
    EXPECT_THAT([&] { kPlain.FingerPIPFitPredict(2, 3, 5, Doubles(size)); },
                Refuses("Expected 20 coefficients."));
  }
}

TEST(KorvaneTesselSolver, ClampTakesItsBoundsInEitherOrder) {
  Doubles values{3.0, -3.0, kNaN, 3.0, -3.0, kNaN};
  kPlain.Clamp({1.0, 1.0, 1.0, -1.0, -1.0, -1.0}, {-1.0, -1.0, -1.0, 1.0, 1.0, 1.0}, values);
  EXPECT_EQ(values, (Doubles{1.0, -1.0, -1.0, 1.0, -1.0, -1.0}));
  Ints ints{kIntMax, kIntMin, 5};
  kPlain.Clamp({0, 0, 9}, {2000, 2000, 2}, ints);
  EXPECT_EQ(ints, (Ints{2000, 0, 5}));

  Doubles none;
  EXPECT_NO_THROW(kPlain.Clamp({}, {}, none));
  const auto refuses = Refuses("Clamp: 'max', 'min' and 'value' vectors must have the same length");
  EXPECT_THAT([&] { kPlain.Clamp({1.0}, {0.0}, none); }, refuses);
  EXPECT_THAT([&] { kPlain.Clamp({0, 0, 9}, {0, 0}, ints); }, refuses);
  EXPECT_THAT([&] { kPlain.Clamp({0, 0}, {0, 0, 9}, ints); }, refuses);
}

TEST(KorvaneTesselSolver, ScaleMapsBetweenRangesThatMayRunEitherWay) {
  EXPECT_EQ(kPlain.Scale({0.25, -1.0, 9.0, kNaN, 0.5, 0.25}, {1.0, 1.0, 1.0, 1.0, -1.0, 1.0},
                         {0.0, 0.0, 0.0, 0.0, 1.0, 0.0}, {9.0, 9.0, 9.0, 9.0, 9.0, 1.0},
                         {1.0, 1.0, 1.0, 1.0, 1.0, 9.0}),
            (Doubles{3.0, 1.0, 9.0, 1.0, 3.0, 7.0}));
  EXPECT_EQ(kPlain.Scale(Ints{500, 9000}, Ints{2000, 2000}, Ints{0, 0}, Doubles{1.0, 1.0},
                         Doubles{0.0, 0.0}),
            (Doubles{0.25, 1.0}));
  EXPECT_EQ(kPlain.Scale(Ints{kIntMax}, Ints{kIntMax}, Ints{kIntMin}, Ints{kIntMax}, Ints{kIntMin}),
            (Doubles{static_cast<double>(kIntMax)}));

  for (std::size_t odd = 0; odd < 5; ++odd) {
    std::array<Doubles, 5> all;
    all.fill({1.0, 0.0});
    all[odd].pop_back();
    EXPECT_THAT([&] { kPlain.Scale(all[0], all[1], all[2], all[3], all[4]); },
                Refuses("Scale: all input vectors must have the same length"));
  }
  EXPECT_THAT([&] { kPlain.Scale(Doubles{1.0}, {2.0}, {2.0}, {1.0}, {0.0}); },
              Refuses("Scale: max and min values must differ for each element"));
}

}  // namespace
}  // namespace talvera::korvane::ts9
