#pragma once

#include <chrono>
#include <mutex>

#include "can/can_bus_device.h"

// What every request needs, however many frames its reply has.

namespace talvera::korvane {

/// One request in flight. The constructor waits for its turn and sends; whatever ends the exchange
/// then takes the identifier out of the pending set again.
class CanBusDeviceBase::Exchange {
 public:
  enum class Reply : bool { kOneFrame, kSeveralFrames };

  Exchange(CanBusDeviceBase& device, const CanfdFrame& frame, Reply reply)
      : device_(device), id_(frame.can_id) {
    MutexLock lock(device_.request_mutex_);
    device_.drain_cv_.wait(lock, [this]() KORVANE_REQUIRES(device_.request_mutex_) {
      return device_.pending_req_ids_.empty() && !device_.exchange_running_;
    });
    ++device_.counters_.requests;
    device_.exchange_running_ = true;
    try {
      Begin(lock, frame, reply);
    } catch (...) {
      if (!lock.owns_lock()) lock.lock();
      device_.Finish(*this);
      throw;
    }
  }

  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  ~Exchange() {
    if (finished_) return;
    const MutexLock lock(device_.request_mutex_);
    device_.Finish(*this);
  }

  /// Waits for what may be the reply, for up to `ms`: callers look into the tables again. `lock`
  /// is one of `request_mutex_`.
  void Await(std::unique_lock<std::mutex>& lock, std::int64_t ms) {
    if (!reads_) {
      device_.reply_cv_.wait_for(lock, std::chrono::milliseconds(ms));
      return;
    }
    lock.unlock();
    reads_ = device_.ReadInTurn(static_cast<int>(ms));
    lock.lock();
  }

 private:
  friend class CanBusDeviceBase;

  /// Takes the turn to read before the frame goes out, as the reply may be there before this thread
  /// goes on.
  void Begin(std::unique_lock<std::mutex>& lock, const CanfdFrame& frame, Reply reply)
      KORVANE_REQUIRES(device_.request_mutex_) {
    lock.unlock();
    reads_ = device_.TakeTurn();
    lock.lock();
    if (device_.Transmit(frame) == -1) {
      throw device_.SendError(FormatFrame(frame) + " request send failed");
    }
    if (reply == Reply::kSeveralFrames) device_.multiframe_types_.insert(MessageType(id_));
    device_.spare_request_.PutIn(device_.pending_req_ids_, id_);
  }

  CanBusDeviceBase& device_;
  std::uint32_t id_;
  bool finished_ = false;
  /// This thread reads for itself.
  bool reads_ = false;
};

/// Counts down the reply time-out, which an application may change while a request waits. On the
/// monotonic clock, so that a step of the wall clock neither stretches nor cuts a wait.
class CanBusDeviceBase::ReplyTimer {
 public:
  explicit ReplyTimer(const CanBusDeviceBase& device) : device_(device) {}

  int TimeoutMs() const { return device_.frame_recv_timeout_ms_.load(); }

  std::int64_t RemainingMs() const {
    const auto elapsed = std::chrono::steady_clock::now() - start_;
    return TimeoutMs() - std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
  }

 private:
  const CanBusDeviceBase& device_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace talvera::korvane
