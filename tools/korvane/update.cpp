#include <fmt/format.h>
#include <ota_load.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "commands.h"
#include "common/standard_streams.h"
#include "confirm.h"
#include "interrupt.h"
#include "terminal.h"
#include "tool.h"
#include "update_advice.h"
#include "update_note.h"
#include "util/guarded.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using Clock = std::chrono::steady_clock;

constexpr int kCannotOpen = -2;
/// An update over a serial port has that many passes, in each of which one packet goes out.
constexpr int kSerialPackets = 150;
constexpr double kPacketKilobytes = 2.048;
constexpr std::size_t kProgressWidth = 30;
constexpr auto kTick = std::chrono::milliseconds(100);
/// A hand restarts for seconds after an update.
constexpr int kTries = 20;
constexpr auto kBetweenTries = std::chrono::milliseconds(500);

constexpr const char* kAsk =
    "an interrupted update leaves the hand without firmware until it is done again; Ctrl-C once "
    "more to stop";

/// "1.2.0" for "1.2.0.0", as Version::ToString has it.
std::string Normal(const std::string& version) {
  constexpr std::size_t kLongest = 40;  // for a long text the expression would need a deep stack
  std::smatch parts;
  if (version.size() > kLongest ||
      !std::regex_match(version, parts, std::regex(R"((\d+\.\d+\.\d+)(\.\d+)?)"))) {
    throw ToolError(kUsage, fmt::format("\"{}\" is no version; write 1.2.0 or 1.2.0.4", version));
  }
  return parts[2].matched && parts[2] != ".0" ? version : parts[1].str();
}

/// What the library reports, from whichever of its threads.
class Progress {
 public:
  void Report(int current, int total, kv::OtaProgressStatus status) {
    const kv::MutexLock lock(mutex_);
    Take(state_, current, total, status);
    if (status == kv::OtaProgressStatus::UPGRADE_ACCEPTED) start_ = Clock::now();
  }
  UpdateState State() const {
    const kv::MutexLock lock(mutex_);
    return state_;
  }
  double Seconds() const {
    const kv::MutexLock lock(mutex_);
    return std::chrono::duration<double>(Clock::now() - start_).count();
  }

 private:
  mutable kv::Mutex mutex_;
  UpdateState state_ KORVANE_GUARDED_BY(mutex_);
  Clock::time_point start_ KORVANE_GUARDED_BY(mutex_) = Clock::now();
};

/// Shows them, on the thread of the command alone: a bar on a terminal, otherwise a line for each
/// 10 %.
class Display {
 public:
  explicit Display(const Tool& tool) : tool_(tool) {
    // The library's own lines would tear the bar.
    if (tool.Talks() && OnTerminal() && !tool.options.verbose) area_.emplace();
  }

  void Show(const Progress& progress, bool asks) {
    const UpdateState state = progress.State();
    if (area_) {
      std::vector<std::string> lines{BarOf(state, progress.Seconds())};
      if (asks) lines.push_back(Coloured(kAsk, Colour::WARNING));
      area_->Draw(lines);
      return;
    }
    if (asks && !asked_) tool_.Warn(kAsk);
    asked_ = asks;
    const int tenth = state.total > 0 ? state.done * 10 / state.total : 0;
    for (; shown_ < tenth; ++shown_) {
      tool_.Print(
          fmt::format("{:3} %  {} of {} packets\n", (shown_ + 1) * 10, state.done, state.total));
    }
    if (tool_.Talks()) FlushStdout();
  }

  /// Leaves the last picture and gives the cursor back.
  void End() { area_.reset(); }

 private:
  static std::string BarOf(const UpdateState& state, double seconds) {
    const double part = state.total > 0 ? static_cast<double>(state.done) / state.total : 0;
    const double rate = seconds > 0 ? state.done / seconds : 0;
    const std::string count = fmt::format("{} {:3.0f} %  {}/{} packets", Bar(part, kProgressWidth),
                                          part * 100, state.done, state.total);
    if (state.whole) return count + "  the hand checks and restarts";
    if (rate <= 0) return count + "  waiting for the hand";
    return fmt::format("{}  {:.1f} kB/s  {:.0f} s left", count, rate * kPacketKilobytes,
                       (state.total - state.done) / rate);
  }

  const Tool& tool_;
  std::optional<LiveArea> area_;
  int shown_ = 0;
  bool asked_ = false;
};

