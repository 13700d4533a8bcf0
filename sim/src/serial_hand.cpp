#include "korvane_sim/serial_hand.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <functional>
#include <iostream>
#include <random>
#include <system_error>
#include <thread>
#include <utility>

#include "serial_frame.h"
#include "serial_line.h"
#include "util/clock.h"
#include "util/guarded.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

using TimePoint = Clock::TimePoint;

constexpr std::uint16_t kEveryone = 0x7FF;
/// How often the clock is looked at while something is to come: it needn't be the machine's.
constexpr std::chrono::nanoseconds kTick{std::chrono::milliseconds(2)};

/// What begins like a frame would make the host wait for the rest of it.
Bytes Junk(std::mt19937_64& random) {
  Bytes bytes(1 + random() % 24);
  for (std::uint8_t& byte : bytes) {
    byte = static_cast<std::uint8_t>(random());
    if (byte == 0xEE) byte = 0;
  }
  return bytes;
}

/// Sleeps until there is something to read, or for that long.
void Wait(int wake, int line, std::optional<std::chrono::nanoseconds> time) {
  std::array<pollfd, 2> files{{{wake, POLLIN, 0}, {line, POLLIN, 0}}};
  timespec timeout{};
  if (time) timeout.tv_nsec = static_cast<long>(time->count());
  ppoll(files.data(), files.size(), time ? &timeout : nullptr, nullptr);
  eventfd_t ignored = 0;
  if (files[0].revents != 0) eventfd_read(wake, &ignored);
}

}  // namespace

