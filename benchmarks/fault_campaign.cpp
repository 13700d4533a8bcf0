// Asks a hand that answers late, twice, out of order, for another hand, or not at all, and sorts
// what comes back; or takes its link away and brings it back. Run by scripts/campaign.
//
//     fault_campaign requests LINK N
//     fault_campaign cycles LINK N
//     fault_campaign soak LINK MINUTES
//
// LINK is socketcan, zlg, hcan, serial, or, through scripts/kernel-guest, kernel: SocketCAN on a
// bus of a real kernel, in place of a pair of sockets. A soak asks for that long, opens its hand
// anew every ten seconds, and looks whether the process grows. Each reply says which request it
// answers, so that a value that belongs to another one shows. The exit status is 1 if something
// came out that no document tells of.

#include <linux/can.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <ratio>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "can_socket.h"
#include "korvane_brisa.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_sim/in_process_adapters.h"
#include "serial/usb_frame.h"
#include "support/lent_sockets.h"
#include "support/process_resources.h"
#include "support/pseudo_terminal.h"
#include "util/bytes.h"

namespace talvera::korvane {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Milliseconds = std::chrono::milliseconds;

constexpr std::uint8_t kId = 1;
constexpr std::uint8_t kForeignId = 9;
constexpr int kTimeoutMs = 10;
constexpr unsigned kMotors = 10;
constexpr unsigned kNumbers = 512;

// --- What is asked, and how an answer says what it answers -----------------------------------

/// The last two bits differ among the kinds of one link.
enum Kind : unsigned {
  kPosition,
  kVelocity,
  kThreshold,
  kAllPositions,
  kNoKind,
  kAllCurrents,
};

/// The value that motor `index` has in the answer to a request: 9 bits for the number of the
/// request, 4 for the motor and 2 for the kind.
struct Stamp {
  unsigned number;
  unsigned index;
  unsigned kind;

  std::uint16_t Value() const {
    return static_cast<std::uint16_t>(number % kNumbers << 6 | index << 2 | (kind & 3));
  }
  static Stamp Of(short value) {
    const auto bits = static_cast<unsigned>(value);
    return {bits >> 6 & (kNumbers - 1), bits >> 2 & 15, bits & 3};
  }
};

/// A request as the far end sees it.
struct Question {
  Bytes frame;  ///< CAN: id and payload. Serial: whole frame.
  unsigned kind;
  unsigned index;  ///< 0 for all motors.
};

// --- The far end ----------------------------------------------------------------------------

/// How a far end hears and speaks. `Hear` returns after a while without a request.
class Line {
 public:
  virtual ~Line() = default;
  virtual std::optional<Question> Hear() = 0;
  virtual void Say(const Bytes& frame) = 0;
  virtual Bytes Reply(const Question& question, unsigned number, std::uint8_t id) = 0;
  /// Whether a reply behind another hand's frame may be taken twice.
  virtual bool RepeatsBehindForeign() const { return false; }
};

/// On CAN a frame is its identifier, four bytes, and its payload.
class CanLine : public Line {
 protected:
  static std::optional<Question> Read(std::uint32_t id) {
    static const std::map<unsigned, unsigned> kinds{
        {0x13, kPosition}, {0x12, kVelocity}, {0x03, kThreshold}};
    if ((id & 0x7F) != kId) return std::nullopt;
    const unsigned index = id >> 24 & 0x1F;
    const auto known = kinds.find(id >> 16 & 0xFF);
    const unsigned kind = known == kinds.end() ? static_cast<unsigned>(kNoKind) : known->second;
    Bytes frame(4);
    StoreU32(frame.data(), id);
    return Question{frame, kind == kPosition && index == 0 ? kAllPositions : kind, index};
  }
  Bytes Reply(const Question& question, unsigned number, std::uint8_t id) override {
    const unsigned first = question.index == 0 ? 1 : question.index;
    const unsigned last = question.index == 0 ? kMotors : question.index;
    Bytes frame(4 + 2 * (last - first + 1));
    StoreU32(frame.data(), (LoadU32(question.frame.data()) & ~0x7FU) | id);
    for (unsigned i = first; i <= last; ++i) {
      StoreU16(&frame[4 + 2 * (i - first)], Stamp{number, i, question.kind}.Value());
    }
    return frame;
  }
};

/// The far end of a socket for CAN FD frames.
class SocketLine : public CanLine {
 public:
  ~SocketLine() override { close(socket_); }
  std::optional<Question> Hear() override {
    pollfd watched{socket_, POLLIN, 0};
    canfd_frame raw{};
    if (poll(&watched, 1, 20) < 1 || read(socket_, &raw, sizeof raw) <= 0) return std::nullopt;
    return Read(raw.can_id & CAN_EFF_MASK);
  }
  void Say(const Bytes& frame) override {
    canfd_frame raw{};
    raw.can_id = LoadU32(frame.data()) | CAN_EFF_FLAG;
    raw.len = static_cast<std::uint8_t>(frame.size() - 4);
    std::copy(frame.begin() + 4, frame.end(), raw.data);
    static_cast<void>(!write(socket_, &raw, sizeof raw));
  }

