#include "command_gate.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <utility>

namespace korvane_ros2 {

const RefusalText& TextOf(Refusal refusal) {
  static const std::array<RefusalText, kRefusals> texts = {{
      {"not_allowed", "commands aren't allowed (--allow-commands)"},
      {"no_position", "it isn't known where the hand stands"},
      {"other_commander", "somebody else commands"},
      {"old", "it is too old, or the clocks of the machines differ (--no-age-check)"},
      {"ahead", "it comes from the future: the clocks of the machines differ (--no-age-check)"},
      {"size", "names and positions are not as many as each other, or as the hand has"},
      {"unknown_name", "the hand has no joint of that name"},
      {"repeated_name", "a joint is named twice"},
      {"not_commandable", "a joint that it names can't be commanded"},
      {"not_finite", "a value is infinite or no number"},
      {"velocity_or_effort", "it has velocities or efforts"},
      {"beyond_limits", "a value is beyond the limits of its joint or motor"},
      {"not_together", "the angles of a finger don't go together"},
      {"fault", "the hand has a fault"},
      {"far", "after a fault the first command must be close to where the hand stands"},
  }};
  return texts[static_cast<std::size_t>(refusal)];
}

CommandGate::CommandGate(SpaceRules joints, SpaceRules motors, const GateSettings& settings)
    : spaces_{std::move(joints), std::move(motors)}, settings_(settings) {}

void CommandGate::Measured(const std::vector<double>& joints, const std::vector<double>& motors) {
  positions_ = {joints, motors};
}

void CommandGate::Disarm() {
  arming_ = Arming::FAULTED;
  targets_.clear();
  setpoint_.clear();
  commander_.reset();
}

void CommandGate::SetFault(bool is_faulted) {
  is_faulted_ = is_faulted;
  // What has never been armed needs no near command: nothing was under way when the fault came.
  if (is_faulted && arming_ == Arming::ARMED) Disarm();
}

void CommandGate::Lost() {
  Disarm();
  positions_ = {};
}

void CommandGate::Expire(Instant now) {
  if (!commander_ || now - last_command_ <= settings_.silence) return;
  commander_.reset();
  setpoint_.clear();
}

std::optional<Refusal> CommandGate::Take(const Command& command, Instant now) {
  Expire(now);
  std::vector<double> targets;
  if (const auto refusal = Judge(command, targets)) {
    ++refused_[static_cast<std::size_t>(*refusal)];
    return refusal;
  }
  // A walk begins where the hand is, also after a silence, and when joints follow motors.
  if (setpoint_.empty() || space_ != command.space) setpoint_ = Position(command.space);
  space_ = command.space;
  targets_ = std::move(targets);
  arming_ = Arming::ARMED;
  commander_ = command.commander;
  had_commander_ = true;
  last_command_ = now;
  ++accepted_;
  return std::nullopt;
}

std::optional<Refusal> CommandGate::Judge(const Command& command,
                                          std::vector<double>& targets) const {
  if (const auto refusal = JudgeSender(command)) return refusal;
  if (const auto refusal = JudgeForm(command)) return refusal;
  if (Position(command.space).size() != RulesOf(command.space).targets) return Refusal::NO_POSITION;
  targets = TargetsBefore(command.space);
  if (const auto refusal = JudgeValues(command, targets)) return refusal;
  const auto& go_together = RulesOf(command.space).go_together;
  if (go_together && !go_together(targets)) return Refusal::NOT_TOGETHER;
  if (is_faulted_) return Refusal::FAULT;
  if (arming_ == Arming::FAULTED && !IsNear(command, targets)) return Refusal::FAR;
  return std::nullopt;
}

std::optional<Refusal> CommandGate::JudgeSender(const Command& command) const {
  if (!settings_.allow) return Refusal::NOT_ALLOWED;
  if (settings_.check_age && command.age > settings_.max_age) return Refusal::OLD;
  if (settings_.check_age && command.age < -settings_.max_age) return Refusal::AHEAD;
  if (commander_ && *commander_ != command.commander) return Refusal::OTHER_COMMANDER;
  return std::nullopt;
}

std::optional<Refusal> CommandGate::JudgeForm(const Command& command) const {
  const SpaceRules& rules = RulesOf(command.space);
  const bool has_names = command.space == Space::JOINTS;
  const std::size_t wanted = has_names ? command.names.size() : rules.targets;
  if (command.is_too_large || command.values.empty() || command.values.size() != wanted) {
    return Refusal::SIZE;
  }
  if (command.has_velocity_or_effort) return Refusal::VELOCITY_OR_EFFORT;
  const bool is_finite = std::all_of(command.values.begin(), command.values.end(),
                                     [](double value) { return std::isfinite(value); });
  if (!is_finite) return Refusal::NOT_FINITE;
  const std::set<std::string> different(command.names.begin(), command.names.end());
  if (different.size() != command.names.size()) return Refusal::REPEATED_NAME;
  return std::nullopt;
}

std::optional<Refusal> CommandGate::JudgeValues(const Command& command,
                                                std::vector<double>& targets) const {
  const auto& axes = RulesOf(command.space).axes;
  for (std::size_t i = 0; i < command.values.size(); ++i) {
    auto axis = axes.begin() + static_cast<std::ptrdiff_t>(i);
    if (command.space == Space::JOINTS) {
      axis = std::find_if(axes.begin(), axes.end(),
                          [&](const Axis& one) { return one.name == command.names[i]; });
      if (axis == axes.end()) return Refusal::UNKNOWN_NAME;
    }
    if (!axis->can_be_commanded) return Refusal::NOT_COMMANDABLE;
    const double value = std::clamp(command.values[i], axis->lower, axis->upper);
    const bool is_beyond = value < command.values[i] || value > command.values[i];
    if (is_beyond && !settings_.clamp) return Refusal::BEYOND_LIMITS;
    targets[static_cast<std::size_t>(axis->index)] = value;
  }
  return std::nullopt;
}

/// What isn't named keeps its last target, and before there is one stays where it is.
std::vector<double> CommandGate::TargetsBefore(Space space) const {
  const bool has_targets = space == space_ && !targets_.empty();
  return has_targets ? targets_ : Position(space);
}

bool CommandGate::IsNear(const Command& command, const std::vector<double>& targets) const {
  const auto& position = Position(command.space);
  for (std::size_t i = 0; i < targets.size(); ++i) {
    if (std::abs(targets[i] - position[i]) > RulesOf(command.space).near) return false;
  }
  return true;
}

std::optional<Step> CommandGate::Walk(Instant now, Seconds dt) {
  Expire(now);
  if (arming_ != Arming::ARMED || setpoint_.empty()) return std::nullopt;
  const double reach = RulesOf(space_).speed * dt.count();
  if (std::isnan(reach)) return std::nullopt;  // it would hold nothing back
  for (std::size_t i = 0; i < setpoint_.size(); ++i) {
    setpoint_[i] += std::clamp(targets_[i] - setpoint_[i], -reach, reach);
  }
  return Step{space_, setpoint_};
}

}  // namespace korvane_ros2
