#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "korvane.h"
#include "update/update_progress.h"
#include "util/clock.h"

// What all targets share: values out of the bytes that libFuzzer makes up, files of them, and time
// that doesn't pass by itself.

namespace talvera::korvane::fuzz {

using Bytes = std::vector<std::uint8_t>;

/// Of all hands.
inline constexpr std::uint8_t kId = 0x27;

/// A statement that holds whatever comes in. The process ends where it doesn't, which is a finding.
inline void Require(bool holds) {
  if (!holds) std::abort();
}

/// The input, cut into values until it is used up; zeros come behind it.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool IsOver() const { return rest_.empty(); }

  template <class Value>
  Value Take() {
    Value value{};
    const auto part = Cut(sizeof value);
    if (!part.empty()) std::memcpy(&value, part.data(), part.size());
    return value;
  }
  std::uint8_t Byte() { return Take<std::uint8_t>(); }
  bool Flag() { return (Byte() & 1U) != 0; }
  std::size_t Below(std::size_t end) { return Byte() % end; }

  template <class List>
  auto& Of(List& list) {
    return *std::next(std::begin(list), static_cast<std::ptrdiff_t>(Below(std::size(list))));
  }

  /// At most that many bytes, how many the first of them says.
  template <class Sequence = Bytes>
  Sequence Block(std::size_t most = 255) {
    const auto part = Cut(std::min<std::size_t>(Byte(), most));
    return {part.begin(), part.end()};
  }
  template <class Sequence = std::string>
  Sequence Rest() {
    const auto part = Cut(rest_.size());
    return {part.begin(), part.end()};
  }
  /// The next line without its end.
  std::string Line() {
    std::string line(Cut(rest_.find('\n')));
    Cut(1);
    return line;
  }

 private:
  std::string_view Cut(std::size_t count) {
    const auto part = rest_.substr(0, count);
    rest_.remove_prefix(part.size());
    return part;
  }

  std::string_view rest_;
};

/// A file in memory, with a path as any other has.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& bytes) : file_(memfd_create("input", MFD_CLOEXEC)) {
    Require(write(file_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { close(file_); }

  std::string Path() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  int file_;
};

/// Time that passes only where somebody sleeps, and no longer than it takes to call `on_sleep`.
/// There is one thread, so that nobody waits for another.
class ScriptedClock : public Clock {
 public:
  std::function<void(std::chrono::nanoseconds)> on_sleep;

  TimePoint Now() const override { return now_; }
  void SleepFor(std::chrono::nanoseconds duration) override {
    now_ += duration;
    if (on_sleep) on_sleep(duration);
  }
  void WaitUntil(std::unique_lock<std::mutex>&, std::condition_variable&, TimePoint) override {
    std::abort();
  }
  void NotifyAll(std::condition_variable&) override {}

 private:
  TimePoint now_;
};

inline void Update(Korvane& hand, bool reports, const std::string& path) {
  hand.UpdateFirmware(path, reports ? [](int, int, OtaProgressStatus) {} : ProgressCallback());
}

/// What a target does with one input.
void Fuzz(Input& input);

}  // namespace talvera::korvane::fuzz
