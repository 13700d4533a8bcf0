// Replaces the firmware of a hand and shows how far it is.
//
//   update_firmware --hand can0:brisa:1 firmware.bin
//   update_firmware --link socketcan --interface can0 --id 1 firmware.bin
//
// Ends with status 0 only if the hand took the firmware and answered afterwards.

#include <ota_load.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "hand_options.h"

namespace {

using examples::HandAddress;
using examples::LinkKind;
using examples::Outcome;
using talvera::korvane::Korvane;
using talvera::korvane::OtaProgressStatus;
using talvera::korvane::Version;
using Clock = std::chrono::steady_clock;

constexpr int kBarWidth = 40;
constexpr double kPacketKilobytes = 2.0;
constexpr int kCannotOpen = -2;
/// An update over a serial port has that many passes, in each of which one packet goes out.
constexpr int kSerialPackets = 150;

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

/// What the library reports, from whichever of its threads, as lines and a bar.
class ProgressDisplay {
 public:
  void Show(int total, OtaProgressStatus status) {
    const std::lock_guard lock(mutex_);
    if (status == OtaProgressStatus::PACKET_ACKNOWLEDGED) {
      ShowPackets(std::min(++acknowledged_, total), total);
    } else if (status != OtaProgressStatus::FAILED && status != last_) {
      EndBar();
      std::printf("  %s\n", StageName(status));
      if (status == OtaProgressStatus::UPGRADE_ACCEPTED) start_ = Clock::now();
    }
    last_ = status;
    std::fflush(stdout);
  }

  void End() {
    const std::lock_guard lock(mutex_);
    EndBar();
    std::fflush(stdout);
  }

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
  int acknowledged_ = 0;
  OtaProgressStatus last_ = OtaProgressStatus::FAILED;
  Clock::time_point start_ = Clock::now();
};

/// Why this file can't go to that hand; nothing is sent to find out.
std::string ProblemOf(const std::string& file, const HandAddress& address) {
  if (!address.model) return "Say of which model the hand is, as in can0:brisa:1.";
  const auto image = talvera::korvane::LoadFirmwareOnly(file);
  if (image.error_code == kCannotOpen) return file + " can't be opened.";
  if (image.error_code != 0) return file + " is empty or can't be read.";
  if (address.link != LinkKind::SERIAL || image.packet_count <= kSerialPackets) return {};
  return file + " has " + std::to_string(image.packet_count) +
         " packets; an update over a serial port times out after " +
         std::to_string(kSerialPackets) + " (300 kB). Use CAN FD for it.";
}

/// The version that the hand runs. Over a serial port the first answer may be an older one that
/// nobody has read.
Outcome<Version> ReadVersion(Korvane& hand) {
  return Checked(hand, [](const Korvane& h) {
    h.GetVendorInfo();
    return h.GetVendorInfo().software_version;
  });
}

Outcome<void> Update(Korvane& hand, const std::string& file, ProgressDisplay& display) {
  auto outcome = Checked(hand, [&](Korvane& h) {
    h.UpdateFirmware(
        file, [&](int, int total, OtaProgressStatus status) { display.Show(total, status); });
  });
  display.End();
  return outcome;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Replaces the firmware of a hand.");
  examples::HandOptions where;
  std::string file;
  examples::AddHandOptions(app, where);
  app.add_option("firmware", file, "The firmware file")->required();
  CLI11_PARSE(app, argc, argv);

  const auto address = examples::AddressOf(where);
  if (!address) return examples::Explain(address.failure());
  const std::string problem = ProblemOf(file, *address);
  if (!problem.empty()) {
    std::fprintf(stderr, "%s\n", problem.c_str());
    return EXIT_FAILURE;
  }
  // Made before the hand: its receive thread may report late, until the hand is gone.
  ProgressDisplay display;
  // Another model than the one that was told ends here, before it can be flashed.
  const auto hand = OpenHand(*address);
  if (!hand) return examples::Explain(hand.failure());
  const auto before = ReadVersion(**hand);
  if (!before) return examples::Explain(before.failure());
  std::printf("Updating %s from version %s:\n", examples::Describe(where, **hand).c_str(),
              before->ToString().c_str());
  const auto updated = Update(**hand, file, display);
  if (!updated) return examples::Explain(updated.failure());
  const auto after = ReadVersion(**hand);
  if (!after) {
    std::fprintf(stderr, "The hand took the firmware but doesn't answer yet; check it by hand.\n");
    return examples::Explain(after.failure());
  }
  std::printf("OK: the hand runs version %s\n", after->ToString().c_str());
  return EXIT_SUCCESS;
}
