#include "korvane_sim/virtual_bus.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "util/clock.h"
#include "util/guarded.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

using TimePoint = Clock::TimePoint;
constexpr std::size_t kInboxFrames = 4096;
constexpr std::chrono::nanoseconds kNoTime{0};

}  // namespace

/// Frames on their way to one port, by the time of their arrival.
struct VirtualBus::Port::Inbox {
  std::multimap<TimePoint, Frame> frames;
  bool closed = false;
};

class VirtualBus::State {
 public:
  State(Clock& clock, std::uint64_t seed) : clock_(clock), random_(seed) {}

  void Attach(const std::shared_ptr<Port::Inbox>& inbox) {
    const MutexLock lock(mutex_);
    inboxes_.push_back(inbox);
  }

  void Close(Port::Inbox& inbox) {
    const MutexLock lock(mutex_);
    inbox.closed = true;
    inbox.frames.clear();
    inboxes_.erase(std::remove_if(inboxes_.begin(), inboxes_.end(),
                                  [&](const auto& other) { return other.get() == &inbox; }),
                   inboxes_.end());
    clock_.NotifyAll(arrived_);
  }

  bool IsClosed(const Port::Inbox& inbox) const {
    const MutexLock lock(mutex_);
    return inbox.closed;
  }

  bool Send(const Port::Inbox& from, Frame frame) {
    if (frame.id > 0x1FFFFFFF || frame.len > frame.data.size()) return false;
    std::fill(frame.data.begin() + frame.len, frame.data.end(), std::uint8_t{0});
    frame.len = PaddedLength(frame.len);
    const MutexLock lock(mutex_);
    const TimePoint now = clock_.Now();
    LetHandsHear(now);
    if (from.closed || passing_.size() >= kInboxFrames) return false;
    ++statistics_.from_hosts;
    const TimePoint passed = Pass(frame, now);
    Deliver(frame, passed, &from);
    passing_.push_back({passed, frame});
    LetHandsHear(now);
    clock_.NotifyAll(arrived_);
    return true;
  }

  std::optional<Frame> Receive(Port::Inbox& inbox, std::chrono::nanoseconds wait) {
    MutexLock lock(mutex_);
    const TimePoint deadline = clock_.Now() + wait;
    while (!inbox.closed) {
      const TimePoint now = clock_.Now();
      LetHandsHear(now);
      EmitDueReports(now);
      const auto first = inbox.frames.begin();
      if (first != inbox.frames.end() && first->first <= now) {
        const Frame frame = first->second;
        inbox.frames.erase(first);
        return frame;
      }
      if (now >= deadline) return std::nullopt;
      clock_.WaitUntil(lock, arrived_, std::min(deadline, NextEvent(inbox)));
    }
    return std::nullopt;
  }

  std::size_t Add(SimulatedHand hand) {
    const MutexLock lock(mutex_);
    hand.Advance(clock_.Now());
    hands_.emplace_back(std::move(hand));
    return hands_.size() - 1;
  }

  std::size_t HandCount() const {
    const MutexLock lock(mutex_);
    return hands_.size();
  }

  void WithHand(std::size_t number, const std::function<void(SimulatedHand&)>& action) {
    const MutexLock lock(mutex_);
    PluggedHand& place = hands_.at(number);
    const TimePoint now = clock_.Now();
    place.hand.Advance(now);
    action(place.hand);
    if (place.service) place.service->Follow(place.hand, now);
    clock_.NotifyAll(arrived_);
  }

  ServiceSettings Settings(std::size_t number) {
    const MutexLock lock(mutex_);
    PluggedHand& place = hands_.at(number);
    if (!place.service) throw std::out_of_range("a hand without service commands over CAN");
    place.service->Follow(place.hand, clock_.Now());
    return place.service->Settings();
  }

  void Restart(std::size_t number) {
    WithHand(number, [this](SimulatedHand& hand) { hand.Restart(clock_.Now()); });
  }

  void SetPlugged(std::size_t number, bool plugged) {
    const MutexLock lock(mutex_);
    hands_.at(number).plugged = plugged;
    clock_.NotifyAll(arrived_);
  }

  void SetFaults(const Faults& faults) {
    const MutexLock lock(mutex_);
    faults_ = faults;
    emitted_ = 0;
  }

  void SetBitRates(const std::optional<BitRates>& rates) {
    const MutexLock lock(mutex_);
    rates_ = rates;
  }

  BusStatistics Statistics() const {
    const MutexLock lock(mutex_);
    return statistics_;
  }

