// Every call that a link makes, of the system or of an adapter's library, fails once or from then
// on, and every allocation fails: whatever it is, nothing crashes, hangs, is lost or comes out
// wrong, and the failure is told.

#include <gtest/gtest.h>
#include <linux/can.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_open.h"
#include "korvane_sim/in_process_adapters.h"
#include "support/allocation_hook.h"
#include "support/call_faults.h"
#include "support/lent_sockets.h"
#include "support/process_resources.h"
#include "support/sim_frames.h"
#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

using test::CallFault;
using test::CallFaults;
using Hand = std::unique_ptr<KorvaneBrisa>;

constexpr std::uint8_t kId = 1;
constexpr int kShortTimeoutMs = 20;
constexpr int kPatientTimeoutMs = 1000;

/// KORVANE_CAMPAIGN=long tries more of the calls.
int MostCalls() {
  return std::getenv("KORVANE_CAMPAIGN") != nullptr ? 12 : 2;  // NOLINT(concurrency-mt-unsafe)
}

/// A Brisa at the far end of a pair of sockets, in a process of its own. A frame of another hand
/// comes before each reply.
class SocketPairHand {
 public:
  SocketPairHand() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_), 0);
    process_ = fork();
    if (process_ == 0) Serve();
    close(ends_[1]);
    lent_.emplace(std::vector<int>{ends_[0]});
  }
  SocketPairHand(const SocketPairHand&) = delete;
  SocketPairHand& operator=(const SocketPairHand&) = delete;
  ~SocketPairHand() {
    lent_.reset();
    close(ends_[0]);
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }

 private:
  [[noreturn]] void Serve() {
    close(ends_[0]);
    sim::SimulatedHand hand(sim::kBrisa, kId);
    canfd_frame raw{};
    while (read(ends_[1], &raw, sizeof raw) > 0) {
      const sim::Frame frame = test::ToSimFrame(raw);
      auto replies = hand.Handle(frame, std::chrono::steady_clock::now());
      if (!replies.empty()) replies.insert(replies.begin(), {frame.id + 1, 64, {}});
      for (const sim::Frame& reply : replies) {
        const canfd_frame out = test::ToSocketFrame(reply);
        static_cast<void>(!write(ends_[1], &out, sizeof out));
      }
    }
    _exit(0);
  }

  int ends_[2] = {-1, -1};
  pid_t process_ = -1;
  std::optional<test::LentSockets> lent_;
};

/// A Brisa on a pseudo-terminal, in a process of its own.
struct SerialPortHand {
  SerialPortHand() { EXPECT_TRUE(simulator.AwaitReady()) << simulator.Said(); }
  SerialPortHand(const SerialPortHand&) = delete;
  SerialPortHand& operator=(const SerialPortHand&) = delete;
  ~SerialPortHand() {
    simulator.End(SIGTERM);
    unlink(path.c_str());
  }

  std::string path = testing::TempDir() + "korvane-faults-" + std::to_string(getpid());
  test::SimulatorProcess simulator{{"--serial", "brisa:1@" + path}};
};

struct AdapterHand {
  AdapterHand() { adapters.Bus(0, 0).Add({sim::kBrisa, kId}); }
  sim::InProcessAdapters adapters;
};

enum class After {
  kToldAndWorks,  ///< A failure has the errno, and the link works when the fault is over.
  kWorks,         ///< Nothing needs to fail.
  kAnything,      ///< A library that says that it did what it didn't.
};

/// What a call can fail with. Of the adapters' libraries these are results, and what is written
/// into the record that the call was given.
struct Failures {
  const char* call;
  After after;
  std::vector<int> errors;
  std::vector<std::int64_t> results{-1};
  std::vector<std::optional<std::uint8_t>> garbage{std::nullopt};
};

const std::vector<std::int64_t> kNumbers{0, -1, 257, INT_MAX, INT_MIN};
const std::vector<std::int64_t> kCounts{-1, 1, 256, 257, INT_MAX, INT_MIN};
const std::vector<std::optional<std::uint8_t>> kGarbage{std::nullopt, std::uint8_t{0},
                                                        std::uint8_t{0xFF}};

