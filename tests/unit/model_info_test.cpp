#include "korvane_model.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "korvane_brisa_solver.h"
#include "korvane_tessel_solver.h"

namespace talvera::korvane {
namespace {

/// A pose anywhere within the limits leaves each joint within its own, coupled ones included, and
/// puts each active one where its row says.
template <class Solver>
void CheckJoints(Model model, HandType side) {
  const Solver solver(side == HandType::LEFT);
  const int gestures = InfoOf(model).gestures;
  EXPECT_NE(solver.SetHandGesture(gestures - 1), solver.SetHandGesture(-1));
  EXPECT_EQ(solver.SetHandGesture(gestures), solver.SetHandGesture(-1));
  const auto joints = JointsOf(model, side);
  std::set<std::string> names;
  for (const JointInfo& joint : joints) names.insert(joint.name);
  EXPECT_EQ(names.size(), joints.size());
  std::mt19937 random(1);
  for (int i = 0; i < 1000; ++i) {
    std::vector<double> active;
    for (std::size_t j = 0; j < solver.joint_min.size(); ++j) {
      std::uniform_real_distribution<double> angle(solver.joint_min[j], solver.joint_max[j]);
      active.push_back(angle(random));
    }
    const auto all = solver.GetAllJointPos(active);
    ASSERT_EQ(all.size(), joints.size());
    for (std::size_t j = 0; j < joints.size(); ++j) {
      const JointInfo& joint = joints[j];
      constexpr double kBetweenSteps = 1e-3;
      EXPECT_GE(all[j], joint.lower - kBetweenSteps) << joint.name;
      EXPECT_LE(all[j], joint.upper + kBetweenSteps) << joint.name;
      if (joint.active_index < 0) {
        EXPECT_FALSE(joint.can_be_commanded) << joint.name;
      } else {
        EXPECT_EQ(all[j], active[static_cast<std::size_t>(joint.active_index)]) << joint.name;
      }
    }
  }
}

TEST(ModelInfo, JointsAreThoseOfTheSolvers) {
  for (const HandType side : {HandType::RIGHT, HandType::LEFT}) {
    CheckJoints<br7::KorvaneBrisaSolver>(Model::BRISA, side);
    CheckJoints<ts9::KorvaneTesselSolver>(Model::TESSEL, side);
    // The motor of a left Tessel's first joint goes to its end whatever the target is.
    EXPECT_EQ(JointsOf(Model::TESSEL, side).front().can_be_commanded, side == HandType::RIGHT);
    EXPECT_TRUE(JointsOf(Model::VANTA, side).empty());
  }
  EXPECT_EQ(&InfoOf(static_cast<Model>(99)), &InfoOf(Model::BRISA));
}

}  // namespace
}  // namespace talvera::korvane