 private:
  /// A hand with its service side, if it has one.
  struct PluggedHand {
    explicit PluggedHand(SimulatedHand simulated) : hand(std::move(simulated)) {
      if (HasServiceOnCan(hand.Model())) service.emplace(hand, ServiceLink::kCan);
    }

    std::vector<Frame> Handle(const Frame& frame, TimePoint now) {
      if (service && frame.id == kServiceIdentifier) return service->Handle(hand, frame, now);
      std::vector<Frame> replies = hand.Handle(frame, now);
      if (service) service->Follow(hand, now);
      return replies;
    }

    std::vector<Frame> TakeDue(TimePoint now) {
      std::vector<Frame> frames = hand.TakeDue(now);
      if (!service) return frames;
      const std::vector<Frame> uploads = service->TakeDueFrames(hand, now);
      frames.insert(frames.end(), uploads.begin(), uploads.end());
      return frames;
    }

    TimePoint NextEvent() const {
      const auto report = hand.NextEvent();
      const auto upload = service ? service->NextEvent() : std::nullopt;
      return std::min(report.value_or(TimePoint::max()), upload.value_or(TimePoint::max()));
    }

    SimulatedHand hand;
    std::optional<ServiceFace> service;
    bool plugged = true;
  };

  /// A host's frame that no hand has heard to its end.
  struct Passing {
    TimePoint passed;
    Frame frame;
  };

  /// When a frame that is ready at a time has passed. Frames pass one after another.
  TimePoint Pass(const Frame& frame, TimePoint ready) KORVANE_REQUIRES(mutex_) {
    if (!rates_) return ready;
    const auto time = FrameTime(frame, *rates_);
    statistics_.busy += time;
    free_at_ = std::max(free_at_, ready) + time;
    return free_at_;
  }

  void LetHandsHear(TimePoint now) KORVANE_REQUIRES(mutex_) {
    while (!passing_.empty() && passing_.front().passed <= now) {
      const Passing heard = passing_.front();
      passing_.pop_front();
      for (PluggedHand& place : hands_) {
        if (!place.plugged || Loses()) continue;
        for (const Frame& reply : place.Handle(heard.frame, now)) {
          EmitFromHand(reply, heard.passed);
        }
      }
      clock_.NotifyAll(arrived_);
    }
  }

  bool Happens(double probability) KORVANE_REQUIRES(mutex_) {
    if (probability <= 0.0) return false;
    return std::uniform_real_distribution<>(0.0, 1.0)(random_) < probability;
  }

  bool Loses() KORVANE_REQUIRES(mutex_) {
    if (!Happens(faults_.loss)) return false;
    ++statistics_.lost;
    return true;
  }

  std::chrono::nanoseconds UpTo(std::chrono::nanoseconds limit) KORVANE_REQUIRES(mutex_) {
    if (limit.count() <= 0) return kNoTime;
    return std::chrono::nanoseconds(
        std::uniform_int_distribution<std::int64_t>(0, limit.count())(random_));
  }

  void Deliver(const Frame& frame, TimePoint due, const Port::Inbox* except)
      KORVANE_REQUIRES(mutex_) {
    for (const auto& inbox : inboxes_) {
      if (inbox.get() == except) continue;
      if (inbox->frames.size() >= kInboxFrames) {
        ++statistics_.overruns;
      } else {
        inbox->frames.emplace(due, frame);
      }
    }
  }

  /// `ready` is when the hand has it for the bus.
  void EmitFromHand(const Frame& frame, TimePoint ready) KORVANE_REQUIRES(mutex_) {
    if (faults_.silent_after && emitted_ >= *faults_.silent_after) return;
    ++emitted_;
    ++statistics_.from_hands;
    const auto delay = faults_.delay + UpTo(faults_.jitter);
    if (Happens(faults_.foreign)) {
      ++statistics_.foreign;
      const Frame foreign = Foreign(frame);
      Deliver(foreign, Pass(foreign, ready) + delay, nullptr);
    }
    const TimePoint passed = Pass(frame, ready);
    if (Loses()) return;
    if (Happens(faults_.duplicate)) {
      ++statistics_.duplicated;
      Deliver(frame, Pass(frame, ready) + faults_.delay + UpTo(faults_.jitter), nullptr);
    }
    const bool held = Happens(faults_.reorder);
    if (held) ++statistics_.reordered;
    Deliver(frame, passed + delay + (held ? UpTo(faults_.reorder_window) : kNoTime), nullptr);
  }