const std::vector<Failures> kFailures{
    {"socket", After::kToldAndWorks, {EMFILE, ENFILE, EAFNOSUPPORT, EPERM, ENOMEM}},
    {"bind", After::kToldAndWorks, {ENODEV, ENETDOWN, EPERM}},
    {"setsockopt", After::kWorks, {ENOPROTOOPT, ENOMEM}},
    {"ioctl", After::kToldAndWorks, {ENODEV, EIO, ENOTTY}},
    {"fcntl", After::kToldAndWorks, {EMFILE, EPERM, EINTR}},
    {"open", After::kToldAndWorks, {ENOENT, EACCES, EBUSY, EMFILE, ENFILE, EIO, ENXIO}},
    {"open", After::kWorks, {EINTR}},
    {"close", After::kWorks, {EIO, EINTR}},
    {"read", After::kWorks, {EINTR, EIO, EAGAIN, ENETDOWN, ENODEV, ENXIO, ENOMEM}},
    {"read", After::kWorks, {0}, {0}},
    {"write", After::kToldAndWorks, {EINTR, EIO, EAGAIN, ENOBUFS, ENETDOWN, ENODEV, ENXIO, ENOMEM}},
    {"write", After::kWorks, {0}, {0, 1}},
    {"poll", After::kWorks, {EINTR, ENOMEM}},
    {"pselect", After::kWorks, {EINTR, EBADF, ENOMEM}},
    {"pselect", After::kWorks, {0}, {0}},
    {"epoll_create1", After::kWorks, {EMFILE, ENOMEM}},
    {"epoll_ctl", After::kWorks, {ENOMEM, ENOSPC}},
    {"epoll_wait", After::kWorks, {EINTR}},
    {"eventfd", After::kWorks, {EMFILE, ENOMEM}},
    {"flock", After::kWorks, {EWOULDBLOCK, EINTR, ENOLCK}},
    {"tcgetattr", After::kToldAndWorks, {EIO, ENOTTY}},
    {"tcsetattr", After::kWorks, {EIO}},
    {"pthread_create", After::kToldAndWorks, {EAGAIN}, {EAGAIN}},
    {"VCI_OpenDevice", After::kAnything, {0}, kNumbers},
    {"VCI_CloseDevice", After::kWorks, {0}, kNumbers},
    {"VCI_ReadBoardInfo", After::kAnything, {0}, kNumbers, kGarbage},
    {"VCI_InitCAN", After::kAnything, {0}, kNumbers},
    {"VCI_SetReference", After::kWorks, {0}, kNumbers},
    {"VCI_StartCAN", After::kAnything, {0}, kNumbers},
    {"VCI_ResetCAN", After::kWorks, {0}, kNumbers},
    {"VCI_TransmitFD", After::kWorks, {0}, kNumbers, kGarbage},
    {"VCI_ReceiveFD", After::kWorks, {0}, kCounts, kGarbage},
    {"CAN_ScanDevice", After::kAnything, {0}, kNumbers},
    {"CAN_OpenDevice", After::kAnything, {0}, kNumbers},
    {"CAN_CloseDevice", After::kWorks, {0}, kNumbers},
    {"CAN_ReadDevInfo", After::kAnything, {0}, kNumbers, kGarbage},
    {"CAN_GetDevPlck", After::kWorks, {0}, kNumbers},
    {"CANFD_Init", After::kAnything, {0}, kNumbers},
    {"CANFD_Transmit", After::kWorks, {0}, kNumbers, kGarbage},
    {"CANFD_Receive", After::kWorks, {0}, kCounts, kGarbage}};

std::string Describe(const CallFault& fault) {
  std::string text = fault.call + " number " + std::to_string(fault.nth);
  if (fault.goes_on) text += " and all later ones";
  text += ": result " + std::to_string(fault.result) + ", errno " + std::to_string(fault.error);
  if (fault.garbage) text += ", garbage " + std::to_string(*fault.garbage);
  return text;
}

