// Moves a hand through its gestures, or through a few simple poses if its model has none, and
// prints where its motors are after each. A KorvaneQuill has no motors: its wearer moves.
//
//   first_motion can0:brisa:1 [SECONDS]
//
// Ends with status 0 only if the hand answered to the end.

#include <chrono>
#include <thread>
#include <vector>

#include "example.h"

namespace {

namespace kv = talvera::korvane;
using examples::Explain;

constexpr const char* kUsage = "first_motion ADDRESS [SECONDS]";
constexpr double kMostSeconds = 3600;

/// How far each motor closes, in parts of its range.
constexpr double kPoses[] = {0.0, 0.5, 0.9, 0.2};
constexpr int kPoseCount = 4;

/// Ends the program unless the whole text is a number of seconds.
double SecondsIn(const char* text) {
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  const bool is_number = end != text && *end == '\0';
  if (!is_number || !(seconds >= 0 && seconds <= kMostSeconds)) examples::EndWithUsage(kUsage);
  return seconds;
}

void Move(kv::KorvaneBase& hand, int step) {
  const kv::ModelInfo& model = examples::InfoOf(hand);
  if (model.gestures > 0) return hand.SetHandGesture(step);
  if (!model.has_motors) return;
  const auto target = static_cast<short>(kPoses[step] * model.position_max);
  hand.SetAllJointMotorPosi(std::vector<short>(static_cast<std::size_t>(model.positions), target));
}

/// One step, and where it led to. A failure in any of its operations is one of the whole.
kv::Outcome<std::vector<short>> MakeStep(kv::KorvaneBase& hand, int step,
                                         std::chrono::duration<double> time) {
  return Checked(hand, [&](kv::KorvaneBase& h) {
    Move(h, step);
    std::this_thread::sleep_for(time);
    return h.GetAllJointMotorPosi();
  });
}

}  // namespace

int main(int argc, char** argv) {
  examples::Begin(argc, 1, kUsage);
  const std::chrono::duration<double> time(argc > 2 ? SecondsIn(argv[2]) : 0.7);
  const auto opened = examples::Open(argv[1]);
  if (!opened) return Explain(opened.failure());
  kv::KorvaneBase& hand = **opened;
  const int gestures = examples::InfoOf(hand).gestures;
  const int steps = gestures > 0 ? gestures : kPoseCount;
  for (int step = 0; step <= steps; ++step) {
    const auto positions = MakeStep(hand, step % steps, time);
    if (!positions) return Explain(positions.failure());
    std::printf("%2d:", step % steps);
    for (const short position : *positions) std::printf(" %5d", position);
    std::printf("\n");
  }
  return EXIT_SUCCESS;
}
