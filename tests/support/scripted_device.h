#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "can/can_bus_device.h"

namespace talvera::korvane::test {

/// No wait of a test comes near it unless something is broken.
inline constexpr std::chrono::seconds kPatience{60};

inline CanfdFrame MakeFrame(std::uint32_t id, const std::vector<std::uint8_t>& payload = {}) {
  CanfdFrame frame;
  frame.can_id = id;
  frame.len = static_cast<std::uint8_t>(std::min<std::size_t>(payload.size(), kMaxPayload));
  std::copy_n(payload.begin(), frame.len, frame.data);
  return frame;
}

inline std::vector<std::uint8_t> Payload(const CanfdFrame& frame) {
  return {frame.data, frame.data + std::min(frame.len, kMaxPayload)};
}

/// An adapter without a bus: keeps what is sent, and receives what its script answers or a test
/// feeds. Received frames go through Dispatch on a receive thread, one after the other.
class ScriptedDevice : public CanBusDeviceBase {
 public:
  /// The frames that the bus carries after `sent`. Runs inside SendFrame, for a request with
  /// `request_mutex_` held: it may look at the tables of the device and fill them, as if frames
  /// had come at that moment, but must not call Dispatch.
  using Script = std::function<std::vector<CanfdFrame>(const CanfdFrame& sent)>;

  explicit ScriptedDevice(Script script = {}, const DispatchRules& rules = {})
      : script_(std::move(script)), rules_(rules) {
    StartReceiveThread(recv_thread_);
  }

  ~ScriptedDevice() override {
    {
      const std::lock_guard lock(mutex_);
      stop_flag_ = true;
      changed_.notify_all();
    }
    StopReceiveThread(recv_thread_);
  }

  bool IsInit() override { return init; }
  int OpenDevice() override { return 0; }
  int CloseDevice() override { return 0; }

  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override {
    const CanfdFrame frame = MakeFrame(id, {data, data + std::min(len, kMaxPayload)});
    {
      const std::lock_guard lock(mutex_);
      sent_.push_back(frame);
      changed_.notify_all();
    }
    if (send_result == -1 || !script_) return send_result;
    for (const CanfdFrame& answer : script_(frame)) Feed(answer);
    return send_result;
  }

  void RecvFrame() override {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return stop_flag_ || !fed_.empty(); });
      if (stop_flag_) return;
      const CanfdFrame frame = fed_.front();
      fed_.pop_front();
      dispatching_ = true;
      changed_.notify_all();
      lock.unlock();
      Dispatch(frame, rules_);
      lock.lock();
      dispatching_ = false;
      changed_.notify_all();
    }
  }

  void SetScript(Script script) { script_ = std::move(script); }

  /// The bus carries `frame`.
  void Feed(const CanfdFrame& frame) {
    const std::lock_guard lock(mutex_);
    fed_.push_back(frame);
    changed_.notify_all();
  }

  std::vector<CanfdFrame> Sent() {
    const std::lock_guard lock(mutex_);
    return sent_;
  }

  /// Until `count` frames have been sent in all.
  void AwaitSent(std::size_t count) {
    Await([this, count] { return sent_.size() >= count; });
  }

  /// Until the receive thread has come for the last fed frame. It may still be in Dispatch.
  void AwaitTaken() {
    Await([this] { return fed_.empty(); });
  }

  /// Until every fed frame is through Dispatch.
  void AwaitDispatched() {
    Await([this] { return fed_.empty() && !dispatching_; });
  }

  std::atomic<bool> init{true};
  /// What SendFrame returns; -1 keeps the script from answering.
  std::atomic<int> send_result{0};

 private:
  template <class Condition>
  void Await(Condition condition) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, condition)) {
      throw std::runtime_error("the scripted device waited in vain");
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Script script_;
  DispatchRules rules_;
  std::deque<CanfdFrame> fed_;
  std::vector<CanfdFrame> sent_;
  bool dispatching_ = false;
};

}  // namespace talvera::korvane::test
