#include <fmt/format.h>
#include <korvane_observe.h>

#include <chrono>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "interrupt.h"
#include "samples.h"
#include "tool.h"
#include "util/guarded.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

/// Frames wait here for the thread that writes them, as a tap mustn't wait for a disk.
class FrameQueue {
 public:
  void Add(const kv::FrameEvent& event) {
    const auto since = event.at.time_since_epoch();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(since).count();
    Frame frame{us, event.sent, event.id, {event.data, event.data + event.size}};
    const kv::MutexLock lock(mutex_);
    frames_.push_back(std::move(frame));
  }

  struct Frame {
    std::int64_t us;
    bool sent;
    std::uint32_t id;
    std::vector<std::uint8_t> bytes;
  };
  std::deque<Frame> Take() {
    const kv::MutexLock lock(mutex_);
    return std::exchange(frames_, {});
  }

 private:
  kv::Mutex mutex_;
  std::deque<Frame> frames_ KORVANE_GUARDED_BY(mutex_);
};

std::string Hex(const std::vector<std::uint8_t>& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += fmt::format("{:02X}", byte);
  return text;
}

/// A line as candump -L writes it: the identifier of a standard frame in three digits, of an
/// extended one in eight. Two number signs stand for CAN FD, and the digit behind them for the
/// flags: 1 is bit-rate switching.
std::string CandumpLine(const FrameQueue::Frame& frame, const std::string& interface) {
  constexpr std::uint32_t kGreatestStandard = 0x7FF;
  const int digits = frame.id <= kGreatestStandard ? 3 : 8;
  return fmt::format("({}.{:06}) {} {:0{}X}##1{}\n", frame.us / 1'000'000, frame.us % 1'000'000,
                     interface, frame.id, digits, Hex(frame.bytes));
}

std::string JsonLine(const FrameQueue::Frame& frame) {
  return Json{{"time_us", frame.us},
              {"sent", frame.sent},
              {"id", frame.id},
              {"data", Hex(frame.bytes)}}
             .dump() +
         "\n";
}

class Record : public Command {
 public:
  explicit Record(Options options) {
    options.Add("-o,--output", path_, "The file; - is the standard output")
        .Value("FILE")
        .ShowDefault();
    options.AddFlag("--overwrite", overwrite_, "Replace a file that is there");
    const Option frames =
        options.AddFlag("--frames", frames_, "Record the frames of the link in place of values");
    options.Add("--format", format_, "csv or jsonl; of frames candump or jsonl")
        .OneOf({"csv", "jsonl", "candump"})
        .Value("FORMAT");
    AddSamplingOptions(options, sampling_, 0.01,
                       "What is read: positions, angles, velocities, currents, temperatures, "
                       "errors, control_modes, thresholds, touch; without this positions, and "
                       "angles of a model that has them")
        .Excludes(frames);
  }

  int Run(Tool& tool) override {
    CheckFormat(tool.Address());
    const OpenedHand hand = tool.Open();
    const Interrupt interrupt;
    const Reports reports(hand, sampling_.report_period);
    if (!reports.AwaitFirst([&] { return interrupt.Came(); })) return kInterrupted;
    // A command that asks for what the hand doesn't have leaves no file, and empties none.
    std::optional<Sampler> sampler;
    if (!frames_) sampler.emplace(hand, KeysFor(hand));
    OutputFile file(path_, overwrite_, Appears::AT_ONCE);
    if (file.IsStandardOutput()) tool.options.json = false;  // no document in a recording
    const TimeLimit limit(sampling_.seconds);
    try {
      if (sampler) {
        RecordValues(*sampler, file, interrupt, limit);
      } else {
        RecordFrames(hand, file, interrupt, limit);
      }
      file.Finish();
    } catch (const ToolError&) {
      if (!file.IsStandardOutput()) tool.Print(Summary());  // what is there so far
      throw;
    }
    PrintResult(tool, hand, file);
    return interrupt.Came() && sampling_.seconds > 0 ? kInterrupted : kDone;
  }

 private:
  void CheckFormat(const HandAddress& address) {
    if (format_.empty()) format_ = frames_ ? "candump" : "csv";
    if (format_ == (frames_ ? "csv" : "candump")) {
      throw ToolError(
          kUsage, fmt::format("{} is no format for {}", format_, frames_ ? "frames" : "values"));
    }
    if (format_ == "candump" && address.link == LinkKind::SERIAL) {
      throw ToolError(kUsage, "candump's format is for CAN; take --format jsonl for a serial line");
    }
  }

  std::vector<std::string> KeysFor(const OpenedHand& hand) const {
    if (!sampling_.keys.empty()) return sampling_.keys;
    const bool has_joints = !kv::JointsOf(hand.Info().model, hand.address.side).empty();
    return has_joints ? std::vector<std::string>{"positions", "angles"}
                      : std::vector<std::string>{"positions"};
  }

  void RecordValues(Sampler& sampler, OutputFile& file, const Interrupt& interrupt,
                    const TimeLimit& limit) {
    SampleWriter writer(file, format_ == "csv" ? SampleFormat::CSV : SampleFormat::JSON_LINES,
                        sampler, sampling_.rate_hz);
    Patience patience(sampler.Hand(), kFailedReadings);
    AtRate(sampling_.rate_hz, interrupt, [&] {
      if (limit.IsOver()) return false;
      auto sample = sampler.Read();
      if (sample) {
        writer.Write(*sample);
        ++written_;
      }
      lost_ += sample ? 0 : 1;
      patience.Count(sample.failure());
      return true;
    });
  }

  void RecordFrames(const OpenedHand& hand, OutputFile& file, const Interrupt& interrupt,
                    const TimeLimit& limit) {
    const bool candump = format_ == "candump";
    const std::string interface = hand.address.link == LinkKind::SOCKET_CAN
                                      ? hand.address.interface_name
                                      : fmt::format("can{}", hand.address.channel);
    const auto queue = std::make_shared<FrameQueue>();
    ObserveFrames(*hand, [queue](const kv::FrameEvent& event) { queue->Add(event); });
    Patience patience(hand, kFailedReadings);
    constexpr double kWritesPerSecond = 20;
    const auto write_what_came = [&] {
      for (const auto& frame : queue->Take()) {
        file.Write(candump ? CandumpLine(frame, interface) : JsonLine(frame));
        ++written_;
      }
    };
    AtRate(kWritesPerSecond, interrupt, [&] {
      write_what_came();
      file.Flush();
      patience.Count({});
      return !limit.IsOver();
    });
    ObserveFrames(*hand, {});
    write_what_came();
  }

  const char* What() const { return frames_ ? "frames" : "samples"; }

  std::string Summary() const {
    const std::string lost = lost_ > 0 ? fmt::format(", {} lost", lost_) : "";
    return fmt::format("{} {} in {}{}\n", written_, What(), path_, lost);
  }

  /// Nothing where the standard output is the recording's own.
  void PrintResult(const Tool& tool, const OpenedHand& hand, const OutputFile& file) const {
    if (file.IsStandardOutput()) return;
    Json document = ToJson(hand.address);
    document["file"] = path_;
    document[What()] = written_;
    document["lost"] = lost_;
    tool.PrintJson(document);
    tool.Print(Summary());
  }

  std::string path_ = "-";
  bool overwrite_ = false;
  SamplingOptions sampling_{{}, 50};
  bool frames_ = false;
  std::string format_;
  std::size_t written_ = 0;
  std::size_t lost_ = 0;
};

}  // namespace

std::unique_ptr<Command> MakeRecord(Options options) { return std::make_unique<Record>(options); }

}  // namespace korvane_tool