 protected:
  int socket_ = -1;
};

class KernelLine : public SocketLine {
 public:
  KernelLine() { socket_ = bench::OpenCanSocket(); }
};

class PairLine : public SocketLine {
 public:
  PairLine() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
    near_end_ = ends[0];
    socket_ = ends[1];
    lent_.emplace(std::vector<int>{near_end_});
  }
  ~PairLine() override {
    lent_.reset();
    close(near_end_);
  }

 private:
  int near_end_ = -1;
  std::optional<test::LentSockets> lent_;
};

class AdapterLine : public CanLine {
 public:
  std::optional<Question> Hear() override {
    const auto frame = port_->Receive(Milliseconds(20));
    return frame ? Read(frame->id) : std::nullopt;
  }
  void Say(const Bytes& bytes) override {
    sim::Frame frame{LoadU32(bytes.data()), static_cast<std::uint8_t>(bytes.size() - 4), {}};
    std::copy(bytes.begin() + 4, bytes.end(), frame.data.begin());
    port_->Send(frame);
  }

 private:
  sim::InProcessAdapters adapters_;
  std::unique_ptr<sim::VirtualBus::Port> port_ = adapters_.Bus(0, 0).Open();
};

class SerialLine : public Line {
 public:
  std::optional<Question> Hear() override {
    const std::size_t size = bytes_.size() < 5 ? 0 : bytes_[kUsbFrameLength] + kUsbFrameOverhead;
    if (size == 0 || bytes_.size() < size) {
      const auto some = line_.ReadSome(20);
      bytes_.insert(bytes_.end(), some.begin(), some.end());
      return std::nullopt;
    }
    Question question{Bytes(bytes_.begin(), bytes_.begin() + static_cast<long>(size)), kNoKind, 0};
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<long>(size));
    const std::uint8_t command = question.frame[kUsbFrameCommand];
    if (command == 0x07) question.kind = kPosition, question.index = question.frame[kUsbFrameData];
    if (command == 0x09) question.kind = kAllPositions;
    if (command == 0x0A) question.kind = kAllCurrents;
    return question;
  }
  void Say(const Bytes& frame) override { line_.Write(frame); }
  Bytes Reply(const Question& question, unsigned number, std::uint8_t id) override {
    UsbFrameBuilder frame(id, question.frame[kUsbFrameCommand]);
    const unsigned index = question.index;
    if (index > 0) frame.AddUint8(static_cast<std::uint8_t>(index));
    for (unsigned i = index == 0 ? 1 : index; i <= (index == 0 ? kMotors : index); ++i) {
      frame.AddUint16(Stamp{number, i, question.kind}.Value());
    }
    const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
    return {frame.Data(), frame.Data() + size};
  }

  bool RepeatsBehindForeign() const override { return true; }

  const std::string& Path() const { return line_.Path(); }

 private:
  test::PseudoTerminal line_;
  Bytes bytes_;
};

/// What may be wrong with an answer, by request; written by both sides.
struct Trouble {
  /// The reply was sent more than once, or may come when its request is over.
  std::array<std::atomic<bool>, kNumbers> stray{};
  /// The request that is under way.
  std::atomic<unsigned> number{0};
  /// Whether the present request's reply was held back, in whole or for a while.
  std::atomic<bool> withheld{false};
};

/// Answers on a thread of its own, with faults or without.
class FarEnd {
 public:
  FarEnd(Line& line, Trouble& trouble, bool faults)
      : line_(line), trouble_(trouble), faults_(faults), thread_([this] { Run(); }) {}
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;
  ~FarEnd() {
    stop_ = true;
    thread_.join();
  }

