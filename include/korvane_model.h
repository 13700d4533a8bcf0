#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "korvane_export.h"
#include "korvane_types.h"

/// What the library knows of a model without asking a hand: its motors, its joints and their
/// limits. For programs that serve any model. Any thread may call everything here; nothing blocks.
namespace talvera::korvane {

/// The models, by Korvane::model_code.
enum class Model : std::uint8_t { BRISA = 0, TESSEL = 1, QUILL = 2, LUMEN = 3, VANTA = 4 };

/// "brisa" and the like.
KORVANE_EXPORT const char* ToString(Model model);

/// One model.
struct ModelInfo {
  Model model;             ///< Which one.
  const char* name;        ///< "brisa" and the like, as ToString and the addresses have it.
  const char* class_name;  ///< "KorvaneBrisa" and the like.
  int positions;           ///< Values that KorvaneBase::GetAllJointMotorPosi reads; padding aside.
  bool has_motors;         ///< Each position belongs to a motor that can be commanded.
  short position_max;      ///< Positions are 0 to this.
  int gestures;            ///< Gestures are 0 to one less than this; 0: it has none.
  bool has_service;        ///< There is a class with its service interface.
  bool has_serial;         ///< It is to be had on a serial link, too.
  /// Temperatures and currents aren't asked for but come in reports, once SetTemperReportPeriod and
  /// SetCurrentReportPeriod have switched these on: none before.
  bool tells_by_reports;
};

/// All models, by Korvane::model_code.
KORVANE_EXPORT const std::vector<ModelInfo>& AllModels();

/// What is known of one; one that doesn't exist counts as BRISA.
KORVANE_EXPORT const ModelInfo& InfoOf(Model model);

/// One joint of a hand whose kinematics is known.
struct JointInfo {
  /// "thumb_1", "index_flexion" and the like; the same on both sides. Joints of the thumb count
  /// from the palm, coupled ones last.
  std::string name;
  double lower;  ///< Least angle [rad]; of a coupled joint where its active one is at its limit.
  double upper;  ///< Greatest angle [rad].
  /// Its place in KorvaneBase::GetAllActiveJointAngles and SetAllActiveJointAngles, from 0; -1 for
  /// a joint that is coupled to others and can't be commanded.
  int active_index;
  /// Whether a target reaches the joint: false for coupled ones, and for joint 0 of a left
  /// KorvaneTessel, whose motor goes to its end whatever the target is.
  bool can_be_commanded;
};

/// The joints in the order of KorvaneBase::GetAllJointAngles, coupled ones included: 16 of a
/// KorvaneBrisa, 19 of a KorvaneTessel. Empty for the other models, whose kinematics isn't known to
/// the library. The limits are those of that side's solver. Worked out at the first call; stays
/// valid as long as the process runs.
KORVANE_EXPORT const std::vector<JointInfo>& JointsOf(Model model, HandType side);

}  // namespace talvera::korvane
