#include "options.h"

#include <korvane_version.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <regex>
#include <set>
#include <sstream>

#include "common/number_options.h"
#include "common/standard_streams.h"

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;

constexpr const char* kFooter = R"(
Exit status:
  0 ended by Ctrl-C or SIGTERM   1 failed   2 usage   3 no link   4 nobody answers
  5 another model answers   6 several hands answer

Examples:
  korvane-ros2 -H can0:brisa:1
  korvane-ros2 -H can0:brisa:1 -H "can1:brisa:1?side=left" --allow-commands
  korvane-ros2 -H zlg:0.0:tessel:2=/arm/hand)";

const CLI::Validator kFinite(korvane_common::NeedFinite, "");
const CLI::Validator kDecimal(korvane_common::NeedDecimal, "");

/// As the command line has it.
struct Given {
  std::vector<std::string> hands;
  std::optional<std::string> prefix;
  std::optional<std::string> frame_id;
  std::string ros;
  bool takes_best_effort = false;
  bool takes_any_age = false;
};

std::string FromEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool IsNamespace(const std::string& text) {
  static const std::regex segments("(/[A-Za-z](_?[A-Za-z0-9])*_?)+");
  constexpr std::size_t kMost = 200;  // with the name of a topic behind it ROS 2 has room for 255
  return text.size() <= kMost && std::regex_match(text, segments);
}

const char* SideOf(const kv::HandAddress& address) {
  return address.side == kv::HandType::LEFT ? "left" : "right";
}

void AddHandOptions(CLI::App& app, Given& given, Options& options) {
  app.add_option("-H,--hand", given.hands,
                 "Address of a hand, such as can0:tessel:2, and its namespace if that isn't to be "
                 "/korvane/right or /korvane/left; repeatable; otherwise $KORVANE_HAND")
      ->type_name("ADDRESS[=/NAMESPACE]")
      ->allow_extra_args(false);
  app.add_option("--rate", options.rate, "Cycles in a second: readings, and commands to the hand")
      ->transform(kFinite)
      ->check(CLI::Range(1.0, 100.0))
      ->capture_default_str();
  app.add_option("--timeout", options.timeout_ms, "How long a reply is waited for, in ms")
      ->transform(kDecimal)
      ->check(CLI::Range(10, 1000))
      ->type_name("MS");
  app.add_option("--joint-prefix", given.prefix,
                 "What names of joints begin with; otherwise right_ or left_");
  app.add_option("--frame-id", given.frame_id,
                 "The frame of joint_states; otherwise right_hand_base or left_hand_base");
  app.add_flag("--list-joints", options.lists_joints,
               "Print the joints of the hands with their limits, and exit; asks no hand");
}

void AddCommandOptions(CLI::App& app, Given& given, Options& options) {
  constexpr const char* kGroup = "Commands";
  app.add_flag("--allow-commands", options.gate.allow,
               "Carry out commands; without it nothing moves")
      ->group(kGroup);
  app.add_flag("--clamp", options.gate.clamp,
               "Bring values beyond the limits within, instead of refusing the command")
      ->group(kGroup);
  app.add_option("--max-speed", options.joint_speed, "Greatest speed of a joint, in rad/s")
      ->transform(kFinite)
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->group(kGroup);
  app.add_option("--max-motor-speed", options.motor_speed,
                 "Greatest speed of a motor by motor_commands, in units/s")
      ->transform(kFinite)
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->group(kGroup);
  app.add_flag("--best-effort-commands", given.takes_best_effort,
               "Take commands from best-effort publishers, too")
      ->group(kGroup);
  app.add_flag("--no-age-check", given.takes_any_age,
               "Take commands of any age, where the clocks of the machines differ")
      ->group(kGroup);
}

void AddNetworkOptions(CLI::App& app, Given& given, Options& options) {
  constexpr const char* kGroup = "Network";
  app.add_option("--domain", options.domain, "DDS domain; otherwise $ROS_DOMAIN_ID, or 0")
      ->check(CLI::Range(0, 232))  // "0x10" is as good, as ROS takes it, too
      ->envname("ROS_DOMAIN_ID")
      ->group(kGroup);
  app.add_flag("--local", options.is_local,
               "This machine's loopback interface only, for containers, tests and "
               "ROS_LOCALHOST_ONLY=1")
      ->group(kGroup);
  app.add_option("--ros", given.ros,
                 "The ROS 2 release, humble, iron or later; otherwise $ROS_DISTRO, or iron")
      ->group(kGroup);
}

/// Two hands of a side would be one in ROS 2.
void CheckNamesDiffer(const std::vector<HandOptions>& hands) {
  std::set<std::string> different;
  for (const HandOptions& hand : hands) {
    if (!different.insert(hand.name_space).second) {
      throw ProgramError(korvane_common::kUsage, "two hands have the namespace " + hand.name_space +
                                                     "; give one with -H ADDRESS=/NAMESPACE");
    }
  }
}

void AddHands(const Given& given, Options& options) {
  auto texts = given.hands;
  const std::string usual = FromEnvironment("KORVANE_HAND");
  if (texts.empty() && !usual.empty()) texts.push_back(usual);
  if (texts.empty()) {
    throw ProgramError(korvane_common::kUsage,
                       "which hand? Name it with -H ADDRESS or in KORVANE_HAND");
  }
  if (texts.size() > 1 && (given.prefix || given.frame_id)) {
    throw ProgramError(korvane_common::kUsage, "--joint-prefix and --frame-id are for one hand");
  }
  for (const std::string& text : texts) {
    HandOptions hand = ParseHand(text);
    if (given.prefix) hand.prefix = *given.prefix;
    if (given.frame_id) hand.frame_id = *given.frame_id;
    options.hands.push_back(std::move(hand));
  }
  CheckNamesDiffer(options.hands);
}

}  // namespace

HandOptions ParseHand(const std::string& text) {
  const auto mark = text.rfind("=/");
  const auto address = kv::HandAddress::Parse(text.substr(0, mark));
  if (!address) throw ProgramError(korvane_common::kUsage, address.failure().text);
  const std::string side = SideOf(*address);
  HandOptions hand{*address, "/korvane/" + side, side + "_", side + "_hand_base"};
  if (mark != std::string::npos) hand.name_space = text.substr(mark + 1);
  if (!IsNamespace(hand.name_space)) {
    throw ProgramError(korvane_common::kUsage,
                       hand.name_space +
                           " is no namespace of ROS 2: names of letters, digits and single "
                           "underscores, each after a slash");
  }
  return hand;
}

std::optional<Options> ReadOptions(int argc, char** argv) {
  Options options;
  Given given;
  given.ros = FromEnvironment("ROS_DISTRO");
  CLI::App app("Korvane hands as nodes of ROS 2, over DDS, without ROS installed.", "korvane-ros2");
  app.set_version_flag("--version", "korvane-ros2 " KORVANE_VERSION);
  AddHandOptions(app, given, options);
  AddCommandOptions(app, given, options);
  AddNetworkOptions(app, given, options);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream out;
    std::ostringstream err;
    const bool is_right = app.exit(error, out, err) == 0;
    korvane_common::WriteToStdout(out.str());
    korvane_common::WriteToStderr(err.str());
    if (is_right) return std::nullopt;
    throw ProgramError(korvane_common::kUsage, "");
  }
  options.is_humble = given.ros == "humble";
  options.gate.check_age = !given.takes_any_age;
  if (given.takes_best_effort) options.commands = Reliability::BEST_EFFORT;
  AddHands(given, options);
  return options;
}

}  // namespace korvane_ros2
