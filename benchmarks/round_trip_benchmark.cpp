// How long a request through a hand takes, against the same exchange of bytes written by hand: by
// one thread that sends and reads for itself, and by two, of which one receives and wakes the
// other. On a socket pair, or with KORVANE_TEST_CAN on that interface of the kernel, and on a
// pseudo-terminal. A process that echoes a proper reply answers all of them. Every way takes turns
// with the exchange of two threads, by which its times are divided; compare within one run only.

#include <benchmark/benchmark.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "serial/usb_frame.h"
#include "support/lent_sockets.h"
#include "support/pseudo_terminal.h"
#include "util/wake_event.h"

namespace talvera::korvane {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kId = 1;
constexpr std::uint8_t kMotor = 3;
constexpr std::uint32_t kPositionId = 0x03130101;
constexpr std::uint8_t kPositionCommand = 7;
constexpr int kBaud = 115200;

constexpr int kPatienceMs = 1000;

constexpr int kRounds = 10;
/// The first ones after opening, which aren't counted.
constexpr int kWarmUp = 10;

int OrThrow(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

const char* Interface() {
  return std::getenv("KORVANE_TEST_CAN");  // NOLINT(concurrency-mt-unsafe)
}

int OpenCan() {
  const int fd = OrThrow(socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW), "socket");
  const int enabled = 1;
  setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &enabled, sizeof enabled);
  sockaddr_can address{};
  address.can_family = AF_CAN;
  if (Interface() != nullptr) {
    address.can_ifindex = static_cast<int>(if_nametoindex(Interface()));
  }
  OrThrow(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
  return fd;
}

// --- The hand that answers, the same for all ------------------------------------------------

/// A process that runs `serve` until it ends or this object goes.
class Process {
 public:
  explicit Process(const std::function<void()>& serve) : id_(fork()) {
    if (id_ != 0) return;
    serve();
    _exit(0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }

 private:
  pid_t id_;
};

/// Where a request and its reply have the same identifier the frame itself is the reply.
void EchoFrames(int fd) {
  canfd_frame frame{};
  while (read(fd, &frame, sizeof frame) > 0) {
    static_cast<void>(!write(fd, &frame, sizeof frame));
  }
}

/// The far end of a socket pair whose near end the sockets for CAN lead to, or of the kernel's bus.
class CanPeer {
 public:
  /// Of each way in each round.
  static constexpr int kExchanges = 200;

  CanPeer() = default;
  CanPeer(const CanPeer&) = delete;
  CanPeer& operator=(const CanPeer&) = delete;
  ~CanPeer() {
    close(near_end_);
    close(far_end_);
  }

 private:
  static int OpenFarEnd(int& near_end, std::unique_ptr<test::LentSockets>& lent) {
    if (Interface() != nullptr) return OpenCan();
    int ends[2] = {-1, -1};
    OrThrow(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "socketpair");
    near_end = ends[0];
    lent = std::make_unique<test::LentSockets>(std::vector<int>{near_end});
    return ends[1];
  }

  int near_end_ = -1;
  std::unique_ptr<test::LentSockets> lent_;
  int far_end_ = OpenFarEnd(near_end_, lent_);
  Process process_{[this] { EchoFrames(far_end_); }};
};

struct SerialFrame : UsbFrameBuilder {
  explicit SerialFrame(bool reply) : UsbFrameBuilder(kId, kPositionCommand) {
    AddUint8(kMotor);
    if (reply) AddUint16(0x1234);
    size = Finalize(SerialFrameCrcType::kCrc16Ccitt);
  }
  std::vector<std::uint8_t> Bytes() const { return {Data(), Data() + size}; }

  std::size_t size = 0;
};

class SerialPeer {
 public:
  static constexpr int kExchanges = 40;

  std::string Path() const { return line_.Path(); }

 private:
  void Echo() {
    const std::size_t request = SerialFrame(false).size;
    const auto reply = SerialFrame(true).Bytes();
    while (line_.Read(request).size() == request) line_.Write(reply);
  }

  test::PseudoTerminal line_;
  Process process_{[this] { Echo(); }};
};

// --- The ways to ask ------------------------------------------------------------------------

/// A link as it is written by hand. `Receive` reads what is there, and is true when the reply is
/// whole.
class CanWire {
 public:
  explicit CanWire(const CanPeer& /*peer*/) : fd_(OpenCan()) {
    frame_.can_id = kPositionId | CAN_EFF_FLAG;
    frame_.len = CANFD_MAX_DLEN;
  }
  CanWire(const CanWire&) = delete;
  CanWire& operator=(const CanWire&) = delete;
  ~CanWire() { close(fd_); }

  int Descriptor() const { return fd_; }
  void Send() const { OrThrow(static_cast<int>(write(fd_, &frame_, sizeof frame_)), "write"); }
  bool Receive() {
    canfd_frame reply{};
    return read(fd_, &reply, sizeof reply) > 0 && reply.can_id == frame_.can_id;
  }

