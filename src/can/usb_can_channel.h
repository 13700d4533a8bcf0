#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "can/can_frame.h"
#include "util/guarded.h"

namespace talvera::korvane {

/// A received frame on its way to all objects of a channel. The last of them that looks at it
/// destroys it, and then it is known whether anybody waited for it.
struct SharedFrame {
  ~SharedFrame() {
    const auto action = if_unmatched.load();
    if (action != nullptr && !matched) action(frame);
  }

  CanfdFrame frame;
  /// Only one object is on the channel.
  bool for_one = false;
  /// One of them took it as the reply to its request.
  std::atomic<bool> matched{false};
  /// Called if none did; null for nothing. Written by any of them, always the same.
  std::atomic<void (*)(const CanfdFrame&)> if_unmatched{nullptr};
};

/// One channel of a USB adapter as the objects of this process share it.
///
/// The adapter's library hands each frame to one reader only, so whoever reads gives each frame to
/// all: every object has an inbox, and its receive thread either takes what is in there, or reads
/// the channel if nobody does, or waits. A thread that is busy with a frame, as during an update,
/// holds nobody up.
class UsbCanChannel {
 public:
  /// Adds what the adapter has to `frames`, waiting a while for the first frame.
  using Reader = std::function<void(std::vector<CanfdFrame>& frames)>;
  using Taker = std::function<void(SharedFrame& frame)>;

  /// An object's place on the channel, for as long as it may wait for frames.
  class Seat {
   public:
    explicit Seat(std::shared_ptr<UsbCanChannel> channel);
    ~Seat();
    Seat(const Seat&) = delete;
    Seat& operator=(const Seat&) = delete;

    /// Hands the next frames to `take`, on the object's receive thread, which calls this; none
    /// after a while without any. What `read` throws gets out.
    void Next(const Reader& read, const Taker& take);

   private:
    friend class UsbCanChannel;
    void Read(MutexLock& lock, const Reader& read) KORVANE_REQUIRES(channel_->mutex_);

    std::shared_ptr<UsbCanChannel> channel_;
    /// Guarded by the mutex of the channel, which fills it.
    std::deque<std::shared_ptr<SharedFrame>> inbox_;
    /// What this object has read and nobody else is to see. Kept for its memory.
    std::vector<CanfdFrame> own_;
  };

  /// The channel with this name, such as "zlg 0 1".
  static std::shared_ptr<UsbCanChannel> Named(const std::string& name);

  /// Has the threads that wait for frames look around.
  void Wake() { changed_.notify_all(); }

 private:
  class Turn;

  void Distribute(const std::vector<CanfdFrame>& frames) KORVANE_REQUIRES(mutex_);

  Mutex mutex_;
  std::condition_variable changed_;
  bool being_read_ KORVANE_GUARDED_BY(mutex_) = false;
  std::vector<Seat*> seats_ KORVANE_GUARDED_BY(mutex_);
};

}  // namespace talvera::korvane