/// Ends the program, and says what was tried, if a row takes that long.
class Watchdog {
 public:
  explicit Watchdog(const std::string& row) {
    text_ = "no end: " + row + '\n';
    signal(SIGALRM, [](int) {
      static_cast<void>(!::write(STDERR_FILENO, text_.data(), text_.size()));
      abort();
    });
    alarm(60);
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  ~Watchdog() { alarm(0); }

 private:
  static inline std::string text_;
};

using Open = std::function<Hand()>;

/// The hand's serial number, which must be the right one if it is any.
Outcome<std::string> Ask(KorvaneBrisa& hand) {
  auto answer = Checked(hand, [](auto& h) { return h.GetVendorInfo().serial_number; });
  static std::string expected;
  if (expected.empty()) expected = answer.value_or("");
  EXPECT_EQ(answer.value_or(expected), expected);
  return answer;
}

/// Whether the hand answers now, or a request or two later, as a frame may have been left behind.
bool AnswersAgain(KorvaneBrisa& hand) {
  hand.SetFrameRecvTimeout(kPatientTimeoutMs);
  for (int i = 0; i < 5 && !StatisticsOf(hand).link_lost; ++i) {
    if (Ask(hand)) return true;
  }
  return false;
}

/// A thread that was joined may still be listed for a moment.
void CheckNothingLost(const test::ProcessResources& before) {
  EXPECT_EQ(test::MeasureResources().descriptors, before.descriptors);
  for (int i = 0; i < 1000 && test::MeasureResources().threads > before.threads; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_LE(test::MeasureResources().threads, before.threads);
}

class FaultCampaign {
 public:
  FaultCampaign(Open open, Receiving receiving) : open_(std::move(open)) {
    SetLogSink(SilentLog());
    SetDefaultReceiving(receiving);
    EXPECT_TRUE(AnswersAgain(*open_()));
  }
  FaultCampaign(const FaultCampaign&) = delete;
  FaultCampaign& operator=(const FaultCampaign&) = delete;
  ~FaultCampaign() {
    SetDefaultReceiving(Receiving::AS_EVER);
    SetLogSink({});
  }

  /// Has each call that the link makes fail in each way.
  void FailCalls() {
    for (const auto& [call, count] : CallsOfOneLife()) {
      for (const Failures& row : kFailures) {
        if (call == row.call) TryRow(row, std::min(count, MostCalls()));
      }
    }
    EXPECT_TRUE(AnswersAgain(*open_()));
  }

  int runs = 0;

 private:
  std::vector<std::pair<std::string, int>> CallsOfOneLife() const {
    CallFaults none;
    Live(After::kWorks, none);
    return CallFaults::Counts();
  }

  void TryRow(const Failures& row, int calls) {
    for (int nth = 1; nth <= calls; ++nth) {
      for (const int error : row.errors) {
        for (const std::int64_t result : row.results) {
          for (const auto& garbage : row.garbage) {
            Try(row.after, {row.call, nth, false, result, error, garbage});
            // The system interrupts a call once, not without end.
            if (error == EINTR) continue;
            Try(row.after, {row.call, nth, true, result, error, garbage});
          }
        }
      }
    }
  }

  void Try(After after, const CallFault& fault) {
    SCOPED_TRACE(Describe(fault));
    const Watchdog watchdog(Describe(fault));
    const auto before = test::MeasureResources();
    // On a machine that is too slow for the short time-out, a request that got no reply may hide
    // the failure of the next one in the same operation: another life tells.
    bool told = false;
    for (int lives = 0; lives < 3 && !told; ++lives) {
      CallFaults faults(fault);
      told = Live(after, faults);
    }
    EXPECT_TRUE(told);
    ++runs;
    CheckNothingLost(before);
  }

  /// One life of a hand object with faults. Whether a failure that must be told was.
  bool Live(After after, CallFaults& faults) const {
    const Hand hand = open_();
    std::vector<int> told{LastFailure(*hand).system_error};
    const bool opened = LastFailure(*hand).kind == FailureKind::NONE;
    hand->SetFrameRecvTimeout(kShortTimeoutMs);
    for (int i = 0; i < 2; ++i) told.push_back(Ask(*hand).failure().system_error);
    faults.Pause(true);
    const bool lost = StatisticsOf(*hand).link_lost;
    const bool works = !opened || after == After::kAnything || AnswersAgain(*hand);
    EXPECT_TRUE(works || lost || StatisticsOf(*hand).link_lost);
    const bool must_be_told = after == After::kToldAndWorks && faults.Struck() > 0;
    faults.Pause(false);
    return !must_be_told || lost || std::count(told.begin(), told.end(), faults.Error()) > 0;
  }

  Open open_;
};

struct Link {
  const char* name;
  std::vector<Receiving> ways;
  std::function<void(const std::function<void(const Open&)>&)> with;
};

/// A hand on a USB adapter waits in the adapter's library either way.
template <class Simulated>
Link On(const char* name, Hand (*open)(Simulated&)) {
  std::vector<Receiving> ways{Receiving::AS_EVER};
  if (!std::is_same_v<Simulated, AdapterHand>) ways.push_back(Receiving::BY_EVENTS);
  return {name, ways, [open](const auto& action) {
            Simulated simulated;
            action([&] { return open(simulated); });
          }};
}

const auto kLinks = testing::Values(
    On<SocketPairHand>("SocketCan",
                       [](auto&) -> Hand {
                         return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, "pair");
                       }),
    On<SerialPortHand>("Serial",
                       [](auto& simulated) -> Hand {
                         return KorvaneBrisa::createHandByUsb(HandType::RIGHT, kId, simulated.path,
                                                              4000000);
                       }),
    On<AdapterHand>(
        "Zlg",
        [](auto&) -> Hand { return KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, kId, 0, 0); }),
    On<AdapterHand>("Hcan", [](auto&) -> Hand {
      return KorvaneBrisa::createHandByHcan(HandType::RIGHT, kId, 0, 0);
    }));

