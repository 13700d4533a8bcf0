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
  static auto* const mutex = new std::mutex;
  static auto* const channels = new std::map<std::string, std::weak_ptr<UsbCanChannel>>;
  const std::lock_guard lock(*mutex);
  std::weak_ptr<UsbCanChannel>& known = (*channels)[name];
  auto channel = known.lock();
  if (!channel) known = channel = std::make_shared<UsbCanChannel>();
  return channel;
}

UsbCanChannel::Seat::Seat(std::shared_ptr<UsbCanChannel> channel) : channel_(std::move(channel)) {
  const std::lock_guard lock(channel_->mutex_);
  channel_->seats_.push_back(this);
}

UsbCanChannel::Seat::~Seat() {
  const std::lock_guard lock(channel_->mutex_);
  auto& seats = channel_->seats_;
  seats.erase(std::find(seats.begin(), seats.end(), this));
}

UsbCanChannel::Frames UsbCanChannel::Seat::Next(const Reader& read) {
  UsbCanChannel& channel = *channel_;
  std::unique_lock lock(channel.mutex_);
  if (inbox_.empty() && channel.being_read_) channel.changed_.wait_for(lock, kLongestWait);
  if (!inbox_.empty() || channel.being_read_) return channel.TakeInbox(*this);
  channel.being_read_ = true;
  lock.unlock();
  const auto frames = read();
  lock.lock();
  channel.being_read_ = false;
  channel.Distribute(frames);
  channel.changed_.notify_all();
  return channel.TakeInbox(*this);
}

UsbCanChannel::Frames UsbCanChannel::TakeInbox(Seat& seat) {
  Frames frames(seat.inbox_.begin(), seat.inbox_.end());
  seat.inbox_.clear();
  return frames;
}

void UsbCanChannel::Distribute(const std::vector<CanfdFrame>& frames) {
  for (const CanfdFrame& frame : frames) {
    const auto shared = std::make_shared<SharedFrame>();
    shared->frame = frame;
    shared->for_one = seats_.size() == 1;
    for (Seat* const seat : seats_) {
      seat->inbox_.push_back(shared);
      if (seat->inbox_.size() > kInboxSize) seat->inbox_.pop_front();
    }
  }
}

}  // namespace talvera::korvane
