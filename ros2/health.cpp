#include "health.h"

#include <algorithm>

#include "common/motor_errors.h"

namespace korvane_ros2 {
namespace {

/// "motor 3 stalled, overheated; motor 5 ..."
std::string ErrorTexts(const std::vector<unsigned short>& errors, talvera::korvane::LinkKind link) {
  std::string text;
  for (std::size_t motor = 0; motor < errors.size(); ++motor) {
    const std::string names =
        korvane_common::ErrorNames(errors[motor] & korvane_common::kNamedErrors, link);
    if (names.empty()) continue;
    text += (text.empty() ? "motor " : "; motor ") + std::to_string(motor + 1) + " " + names;
  }
  return text;
}

struct Verdict {
  bool applies;
  Level level;
  std::string text;
};

/// The first that applies is what the hand's status says.
Verdict Judge(const Health& health) {
  const std::string errors = ErrorTexts(health.errors, health.link);
  const bool is_disarmed = health.allows_commands && health.arming == Arming::FAULTED;
  const Verdict verdicts[] = {
      {!health.is_open, Level::ERROR, "the hand has gone: " + health.trouble},
      {!health.answers, Level::ERROR, "the hand doesn't answer: " + health.trouble},
      {!errors.empty(), Level::ERROR, errors},
      {is_disarmed, Level::ERROR,
       "disarmed by a fault; a command close to where the hand stands arms it again"},
      {health.is_silent, Level::STALE, "no commands any more; the hand holds"},
      {health.qos_mismatches > 0, Level::WARN,
       "a publisher or subscriber has another quality of service"},
      {health.failed_recently > 0, Level::WARN, "some requests failed: " + health.trouble},
      {true, Level::OK, health.commander ? "commanded" : "reading"},
  };
  return *std::find_if(std::begin(verdicts), std::end(verdicts),
                       [](const Verdict& verdict) { return verdict.applies; });
}

const char* StateOf(const Health& health) {
  if (!health.allows_commands) return "commands aren't allowed";
  switch (health.arming) {
    case Arming::FRESH:
      return "disarmed";
    case Arming::ARMED:
      return "armed";
    case Arming::FAULTED:
      return "disarmed by a fault";
  }
  return "";
}

std::string NameOf(const std::optional<std::uint64_t>& commander) {
  return commander ? std::to_string(*commander) : "";
}

std::string Join(const std::vector<unsigned short>& numbers) {
  std::string text;
  for (const unsigned short number : numbers) {
    text += (text.empty() ? "" : " ") + std::to_string(number);
  }
  return text;
}

}  // namespace

bool HasErrors(const std::vector<unsigned short>& errors) {
  return std::any_of(errors.begin(), errors.end(), [](unsigned short word) {
    return (word & korvane_common::kNamedErrors) != 0;
  });
}

Status ToStatus(const Health& health) {
  const Verdict verdict = Judge(health);
  Status status;
  status.level = verdict.level;
  status.message = verdict.text;
  status.values = {
      {"link", health.is_open ? "open" : "gone"},
      {"readings", std::to_string(health.readings)},
      {"failed_requests", std::to_string(health.failed_requests)},
      {"reopened", std::to_string(health.reopened)},
      {"late_cycles", std::to_string(health.late_cycles)},
      {"unsent_messages", std::to_string(health.unsent_messages)},
      {"errors", ErrorTexts(health.errors, health.link)},
      {"temperatures", Join(health.temperatures)},
      {"qos_mismatches", std::to_string(health.qos_mismatches)},
      {"state", StateOf(health)},
      {"commander", NameOf(health.commander)},
      {"refused_commander", NameOf(health.refused_commander)},
      {"accepted", std::to_string(health.accepted)},
      {"superseded", std::to_string(health.superseded)},
      {"failed_commands", std::to_string(health.failed_commands)},
  };
  for (std::size_t i = 0; i < kRefusals; ++i) {
    status.values.emplace_back(std::string("refused_") + TextOf(static_cast<Refusal>(i)).key,
                               std::to_string(health.refused[i]));
  }
  return status;
}

}  // namespace korvane_ros2
