// Moves a hand through its gestures, or through a few simple poses if its model has none, and shows
// its joints while they move. A KorvaneQuill has no motors: its wearer moves.
//
//   first_motion --model brisa --link socketcan --interface can0 --id 1

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "hand_options.h"

namespace {

using Clock = std::chrono::steady_clock;
using talvera::korvane::KorvaneBase;

/// For models without gestures: how far each motor closes, in parts of its range.
constexpr double kPoses[] = {0.0, 0.5, 0.9, 0.2};
constexpr int kPoseCount = 4;
constexpr int kBarWidth = 40;
constexpr auto kFrameTime = std::chrono::milliseconds(30);

/// Reads the joints and remembers how long each round trip took.
class JointReader {
 public:
  JointReader(const KorvaneBase& hand, std::size_t joints) : hand_(hand), joints_(joints) {}

  std::vector<short> Read() {
    const auto start = Clock::now();
    auto joints = hand_.GetAllJointMotorPosi();
    if (joints.empty()) {
      ++failures_;
    } else {
      joints.resize(joints_);  // the bus may pad a reply
      times_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    return joints;
  }

  void PrintTimes() {
    std::sort(times_.begin(), times_.end());
    const auto at = [this](double part) {
      return times_[static_cast<std::size_t>(part * static_cast<double>(times_.size() - 1))];
    };
    std::printf(
        "Round trips: %zu answered, %d not; median %.0f us, 99%% within %.0f us, longest %.0f us\n",
        times_.size(), failures_, at(0.5), at(0.99), at(1.0));
  }

 private:
  const KorvaneBase& hand_;
  const std::size_t joints_;
  std::vector<double> times_;
  int failures_ = 0;
};

/// Draws in place on a terminal; elsewhere one line a gesture.
class JointDisplay {
 public:
  JointDisplay(int full_scale, int last_gesture)
      : full_scale_(full_scale), last_gesture_(last_gesture) {}

  void Begin(int gesture) {
    gesture_ = gesture;
    if (on_terminal_ && lines_drawn_ > 0) std::printf("\x1b[%dA", lines_drawn_);
    lines_drawn_ = 0;
    if (on_terminal_) {
      std::printf("\x1b[KGesture %d of %d\n", gesture, last_gesture_);
      lines_drawn_ = 1;
    }
  }

  void Draw(const std::vector<short>& joints) {
    if (!on_terminal_) return;
    if (lines_drawn_ > 1) std::printf("\x1b[%dA", lines_drawn_ - 1);
    for (std::size_t i = 0; i < joints.size(); ++i) {
      const int filled = std::clamp(joints[i] * kBarWidth / full_scale_, 0, kBarWidth);
      const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                              std::string(static_cast<std::size_t>(kBarWidth - filled), '.');
      std::printf("\x1b[K  joint %2zu  [%s] %5d\n", i + 1, bar.c_str(), joints[i]);
    }
    lines_drawn_ = 1 + static_cast<int>(joints.size());
    std::fflush(stdout);
  }

  void End(const std::vector<short>& joints) const {
    if (on_terminal_) return;
    std::printf("gesture %2d:", gesture_);
    for (const short joint : joints) std::printf(" %5d", joint);
    std::printf("\n");
  }

 private:
  const bool on_terminal_ = isatty(STDOUT_FILENO) == 1;
  const int full_scale_;
  const int last_gesture_;
  int lines_drawn_ = 0;
  int gesture_ = 0;
};

void Move(KorvaneBase& hand, const examples::ModelTraits& model, int gesture) {
  if (model.gestures > 0) {
    hand.SetHandGesture(gesture);
  } else if (model.has_motors) {
    const double closed = kPoses[gesture % kPoseCount] * model.full_scale;
    hand.SetAllJointMotorPosi(std::vector<short>(model.joints, static_cast<short>(closed)));
  }
}

/// Shows the joints for a while.
void Watch(int gesture, std::chrono::duration<double> time, JointReader& reader,
           JointDisplay& display) {
  display.Begin(gesture);
  std::vector<short> joints;
  for (const auto end = Clock::now() + time; Clock::now() < end;) {
    joints = reader.Read();
    display.Draw(joints);
    std::this_thread::sleep_for(kFrameTime);
  }
  display.End(joints);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Moves a hand through its gestures, or a few simple poses.");
  examples::HandOptions where;
  double seconds = 0.4;
  examples::AddHandOptions(app, where);
  app.add_option("--seconds", seconds, "How long each gesture is shown")
      ->check(CLI::Range(0.05, 60.0))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);

  const examples::ModelTraits& model = examples::TraitsOf(where);
  const auto hand = examples::OpenHand(where);
  if (!hand->connected) {
    std::fprintf(stderr, "The link could not be opened: %s\n",
                 examples::DescribeLink(where).c_str());
    return EXIT_FAILURE;
  }
  std::printf("%s %s with id %d on %s\n", where.side.c_str(), model.name, where.id,
              examples::DescribeLink(where).c_str());

  JointReader reader(*hand, model.joints);
  if (reader.Read().empty()) {
    std::fprintf(stderr, "No such hand answers there. Is it powered, and is %d its id?\n",
                 where.id);
    return EXIT_FAILURE;
  }
  const int gestures = model.gestures > 0 ? model.gestures : kPoseCount;
  JointDisplay display(model.full_scale, gestures - 1);
  for (int gesture = 0; gesture < gestures; ++gesture) {
    Move(*hand, model, gesture);
    Watch(gesture, std::chrono::duration<double>(seconds), reader, display);
  }
  Move(*hand, model, 0);
  const bool answers = !reader.Read().empty();
  reader.PrintTimes();
  if (!answers) std::fprintf(stderr, "The hand has stopped answering.\n");
  return answers ? EXIT_SUCCESS : EXIT_FAILURE;
}