 private:
  void Run() {
    while (!stop_) {
      if (const auto question = line_.Hear()) Answer(*question);
    }
  }

  void Answer(const Question& question) {
    // One frame for each request, however late this thread gets to it.
    const unsigned number = ++heard_;
    const Bytes reply = line_.Reply(question, number, kId);
    const double luck = faults_ ? std::uniform_real_distribution<>(0, 1)(random_) : 1;
    const auto before = std::exchange(late_before_, {});
    const auto behind = std::exchange(late_behind_, {});
    if (!before.empty()) line_.Say(before);
    if (luck < 0.005) {
      Withhold(number);  // never comes
    } else if (luck < 0.010) {
      Withhold(number);
      late_before_ = reply;
    } else if (luck < 0.015) {
      Withhold(number);
      late_behind_ = reply;
    } else if (luck < 0.016) {
      Withhold(number);
      std::this_thread::sleep_for(Milliseconds(kTimeoutMs));
      line_.Say(reply);
    } else if (luck < 0.026) {
      trouble_.stray[number % kNumbers] = true;
      line_.Say(reply);
      line_.Say(reply);
    } else {
      if (luck < 0.036) {
        if (line_.RepeatsBehindForeign()) trouble_.stray[number % kNumbers] = true;
        line_.Say(line_.Reply(question, number + 77, kForeignId));
      }
      line_.Say(reply);
    }
    if (!behind.empty()) line_.Say(behind);
  }

  void Withhold(unsigned number) {
    trouble_.stray[number % kNumbers] = true;
    if (number == trouble_.number) trouble_.withheld = true;
  }

  Line& line_;
  Trouble& trouble_;
  const bool faults_;
  std::mt19937 random_{1};
  unsigned heard_ = 0;
  Bytes late_before_;
  Bytes late_behind_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// --- The near end ---------------------------------------------------------------------------

struct Link {
  std::function<std::unique_ptr<Line>()> plug;
  std::function<std::unique_ptr<KorvaneBrisa>(Line&)> open;
  std::vector<unsigned> kinds;
};

const std::vector<unsigned> kOnCan{kPosition, kVelocity, kThreshold, kAllPositions};

const std::map<std::string, Link> kLinks{
    {"socketcan",
     {[] { return std::make_unique<PairLine>(); },
      [](Line&) { return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, "pair"); },
      kOnCan}},
    {"kernel",
     {[] { return std::make_unique<KernelLine>(); },
      [](Line&) {
        return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, bench::InterfaceName());
      },
      kOnCan}},
    {"zlg",
     {[] { return std::make_unique<AdapterLine>(); },
      [](Line&) { return KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, kId, 0, 0); }, kOnCan}},
    {"hcan",
     {[] { return std::make_unique<AdapterLine>(); },
      [](Line&) { return KorvaneBrisa::createHandByHcan(HandType::RIGHT, kId, 0, 0); }, kOnCan}},
    {"serial",
     {[] { return std::make_unique<SerialLine>(); },
      [](Line& line) {
        return KorvaneBrisa::createHandByUsb(HandType::RIGHT, kId,
                                             dynamic_cast<SerialLine&>(line).Path(), 4000000);
      },
      {kPosition, kAllPositions, kAllCurrents}}}};

using Values = std::vector<short>;

Values Ask(KorvaneBrisa& hand, unsigned kind, unsigned index) {
  const auto motor = static_cast<std::uint8_t>(index);
  switch (kind) {
    case kPosition:
      return {hand.GetJointMotorPosi(motor)};
    case kVelocity:
      return {hand.GetJointMotorVelo(motor)};
    case kThreshold:
      return {hand.GetCurrentThreshold(motor)};
    case kAllPositions:
      return hand.GetAllJointMotorPosi();
    default:
      return hand.GetAllCurrentReport();
  }
}

/// Sorts what came back.
class Tally {
 public:
  explicit Tally(bool serial, const Trouble& trouble) : serial_(serial), trouble_(trouble) {}

  /// True if it was the right answer, so that no other one is left for this request.
  bool Take(const Outcome<Values>& answer, const Stamp& asked) {
    const std::string what = answer ? Judge(*answer, asked) : FailureName(answer.failure());
    ++counts[what];
    return what == kRight;
  }

  static constexpr const char* kRight = "right";
  std::map<std::string, long> counts;
  long unsettled = 0;