 private:
  const int fd_;
  canfd_frame frame_{};
};

class SerialWire {
 public:
  explicit SerialWire(const SerialPeer& peer)
      : fd_(OrThrow(open(peer.Path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open")) {}
  SerialWire(const SerialWire&) = delete;
  SerialWire& operator=(const SerialWire&) = delete;
  ~SerialWire() { close(fd_); }

  int Descriptor() const { return fd_; }
  void Send() const {
    OrThrow(static_cast<int>(write(fd_, request_.Data(), request_.size)), "write");
  }
  bool Receive() {
    std::uint8_t bytes[256];
    received_ += static_cast<std::size_t>(OrThrow(static_cast<int>(read(fd_, bytes, 256)), "read"));
    if (received_ < reply_size_) return false;
    received_ = 0;
    return true;
  }

 private:
  const int fd_;
  const SerialFrame request_{false};
  const std::size_t reply_size_ = SerialFrame(true).size;
  std::size_t received_ = 0;
};

class Way {
 public:
  virtual ~Way() = default;
  virtual bool Ask() = 0;
};

template <class Wire>
class OneThread : public Way {
 public:
  template <class Peer>
  explicit OneThread(const Peer& peer) : wire_(peer) {}

  bool Ask() override {
    wire_.Send();
    pollfd watched{wire_.Descriptor(), POLLIN, 0};
    do {
      if (poll(&watched, 1, kPatienceMs) < 1) return false;
    } while (!wire_.Receive());
    return true;
  }

 private:
  Wire wire_;
};

template <class Wire>
class TwoThreads : public Way {
 public:
  template <class Peer>
  explicit TwoThreads(const Peer& peer) : wire_(peer) {
    wake_.Open();
    receiver_ = std::thread([this] { Receive(); });
  }
  ~TwoThreads() override {
    wake_.Signal();
    receiver_.join();
  }

  bool Ask() override {
    std::unique_lock lock(mutex_);
    answered_ = false;
    wire_.Send();
    return cv_.wait_for(lock, std::chrono::milliseconds(kPatienceMs), [this] { return answered_; });
  }

 private:
  void Receive() {
    pollfd watched[] = {{wire_.Descriptor(), POLLIN, 0}, {wake_.Descriptor(), POLLIN, 0}};
    while (poll(watched, std::size(watched), -1) > 0 && watched[1].revents == 0) {
      if (!wire_.Receive()) continue;
      const std::lock_guard lock(mutex_);
      answered_ = true;
      cv_.notify_one();
    }
  }

  Wire wire_;
  WakeEvent wake_;
  std::mutex mutex_;
  std::condition_variable cv_;
  bool answered_ = false;
  std::thread receiver_;
};

std::unique_ptr<KorvaneBrisa> OpenHand(const CanPeer& /*peer*/) {
  return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId,
                                           Interface() ? Interface() : "pair");
}

std::unique_ptr<KorvaneBrisa> OpenHand(const SerialPeer& peer) {
  return KorvaneBrisa::createHandByUsb(HandType::RIGHT, kId, peer.Path(), kBaud);
}

template <Receiving how>
class ThroughHand : public Way {
 public:
  template <class Peer>
  explicit ThroughHand(const Peer& peer) {
    SetLogSink(SilentLog());
    SetDefaultReceiving(how);
    hand_ = OpenHand(peer);
    // So that a late reply counts as slow, not as none.
    hand_->SetFrameRecvTimeout(kPatienceMs);
  }

  bool Ask() override {
    return static_cast<bool>(
        korvane::Checked(*hand_, [](auto& hand) { return hand.GetJointMotorPosi(kMotor); }));
  }

 private:
  std::unique_ptr<KorvaneBrisa> hand_;
};

// --- Measuring ------------------------------------------------------------------------------

struct Times {
  std::vector<double> microseconds;
  int failed = 0;

  double Percentile(double share) {
    const auto at =
        microseconds.begin() +
        static_cast<std::ptrdiff_t>(share * static_cast<double>(microseconds.size() - 1));
    std::nth_element(microseconds.begin(), at, microseconds.end());
    return *at;
  }
};

/// Opened for this alone: of two links on one bus each would hear what the other says.
template <class Asking, class Peer>
void Measure(const Peer& peer, Times& times) {
  Asking way(peer);
  for (int i = 0; i < kWarmUp; ++i) way.Ask();
  for (int i = 0; i < Peer::kExchanges; ++i) {
    const auto start = Clock::now();
    if (!way.Ask()) ++times.failed;
    times.microseconds.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
}

template <class Peer, class Asking, class Reference>
void RoundTrip(benchmark::State& state) {
  const Peer peer;
  for ([[maybe_unused]] auto _ : state) {
    Times own, reference;
    for (int round = 0; round < kRounds; ++round) {
      Measure<Asking>(peer, own);
      Measure<Reference>(peer, reference);
    }
    state.counters["p50_us"] = own.Percentile(0.5);
    state.counters["p99_us"] = own.Percentile(0.99);
    state.counters["p50_ratio"] = own.Percentile(0.5) / reference.Percentile(0.5);
    state.counters["p99_ratio"] = own.Percentile(0.99) / reference.Percentile(0.99);
    state.counters["failed"] = own.failed + reference.failed;
  }
}

double Least(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}
double Most(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

template <class Peer, class Wire, class Asking>
void Register(const char* name) {
  benchmark::RegisterBenchmark(name, &RoundTrip<Peer, Asking, TwoThreads<Wire>>)
      ->Iterations(1)
      ->UseRealTime()
      ->ComputeStatistics("min", &Least)
      ->ComputeStatistics("max", &Most);
}

template <class Peer, class Wire>
void RegisterAll(const std::string& link) {
  Register<Peer, Wire, TwoThreads<Wire>>((link + "/two_threads").c_str());
  Register<Peer, Wire, OneThread<Wire>>((link + "/one_thread").c_str());
  Register<Peer, Wire, ThroughHand<Receiving::AS_EVER>>((link + "/hand_as_ever").c_str());
  Register<Peer, Wire, ThroughHand<Receiving::BY_EVENTS>>((link + "/hand_by_events").c_str());
}

const bool kRegistered = [] {
  RegisterAll<CanPeer, CanWire>(Interface() != nullptr ? "kernel_can" : "socket_pair");
  if (Interface() == nullptr) RegisterAll<SerialPeer, SerialWire>("serial");
  return true;
}();

}  // namespace
}  // namespace talvera::korvane
