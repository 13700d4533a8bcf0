// Moves a hand through its gestures, or through a few simple poses if its model has none, and shows
// its joints while they move. A KorvaneQuill has no motors: its wearer moves.
//
//   first_motion --hand can0:brisa:1
//   first_motion --model brisa --link socketcan --interface can0 --id 1
//
// Ends with status 0 only if the hand answered to the end.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hand_options.h"

namespace {

using Clock = std::chrono::steady_clock;
using examples::Failure;
using examples::ModelTraits;
using talvera::korvane::KorvaneBase;

/// For models without gestures: how far each motor closes, in parts of its range.
constexpr double kPoses[] = {0.0, 0.5, 0.9, 0.2};
constexpr int kPoseCount = 4;
constexpr int kBarWidth = 40;
constexpr auto kFrameTime = std::chrono::milliseconds(30);

/// Counts round trips to the hand and remembers how long each took.
class RoundTrips {
 public:
  explicit RoundTrips(KorvaneBase& hand) : hand_(hand) {}

  /// Does something with the hand. What it returns, or why the hand failed.
  template <class F>
  auto Make(F&& operation) {
    const auto start = Clock::now();
    auto outcome = Checked(hand_, std::forward<F>(operation));
    if (outcome) {
      times_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    } else {
      ++failures_;
      last_failure_ = outcome.failure();
    }
    return outcome;
  }

  std::size_t Answered() const { return times_.size(); }
  const Failure& LastFailure() const { return last_failure_; }

  void Print() {
    std::printf("Round trips: %zu answered, %d not", times_.size(), failures_);
    std::sort(times_.begin(), times_.end());
    const auto at = [this](double part) {
      return times_[static_cast<std::size_t>(part * static_cast<double>(times_.size() - 1))];
    };
    if (!times_.empty()) {
      std::printf("; median %.0f us, 99%% within %.0f us, longest %.0f us", at(0.5), at(0.99),
                  at(1.0));
    }
    std::printf("\n");
  }

 private:
  KorvaneBase& hand_;
  std::vector<double> times_;
  int failures_ = 0;
  Failure last_failure_;
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

void Move(KorvaneBase& hand, const ModelTraits& model, int gesture) {
  if (model.gestures > 0) {
    hand.SetHandGesture(gesture);
  } else if (model.has_motors) {
    const double closed = kPoses[gesture % kPoseCount] * model.full_scale;
    hand.SetAllJointMotorPosi(std::vector<short>(model.joints, static_cast<short>(closed)));
  }
}

/// Shows the joints for a while.
void Watch(std::size_t joint_count, std::chrono::duration<double> time, RoundTrips& trips,
           JointDisplay& display) {
  std::vector<short> joints;
  for (const auto end = Clock::now() + time; Clock::now() < end;) {
    auto read = trips.Make([](const KorvaneBase& hand) { return hand.GetAllJointMotorPosi(); });
    if (read) {
      joints = *std::move(read);
      joints.resize(joint_count);  // the bus may pad a reply
    }
    display.Draw(joints);
    std::this_thread::sleep_for(kFrameTime);
  }
  display.End(joints);
}

/// A reply may be lost. False if there was none at all: the hand is gone.
bool ShowGesture(int gesture, const ModelTraits& model, std::chrono::duration<double> time,
                 RoundTrips& trips, JointDisplay& display) {
  const std::size_t answered = trips.Answered();
  display.Begin(gesture);
  if (model.has_motors) trips.Make([&](KorvaneBase& hand) { Move(hand, model, gesture); });
  Watch(model.joints, time, trips, display);
  return trips.Answered() > answered;
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

  const auto opened = examples::Open(where);
  if (!opened) return examples::Explain(opened.failure());
  KorvaneBase& hand = **opened;
  const ModelTraits& model = examples::TraitsOf(examples::ModelOf(hand));
  std::printf("%s\n", examples::Describe(where, hand).c_str());

  RoundTrips trips(hand);
  const int gestures = model.gestures > 0 ? model.gestures : kPoseCount;
  JointDisplay display(model.full_scale, gestures - 1);
  bool answers = true;
  for (int gesture = 0; answers && gesture < gestures; ++gesture) {
    answers = ShowGesture(gesture, model, std::chrono::duration<double>(seconds), trips, display);
  }
  if (answers && model.has_motors) trips.Make([&](KorvaneBase& h) { Move(h, model, 0); });
  trips.Print();
  return answers ? EXIT_SUCCESS : examples::Explain(trips.LastFailure());
}
