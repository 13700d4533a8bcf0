// Recordings that the tool plays: whatever a file holds, no pose of it is beyond a hand's limits.
// How it is played stands in the first line, the recording behind it.

#include <nlohmann/json.hpp>

#include "recorded_path.h"
#include "tool_hands.h"

using namespace talvera::korvane::fuzz;
using namespace korvane_tool;

void talvera::korvane::fuzz::Fuzz(Input& input) {
  constexpr const char* kBys[] = {"", "positions", "angles"};
  const OpenedHand hand = ToolHand(input);
  const std::string by = input.Of(kBys);
  const double speed = 0.01 + input.Byte();
  const std::string map = input.Line();
  const MemoryFile file(input.Rest());
  RunOrRefuse([&] {
    const auto pairs = map.empty() ? std::vector<std::string>() : SplitAtCommas(map);
    const Recording recording = ReadRecording(file.Path());
    const Mapping mapping(recording, hand, by, pairs);
    const Pose start(static_cast<std::size_t>(hand.Info().positions));
    const Path path = Plan(recording, mapping, start, speed);
    Require(!recording.samples.empty() && !mapping.Describe().empty());
    Require(!ToJson(recording.head).dump().empty());
    for (const double part : {0.0, 0.3, 0.7, 1.0}) {
      RequireWithin(path.At(path.Length() * part), hand.Info());
    }
  });
}
