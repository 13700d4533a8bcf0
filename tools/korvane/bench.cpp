#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "bus_stamps.h"
#include "commands.h"
#include "interrupt.h"
#include "json_text.h"
#include "motion.h"
#include "output_file.h"
#include "percentile.h"
#include "quantities.h"
#include "terminal.h"
#include "tool.h"

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kSeries[] = {"single_read", "whole_read", "whole_write"};
constexpr const char* kFigures[] = {"p50_us", "p99_us", "p99_9_us", "max_us", "per_second"};

/// Requests one after the other, and how long each took.
struct Series {
  std::vector<double> times_us;  ///< Sorted, of those that were answered.
  std::size_t lost = 0;
  double seconds = 0;
};

Json SeriesJson(const Series& series) {
  Json json{{"count", series.times_us.size() + series.lost}, {"lost", series.lost}};
  if (series.times_us.empty()) return json;
  const auto rounded = [&](double part) {
    return std::round(Percentile(series.times_us, part) * 10) / 10;
  };
  json["p50_us"] = rounded(0.5);
  json["p99_us"] = rounded(0.99);
  json["p99_9_us"] = rounded(0.999);
  json["max_us"] = rounded(1);
  json["per_second"] =
      std::round(static_cast<double>(series.times_us.size()) / series.seconds * 10) / 10;
  return json;
}

/// Whether what the series of an earlier run tell are numbers.
bool HasFigures(const Json& earlier) {
  for (const char* const name : kSeries) {
    const Json series = earlier.value(name, Json::object());
    if (!series.is_object()) return false;
    for (const char* const key : kFigures) {
      if (series.contains(key) && !series[key].is_number()) return false;
    }
  }
  return true;
}

/// Counts by classes of time, of which each is a fifth wider than the one before.
std::string Histogram(const std::vector<double>& sorted) {
  constexpr double kGrowth = 1.2;
  constexpr std::size_t kWidth = 50;
  struct Class {
    double to;
    std::size_t count;
  };
  std::vector<Class> classes;
  double to = sorted.front() * kGrowth;
  for (const double time : sorted) {
    while (time > to) to *= kGrowth;
    if (classes.empty() || classes.back().to != to) classes.push_back({to, 0});
    ++classes.back().count;
  }
  std::size_t most = 0;
  for (const Class& one : classes) most = std::max(most, one.count);
  std::string text;
  for (const Class& one : classes) {
    const auto part = static_cast<double>(one.count) / static_cast<double>(most);
    text += fmt::format("  up to {:8.0f} us {:8}  {}\n", one.to, one.count, Bar(part, kWidth));
  }
  return text;
}

class Bench : public Command {
 public:
  explicit Bench(Options options) {
    options.Add("--count", count_, "How many requests of each kind")
        .Within(10, 10'000'000)
        .Value("N")
        .ShowDefault();
    options.AddFlag(
        "--writes", writes_,
        "Command, too: the hand is sent again and again the positions at which it stands");
    options.Add("--save", save_, "Keep the figures in this file, for --compare").Value("FILE");
    options.AddFlag("--overwrite", overwrite_, "Replace a file that is there");
    options.Add("--compare", compare_, "Set the figures beside those of an earlier run")
        .Value("FILE");
  }

  int Run(Tool& tool) override {
    const Json before = compare_.empty() ? Json() : ReadEarlier();
    const OpenedHand hand = tool.Open();
    const Pose pose =
        writes_ ? CheckedPose(hand.Info(), PositionsWithin(hand.Info(), PoseOf(hand))) : Pose();
    const Interrupt interrupt;
    // Opened first, so that no figures are measured that can't be kept.
    std::optional<OutputFile> file;
    if (!save_.empty()) file.emplace(save_, overwrite_, Appears::WHEN_WHOLE);
    Json document = ToJson(hand.address);
    const auto motor = [](const KorvaneBase& h) { h.GetJointMotorPosi(1); };
    const Series single = MeasureWithStamps(hand, interrupt, motor, document);
    document["single_read"] = SeriesJson(single);
    document["whole_read"] = SeriesJson(
        Measure(hand, interrupt, [](const KorvaneBase& h) { h.GetAllJointMotorPosi(); }));
    if (writes_) {
      document["whole_write"] = SeriesJson(
          Measure(hand, interrupt, [&](KorvaneBase& h) { h.SetAllJointMotorPosi(pose); }));
    }
    const auto statistics = StatisticsOf(*hand);
    document["unmatched_frames"] = statistics.unmatched_frames;
    const Json saved = document;
    if (!before.is_null()) document["before"] = before;
    tool.Print(Text(document, single));
    try {
      if (failure_.kind != FailureKind::NONE) throw ToolError(failure_);
      if (file && !interrupt.Came()) Save(saved, *file);
    } catch (const ToolError& error) {
      return tool.Report(error, document);
    }
    tool.PrintJson(document);
    return interrupt.Came() ? kInterrupted : kDone;
  }