class SerialHand::Impl {
 public:
  Impl(SimulatedHand hand, std::string link, Clock& clock, std::uint64_t seed)
      : clock_(clock),
        link_(std::move(link)),
        hand_(std::move(hand)),
        face_(hand_, ServiceLink::kSerial),
        random_(seed),
        wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
    hand_.Advance(clock_.Now());
    Plug();
    thread_ = std::thread([this] { Serve(); });
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    {
      const MutexLock lock(mutex_);
      stopping_ = true;
    }
    Wake();
    thread_.join();
  }

  /// Calls a member function between two steps of the thread, which looks for what it did.
  template <class Function, class... Arguments>
  auto Locked(Function function, Arguments&&... arguments) {
    const MutexLock lock(mutex_);
    Wake();
    return std::invoke(function, *this, std::forward<Arguments>(arguments)...);
  }

  std::string Path() const KORVANE_REQUIRES(mutex_) { return link_.empty() ? device_ : link_; }
  const std::string& Device() const KORVANE_REQUIRES(mutex_) { return device_; }
  ServiceSettings Settings() KORVANE_REQUIRES(mutex_) {
    face_.Follow(hand_, clock_.Now());
    return face_.Settings();
  }

  void Plug() KORVANE_REQUIRES(mutex_) {
    replug_at_.reset();
    if (line_) return;
    line_ = std::make_unique<SerialLine>(link_);
    device_ = line_->Device();
  }

  /// The thread lets go of the line before it is closed.
  void Unplug() {
    MutexLock lock(mutex_);
    replug_at_.reset();
    if (!line_) return;
    DropTraffic();
    unplugged_ = std::move(line_);
    Wake();
    settled_.wait(lock, [this]() KORVANE_REQUIRES(mutex_) { return unplugged_ == nullptr; });
  }

  void SetFaults(const SerialFaults& faults) KORVANE_REQUIRES(mutex_) {
    faults_ = faults;
    emitted_ = received_ = 0;
  }

  void WithHand(const std::function<void(SimulatedHand&)>& action) KORVANE_REQUIRES(mutex_) {
    hand_.Advance(clock_.Now());
    action(hand_);
    face_.Follow(hand_, clock_.Now());
  }
  void Restart() KORVANE_REQUIRES(mutex_) { face_.Restart(hand_, clock_.Now()); }
  void Say(const ServiceMessage& message) KORVANE_REQUIRES(mutex_) {
    Send(BuildSerialFrame({face_.DeviceId(), message, SerialTrailer::kXmodem}));
  }
  void Send(const Bytes& bytes) KORVANE_REQUIRES(mutex_) {
    output_.push_back({clock_.Now(), bytes});
  }

  SerialStatistics Statistics() const KORVANE_REQUIRES(mutex_) {
    SerialStatistics statistics = statistics_;
    statistics.rejected = parser_.Rejected();
    return statistics;
  }

 private:
  struct Output {
    TimePoint due;
    Bytes bytes;
  };

  void Wake() const { eventfd_write(wake_.Get(), 1); }

  void Serve() {
    MutexLock lock(mutex_);
    while (!stopping_) {
      unplugged_.reset();
      settled_.notify_all();
      DoWhatIsDue(clock_.Now());
      const int fd = line_ ? line_->Fd() : -1;
      const auto time = TimeToNext();
      lock.unlock();
      Wait(wake_.Get(), fd, time);
      lock.lock();
      TakeInput();
    }
  }

  void DoWhatIsDue(TimePoint now) KORVANE_REQUIRES(mutex_) {
    if (replug_at_ && *replug_at_ <= now) Replug();
    for (const auto& upload : face_.TakeDue(hand_, now)) {
      Emit({face_.DeviceId(), upload, SerialTrailer::kXmodem}, now);
    }
    for (; !output_.empty() && output_.front().due <= now; output_.pop_front()) {
      if (line_) line_->Write(output_.front().bytes);
    }
  }

  void Replug() KORVANE_REQUIRES(mutex_) try { Plug(); } catch (const std::runtime_error& error) {
    std::cerr << std::string("korvane-sim: ") + error.what() + "\n";
  }

  std::optional<std::chrono::nanoseconds> TimeToNext() const KORVANE_REQUIRES(mutex_) {
    std::optional<TimePoint> next = face_.NextEvent();
    const auto consider = [&](TimePoint time) { next = next ? std::min(*next, time) : time; };
    if (replug_at_) consider(*replug_at_);
    if (!output_.empty()) consider(output_.front().due);
    if (!next) return std::nullopt;
    return std::clamp<std::chrono::nanoseconds>(*next - clock_.Now(), kTick * 0, kTick);
  }

  UpdateChecksum Checksum() KORVANE_REQUIRES(mutex_) {
    return SerialChecksum(hand_.GetIdentity().software_version);
  }

  void TakeInput() KORVANE_REQUIRES(mutex_) {
    if (!line_) return;
    parser_.Feed(line_->Read());
    const TimePoint now = clock_.Now();
    while (const auto frame = parser_.Next(Checksum())) Take(*frame, now);
  }

  void Take(const SerialFrame& frame, TimePoint now) KORVANE_REQUIRES(mutex_) {
    const std::uint16_t id = face_.DeviceId();
    if (frame.device_id != id && frame.device_id != kEveryone) {
      ++statistics_.other_id;
      return;
    }
    ++statistics_.from_host;
    if (++received_ == faults_.unplug_after) {
      line_.reset();
      DropTraffic();
      if (faults_.replug_after) replug_at_ = now + *faults_.replug_after;
      return;
    }
    const SerialTrailer update_trailer = TrailerOf(Checksum());
    for (const ServiceMessage& reply : face_.Handle(hand_, frame.message, now)) {
      // An id that this command changed counts from the next one on.
      const bool is_update = reply.command == kUpdateReplyCommand;
      Emit({id, reply, is_update ? update_trailer : frame.trailer}, now);
    }
  }

  void DropTraffic() KORVANE_REQUIRES(mutex_) {
    parser_.Clear();
    output_.clear();
  }

  bool Happens(double share) KORVANE_REQUIRES(mutex_) {
    return share > 0.0 && std::uniform_real_distribution<>(0.0, 1.0)(random_) < share;
  }

  void Emit(const SerialFrame& frame, TimePoint now) KORVANE_REQUIRES(mutex_) {
    if (faults_.silent_after && emitted_ >= *faults_.silent_after) return;
    ++emitted_;
    ++statistics_.from_hand;
    Bytes wire;
    const auto append = [&wire](const Bytes& bytes) {
      wire.insert(wire.end(), bytes.begin(), bytes.end());
    };
    if (Happens(faults_.junk)) append(Junk(random_));
    if (Happens(faults_.foreign)) append(BuildSerialFrame(Foreign(frame)));
    Bytes own = BuildSerialFrame(frame);
    if (Happens(faults_.bad_checksum)) own.back() = static_cast<std::uint8_t>(~own.back());
    if (Happens(faults_.loss)) {
      ++statistics_.lost;
    } else {
      append(own);
      if (Happens(faults_.duplicate)) append(own);
    }
    if (faults_.merge) {
      append(BuildSerialFrame({frame.device_id, face_.Upload(hand_), SerialTrailer::kXmodem}));
    }
    Schedule(wire, now);
  }

  /// The same from another hand, with all its bytes changed.
  static SerialFrame Foreign(SerialFrame frame) {
    frame.device_id = static_cast<std::uint16_t>(frame.device_id % 2046 + 1);
    for (std::uint8_t& byte : frame.message.data) byte = static_cast<std::uint8_t>(~byte);
    return frame;
  }

  /// Nothing overtakes on a line.
  void Schedule(const Bytes& wire, TimePoint now) KORVANE_REQUIRES(mutex_) {
    const double share = std::uniform_real_distribution<>(0.0, 1.0)(random_);
    TimePoint due = now + faults_.delay +
                    std::chrono::duration_cast<std::chrono::nanoseconds>(faults_.jitter * share);
    if (!output_.empty()) due = std::max(due, output_.back().due);
    if (faults_.split.count() <= 0) {
      output_.push_back({due, wire});
      return;
    }
    for (const std::uint8_t byte : wire) {
      output_.push_back({due, {byte}});
      due += faults_.split;
    }
  }

  Clock& clock_;
  const std::string link_;
  Mutex mutex_;
  std::condition_variable settled_;
  SimulatedHand hand_ KORVANE_GUARDED_BY(mutex_);
  ServiceFace face_ KORVANE_GUARDED_BY(mutex_);
  SerialFrameParser parser_ KORVANE_GUARDED_BY(mutex_);
  std::unique_ptr<SerialLine> line_ KORVANE_GUARDED_BY(mutex_);  ///< Null while it is unplugged.
  std::unique_ptr<SerialLine> unplugged_ KORVANE_GUARDED_BY(mutex_);
  std::string device_ KORVANE_GUARDED_BY(mutex_);
  std::optional<TimePoint> replug_at_ KORVANE_GUARDED_BY(mutex_);
  std::deque<Output> output_ KORVANE_GUARDED_BY(mutex_);
  SerialFaults faults_ KORVANE_GUARDED_BY(mutex_);
  std::uint64_t emitted_ KORVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t received_ KORVANE_GUARDED_BY(mutex_) = 0;
  SerialStatistics statistics_ KORVANE_GUARDED_BY(mutex_);
  std::mt19937_64 random_ KORVANE_GUARDED_BY(mutex_);
  UniqueFd wake_;
  bool stopping_ KORVANE_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

