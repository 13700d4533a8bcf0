#include "can/usb_can_channel.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>

namespace talvera::korvane {
namespace {

constexpr auto kLongestWait = std::chrono::milliseconds(50);
/// The oldest frames of an object that doesn't get to them are dropped.
constexpr std::size_t kInboxSize = 4096;

}  // namespace

std::shared_ptr<UsbCanChannel> UsbCanChannel::Named(const std::string& name) {
  // Never destroyed: hands with static storage close their channel while the process ends.
  static auto* const mutex = new Mutex;
  static auto* const channels = new std::map<std::string, std::weak_ptr<UsbCanChannel>>;
  const MutexLock lock(*mutex);
  std::weak_ptr<UsbCanChannel>& known = (*channels)[name];
  auto channel = known.lock();
  if (!channel) known = channel = std::make_shared<UsbCanChannel>();
  return channel;
}

UsbCanChannel::Seat::Seat(std::shared_ptr<UsbCanChannel> channel) : channel_(std::move(channel)) {
  const MutexLock lock(channel_->mutex_);
  channel_->seats_.push_back(this);
}

UsbCanChannel::Seat::~Seat() {
  const MutexLock lock(channel_->mutex_);
  auto& seats = channel_->seats_;
  seats.erase(std::find(seats.begin(), seats.end(), this));
}

/// The time in which one object reads the channel and the lock is free.
class UsbCanChannel::Turn {
 public:
  Turn(UsbCanChannel& channel, MutexLock& lock) : channel_(channel), lock_(lock) {
    channel_.being_read_ = true;
    lock_.unlock();
  }
  ~Turn() {
    lock_.lock();
    channel_.being_read_ = false;
    channel_.changed_.notify_all();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  UsbCanChannel& channel_;
  MutexLock& lock_;
};

void UsbCanChannel::Seat::Next(const Reader& read, const Taker& take) {
  own_.clear();
  MutexLock lock(channel_->mutex_);
  if (inbox_.empty() && channel_->being_read_) channel_->changed_.wait_for(lock, kLongestWait);
  if (inbox_.empty() && !channel_->being_read_) Read(lock, read);
  const std::vector<std::shared_ptr<SharedFrame>> shared(inbox_.begin(), inbox_.end());
  inbox_.clear();
  lock.unlock();
  for (const auto& frame : shared) take(*frame);
  for (const CanfdFrame& frame : own_) {
    SharedFrame alone;
    alone.frame = frame;
    alone.for_one = true;
    take(alone);
  }
}

/// An object that is alone on its channel keeps what it reads: sharing costs memory for each frame.
void UsbCanChannel::Seat::Read(MutexLock& lock, const Reader& read) {
  {
    const Turn turn(*channel_, lock);
    read(own_);
  }
  if (channel_->seats_.size() == 1) return;
  channel_->Distribute(own_);
  own_.clear();
}

void UsbCanChannel::Distribute(const std::vector<CanfdFrame>& frames) {
  for (const CanfdFrame& frame : frames) {
    const auto shared = std::make_shared<SharedFrame>();
    shared->frame = frame;
    for (Seat* const seat : seats_) {
      seat->inbox_.push_back(shared);
      if (seat->inbox_.size() > kInboxSize) seat->inbox_.pop_front();
    }
  }
}

}  // namespace talvera::korvane
