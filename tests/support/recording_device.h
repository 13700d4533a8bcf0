#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "can/can_bus_device.h"
#include "korvane_types.h"

namespace talvera::korvane::test {

using Bytes = std::vector<std::uint8_t>;

/// An adapter without a bus: it keeps what is sent, and a script says what comes back.
///
/// The script runs in SendFrame, on the sender's thread; its frames are dispatched on the receive
/// thread, so that a reply takes the way that it takes on a real adapter.
class RecordingDevice final : public CanBusDeviceBase {
 public:
  /// The frames that follow a sent one; nothing if the adapter can't send. May throw. For a request
  /// it runs with `request_mutex_` held, so that it may fill the tables as if frames had come just
  /// then, but must not dispatch any itself.
  using Script = std::function<std::optional<std::vector<CanfdFrame>>(const CanfdFrame& sent)>;

  explicit RecordingDevice(bool opens = true, const DispatchRules& rules = {})
      : opens_(opens), rules_(rules) {
    StartReceiveThread(recv_thread_);
  }

  ~RecordingDevice() override {
    if (on_destroy) on_destroy();
    {
      const std::lock_guard lock(mutex_);
      stop_flag_ = true;
    }
    changed_.notify_all();
    StopReceiveThread(recv_thread_);
  }

  /// Set while no call runs. Silent at first.
  Script script = [](const CanfdFrame&) { return std::vector<CanfdFrame>{}; };

  /// What SendFrame returns for a frame that the script took.
  int sent_result = 0;

  std::function<void()> on_destroy;

  /// What was sent since the last call. Callers hand over all 64 bytes, and all are kept.
  std::vector<CanfdFrame> TakeSent() {
    const std::lock_guard lock(mutex_);
    return std::exchange(sent_, {});
  }

  /// Returns when `count` frames have been sent since the last TakeSent.
  void AwaitSent(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this, count] { return sent_.size() >= count; });
  }

  /// A frame out of the blue. Returns when it has been dispatched, and all before it.
  void Receive(const CanfdFrame& frame) {
    {
      const std::lock_guard lock(mutex_);
      incoming_.push_back(frame);
    }
    changed_.notify_all();
    Settle();
  }

  /// Returns when all frames so far have been dispatched.
  void Settle() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return incoming_.empty(); });
  }

  bool IsInit() override { return opens_; }
  int OpenDevice() override { return opens_ ? 0 : -1; }
  int CloseDevice() override { return 0; }
  void SetFrameSendTimeout(int ms) override { send_timeout_ms_ = ms; }
  int GetFrameSendTimeout() const override { return send_timeout_ms_; }

  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override {
    CanfdFrame frame;
    frame.can_id = id;
    frame.len = len;
    std::memcpy(frame.data, data, sizeof frame.data);
    {
      const std::lock_guard lock(mutex_);
      sent_.push_back(frame);
    }
    changed_.notify_all();
    const auto replies = script(frame);
    if (!replies) return -1;
    const std::lock_guard lock(mutex_);
    incoming_.insert(incoming_.end(), replies->begin(), replies->end());
    changed_.notify_all();
    return sent_result;
  }

  void RecvFrame() override {
    std::unique_lock lock(mutex_);
    while (true) {
      changed_.wait(lock, [this] { return stop_flag_ || !incoming_.empty(); });
      if (stop_flag_) return;
      const CanfdFrame frame = incoming_.front();
      // A sender holds the request lock, which the dispatch needs, while it waits for this one.
      lock.unlock();
      Dispatch(frame, rules_);
      lock.lock();
      incoming_.pop_front();
      changed_.notify_all();
    }
  }

 private:
  const bool opens_;
  const DispatchRules rules_;
  int send_timeout_ms_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<CanfdFrame> sent_;
  std::deque<CanfdFrame> incoming_;
};

inline CanfdFrame FullFrame(std::uint32_t id, const Bytes& data, int len = 64) {
  CanfdFrame frame;
  frame.can_id = id;
  frame.len = static_cast<std::uint8_t>(len);
  std::copy(data.begin(), data.end(), frame.data);
  return frame;
}

