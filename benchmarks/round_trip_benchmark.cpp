// How long a request through a hand takes, against the same exchange of bytes written by hand: by
// one thread that sends and reads for itself, and by two, of which one receives and wakes the
// other. On a socket pair, or with KORVANE_TEST_CAN on that interface of the kernel, and on a
// pseudo-terminal. A process that echoes a proper reply answers all of them. Every way takes turns
// with the exchange of two threads, by which its times are divided; compare within one run only.

#include <benchmark/benchmark.h>
#include <linux/can.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "can_socket.h"
#include "child_process.h"
#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "samples.h"
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

// --- The hand that answers, the same for all ------------------------------------------------

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
    if (bench::Interface() != nullptr) return bench::OpenCanSocket();
    int ends[2] = {-1, -1};
    bench::OrThrow(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "socketpair");
    near_end = ends[0];
    lent = std::make_unique<test::LentSockets>(std::vector<int>{near_end});
    return ends[1];
  }

  int near_end_ = -1;
  std::unique_ptr<test::LentSockets> lent_;
  int far_end_ = OpenFarEnd(near_end_, lent_);
  bench::ChildProcess process_{[this] { EchoFrames(far_end_); }};
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
  bench::ChildProcess process_{[this] { Echo(); }};
};

// --- The ways to ask ------------------------------------------------------------------------

/// A link as it is written by hand. `Receive` reads what is there, and is true when the reply is
/// whole.
class CanWire {
 public:
  explicit CanWire(const CanPeer& /*peer*/) : fd_(bench::OpenCanSocket()) {
    frame_.can_id = kPositionId | CAN_EFF_FLAG;
    frame_.len = CANFD_MAX_DLEN;
  }
  CanWire(const CanWire&) = delete;
  CanWire& operator=(const CanWire&) = delete;
  ~CanWire() { close(fd_); }

  int Descriptor() const { return fd_; }
  void Send() const {
    bench::OrThrow(static_cast<int>(write(fd_, &frame_, sizeof frame_)), "write");
  }
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
      : fd_(bench::OrThrow(open(peer.Path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open")) {}
  SerialWire(const SerialWire&) = delete;
  SerialWire& operator=(const SerialWire&) = delete;
  ~SerialWire() { close(fd_); }

  int Descriptor() const { return fd_; }
  void Send() const {
    bench::OrThrow(static_cast<int>(write(fd_, request_.Data(), request_.size)), "write");
  }
  bool Receive() {
    std::uint8_t bytes[256];
    received_ +=
        static_cast<std::size_t>(bench::OrThrow(static_cast<int>(read(fd_, bytes, 256)), "read"));
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
  return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, bench::InterfaceName());
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
    state.counters["p50_us"] = bench::Percentile(own.microseconds, 0.5);
    state.counters["p99_us"] = bench::Percentile(own.microseconds, 0.99);
    state.counters["p50_ratio"] =
        bench::Percentile(own.microseconds, 0.5) / bench::Percentile(reference.microseconds, 0.5);
    state.counters["p99_ratio"] =
        bench::Percentile(own.microseconds, 0.99) / bench::Percentile(reference.microseconds, 0.99);
    state.counters["failed"] = own.failed + reference.failed;
  }
}

template <class Peer, class Wire, class Asking>
void Register(const char* name) {
  benchmark::RegisterBenchmark(name, &RoundTrip<Peer, Asking, TwoThreads<Wire>>)
      ->Apply(&bench::WithSpread);
}

template <class Peer, class Wire>
void RegisterAll(const std::string& link) {
  Register<Peer, Wire, TwoThreads<Wire>>((link + "/two_threads").c_str());
  Register<Peer, Wire, OneThread<Wire>>((link + "/one_thread").c_str());
  Register<Peer, Wire, ThroughHand<Receiving::AS_EVER>>((link + "/hand_as_ever").c_str());
  Register<Peer, Wire, ThroughHand<Receiving::BY_EVENTS>>((link + "/hand_by_events").c_str());
}

const bool kRegistered = [] {
  RegisterAll<CanPeer, CanWire>(bench::Interface() != nullptr ? "kernel_can" : "socket_pair");
  if (bench::Interface() == nullptr) RegisterAll<SerialPeer, SerialWire>("serial");
  return true;
}();

}  // namespace
}  // namespace talvera::korvane
