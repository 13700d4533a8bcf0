#include <cerrno>
#include <string>
#include <string_view>

#include "korvane_diagnostics.h"
#include "util/text.h"

// What a person can do about a failure. The rows are tried in their order, and the first one that
// fits tells; a new line of the library that people stumble over gets a row here.

namespace talvera::korvane {
namespace {

constexpr int kAnyError = -1;
constexpr std::string_view kAnyText;

struct AdviceRow {
  FailureKind kind;
  int system_error;
  /// What the failure's text contains. The word behind it takes the place of "{}".
  std::string_view text;
  const char* advice;
};

constexpr const char* kInterfaceGone =
    "the interface is gone: plug the adapter in again, bring the interface up (ip link), and make "
    "the hand object anew";
constexpr const char* kNoInterface =
    "no interface {}: see what there is with: ip link\n"
    "a bus to try things on: sudo ip link add dev {} type vcan && sudo ip link set {} mtu 72 && "
    "sudo ip link set {} up";
constexpr const char* kNoLibrary =
    "install the adapter vendor's {} where the loader finds it, then run: sudo ldconfig (or set "
    "LD_LIBRARY_PATH)";
constexpr const char* kNoAdapter =
    "is the adapter plugged in (lsusb), may this user open it (a udev rule), and has no other "
    "program got it?";
constexpr const char* kNoPermission =
    "this user may not open it; for a serial port: sudo usermod -aG dialout $USER, then log in "
    "again";
constexpr const char* kNoPort =
    "no such port: see what there is with: ls /dev/ttyUSB* /dev/ttyACM*";
constexpr const char* kPortTaken =
    "another program or hand object has it; for a serial port see who: sudo fuser -v PORT";
constexpr const char* kNobodyAcknowledges =
    "nobody on the bus acknowledges: is the hand powered, the cable in, the bus terminated at both "
    "ends, and are the bit rates 1 and 5 Mbit/s?";
constexpr const char* kNobodyAnswers =
    "is the hand powered, on this bus or port, and is this its id? `korvane find` (FindHands in a "
    "program) lists the hands that are there; on a busy machine raise the receive time-out";

constexpr const char* kInterfaceDown = "the interface is down: sudo ip link set INTERFACE up";
constexpr const char* kNoCanFd =
    "the interface takes no CAN FD frames: it must say mtu 72 (ip -d link show INTERFACE); for a "
    "device: fd on, for a vcan: sudo ip link set INTERFACE mtu 72";

constexpr AdviceRow kRows[] = {
    {FailureKind::NO_LINK, kAnyError, "interface index for ", kNoInterface},
    {FailureKind::NO_LINK, EAFNOSUPPORT, kAnyText,
     "the kernel has no CAN: sudo modprobe can_raw (and vcan, for a bus to try things on)"},
    {FailureKind::NO_LINK, EPROTONOSUPPORT, kAnyText,
     "the kernel has no CAN: sudo modprobe can_raw"},
    {FailureKind::NO_LINK, kAnyError, "libusbcanfd.so not found", kNoLibrary},
    {FailureKind::NO_LINK, kAnyError, "libcanbus.so not found", kNoLibrary},
    {FailureKind::NO_LINK, kAnyError, "36 MHz clock",
     "only adapters with an 80 MHz clock reach the bit rates of the hands"},
    {FailureKind::NO_LINK, kAnyError, "usbcanfd failed", kNoAdapter},
    {FailureKind::NO_LINK, kAnyError, "[HCAN ERROR]", kNoAdapter},
    {FailureKind::NO_LINK, kAnyError, "Device with serial number", kNoAdapter},
    {FailureKind::NO_LINK, kAnyError, "carries no CAN FD frames", kNoCanFd},
    {FailureKind::NO_LINK, ENETDOWN, kAnyText, kInterfaceDown},
    {FailureKind::NO_LINK, ENODEV, kAnyText, "no such interface: see what there is with: ip link"},
    {FailureKind::NO_LINK, EACCES, kAnyText, kNoPermission},
    {FailureKind::NO_LINK, EPERM, kAnyText, kNoPermission},
    {FailureKind::NO_LINK, ENOENT, kAnyText, kNoPort},
    {FailureKind::NO_LINK, kAnyError, "the port is in use by", kPortTaken},
    {FailureKind::NO_LINK, EBUSY, kAnyText, kPortTaken},
    {FailureKind::NO_LINK, EWOULDBLOCK, kAnyText, kPortTaken},
    {FailureKind::NO_LINK, ENOTTY, kAnyText, "that is no serial port"},
    {FailureKind::NO_LINK, EMFILE, kAnyText,
     "this process has too many files open: raise the limit (ulimit -n), or close some"},
    {FailureKind::NO_LINK, kAnyError, kAnyText,
     "the link couldn't be opened: the lines from when the hand was made say why"},
    {FailureKind::SEND_FAILED, ENETDOWN, kAnyText, kInterfaceDown},
    {FailureKind::SEND_FAILED, EINVAL, kAnyText, kNoCanFd},
    {FailureKind::SEND_FAILED, ENOBUFS, kAnyText,
     "the interface's queue is full: nobody acknowledges, or it is too short: sudo ip link set "
     "INTERFACE txqueuelen 1000"},
    {FailureKind::SEND_FAILED, EAGAIN, kAnyText,
     "the socket's buffer is full: nobody on the bus acknowledges (power, cable, termination)"},
    {FailureKind::SEND_FAILED, ENODEV, kAnyText, kInterfaceGone},
    {FailureKind::SEND_FAILED, ENXIO, kAnyText, kInterfaceGone},
    {FailureKind::SEND_FAILED, EIO, kAnyText,
     "the port is gone: check the cable, and make the hand object anew"},
    {FailureKind::SEND_FAILED, kAnyError, kAnyText, kNobodyAcknowledges},
    {FailureKind::NO_REPLY, kAnyError, kAnyText, kNobodyAnswers},
    {FailureKind::BAD_REPLY, kAnyError, kAnyText,
     "the answer isn't one of this hand: another model, another firmware, or two hands or programs "
     "that use the same id"},
};

bool Fits(const AdviceRow& row, const Failure& failure) {
  return row.kind == failure.kind &&
         (row.system_error == kAnyError || row.system_error == failure.system_error) &&
         failure.text.find(row.text) != std::string::npos;
}

/// The word of `text` behind `mark`; for a library, the one that `mark` begins with.
std::string WordAt(const std::string& text, std::string_view mark) {
  const bool behind = mark.back() == ' ';
  const std::size_t begin = text.find(mark) + (behind ? mark.size() : 0);
  return text.substr(begin, text.find_first_of(" :\n", begin) - begin);
}

}  // namespace

std::string AdviceOn(const Failure& failure) {
  for (const AdviceRow& row : kRows) {
    if (!Fits(row, failure)) continue;
    std::string advice = row.advice;
    const std::string word = row.text.empty() ? "" : WordAt(failure.text, row.text);
    for (std::size_t at = 0; (at = advice.find("{}", at)) != std::string::npos; at += word.size()) {
      advice.replace(at, 2, word);
    }
    return advice;
  }
  return {};
}

}  // namespace talvera::korvane