 private:
  Json ReadEarlier() const {
    std::ifstream in(compare_);
    if (!in) throw ToolError(kUsage, fmt::format("{} can't be read", compare_));
    auto json = JsonObjectIn({std::istreambuf_iterator<char>(in), {}});
    if (!json || !json->contains("single_read") || !HasFigures(*json)) {
      throw ToolError(kUsage, fmt::format("{} holds no figures of korvane bench", compare_));
    }
    json->erase("before");
    return *std::move(json);
  }

  static void Save(const Json& document, OutputFile& file) {
    file.Write(document.dump(2) + "\n");
    file.Finish();
  }

  /// Ends early at an interrupt, and where nothing answers any more.
  template <class F>
  Series Measure(const OpenedHand& hand, const Interrupt& interrupt, F&& request,
                 BusStamps* stamps = nullptr) {
    constexpr int kPatience = 20;
    Series series;
    int lost_in_a_row = 0;
    const auto begin = Clock::now();
    for (int i = 0; i < count_ && !interrupt.Came() && lost_in_a_row < kPatience; ++i) {
      const auto start = Clock::now();
      const auto outcome = Checked(*hand, request);
      const auto end = Clock::now();
      if (stamps != nullptr) stamps->EndRequest(start, end, bool(outcome));
      lost_in_a_row = outcome ? 0 : lost_in_a_row + 1;
      series.lost += outcome ? 0 : 1;
      if (outcome)
        series.times_us.push_back(std::chrono::duration<double, std::micro>(end - start).count());
      if (lost_in_a_row == kPatience) failure_ = outcome.failure();
    }
    series.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::sort(series.times_us.begin(), series.times_us.end());
    return series;
  }

  /// On SocketCAN a second socket sees when the kernel has sent a request and received its reply.
  template <class F>
  Series MeasureWithStamps(const OpenedHand& hand, const Interrupt& interrupt, F&& request,
                           Json& document) {
    if (hand.address.link != LinkKind::SOCKET_CAN) return Measure(hand, interrupt, request);
    BusStamps stamps(hand.address.interface_name, *hand.address.id);
    if (!stamps.Problem().empty()) {
      document["split"] = {{"problem", stamps.Problem()}};
      return Measure(hand, interrupt, request);
    }
    Series series = Measure(hand, interrupt, request, &stamps);
    document["split"] = stamps.ToJson();
    return series;
  }

  static std::string Row(const std::string& name, const Json& figures, const Json& before) {
    std::string text = fmt::format("{:<12}{:>9}{:>7}", name, figures["count"].get<std::size_t>(),
                                   figures["lost"].get<std::size_t>());
    for (const char* const key : kFigures) {
      if (!figures.contains(key)) continue;
      const double value = figures[key].get<double>();
      text += fmt::format("{:>11.1f}", value);
      if (before.is_object() && before.contains(key) && before[key].get<double>() > 0) {
        text += fmt::format(" ({:+.0f} %)", (value / before[key].get<double>() - 1) * 100);
      }
    }
    return text + "\n";
  }

  static std::string Text(const Json& document, const Series& single) {
    std::string text = document["address"].get<std::string>() + "\n";
    text += fmt::format("{:<12}{:>9}{:>7}{:>11}{:>11}{:>11}{:>11}{:>11}\n", "", "requests", "lost",
                        "p50 us", "p99 us", "p99.9 us", "max us", "per s");
    const Json before = document.value("before", Json());
    for (const char* const key : kSeries) {
      if (document.contains(key))
        text += Row(key, document[key], before.is_object() ? before.value(key, Json()) : Json());
    }
    if (document.contains("split")) text += SplitText(document["split"]);
    if (!single.times_us.empty()) text += "\nsingle_read\n" + Histogram(single.times_us);
    return text;
  }

  static std::string SplitText(const Json& split) {
    if (split.contains("problem"))
      return fmt::format("\nno time stamps: {}\n", split["problem"].get<std::string>());
    std::string text =
        fmt::format("\nwhere a single read spends its time, of {} seen on the bus:\n",
                    split["seen"].get<std::size_t>());
    for (const char* const key : {"host_out", "bus_and_hand", "host_in"}) {
      text += fmt::format("  {:<14} p50 {:8.1f} us   p99 {:8.1f} us\n", key,
                          split[key]["p50_us"].get<double>(), split[key]["p99_us"].get<double>());
    }
    return text;
  }

  int count_ = 1000;
  bool writes_ = false;
  std::string save_;
  bool overwrite_ = false;
  std::string compare_;
  Failure failure_;
};

}  // namespace

std::unique_ptr<Command> MakeBench(Options options) { return std::make_unique<Bench>(options); }

}  // namespace korvane_tool