/// Over a serial port the first answer may be an older one that nobody has read.
Outcome<kv::VendorInfo> ReadVendor(KorvaneBase& hand) {
  return Checked(hand, [](const KorvaneBase& h) {
    h.GetVendorInfo();
    return h.GetVendorInfo();
  });
}

/// The version that the hand runs.
Outcome<std::string> ReadVersion(KorvaneBase& hand) {
  const auto vendor = ReadVendor(hand);
  if (!vendor) return vendor.failure();
  return vendor->software_version.ToString();
}

class Update : public Command {
 public:
  explicit Update(Options options) {
    options.Add("file", file_, "The firmware").Required().Value("FILE");
    options.Add("--model", model_, "Of which model the hand must be, if its address doesn't say")
        .Value("MODEL");
    options.Add("--expect", expect_, "The version that the hand must run afterwards")
        .Value("VERSION");
    options.AddFlag("-y,--yes", yes_, "Don't ask before the update");
  }

  int Run(Tool& tool) override {
    const HandAddress address = WithModel(tool.Address());
    if (!expect_.empty()) expect_ = Normal(expect_);
    CheckImage(address);
    NeedConfirmable(yes_);
    // Made before the hand: its receive thread may report late, until the hand is gone.
    auto progress = std::make_shared<Progress>();
    UpdateTurn turn;
    turn.Take(address);  // before the hand is asked anything, as that could disturb another update
    OpenedHand hand = tool.Open(address);
    turn.Take(hand.address);  // whose id is known now
    const auto vendor = Need(ReadVendor(*hand));
    before_ = vendor.software_version.ToString();
    document_ = ToJson(hand.address);
    document_.update({{"file", file_},
                      {"bytes", image_.file_size},
                      {"packets", image_.packet_count},
                      {"version_before", before_}});
    Confirm(fmt::format("Update {}, which runs {}, with {} ({} bytes)?", hand.address.ToString(),
                        before_, file_, image_.file_size),
            yes_);
    tool.Print(fmt::format("Updating {} from version {} with {} ({} bytes)\n",
                           hand.address.ToString(), before_, file_, image_.file_size));
    const UpdateNote note(kv::PlainText(vendor.serial_number));
    note.AwaitOthers();
    const auto outcome = Send(tool, hand, progress, note);
    const UpdateState state = progress->State();
    if (!outcome || !state.complete) return Failed(tool, state, outcome.failure());
    return Compare(tool, hand);
  }

 private:
  HandAddress WithModel(HandAddress address) const {
    if (!model_.empty()) {
      // Parsed as in an address, so that the names are the same.
      const Model named = *Need(HandAddress::Parse("can0:" + model_ + ":1")).model;
      if (address.model && *address.model != named) {
        throw ToolError(kUsage, "--model and the address name two models");
      }
      address.model = named;
    }
    if (address.model) return address;
    throw ToolError(kUsage,
                    "of which model must the hand be? Say it in the address, as in can0:brisa:1, "
                    "or with --model: firmware of another model would ruin it");
  }

  void CheckImage(const HandAddress& address) {
    image_ = kv::LoadFirmwareOnly(file_);
    image_.packets.clear();
    if (image_.error_code == kCannotOpen) throw ToolError(kUsage, file_ + " can't be opened");
    if (image_.error_code != 0) throw ToolError(kUsage, file_ + " is empty or can't be read");
    if (address.link != LinkKind::SERIAL || image_.packet_count <= kSerialPackets) return;
    throw ToolError(kUsage,
                    fmt::format("{} has {} packets of 2048 bytes, and an update over a serial port "
                                "takes at most {}: use CAN FD for it",
                                file_, image_.packet_count, kSerialPackets));
  }

  /// The update blocks and can't be stopped: it has a thread of its own.
  Outcome<void> Send(const Tool& tool, OpenedHand& hand, const std::shared_ptr<Progress>& progress,
                     const UpdateNote& note) {
    const Interrupt interrupt;
    auto result = std::async(std::launch::async, [&hand, progress, file = file_] {
      return Checked(*hand, [&](KorvaneBase& h) {
        h.UpdateFirmware(file, [progress](int current, int total, kv::OtaProgressStatus status) {
          progress->Report(current, total, status);
        });
      });
    });
    Display display(tool);
    while (result.wait_for(kTick) != std::future_status::ready) {
      display.Show(*progress, interrupt.Came());
      const UpdateState state = progress->State();
      note.Write(state.done, state.total);
      if (interrupt.Count() > 1) Stop(tool, display, progress->State());
    }
    display.Show(*progress, false);
    display.End();
    return result.get();
  }

