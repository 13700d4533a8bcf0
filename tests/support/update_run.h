#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvane.h"
#include "support/capture.h"
#include "support/temporary_file.h"
#include "util/clock.h"
#include "util/text.h"

// An update as an application runs it, and what comes of it, for every link.

namespace talvera::korvane::test {

inline constexpr std::size_t kThreePackets = 2 * 2048 + 100;

/// "1/3=4 ": one call of the callback.
inline std::string ReportText(int current, int total, int status) {
  return Compose(current, "/", total, "=", status, " ");
}

/// The first `count` words of a text of reports or requests, each with its blank.
inline std::string FirstWords(const std::string& words, std::size_t count) {
  std::size_t end = 0;
  for (; count > 0; --count) end = words.find(' ', end) + 1;
  return words.substr(0, end);
}

inline std::string Times(std::size_t count, const std::string& text) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

/// What came of an update.
struct UpdateOutcome {
  std::string reports;  ///< As ReportText, in their order, from whichever thread.
  Streams written;
  std::chrono::nanoseconds took{};
};

/// Runs updates of one hand. A report that comes when the update has returned is recorded too.
class UpdateRunner {
 public:
  /// Called on each report, outside the lock.
  std::function<void(const std::string& report)> on_report;

  const UpdateOutcome& Run(Korvane& hand, const Clock& clock, const std::string& path,
                           bool with_callback = true) {
    outcome_ = {};
    calls_ = 0;
    const auto start = clock.Now();
    outcome_.written = CaptureStreams(
        [&] { hand.UpdateFirmware(path, with_callback ? Recorder() : ProgressCallback()); });
    outcome_.took = clock.Now() - start;
    return outcome_;
  }
  const UpdateOutcome& Run(Korvane& hand, const Clock& clock, std::size_t size = kThreePackets,
                           bool with_callback = true) {
    return Run(hand, clock, TemporaryFile(FirmwareBytes(size)).Path(), with_callback);
  }
  const UpdateOutcome& Outcome() const { return outcome_; }

 private:
  using ProgressCallback = std::function<void(int, int, OtaProgressStatus)>;

  /// A callback with a state of its own, which must be the same one in each call.
  ProgressCallback Recorder() {
    return [this, calls = 0](int current, int total, OtaProgressStatus status) mutable {
      const std::string report = ReportText(current, total, static_cast<int>(status));
      {
        const std::lock_guard lock(mutex_);
        EXPECT_EQ(++calls, ++calls_) << "not the callback that was given";
        outcome_.reports += report;
      }
      if (on_report) on_report(report);
    };
  }

  std::mutex mutex_;
  int calls_ = 0;
  UpdateOutcome outcome_;
};

/// The requests of an update by letters: U, F and R for upgrade, finish and restart, and for a
/// packet its number, once all of its bytes have come undisturbed. Anything else is a question
/// mark.
class UpdateLetters {
 public:
  /// The bytes of all packets, padding included.
  std::vector<std::uint8_t> expected;

  /// A request with that child id, of the right length and content; a packet's by StartPacket.
  void Request(std::size_t child, bool good, const std::string& suffix = "") {
    Interrupt();
    letters_ += good && child < 5 ? std::string(1, "?U?FR"[child]) + suffix : "?";
  }
  void StartPacket(std::size_t number, const std::string& suffix = "") {
    Interrupt();
    packet_ = std::to_string(number) + suffix;
    offset_ = 2048 * number;
  }
  /// The next bytes of the packet. True if it is complete.
  bool Data(const std::uint8_t* bytes, std::size_t size) {
    if (packet_.empty()) letters_ += '?';
    data_.insert(data_.end(), bytes, bytes + size);
    if (packet_.empty() || data_.size() < 2048) return false;
    const bool fits = expected.empty() || offset_ + 2048 <= expected.size();
    const bool good =
        fits && (expected.empty() || std::equal(data_.begin(), data_.end(), &expected[offset_]));
    letters_ += good ? packet_ : "?";
    packet_.clear();
    image_.insert(image_.end(), data_.begin(), data_.end());
    last_ = std::exchange(data_, {});
    return true;
  }
  void Other(const std::string& letter) { letters_ += letter; }

  const std::vector<std::uint8_t>& LastPacket() const { return last_; }
  /// What has come since the last call.
  std::string Take() {
    Interrupt();
    return std::exchange(letters_, "");
  }
  std::vector<std::uint8_t> TakeImage() { return std::exchange(image_, {}); }

 private:
  void Interrupt() {
    if (!packet_.empty()) letters_ += '?';
    packet_.clear();
    data_.clear();
  }

  std::string letters_, packet_;
  std::size_t offset_ = 0;
  std::vector<std::uint8_t> data_, last_, image_;
};

/// The bytes of all packets of an image, padding included.
inline std::vector<std::uint8_t> PaddedImage(std::size_t size) {
  auto image = FirmwareBytes(size);
  image.resize((size + 2047) / 2048 * 2048, 0xFF);
  return image;
}

}  // namespace talvera::korvane::test
