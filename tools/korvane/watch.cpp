#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "reading.h"
#include "samples.h"
#include "terminal.h"
#include "tool.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kNameWidth = 16;
constexpr std::size_t kBarWidth = 30;

/// What a picture of the hand shows, line by line.
class Picture {
 public:
  explicit Picture(const OpenedHand& hand)
      : hand_(hand), joints_(kv::JointsOf(hand.Info().model, hand.address.side)) {}

  std::vector<std::string> Lines(const Reading& reading, const std::string& state) const {
    std::vector<std::string> lines{Coloured(hand_.address.ToString(), Colour::STRONG) + "  " +
                                   state};
    AddMotors(reading, lines);
    AddJoints(reading, lines);
    AddTouch(reading, lines);
    return lines;
  }

 private:
  void AddMotors(const Reading& reading, std::vector<std::string>& lines) const {
    const auto* const positions = reading.ValuesOf("positions");
    if (positions == nullptr) return;
    const auto* const currents = reading.ValuesOf("currents");
    const auto* const temperatures = reading.ValuesOf("temperatures");
    const auto* const errors = reading.ValuesOf("errors");
    lines.push_back(Coloured(
        fmt::format("{:<{}}{:<{}}   position  current  temp", "motor", kNameWidth, "", kBarWidth),
        Colour::DIM));
    for (std::size_t i = 0; i < positions->size(); ++i) {
      const double position = (*positions)[i];
      const auto cell = [&](const std::vector<double>* values, int width) {
        return values != nullptr && i < values->size()
                   ? fmt::format("{:{}.0f}", (*values)[i], width)
                   : std::string(static_cast<std::size_t>(width), ' ');
      };
      const unsigned error =
          errors != nullptr && i < errors->size() ? static_cast<unsigned>((*errors)[i]) : 0;
      lines.push_back(fmt::format("{:<{}}{}   {:8.0f} {} {}  {}", i + 1, kNameWidth,
                                  Bar(position / hand_.Info().position_max, kBarWidth), position,
                                  cell(currents, 8), cell(temperatures, 5),
                                  Coloured(ErrorNames(error, hand_.address.link), Colour::BAD)));
    }
  }

  void AddJoints(const Reading& reading, std::vector<std::string>& lines) const {
    const auto* const angles = reading.ValuesOf("angles");
    if (angles == nullptr || joints_.empty()) return;
    lines.push_back(Coloured(
        fmt::format("{:<{}}{:<{}}  angle [rad]", "joint", kNameWidth, "", kBarWidth), Colour::DIM));
    for (std::size_t i = 0; i < angles->size() && i < joints_.size(); ++i) {
      const kv::JointInfo& joint = joints_[i];
      const double range = joint.upper - joint.lower;
      const double part = range > 0 ? ((*angles)[i] - joint.lower) / range : 0;
      lines.push_back(fmt::format("{:<{}}{}     {:8.3f}", joint.name, kNameWidth,
                                  Bar(part, kBarWidth), (*angles)[i]));
    }
  }

  static void AddTouch(const Reading& reading, std::vector<std::string>& lines) {
    if (reading.Touch().empty()) return;
    lines.push_back(Coloured("touch", Colour::DIM));
    for (const auto& sensor : reading.Touch()) {
      std::string line = fmt::format("{:<{}}", FingerName(sensor.finger), kNameWidth);
      int sum = 0;
      for (const std::uint8_t cell : sensor.data) {
        line += HeatCell(cell);
        sum += cell;
      }
      lines.push_back(line + fmt::format("  {}", sum));
    }
  }

  const OpenedHand& hand_;
  const std::vector<kv::JointInfo>& joints_;
};

class Watch : public Command {
 public:
  explicit Watch(Options options) {
    AddSamplingOptions(options, sampling_, 0.1, "What those lines hold, with --csv or --json");
    options.AddFlag("--csv", csv_, "A line of numbers for each reading, for a pipe");
  }

  int Run(Tool& tool) override {
    const bool lines = csv_ || tool.options.json;
    tool.prints_lines = lines;
    const OpenedHand hand = tool.Open();
    const Interrupt interrupt;
    const Reports reports(hand, sampling_.report_period);
    if (!reports.AwaitFirst([&] { return interrupt.Came(); })) return kInterrupted;
    if (lines) {
      WriteLines(tool, hand, interrupt);
    } else {
      Draw(tool, hand, interrupt);
    }
    return interrupt.Came() && sampling_.seconds > 0 ? kInterrupted : kDone;
  }

 private:
  /// Lines are either those of a recording, or a picture.
  void WriteLines(const Tool& tool, const OpenedHand& hand, const Interrupt& interrupt) {
    if (sampling_.keys.empty()) sampling_.keys = {"positions"};
    Sampler sampler(hand, sampling_.keys);
    OutputFile out("-", false, Appears::AT_ONCE);
    Patience patience(hand, kFailedReadings);
    const TimeLimit limit(sampling_.seconds);
    SampleWriter writer(out, csv_ ? SampleFormat::CSV : SampleFormat::JSON_LINES, sampler,
                        sampling_.rate_hz);
    AtRate(sampling_.rate_hz, interrupt, [&] {
      auto sample = sampler.Read();
      if (sample) writer.Write(*sample);
      if (!sample && patience.Lost() == 0) tool.Warn(PlainText(sample.failure()));
      patience.Count(sample.failure());
      return !limit.IsOver();
    });
  }

  void Draw(const Tool& tool, const OpenedHand& hand, const Interrupt& interrupt) {
    Reading reading(hand);
    const Picture picture(hand);
    Patience patience(hand, kFailedReadings);
    std::optional<LiveArea> area;
    if (tool.Talks()) area.emplace();
    start_ = Clock::now();
    const TimeLimit limit(sampling_.seconds);
    AtRate(sampling_.rate_hz, interrupt, [&] {
      const auto refreshed = reading.Refresh();
      readings_ += refreshed ? 1 : 0;
      failed_ += refreshed ? 0 : 1;
      if (area) area->Draw(picture.Lines(reading, State(refreshed)));
      patience.Count(refreshed.failure());
      return !limit.IsOver();
    });
    // Where nothing is drawn in place, the last picture is what there is to see.
    if (!OnTerminal()) {
      for (const std::string& line : picture.Lines(reading, State({}))) tool.Print(line + "\n");
    }
  }

  std::string State(const Outcome<void>& refreshed) const {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    std::string state =
        fmt::format("{:.1f} readings/s, {} lost",
                    static_cast<double>(readings_) / std::max(seconds, 1e-3), failed_);
    if (!refreshed) state += "  " + Coloured(PlainText(refreshed.failure()), Colour::BAD);
    return state;
  }

  SamplingOptions sampling_{{}, 20};
  bool csv_ = false;
  Clock::time_point start_;
  std::size_t readings_ = 0;
  std::size_t failed_ = 0;
};

}  // namespace

std::unique_ptr<Command> MakeWatch(Options options) { return std::make_unique<Watch>(options); }

}  // namespace korvane_tool