SerialHand::SerialHand(SimulatedHand hand, std::string link, std::uint64_t seed)
    : SerialHand(std::move(hand), std::move(link), SystemClock(), seed) {}
SerialHand::SerialHand(SimulatedHand hand, std::string link, Clock& clock, std::uint64_t seed)
    : impl_(std::make_unique<Impl>(std::move(hand), std::move(link), clock, seed)) {}
SerialHand::~SerialHand() = default;

std::string SerialHand::Path() const { return impl_->Locked(&Impl::Path); }
std::string SerialHand::Device() const { return impl_->Locked(&Impl::Device); }
void SerialHand::Unplug() { impl_->Unplug(); }
void SerialHand::Plug() { impl_->Locked(&Impl::Plug); }
void SerialHand::SetFaults(const SerialFaults& faults) { impl_->Locked(&Impl::SetFaults, faults); }
void SerialHand::WithHand(const std::function<void(SimulatedHand&)>& action) {
  impl_->Locked(&Impl::WithHand, action);
}
ServiceSettings SerialHand::Settings() const { return impl_->Locked(&Impl::Settings); }
void SerialHand::Restart() { impl_->Locked(&Impl::Restart); }
void SerialHand::Say(const ServiceMessage& message) { impl_->Locked(&Impl::Say, message); }
void SerialHand::SayRaw(const std::vector<std::uint8_t>& bytes) {
  impl_->Locked(&Impl::Send, bytes);
}
SerialStatistics SerialHand::Statistics() const { return impl_->Locked(&Impl::Statistics); }

}  // namespace talvera::korvane::sim
