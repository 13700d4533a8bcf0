// Replaces the firmware of a hand and shows how far it is.
//
//   update_firmware --link socketcan --interface can0 --id 1 firmware.bin
//
// Ends with status 0 only if the hand answered with its new firmware.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <string>

#include "hand_options.h"

namespace {

using talvera::korvane::OtaProgressStatus;
using Clock = std::chrono::steady_clock;

constexpr int kBarWidth = 40;
constexpr double kPacketKilobytes = 2.0;

const char* StageName(OtaProgressStatus status) {
  switch (status) {
    case OtaProgressStatus::FILE_LOADED:
      return "file read";
    case OtaProgressStatus::REQUESTING_UPGRADE:
      return "asking the hand for an update";
    case OtaProgressStatus::UPGRADE_ACCEPTED:
      return "the hand is ready";
    case OtaProgressStatus::FINISH_ACKNOWLEDGED:
      return "the hand has checked the image";
    case OtaProgressStatus::RESTART_ACKNOWLEDGED:
      return "the hand restarts";
    case OtaProgressStatus::RECONNECTING:
      return "waiting for the hand";
    case OtaProgressStatus::COMPLETE:
      return "done";
    default:
      return "";
  }
}

/// `stage` is how far the update had come.
std::string Reason(int code, OtaProgressStatus stage) {
  if (code == -4 && stage == OtaProgressStatus::REQUESTING_UPGRADE) {
    return "the hand didn't answer the request";
  }
  switch (code) {
    case -2:
      return "the file can't be opened";
    case -3:
      return "the file is empty or can't be read";
    case -4:
      return "the hand didn't confirm the image in time";
    case -5:
      return "the hand didn't confirm the restart in time";
    case -6:
      return "the hand didn't take all packets in time";
    case -7:
      return "a packet failed the hand's check";
    default:
      return "the hand refused with status " + std::to_string(code);
  }
}

/// What the library reports, from whichever of its threads, as lines and a bar.
class ProgressDisplay {
 public:
  void Show(int current, int total, OtaProgressStatus status) {
    const std::lock_guard lock(mutex_);
    if (status == OtaProgressStatus::PACKET_ACKNOWLEDGED) {
      ShowPackets(std::min(++acknowledged_, total), total);
    } else if (status == OtaProgressStatus::FAILED) {
      // The library tells a refusal from both of its threads.
      if (last_ == status && failure_ == Reason(current, stage_)) return;
      failure_ = Reason(current, stage_);
      EndBar();
      std::printf("  problem: %s\n", failure_.c_str());
    } else if (status != last_) {
      EndBar();
      std::printf("  %s\n", StageName(status));
      if (status == OtaProgressStatus::UPGRADE_ACCEPTED) start_ = Clock::now();
      complete_ = status == OtaProgressStatus::COMPLETE;
    }
    last_ = status;
    if (status != OtaProgressStatus::FAILED) stage_ = status;
    std::fflush(stdout);
  }

  /// For what isn't reported: over a serial port the update throws when the cable goes.
  void ShowLost(const char* what) {
    const std::lock_guard lock(mutex_);
    EndBar();
    failure_ = std::string("the link to the hand was lost: ") + what;
    complete_ = false;
  }

  bool Complete() const { return complete_; }
  /// Why the update failed, as far as the library told.
  const std::string& Failure() const { return failure_; }

 private:
  void ShowPackets(int done, int total) {
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    const double rate = seconds > 0 ? done / seconds : 0;
    const double left = rate > 0 ? (total - done) / rate : 0;
    if (!on_terminal_) {
      if (done == total || done * 10 / total != (done - 1) * 10 / total) {
        std::printf("  %3d %%  %d of %d packets\n", done * 100 / total, done, total);
      }
      return;
    }
    const int filled = done * kBarWidth / std::max(total, 1);
    std::printf("\r  [%s%s] %3d %%  %.1f kB/s  %.0f s left\x1b[K",
                std::string(static_cast<std::size_t>(filled), '#').c_str(),
                std::string(static_cast<std::size_t>(kBarWidth - filled), '.').c_str(),
                done * 100 / std::max(total, 1), rate * kPacketKilobytes, left);
    bar_shown_ = true;
  }

  void EndBar() {
    if (bar_shown_) std::printf("\n");
    bar_shown_ = false;
  }

  std::mutex mutex_;
  const bool on_terminal_ = isatty(STDOUT_FILENO) == 1;
  bool bar_shown_ = false;
  bool complete_ = false;
  int acknowledged_ = 0;
  std::string failure_ = "the hand didn't answer the request";
  OtaProgressStatus stage_ = OtaProgressStatus::FAILED;
  OtaProgressStatus last_ = OtaProgressStatus::FAILED;
  Clock::time_point start_ = Clock::now();
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Replaces the firmware of a hand.");
  examples::HandOptions where;
  std::string file;
  examples::AddHandOptions(app, where);
  app.add_option("firmware", file, "The firmware file")->required();
  CLI11_PARSE(app, argc, argv);

  // Made before the hand: its receive thread may report late, until the hand is gone.
  ProgressDisplay display;
  const auto hand = examples::OpenHand(where);
  if (!hand->connected) return EXIT_FAILURE;
  const auto before = hand->GetVendorInfo();
  if (before.product_model.empty()) {
    std::fprintf(stderr, "No hand answers on %s.\n", examples::DescribeLink(where).c_str());
    return EXIT_FAILURE;
  }
  std::printf("Updating hand %d from version %s:\n", where.id,
              before.software_version.ToString().c_str());
  try {
    hand->UpdateFirmware(file, [&](int current, int total, OtaProgressStatus status) {
      display.Show(current, total, status);
    });
  } catch (const std::exception& error) {
    display.ShowLost(error.what());
  }
  if (!display.Complete()) {
    std::printf("FAILED: %s\n", display.Failure().c_str());
    return EXIT_FAILURE;
  }
  // Over a serial port the first answer may be an older one that nobody has read.
  hand->GetVendorInfo();
  const auto after = hand->GetVendorInfo();
  if (after.product_model.empty()) {
    std::printf("FAILED: the hand took the firmware but doesn't answer yet; check it by hand\n");
    return EXIT_FAILURE;
  }
  std::printf("OK: the hand runs version %s\n", after.software_version.ToString().c_str());
  return EXIT_SUCCESS;
}
