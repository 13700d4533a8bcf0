#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Whether a command may move a hand, and how far at a time: rules without a hand and without DDS,
// so that every one of them can be tried by itself.

namespace korvane_ros2 {

using Instant = std::chrono::steady_clock::time_point;
using Seconds = std::chrono::duration<double>;

/// What the values of a command are.
enum class Space : std::uint8_t { JOINTS, MOTORS };

/// A command as it came in.
struct Command {
  Space space = Space::JOINTS;
  std::vector<std::string> names;  ///< Of JOINTS.
  std::vector<double> values;
  bool has_velocity_or_effort = false;
  bool is_too_large = false;    ///< More values than any hand has; they weren't kept.
  std::uint64_t commander = 0;  ///< Who wrote it.
  Seconds age{};                ///< Since it was written, by the clocks of both machines.
};

/// Why a command isn't carried out.
enum class Refusal : std::uint8_t {
  NOT_ALLOWED,
  NO_POSITION,
  OTHER_COMMANDER,
  OLD,
  AHEAD,
  SIZE,
  UNKNOWN_NAME,
  REPEATED_NAME,
  NOT_COMMANDABLE,
  NOT_FINITE,
  VELOCITY_OR_EFFORT,
  BEYOND_LIMITS,
  NOT_TOGETHER,
  FAULT,
  FAR,
};
constexpr std::size_t kRefusals = static_cast<std::size_t>(Refusal::FAR) + 1;

/// A key for diagnostics, such as "other_commander", and what it means.
struct RefusalText {
  const char* key;
  const char* text;
};
const RefusalText& TextOf(Refusal refusal);

/// One value that can be commanded, or can't.
struct Axis {
  std::string name;  ///< With its prefix; empty for a motor.
  double lower = 0;
  double upper = 0;
  int index = -1;  ///< Its place among the targets.
  bool can_be_commanded = false;
};

/// The values of one space.
struct SpaceRules {
  std::vector<Axis> axes;
  std::size_t targets = 0;  ///< 0: the model has no such commands.
  double speed = 0;         ///< Greatest change of a target in a second.
  double near = 0;          ///< How close to the present position arming needs a command.
  /// Whether the targets go together, where limits depend on each other.
  std::function<bool(const std::vector<double>&)> go_together;
};

struct GateSettings {
  bool allow = false;
  bool clamp = false;     ///< Values beyond the limits are brought within.
  bool check_age = true;  ///< Off where the clocks of the machines differ.
  Seconds max_age{0.1};   ///< An older command is dropped.
  Seconds silence{0.25};  ///< After so long without a command nothing is sent any more.
};

enum class Arming : std::uint8_t {
  FRESH,    ///< Nothing has moved yet: the first good command arms.
  ARMED,    ///< Commands move the hand.
  FAULTED,  ///< Something went wrong: once it is clear a command near the position arms again.
};

/// What the motors should do now.
struct Step {
  Space space;
  std::vector<double> values;
};

/// Decides about the commands of one hand. Not for several threads.
class CommandGate {
 public:
  CommandGate(SpaceRules joints, SpaceRules motors, const GateSettings& settings);

  /// Where the hand is; commands need that. `joints` may be empty.
  void Measured(const std::vector<double>& joints, const std::vector<double>& motors);
  /// Something is wrong with the hand: nothing moves until SetFault(false) and a near command.
  void SetFault(bool is_faulted);
  /// The hand has gone: as a fault, and where it is isn't known any more.
  void Lost();

  /// Takes a command, or says why not. Nothing of a refused command is kept.
  std::optional<Refusal> Take(const Command& command, Instant now);
  /// The next targets on the way, `dt` after the last; nothing while nobody commands.
  std::optional<Step> Walk(Instant now, Seconds dt);

  Arming State() const { return arming_; }
  /// There was a commander, and it went silent.
  bool IsSilent() const { return had_commander_ && !commander_; }
  std::optional<std::uint64_t> Commander() const { return commander_; }
  std::uint64_t Accepted() const { return accepted_; }
  std::uint64_t Refused(Refusal refusal) const {
    return refused_[static_cast<std::size_t>(refusal)];
  }

 private:
  const SpaceRules& RulesOf(Space space) const { return spaces_[static_cast<std::size_t>(space)]; }
  const std::vector<double>& Position(Space space) const {
    return positions_[static_cast<std::size_t>(space)];
  }
  void Expire(Instant now);
  void Disarm();
  std::optional<Refusal> Judge(const Command& command, std::vector<double>& targets) const;
  std::optional<Refusal> JudgeSender(const Command& command) const;
  std::optional<Refusal> JudgeForm(const Command& command) const;
  std::optional<Refusal> JudgeValues(const Command& command, std::vector<double>& targets) const;
  bool IsNear(const Command& command, const std::vector<double>& targets) const;
  std::vector<double> TargetsBefore(Space space) const;

  std::array<SpaceRules, 2> spaces_;
  GateSettings settings_;
  std::array<std::vector<double>, 2> positions_;
  Arming arming_ = Arming::FRESH;
  bool is_faulted_ = false;
  Space space_ = Space::JOINTS;
  std::vector<double> targets_;   ///< Where to; empty before the first command.
  std::vector<double> setpoint_;  ///< How far the walk there has come; empty while nobody commands.
  std::optional<std::uint64_t> commander_;
  bool had_commander_ = false;
  Instant last_command_{};
  std::uint64_t accepted_ = 0;
  std::array<std::uint64_t, kRefusals> refused_{};
};

}  // namespace korvane_ros2