 private:
  std::string FailureName(const Failure& failure) const {
    const std::string why = trouble_.withheld ? "" : ", though the reply was sent at once";
    return std::string("told: ") + ToString(failure.kind) + why;
  }

  std::string Judge(const Values& values, const Stamp& asked) {
    const Stamp first = Stamp::Of(values.at(0));
    unsigned index = asked.index == 0 ? 1 : asked.index;
    bool whole = values.size() == (asked.index == 0 ? kMotors : 1);
    bool same_motor = true;
    for (const short value : values) {
      const Stamp stamp = Stamp::Of(value);
      whole = whole && stamp.number == first.number && stamp.kind == (asked.kind & 3);
      same_motor = same_motor && stamp.index == index++;
    }
    if (whole && same_motor && first.number == asked.number % kNumbers) return kRight;
    const bool stray = trouble_.stray[first.number];
    if (whole && same_motor && stray) return "settled: a late or second reply of the same kind";
    if (whole && stray && serial_) return "settled: the position of another axis (serial)";
    ++unsettled;
    if (unsettled < 10) {
      std::printf(
          "\nunsettled: asked %u of motor %u with number %u, got %d: number %u, motor %u, kind "
          "%u\n",
          asked.kind, asked.index, asked.number % kNumbers, values[0], first.number, first.index,
          first.kind);
    }
    return "NOT SETTLED";
  }

  const bool serial_;
  const Trouble& trouble_;
};

void ShowProgress(long done, long all, std::chrono::steady_clock::time_point began) {
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - began;
  std::fprintf(stderr, "\r%ld of %ld, %.0f s", done, all, passed.count());
}

/// Asks one thing after another, and sorts what comes back.
class Asker {
 public:
  Asker(const std::string& name, const Link& link)
      : link_(link),
        line_(link.plug()),
        far_end_(*line_, trouble_, true),
        tally_(name == "serial", trouble_) {}

  void Open() {
    hand_ = link_.open(*line_);
    hand_->SetFrameRecvTimeout(kTimeoutMs);
  }
  void Close() { hand_.reset(); }

  void AskOne() {
    const unsigned kind = link_.kinds[random_() % link_.kinds.size()];
    const bool all = kind == kAllPositions || kind == kAllCurrents;
    const Stamp asked{static_cast<unsigned>(++count_),
                      all ? 0U : 1 + static_cast<unsigned>(random_()) % kMotors, kind};
    trouble_.withheld = false;
    trouble_.stray[asked.number % kNumbers] = false;
    trouble_.number = asked.number;
    const auto answer = Checked(*hand_, [&](auto& h) { return Ask(h, kind, asked.index); });
    // Otherwise its reply may still come.
    if (!tally_.Take(answer, asked)) trouble_.stray[asked.number % kNumbers] = true;
  }

  long Count() const { return count_; }

  /// False if something came out that no document tells of.
  bool Report() const {
    for (const auto& [what, count] : tally_.counts) {
      std::printf("  %8ld  %s\n", count, what.c_str());
    }
    return tally_.unsettled == 0;
  }

 private:
  const Link& link_;
  Trouble trouble_;
  std::unique_ptr<Line> line_;
  FarEnd far_end_;
  std::unique_ptr<KorvaneBrisa> hand_;
  Tally tally_;
  std::mt19937 random_{2};
  long count_ = 0;
};

int RunRequests(const std::string& name, const Link& link, long requests) {
  Asker asker(name, link);
  asker.Open();
  const auto began = std::chrono::steady_clock::now();
  while (asker.Count() < requests) {
    asker.AskOne();
    if (asker.Count() % 1000 == 0) ShowProgress(asker.Count(), requests, began);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("\n%s: %ld requests in %.0f s\n", name.c_str(), requests, took.count());
  return asker.Report() ? 0 : 1;
}

/// Says what the process held first and what it holds at the end. True if it didn't grow, other
/// than by what the allocator keeps at hand of what was freed: no more than `most_heap` bytes.
bool ReportGrowth(const test::ProcessResources& first, const test::ProcessResources& end,
                  std::size_t most_heap) {
  std::printf("  descriptors %zu, then %zu; threads %zu, then %zu; heap %zu, then %zu bytes\n",
              first.descriptors, end.descriptors, first.threads, end.threads, first.heap_bytes,
              end.heap_bytes);
  return end.descriptors == first.descriptors && end.threads <= first.threads &&
         end.heap_bytes <= first.heap_bytes + most_heap;
}

long ResidentKib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

/// What a soak sees between two lives of its hand.
struct SoakSample {
  test::ProcessResources held = test::MeasureResources();
  long resident_kib = ResidentKib();
};

/// One life of a hand in a soak.
void AskForAWhile(Asker& asker) {
  asker.Open();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < end) asker.AskOne();
  asker.Close();
}

