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
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace talvera::korvane::test {

using Bytes = std::vector<std::uint8_t>;

/// What both fakes of the closed libraries do: keep the calls and the byte records of the library
/// under test, answer by script, and hand over received records. A call is a text, the function
/// and its numbers: "VCI_StartCAN 33 0 1". `fake->member` is the state, locked for the statement.
class FakeLibrary {
 public:
  struct Device {
    std::string serial_number;
    std::string hardware_type = "fake adapter";
    std::uint8_t channels = 2;
  };

  /// What a channel is to receive: counts that the library returns, and records.
  struct Inbox {
    std::deque<std::pair<std::int64_t, Bytes>> batches;
    bool reader_waits = false;
  };

  struct State {
    /// What is plugged in.
    std::map<int, Device> devices;
    /// What calls return. A function's name alone means every call of it.
    std::map<std::string, std::int64_t> answers;
    /// The calls since a test took them, "; " between them, those that receive aside.
    std::string calls;
    std::set<std::string> receive_calls;
    /// The record that each function was given last.
    std::map<std::string, Bytes> records;
    /// Runs after every transmitted frame, on the sending thread.
    std::function<void()> on_transmit;
    /// Runs once, when a ZLG device is about to be opened, on that thread.
    std::function<void()> on_open;
    /// The ZLG devices that are open: none opens twice.
    std::set<int> open;
    std::map<std::pair<int, int>, Inbox> inboxes;
  };

  struct Access {
    State* operator->() const { return state; }
    std::unique_lock<std::mutex> lock;
    State* state;
  };
  Access operator->() { return {std::unique_lock(mutex_), &state_}; }

  /// The next receiving call on the channel returns `count` and gets `records`, as far as they fit.
  void Feed(int index, int channel, std::int64_t count, const Bytes& records) {
    (*this)->inboxes[{index, channel}].batches.emplace_back(count, records);
    changed_.notify_all();
  }

  /// Until the channel's reader has come back for more after the last batch that was fed.
  void AwaitRead(int index, int channel) {
    std::unique_lock lock(mutex_);
    const auto idle = [&inbox = state_.inboxes[{index, channel}]] {
      return inbox.batches.empty() && inbox.reader_waits;
    };
    if (changed_.wait_for(lock, std::chrono::seconds(60), idle)) return;
    throw std::runtime_error("nobody reads the fake library's channel");
  }

  // For the fakes.

  template <class... Numbers>
  static std::string Call(const std::string& function, Numbers... numbers) {
    return (function + ... + (' ' + std::to_string(numbers)));
  }

  /// Keeps the call and gives what it returns: what the test told, otherwise `usual`.
  template <class... Numbers>
  std::int64_t Enter(std::int64_t usual, const std::string& function, Numbers... numbers) {
    const std::string call = Call(function, numbers...);
    const std::lock_guard lock(mutex_);
    state_.calls += (state_.calls.empty() ? "" : "; ") + call;
    for (const auto& name : {call, function}) {
      const auto answer = state_.answers.find(name);
      if (answer != state_.answers.end()) return answer->second;
    }
    return usual;
  }

  std::int64_t Receive(const std::string& call, int index, int channel, void* buffer,
                       std::size_t room, int wait_ms) {
    std::unique_lock lock(mutex_);
    state_.receive_calls.insert(call);
    Inbox& inbox = state_.inboxes[{index, channel}];
    inbox.reader_waits = true;
    changed_.notify_all();
    changed_.wait_for(lock, std::chrono::milliseconds(wait_ms),
                      [&inbox] { return !inbox.batches.empty(); });
    if (inbox.batches.empty()) return 0;
    inbox.reader_waits = false;
    const auto [count, records] = inbox.batches.front();
    inbox.batches.pop_front();
    std::copy_n(records.data(), std::min(records.size(), room), static_cast<std::uint8_t*>(buffer));
    return count;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  State state_;
};

/// Behind the VCI_* functions of a program that links fake_library.cpp. Calls begin with device
/// type and index. A device that isn't plugged, is open already, or is asked for by another type
/// than 33 doesn't open.
inline FakeLibrary fake_usbcanfd;
/// Behind CAN_* and CANFD_*. Calls begin with the device index. A scan counts up to the last
/// plugged device; one that isn't plugged doesn't open.
inline FakeLibrary fake_canbus;

}  // namespace talvera::korvane::test