  /// Ends the process in the middle, as nothing else ends an update.
  [[noreturn]] void Stop(const Tool& tool, Display& display, const UpdateState& state) {
    display.End();
    PrintFailure(tool, state, "interrupted: the update was stopped", kInterrupted, Failure{});
    FlushStdout();
    _exit(kInterrupted);
  }

  int Failed(const Tool& tool, const UpdateState& state, const Failure& failure) {
    const bool known = failure.kind != FailureKind::NONE;
    const int status = known && state.code == 0 ? StatusOf(failure) : kFailed;
    PrintFailure(tool, state,
                 known ? PlainText(failure) : "the update ended before it was complete", status,
                 failure);
    return status;
  }

  void PrintFailure(const Tool& tool, const UpdateState& state, const std::string& text, int status,
                    const Failure& failure) {
    const bool interrupted = status == kInterrupted;
    const std::string advice =
        interrupted ? "Update once more, to the end." : WhatToDo(state, failure.kind);
    WriteToStderr(fmt::format("korvane: {}\n{}\n{}\n", text, StateOfHand(state), advice));
    Json error{{"kind", ToString(failure.kind)},
               {"text", text},
               {"state", StateOfHand(state)},
               {"advice", advice},
               {"status", status}};
    error["code"] = state.code != 0 ? Json(state.code) : Json();
    document_["acknowledged"] = state.done;
    document_["updated"] = false;
    document_["error"] = error;
    tool.PrintJson(document_);
  }

  /// A hand that restarts is silent, or is about to be and still tells the old version.
  Outcome<std::string> VersionAfterwards(const Tool& tool, OpenedHand& hand,
                                         const Interrupt& interrupt) const {
    for (int tries = 1;; ++tries) {
      auto version = ReadVersion(*hand);
      const bool is_it = version && (expect_.empty() || *version == expect_ || *version != before_);
      if (is_it || tries == kTries || interrupt.WaitFor(kBetweenTries)) return version;
      if (!version && hand.address.link == LinkKind::SERIAL) Reopen(tool, hand);
    }
  }

  /// The port may have gone and come back.
  static void Reopen(const Tool& tool, OpenedHand& hand) {
    if (!StatisticsOf(*hand).link_lost) return;
    const HandAddress address = hand.address;
    auto again = OpenHand(address);
    if (!again) return;
    hand.hand = *std::move(again);
    if (tool.options.timeout_ms != 0) hand->SetFrameRecvTimeout(tool.options.timeout_ms);
  }

  int Compare(const Tool& tool, OpenedHand& hand) {
    const Interrupt interrupt;  // an earlier one was answered by the end of the update
    const auto after = VersionAfterwards(tool, hand, interrupt);
    document_["version_after"] = after ? Json(*after) : Json();
    document_["expected"] = expect_.empty() ? Json() : Json(expect_);
    document_["updated"] = true;
    const bool good = after && (expect_.empty() || *after == expect_);
    const int failed = interrupt.Came() ? kInterrupted
                       : after          ? kFailed
                                        : StatusOf(after.failure());
    const int status = good ? kDone : failed;
    if (!good) document_["error"] = Mismatch(after, status);
    tool.PrintJson(document_);
    if (good)
      tool.Print(fmt::format("Done: the hand runs version {}, before {}\n", *after, before_));
    return status;
  }

  Json Mismatch(const Outcome<std::string>& after, int status) const {
    const std::string text =
        after ? fmt::format("the hand runs version {} and not {}", *after, expect_)
              : "the hand took the firmware and doesn't answer yet";
    const std::string advice =
        after ? "Check that the file is of that version, and update once more."
              : "Wait, switch the hand off and on, and look at its version with `korvane info`.";
    WriteToStderr(fmt::format("korvane: {}\n{}\n", text, advice));
    return {{"kind", ToString(after.failure().kind)},
            {"text", text},
            {"advice", advice},
            {"status", status}};
  }

  std::string file_;
  std::string model_;
  std::string expect_;
  bool yes_ = false;
  kv::FirmwareImage image_;
  std::string before_;
  Json document_;
};

}  // namespace

std::unique_ptr<Command> MakeUpdate(Options options) { return std::make_unique<Update>(options); }

}  // namespace korvane_tool