bool ReportSoak(const std::string& name, const SoakSample& first, const SoakSample& end) {
  constexpr long kMostGrowthKib = 512;
  constexpr std::size_t kMostHeap = 16384;
  std::printf("%s: memory %ld, then %ld KiB\n", name.c_str(), first.resident_kib, end.resident_kib);
  return ReportGrowth(first.held, end.held, kMostHeap) &&
         end.resident_kib <= first.resident_kib + kMostGrowthKib;
}

int RunSoak(const std::string& name, const Link& link, double minutes) {
  constexpr double kWarmUp = 0.2;
  Asker asker(name, link);
  std::optional<SoakSample> warm;
  const auto began = std::chrono::steady_clock::now();
  for (double passed = 0; passed < minutes;) {
    AskForAWhile(asker);
    passed = std::chrono::duration<double, std::ratio<60>>(std::chrono::steady_clock::now() - began)
                 .count();
    if (!warm && passed >= kWarmUp * minutes) warm.emplace();
    std::printf("%.1f min, %ld requests\n", passed, asker.Count());
    std::fflush(stdout);
  }
  const SoakSample end;
  const bool flat = ReportSoak(name, warm.value_or(end), end);
  return asker.Report() && flat ? 0 : 1;
}

/// One life of a link. False if the hand doesn't answer while it is there, or a loss isn't told.
bool LiveOnce(const Link& link) {
  Trouble trouble;
  auto line = link.plug();
  std::optional<FarEnd> far_end;
  far_end.emplace(*line, trouble, false);
  const auto hand = link.open(*line);
  const auto ask = [&] {
    return static_cast<bool>(Checked(*hand, [](auto& h) { return Ask(h, kAllPositions, 0); }));
  };
  bool answered = false;
  for (int i = 0; i < 20 && !answered; ++i) answered = ask();
  far_end.reset();
  line.reset();
  hand->SetFrameRecvTimeout(kTimeoutMs);
  bool told = true;
  for (int i = 0; i < 3; ++i) told = !ask();
  return answered && told;
}

int RunCycles(const std::string& name, const Link& link, long cycles) {
  const auto began = std::chrono::steady_clock::now();
  long failed = 0;
  std::optional<test::ProcessResources> warm;
  for (long n = 1; n <= cycles; ++n) {
    if (!LiveOnce(link)) ++failed;
    if (n == cycles / 5) warm = test::MeasureResources();
    if (n % 10 == 0) ShowProgress(n, cycles, began);
  }
  const auto end = test::MeasureResources();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("\n%s: %ld cycles in %.0f s, %ld failed\n", name.c_str(), cycles, took.count(),
              failed);
  return ReportGrowth(warm.value_or(end), end, 4096) && failed == 0 ? 0 : 1;
}

int Run(const std::vector<std::string>& arguments) {
  const auto link = arguments.size() == 3 ? kLinks.find(arguments[1]) : kLinks.end();
  if (link == kLinks.end()) {
    std::fprintf(stderr,
                 "usage: fault_campaign requests|cycles LINK N\n"
                 "       fault_campaign soak LINK MINUTES\n"
                 "LINK: socketcan, kernel, zlg, hcan or serial\n");
    return 2;
  }
  // A pair of sockets, unlike a CAN socket, ends the program when its far end is gone.
  signal(SIGPIPE, SIG_IGN);
  SetLogSink(SilentLog());
  SetDefaultReceiving(Receiving::BY_EVENTS);
  const auto& [name, way] = *link;
  if (arguments[0] == "soak") return RunSoak(name, way, std::stod(arguments[2]));
  const long count = std::stol(arguments[2]);
  return arguments[0] == "cycles" ? RunCycles(name, way, count) : RunRequests(name, way, count);
}

}  // namespace
}  // namespace talvera::korvane

int main(int argc, char** argv) {
  return talvera::korvane::Run(std::vector<std::string>(argv + 1, argv + argc));
}