  /// The same reply from an id that no hand on this bus has, with every data byte changed. That of
  /// service replies is taken too.
  Frame Foreign(Frame frame) KORVANE_REQUIRES(mutex_) {
    const auto is_taken = [&](std::uint32_t id) KORVANE_REQUIRES(mutex_) {
      return id == frame.id ||
             std::any_of(hands_.begin(), hands_.end(),
                         [id](const PluggedHand& place) { return place.hand.DeviceId() == id; });
    };
    std::uint32_t id = std::uniform_int_distribution<std::uint32_t>(1, 127)(random_);
    for (int tries = 0; tries < 127 && is_taken(id); ++tries) id = id % 127 + 1;
    frame.id = (frame.id & ~0x7FU) | id;
    std::for_each(frame.data.begin(), frame.data.begin() + frame.len,
                  [](std::uint8_t& byte) { byte = static_cast<std::uint8_t>(~byte); });
    return frame;
  }

  void EmitDueReports(TimePoint now) KORVANE_REQUIRES(mutex_) {
    for (PluggedHand& place : hands_) {
      if (place.NextEvent() > now) continue;
      for (const Frame& frame : place.TakeDue(now)) {
        if (place.plugged) EmitFromHand(frame, now);
      }
    }
  }

  TimePoint NextEvent(const Port::Inbox& inbox) const KORVANE_REQUIRES(mutex_) {
    TimePoint next = inbox.frames.empty() ? TimePoint::max() : inbox.frames.begin()->first;
    if (!passing_.empty()) next = std::min(next, passing_.front().passed);
    for (const PluggedHand& place : hands_) next = std::min(next, place.NextEvent());
    return next;
  }

  Clock& clock_;
  mutable Mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::shared_ptr<Port::Inbox>> inboxes_ KORVANE_GUARDED_BY(mutex_);
  std::vector<PluggedHand> hands_ KORVANE_GUARDED_BY(mutex_);
  std::optional<BitRates> rates_ KORVANE_GUARDED_BY(mutex_);
  TimePoint free_at_ KORVANE_GUARDED_BY(mutex_);            ///< When the last frame has passed.
  std::deque<Passing> passing_ KORVANE_GUARDED_BY(mutex_);  ///< In the order in which they pass.
  Faults faults_ KORVANE_GUARDED_BY(mutex_);
  std::uint64_t emitted_ KORVANE_GUARDED_BY(mutex_) = 0;
  BusStatistics statistics_ KORVANE_GUARDED_BY(mutex_);
  std::mt19937_64 random_ KORVANE_GUARDED_BY(mutex_);
};

VirtualBus::VirtualBus(std::uint64_t seed) : VirtualBus(SystemClock(), seed) {}
VirtualBus::VirtualBus(Clock& clock, std::uint64_t seed)
    : state_(std::make_shared<State>(clock, seed)) {}
VirtualBus::VirtualBus(VirtualBus&&) noexcept = default;
VirtualBus& VirtualBus::operator=(VirtualBus&&) noexcept = default;
VirtualBus::~VirtualBus() = default;

std::unique_ptr<VirtualBus::Port> VirtualBus::Open() {
  auto inbox = std::make_shared<Port::Inbox>();
  state_->Attach(inbox);
  return std::unique_ptr<Port>(new Port(state_, std::move(inbox)));
}

std::size_t VirtualBus::Add(SimulatedHand hand) { return state_->Add(std::move(hand)); }
std::size_t VirtualBus::HandCount() const { return state_->HandCount(); }
void VirtualBus::WithHand(std::size_t number, const std::function<void(SimulatedHand&)>& action) {
  state_->WithHand(number, action);
}
ServiceSettings VirtualBus::Settings(std::size_t number) const { return state_->Settings(number); }
void VirtualBus::Restart(std::size_t number) { state_->Restart(number); }
void VirtualBus::SetPlugged(std::size_t number, bool plugged) {
  state_->SetPlugged(number, plugged);
}
void VirtualBus::SetBitRates(const std::optional<BitRates>& rates) { state_->SetBitRates(rates); }
void VirtualBus::SetFaults(const Faults& faults) { state_->SetFaults(faults); }
BusStatistics VirtualBus::Statistics() const { return state_->Statistics(); }

VirtualBus::Port::Port(std::shared_ptr<State> state, std::shared_ptr<Inbox> inbox)
    : state_(std::move(state)), inbox_(std::move(inbox)) {}
VirtualBus::Port::~Port() { Close(); }
bool VirtualBus::Port::Send(const Frame& frame) { return state_->Send(*inbox_, frame); }
std::optional<Frame> VirtualBus::Port::Receive(std::chrono::nanoseconds wait) {
  return state_->Receive(*inbox_, wait);
}
void VirtualBus::Port::Close() { state_->Close(*inbox_); }
bool VirtualBus::Port::IsClosed() const { return state_->IsClosed(*inbox_); }

}  // namespace talvera::korvane::sim
