// korvane-ros2: Korvane hands as nodes of ROS 2, over DDS.

#include <korvane_diagnostics.h>
#include <korvane_link.h>
#include <korvane_log.h>
#include <korvane_open.h>
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/standard_streams.h"
#include "dds.h"
#include "graph.h"
#include "hand_bridge.h"
#include "joint_rules.h"
#include "messages.h"
#include "options.h"

namespace {

using namespace korvane_ros2;  // the bridge is all that this file is about
namespace kv = talvera::korvane;

constexpr const char* kName = "korvane-ros2";
constexpr int kLibraryLinesPerSecond = 1;

void WriteLibraryLine(kv::LogLevel, std::string_view line) {
  korvane_common::WriteToStderr(std::string(line) + "\n");
}

void WriteLine(std::string_view line) {
  korvane_common::WriteToStderr(std::string(kName) + ": " + std::string(line) + "\n");
}

/// The hand, once it has answered; `options` then has its model and its id.
std::unique_ptr<kv::KorvaneBase> Open(HandOptions& options) {
  auto hand = kv::OpenHand(options.address);
  if (!hand) {
    const std::string advice = AdviceOn(hand.failure());
    throw ProgramError(korvane_common::StatusOfOpening(hand.failure(), options.address),
                       hand.failure().text + (advice.empty() ? "" : "\n" + advice));
  }
  options.address.model = static_cast<kv::Model>((*hand)->model_code);
  options.address.id = (*hand)->device_id;
  return *std::move(hand);
}

/// On a ZLG channel the end of one hand object stops the others', so that a silent hand which
/// shares one keeps its object.
bool MayRenew(const HandOptions& hand, const std::vector<HandOptions>& all) {
  const auto zlg = std::count_if(all.begin(), all.end(), [](const HandOptions& other) {
    return other.address.link == kv::LinkKind::ZLG;
  });
  return hand.address.link != kv::LinkKind::ZLG || zlg < 2;
}

void ListJoints(const Options& options) {
  for (const HandOptions& hand : options.hands) {
    if (!hand.address.model) {
      throw ProgramError(korvane_common::kUsage,
                         "--list-joints needs the model in the address, as in can0:brisa");
    }
    for (const Axis& axis :
         JointRules(*hand.address.model, hand.address.side, hand.prefix, 0).axes) {
      std::printf("%-28s %8.4f %8.4f  %s\n", axis.name.c_str(), axis.lower, axis.upper,
                  axis.can_be_commanded ? "commandable"
                  : axis.index < 0      ? "coupled"
                                        : "can't be commanded");
    }
  }
}

/// The signals that end the program, kept from all its threads so that one wait takes them.
sigset_t BlockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

std::vector<std::unique_ptr<HandBridge>> MakeBridges(const Participant& participant,
                                                     Options& options) {
  // All hands first: no thread runs yet if one of them isn't there.
  std::vector<std::unique_ptr<kv::KorvaneBase>> hands;
  for (HandOptions& hand : options.hands) hands.push_back(Open(hand));
  std::vector<std::unique_ptr<HandBridge>> bridges;
  for (std::size_t i = 0; i < hands.size(); ++i) {
    const HandOptions& hand = options.hands[i];
    bridges.push_back(std::make_unique<HandBridge>(participant, hand, options, std::move(hands[i]),
                                                   MayRenew(hand, options.hands)));
  }
  return bridges;
}

void Serve(Options options) {
  const sigset_t signals = BlockEndSignals();
  const Participant participant(options.domain, options.is_local);
  const auto bridges = MakeBridges(participant, options);
  const Writer diagnostics(participant, DdsTopic("/diagnostics"), types::kDiagnosticArray);
  std::vector<Node> nodes;
  nodes.reserve(bridges.size());
  for (const auto& bridge : bridges) nodes.push_back(bridge->ToNode());
  nodes.front().writers.push_back(diagnostics.Handle());
  const Graph graph(participant, nodes, options.is_humble);
  for (const HandOptions& hand : options.hands) {
    std::printf("%s: %s is %s\n", kName, hand.name_space.c_str(), hand.address.ToString().c_str());
  }
  korvane_common::FlushStdout();
  const timespec second{1, 0};
  do {
    std::vector<Status> statuses;
    statuses.reserve(bridges.size());
    for (const auto& bridge : bridges) statuses.push_back(bridge->Report());
    Publish(diagnostics, statuses);
  } while (sigtimedwait(&signals, nullptr, &second) < 0);
}

int Run(int argc, char** argv) {
  kv::SetLogSink(kv::RateLimitedLog(kLibraryLinesPerSecond, WriteLibraryLine));
  kv::SetDefaultReceiving(kv::Receiving::BY_EVENTS);
  const auto options = ReadOptions(argc, argv);
  if (!options) return korvane_common::kDone;
  if (options->lists_joints) {
    ListJoints(*options);
  } else {
    Serve(*options);
  }
  return korvane_common::kDone;
}

}  // namespace

int main(int argc, char** argv) {
  korvane_common::PrepareStandardStreams();
  int status = korvane_common::kFailed;
  try {
    status = Run(argc, argv);
  } catch (const ProgramError& error) {
    status = error.Status();
    if (*error.what() != '\0') WriteLine(error.what());
  } catch (const std::exception& error) {
    WriteLine(error.what());
  }
  return korvane_common::WriteTheRest(kName, status);
}
