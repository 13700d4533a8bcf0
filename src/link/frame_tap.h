#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "korvane_observe.h"
#include "util/guarded.h"

namespace talvera::korvane {

/// Shows the frames of a link to the application's function, if there is one.
class FrameTap {
 public:
  using Function = std::function<void(const FrameEvent&)>;

  void Set(Function function) {
    auto next = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
    const MutexLock lock(mutex_);
    is_set_ = next != nullptr;
    function_.swap(next);
  }

  void Show(bool sent, std::uint32_t id, const std::uint8_t* data, std::size_t size) const {
    if (!is_set_.load(std::memory_order_relaxed)) return;
    // A copy, so that the function runs without the lock and stays whole while it runs.
    const auto function = Current();
    if (function) (*function)({sent, std::chrono::system_clock::now(), id, data, size});
  }

  /// Shows a received frame, not before what SendAndShow is about to show.
  void ShowInTurn(std::uint32_t id, const std::uint8_t* data, std::size_t size) const {
    if (!is_set_.load(std::memory_order_relaxed)) return;
    const MutexLock turn(order_);
    Show(/*sent=*/false, id, data, size);
  }

  /// Sends by `send`, and shows the frame if that returns true: before its reply, however quick
  /// that is.
  template <class Send>
  void SendAndShow(const Send& send, std::uint32_t id, const std::uint8_t* data,
                   std::size_t size) const {
    if (!is_set_.load(std::memory_order_relaxed)) return static_cast<void>(send());
    const MutexLock turn(order_);
    if (send()) Show(/*sent=*/true, id, data, size);
  }

 private:
  std::shared_ptr<const Function> Current() const {
    const MutexLock lock(mutex_);
    return function_;
  }

  std::atomic<bool> is_set_{false};
  /// Held while a frame is sent and shown, so that frames are shown in the order of the wire.
  mutable Mutex order_;
  mutable Mutex mutex_;
  std::shared_ptr<const Function> function_ KORVANE_GUARDED_BY(mutex_);
};

}  // namespace talvera::korvane