std::string NameOf(const testing::TestParamInfo<Link>& tested) { return tested.param.name; }

class EveryCallFails : public testing::TestWithParam<Link> {};
INSTANTIATE_TEST_SUITE_P(Links, EveryCallFails, kLinks, &NameOf);

TEST_P(EveryCallFails, AndNothingIsLostOrWrong) {
  int runs = 0;
  for (const Receiving receiving : GetParam().ways) {
    GetParam().with([&](const Open& open) {
      FaultCampaign campaign(open, receiving);
      campaign.FailCalls();
      runs += campaign.runs;
    });
  }
  RecordProperty("runs", runs);
}

// Memory

/// Has one allocation after the other fail while `action` runs, until it makes no more.
void FailAllocations(const char* what, test::AllocatingThreads threads,
                     const std::function<void()>& action, int step = 1) {
  constexpr int kMostAllocations = 200;
  bool failed = true;
  for (int n = 1; failed && n <= kMostAllocations; n += step) {
    const std::string row = std::string(what) + ", allocation " + std::to_string(n);
    SCOPED_TRACE(row);
    const Watchdog watchdog(row);
    const test::AllocationHook hook(1, n, &test::ThrowBadAlloc, threads);
    try {
      action();
    } catch (const std::bad_alloc&) {
      // as good as a failure that is told
    }
    failed = hook.Ran();
  }
}

class EveryAllocationFails : public testing::TestWithParam<Link> {};
INSTANTIATE_TEST_SUITE_P(Links, EveryAllocationFails, kLinks, &NameOf);

TEST_P(EveryAllocationFails, AndTheLinkWorksAfterwards) {
  if (!test::AllocationHook::Works()) GTEST_SKIP() << "a sanitizer allocates";
  const auto fail_all = [] {
    GetParam().with([](const Open& open) {
      const FaultCampaign quiet(open, Receiving::BY_EVENTS);
      FailAllocations("opening", test::AllocatingThreads::kThisOne, open);
      const Hand hand = open();
      const auto ask = [&hand] { Ask(*hand); };
      FailAllocations("a request", test::AllocatingThreads::kThisOne, ask);
      FailAllocations("receiving", test::AllocatingThreads::kAllOthers, ask);
      EXPECT_TRUE(AnswersAgain(*hand));
    });
  };
  fail_all();  // Until the process has all that it keeps.
  const auto before = test::MeasureResources();
  const long living = test::AllocationHook::living;
  fail_all();
  CheckNothingLost(before);
  EXPECT_LE(test::AllocationHook::living, living + 16) << "less than one for ten failures";
}

TEST(EveryAllocationFails, OfLookingForHands) {
  if (!test::AllocationHook::Works()) GTEST_SKIP() << "a sanitizer allocates";
  AdapterHand simulated;
  SetLogSink(SilentLog());
  FindOptions options;
  options.places = {*HandAddress::Parse("zlg:0.0:1"), *HandAddress::Parse("hcan:0.0:1")};
  options.answer_time = std::chrono::milliseconds(1);
  FailAllocations(
      "looking", test::AllocatingThreads::kThisOne, [&] { FindHands(options); },
      MostCalls() > 2 ? 1 : 7);
  options.answer_time = std::chrono::milliseconds(200);
  EXPECT_EQ(FindHands(options).hands.size(), 2U) << "one hand, by both adapters";
  SetLogSink({});
}

}  // namespace
}  // namespace talvera::korvane
