#include <algorithm>
#include <cstddef>

#include "korvane_brisa_solver.h"
#include "korvane_model.h"
#include "korvane_tessel_solver.h"
#include "util/models.h"

namespace talvera::korvane {
namespace {

/// A joint before its limits are known, which are those of a solver.
struct JointRow {
  const char* name;
  int active_index;
};

constexpr int kCoupled = -1;

/// In the order of br7::KorvaneBrisaSolver::GetAllJointPos.
constexpr JointRow kBrisaJoints[] = {
    {"thumb_1", 0},
    {"thumb_2", 1},
    {"thumb_3", 2},
    {"thumb_4", kCoupled},
    {"thumb_5", kCoupled},
    {"index_sideways", 3},
    {"index_flexion", 4},
    {"index_distal", kCoupled},
    {"middle_flexion", 5},
    {"middle_distal", kCoupled},
    {"ring_sideways", 6},
    {"ring_flexion", 7},
    {"ring_distal", kCoupled},
    {"little_sideways", 8},
    {"little_flexion", 9},
    {"little_distal", kCoupled},
};

/// In the order of ts9::KorvaneTesselSolver::GetAllJointPos.
constexpr JointRow kTesselJoints[] = {
    {"thumb_1", 0},
    {"thumb_2", 1},
    {"thumb_3", 2},
    {"thumb_4", 3},
    {"thumb_5", kCoupled},
    {"index_sideways", 4},
    {"index_flexion", 5},
    {"index_middle", 6},
    {"index_distal", kCoupled},
    {"middle_sideways", 7},
    {"middle_flexion", 8},
    {"middle_middle", 9},
    {"middle_distal", kCoupled},
    {"ring_flexion", 10},
    {"ring_middle", kCoupled},
    {"ring_distal", kCoupled},
    {"little_flexion", 11},
    {"little_middle", kCoupled},
    {"little_distal", kCoupled},
};

/// Coupled joints follow curves, so that their limits are looked for all along the way.
constexpr int kSteps = 100;

template <class Solver>
std::vector<double> Between(const Solver& solver, int step) {
  std::vector<double> active = solver.joint_min;
  for (std::size_t i = 0; i < active.size(); ++i) {
    active[i] += (solver.joint_max[i] - solver.joint_min[i]) * step / kSteps;
  }
  return active;
}

template <class Solver, std::size_t count>
std::vector<JointInfo> Joints(const JointRow (&rows)[count], const Solver& solver) {
  std::vector<JointInfo> joints;
  const std::vector<double> start = solver.GetAllJointPos(solver.joint_min);
  for (std::size_t i = 0; i < count; ++i) {
    const bool active = rows[i].active_index != kCoupled;
    joints.push_back({rows[i].name, start[i], start[i], rows[i].active_index, active});
  }
  for (int step = 1; step <= kSteps; ++step) {
    const std::vector<double> angles = solver.GetAllJointPos(Between(solver, step));
    for (std::size_t i = 0; i < count; ++i) {
      joints[i].lower = std::min(joints[i].lower, angles[i]);
      joints[i].upper = std::max(joints[i].upper, angles[i]);
    }
  }
  for (JointInfo& joint : joints) {
    if (joint.active_index == kCoupled) continue;
    const auto active = static_cast<std::size_t>(joint.active_index);
    joint.lower = solver.joint_min[active];
    joint.upper = solver.joint_max[active];
  }
  return joints;
}

std::vector<JointInfo> BrisaJoints(HandType side) {
  return Joints(kBrisaJoints, br7::KorvaneBrisaSolver(side == HandType::LEFT));
}

std::vector<JointInfo> TesselJoints(HandType side) {
  const bool mirrored = side == HandType::LEFT;
  auto joints = Joints(kTesselJoints, ts9::KorvaneTesselSolver(mirrored));
  joints.front().can_be_commanded = !mirrored;
  return joints;
}

/// What is known of any model, with what most of them have.
ModelInfo CommonInfo(Model model, const char* class_name) {
  ModelInfo info{};
  info.model = model;
  info.name = Known(model).name;
  info.class_name = class_name;
  info.positions = Known(model).motors;
  info.has_motors = Known(model).family == kHandFamily;
  info.position_max = 4096;
  return info;
}

std::vector<ModelInfo> MakeModels() {
  ModelInfo brisa = CommonInfo(Model::BRISA, "KorvaneBrisa");
  brisa.gestures = 17;
  brisa.has_service = true;
  brisa.has_serial = true;
  ModelInfo tessel = CommonInfo(Model::TESSEL, "KorvaneTessel");
  tessel.position_max = 2000;
  tessel.gestures = 4;
  tessel.tells_by_reports = true;
  const ModelInfo quill = CommonInfo(Model::QUILL, "KorvaneQuill");
  ModelInfo lumen = CommonInfo(Model::LUMEN, "KorvaneLumen");
  lumen.has_service = true;
  return {brisa, tessel, quill, lumen, CommonInfo(Model::VANTA, "KorvaneVanta")};
}

}  // namespace

const char* ToString(Model model) {
  const auto index = static_cast<std::size_t>(model);
  return index < kKnownModels.size() ? kKnownModels[index].name : "unknown model";
}

const std::vector<ModelInfo>& AllModels() {
  static const std::vector<ModelInfo> models = MakeModels();
  return models;
}

const ModelInfo& InfoOf(Model model) {
  const auto index = static_cast<std::size_t>(model);
  return AllModels()[index < AllModels().size() ? index : 0];
}

const std::vector<JointInfo>& JointsOf(Model model, HandType side) {
  static const std::vector<JointInfo> brisa[] = {BrisaJoints(HandType::LEFT),
                                                 BrisaJoints(HandType::RIGHT)};
  static const std::vector<JointInfo> tessel[] = {TesselJoints(HandType::LEFT),
                                                  TesselJoints(HandType::RIGHT)};
  static const std::vector<JointInfo> none;
  const std::size_t index = side == HandType::LEFT ? 0 : 1;
  if (model == Model::BRISA) return brisa[index];
  return model == Model::TESSEL ? tessel[index] : none;
}

}  // namespace talvera::korvane