inline CanfdFrame MakeFrame(std::uint32_t id, const Bytes& data = {}) {
  return FullFrame(id, data, static_cast<int>(data.size()));
}

/// One frame of `len` bytes under the identifier of the request, its write flag cleared.
inline RecordingDevice::Script Replies(const Bytes& data, int len = 64) {
  return [=](const CanfdFrame& sent) {
    return std::vector<CanfdFrame>{FullFrame(sent.can_id & ~0x80U, data, len)};
  };
}

/// Several frames, of which each holds its two header bytes.
inline RecordingDevice::Script RepliesInFrames(const std::vector<Bytes>& payloads) {
  return [=](const CanfdFrame& sent) {
    std::vector<CanfdFrame> frames;
    frames.reserve(payloads.size());
    for (const Bytes& payload : payloads) frames.push_back(MakeFrame(sent.can_id, payload));
    return frames;
  };
}

inline RecordingDevice::Script CantSend() {
  return [](const CanfdFrame&) { return std::nullopt; };
}

template <class Error>
RecordingDevice::Script Throws(const Error& error) {
  return [=](const CanfdFrame&) -> std::optional<std::vector<CanfdFrame>> { throw error; };
}

template <class Hand, class Base = Hand>
std::unique_ptr<Base> MakeHand(HandType type, std::uint8_t id,
                               std::unique_ptr<CanBusDeviceBase> transport) {
  return std::make_unique<Hand>(type, id, std::move(transport));
}

/// A hand whose frames are recorded, patient enough that a busy machine doesn't matter.
template <class Hand>
struct Rig {
  using Maker = std::unique_ptr<Hand> (*)(HandType, std::uint8_t,
                                          std::unique_ptr<CanBusDeviceBase>);

  explicit Rig(std::uint8_t id, HandType type = HandType::RIGHT, bool opens = true,
               Maker make = &MakeHand<Hand>) {
    auto adapter = std::make_unique<RecordingDevice>(opens);
    device = adapter.get();
    hand = make(type, id, std::move(adapter));
    device->frame_recv_timeout_ms_ = 60'000;
  }

  RecordingDevice* device;
  std::unique_ptr<Hand> hand;
};

/// What a hand without a link is built on.
inline std::unique_ptr<CanBusDeviceBase> NoTransport() { return nullptr; }

/// How failure lines show a frame.
inline std::string FrameText(const CanfdFrame& frame) {
  char part[16];
  std::snprintf(part, sizeof part, "%08x", frame.can_id);
  std::string text = "[CANID:" + std::string(part) + "][DATA:";
  for (std::size_t i = 0; i < frame.len; ++i) {
    std::snprintf(part, sizeof part, "%02x ", frame.data[i]);
    text += part;
  }
  return text + "]";
}

/// All of frames, bytes past their length too, to compare and to read.
inline std::string Show(const std::vector<CanfdFrame>& frames) {
  std::string text;
  for (CanfdFrame frame : frames) {
    text += "len " + std::to_string(std::exchange(frame.len, std::uint8_t{64})) + " ";
    text += FrameText(frame) + "\n";
  }
  return text;
}

/// Results of any operation as text: numbers in decimal, vectors with blanks between.
template <class Value>
std::string Show(const Value& value) {
  if constexpr (std::is_enum_v<Value>) {
    return std::to_string(static_cast<int>(value));
  } else {
    return std::to_string(value);
  }
}

template <class Value>
std::string Show(const std::vector<Value>& values) {
  std::string text;
  for (const Value& value : values) text += (text.empty() ? "" : " ") + Show(value);
  return text;
}

/// What an operation returns, "" if it returns nothing.
template <class Hand, class Operation, class... Arguments>
std::string ShowCall(Hand& hand, Operation operation, const Arguments&... arguments) {
  if constexpr (std::is_void_v<std::invoke_result_t<Operation, Hand&, const Arguments&...>>) {
    std::invoke(operation, hand, arguments...);
    return "";
  } else {
    return Show(std::invoke(operation, hand, arguments...));
  }
}

}  // namespace talvera::korvane::test
