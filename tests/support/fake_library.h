#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace talvera::korvane::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// What both fakes of the closed libraries do: keep the calls and the byte records of the library
/// under test, answer by script, and hand over received records. A call is a text, the function
/// and its numbers: "VCI_StartCAN 33 0 1".
class FakeLibrary {
 public:
  struct Device {
    std::string serial_number;
    std::string hardware_type = "fake adapter";
    std::uint8_t channels = 2;
  };

  void Reset() {
    const std::lock_guard lock(mutex_);
    devices_.clear();
    answers_.clear();
    calls_.clear();
    records_.clear();
    feeds_.clear();
    receive_calls_.clear();
    on_transmit_ = nullptr;
  }

  // For tests.

  void Plug(int index, const Device& device) {
    const std::lock_guard lock(mutex_);
    devices_[index] = device;
  }

  /// `call` returns `result` from now on. The name alone means every call of that function.
  void Answer(const std::string& call, std::int64_t result) {
    const std::lock_guard lock(mutex_);
    answers_[call] = result;
  }

  /// Runs after every transmitted frame, on the sending thread.
  void OnTransmit(std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    on_transmit_ = std::move(action);
  }

  /// The calls since the last time, those that receive aside.
  std::vector<std::string> TakeCalls() {
    const std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
  }

  /// Every different call that received.
  std::set<std::string> ReceiveCalls() {
    const std::lock_guard lock(mutex_);
    return receive_calls_;
  }

  /// The records that `function` was given.
  std::vector<Bytes> Records(const std::string& function) {
    const std::lock_guard lock(mutex_);
    return records_[function];
  }

  /// The next receiving call on the channel returns `count` and gets `records`, as far as they fit.
  void Feed(int index, int channel, std::int64_t count, const Bytes& records) {
    const std::lock_guard lock(mutex_);
    feeds_[{index, channel}].batches.emplace_back(count, records);
    changed_.notify_all();
  }

  /// Until the channel's reader has come back for more after the last batch that was fed.
  void AwaitRead(int index, int channel) {
    std::unique_lock lock(mutex_);
    const auto idle = [&] {
      const Inbox& feed = feeds_[{index, channel}];
      return feed.batches.empty() && feed.reader_waits;
    };
    if (!changed_.wait_for(lock, std::chrono::seconds(60), idle)) {
      throw std::runtime_error("nobody reads the fake library's channel");
    }
  }

  // For the fakes.

  template <class... Numbers>
  static std::string Call(const std::string& function, Numbers... numbers) {
    std::ostringstream text;
    text << function;
    ((text << ' ' << numbers), ...);
    return text.str();
  }

  /// Keeps `call` and gives what it returns: what the test told, otherwise `usual`.
  std::int64_t Enter(const std::string& call, std::int64_t usual) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
    for (const auto& name : {call, call.substr(0, call.find(' '))}) {
      const auto answer = answers_.find(name);
      if (answer != answers_.end()) return answer->second;
    }
    return usual;
  }

  void Keep(const std::string& function, const void* record, std::size_t size) {
    const auto* const bytes = static_cast<const std::uint8_t*>(record);
    std::function<void()> action;
    {
      const std::lock_guard lock(mutex_);
      records_[function].emplace_back(bytes, bytes + size);
      if (function.find("Transmit") != std::string::npos) action = on_transmit_;
    }
    if (action) action();
  }

  bool Plugged(int index) {
    const std::lock_guard lock(mutex_);
    return devices_.count(index) != 0;
  }

  int DeviceCount() {
    const std::lock_guard lock(mutex_);
    return devices_.empty() ? 0 : devices_.rbegin()->first + 1;
  }

  Device DeviceAt(int index) {
    const std::lock_guard lock(mutex_);
    return devices_[index];
  }

  std::int64_t Receive(const std::string& call, int index, int channel, void* buffer,
                       std::size_t room, int wait_ms) {
    std::unique_lock lock(mutex_);
    receive_calls_.insert(call);
    Inbox& feed = feeds_[{index, channel}];
    feed.reader_waits = true;
    changed_.notify_all();
    changed_.wait_for(lock, std::chrono::milliseconds(wait_ms),
                      [&feed] { return !feed.batches.empty(); });
    if (feed.batches.empty()) return 0;
    feed.reader_waits = false;
    const auto [count, records] = feed.batches.front();
    feed.batches.pop_front();
    std::copy_n(records.begin(), std::min(records.size(), room),
                static_cast<std::uint8_t*>(buffer));
    return count;
  }

 private:
  struct Inbox {
    std::deque<std::pair<std::int64_t, Bytes>> batches;
    bool reader_waits = false;
  };

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, Device> devices_;
  std::map<std::string, std::int64_t> answers_;
  std::vector<std::string> calls_;
  std::map<std::string, std::vector<Bytes>> records_;
  std::map<std::pair<int, int>, Inbox> feeds_;
  std::set<std::string> receive_calls_;
  std::function<void()> on_transmit_;
};

}  // namespace talvera::korvane::test
