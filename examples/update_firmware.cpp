// Replaces the firmware of a hand, whose model the address must say.
//
//   update_firmware can0:brisa:1 firmware.bin
//
// Ends with status 0 only if the hand took the firmware and answered afterwards. `korvane update`
// does the same with more care: it asks first, shows a bar, and says what to do after a failure.

#include <ota_load.h>

#include <atomic>
#include <string>

#include "example.h"

namespace {

namespace kv = talvera::korvane;
using examples::Explain;

/// An update over a serial port has that many passes, in each of which one packet goes out.
constexpr int kSerialPackets = 150;

/// Why this file can't go to that hand, to be known before anything is sent.
std::string ProblemOf(const char* file, const kv::HandAddress& address) {
  if (!address.model) return "Say of which model the hand is, as in can0:brisa:1.";
  const auto image = kv::LoadFirmwareOnly(file);
  if (image.error_code != 0) return std::string(file) + " is empty or can't be read.";
  if (address.link != kv::LinkKind::SERIAL || image.packet_count <= kSerialPackets) return "";
  return std::string(file) + " is too long for a serial port (300 kB). Use CAN FD for it.";
}

/// Counts what the library reports, from whichever of its threads: a line for each tenth.
class Progress {
 public:
  void Report(int total, kv::OtaProgressStatus status) {
    if (status != kv::OtaProgressStatus::PACKET_ACKNOWLEDGED || total <= 0) return;
    const int done = ++acknowledged_;
    if (done == total || done * 10 / total != (done - 1) * 10 / total) {
      std::printf("%d of %d packets\n", done, total);
      std::fflush(stdout);
    }
  }

 private:
  std::atomic<int> acknowledged_{0};
};

/// Over a serial port the first answer may be an older one that nobody has read.
kv::Outcome<std::string> ReadVersion(kv::Korvane& hand) {
  return Checked(hand, [](const kv::Korvane& h) {
    h.GetVendorInfo();
    return h.GetVendorInfo().software_version.ToString();
  });
}

}  // namespace

int main(int argc, char** argv) {
  examples::Begin(argc, 2, "update_firmware ADDRESS FILE");
  const auto address = kv::HandAddress::Parse(argv[1]);
  if (!address) return Explain(address.failure());
  if (const std::string problem = ProblemOf(argv[2], *address); !problem.empty()) {
    std::fprintf(stderr, "%s\n", problem.c_str());
    return EXIT_FAILURE;
  }
  // Made before the hand: its receive thread may report late, until the hand is gone.
  Progress progress;
  // Another model than the one that was told ends here, before it can be flashed.
  const auto hand = examples::Open(argv[1]);
  if (!hand) return Explain(hand.failure());
  const auto updated = Checked(**hand, [&](kv::Korvane& h) {
    h.UpdateFirmware(argv[2], [&](int, int total, kv::OtaProgressStatus status) {
      progress.Report(total, status);
    });
  });
  if (!updated) return Explain(updated.failure());
  const auto version = ReadVersion(**hand);
  if (!version) return Explain(version.failure());
  std::printf("The hand runs version %s.\n", version->c_str());
  return EXIT_SUCCESS;
}
