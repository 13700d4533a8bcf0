#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "options.h"
#include "output_file.h"
#include "quantities.h"
#include "recording.h"
#include "tool.h"

// Readings of a hand at a rate, and the files that hold them: what `watch` shows, `record` writes
// and `replay` plays.

namespace korvane_tool {

/// Reads a hand again and again.
class Sampler {
 public:
  /// `keys` are those of AllQuantities and "touch"; a usage error for another one, and for one that
  /// the model doesn't have.
  Sampler(const OpenedHand& hand, const std::vector<std::string>& keys);

  /// Reads everything once. The first failure ends it.
  Outcome<Sample> Read();

  const OpenedHand& Hand() const { return hand_; }
  const std::vector<const Quantity*>& Quantities() const { return quantities_; }

 private:
  const OpenedHand& hand_;
  std::vector<const Quantity*> quantities_;
  bool reads_touch_ = false;
  std::chrono::steady_clock::time_point start_;
  bool started_ = false;
};

/// What watch and record are told alike.
struct SamplingOptions {
  std::vector<std::string> keys;
  double rate_hz;
  double seconds = 0;  ///< 0: until an interrupt.
  int report_period = 0;
};
/// Adds --rate, --values, --report-period and --seconds. Returns --rate.
Option AddSamplingOptions(Options all, SamplingOptions& options, double least_rate_hz,
                          const std::string& about_values);

/// The time that --seconds grants, from now on.
class TimeLimit {
 public:
  explicit TimeLimit(double seconds) : seconds_(seconds) {}

  bool IsOver() const { return seconds_.count() > 0 && Clock::now() - start_ >= seconds_; }

 private:
  using Clock = std::chrono::steady_clock;

  std::chrono::duration<double> seconds_;
  Clock::time_point start_ = Clock::now();
};

/// So many failed readings one after the other, and the hand counts as gone.
inline constexpr int kFailedReadings = 20;

enum class SampleFormat { CSV, JSON_LINES };

/// Writes samples as lines: for CSV a comment with the head as JSON, the names of the columns and
/// then a row a sample; for JSON lines the head and then one object a sample.
class SampleWriter {
 public:
  SampleWriter(OutputFile& file, SampleFormat format, const Sampler& sampler, double rate_hz);
  void Write(const Sample& sample);

 private:
  std::string CsvRow(const Sample& sample) const;
  std::string JsonLine(const Sample& sample) const;

  OutputFile& file_;
  SampleFormat format_;
  const Sampler& sampler_;
  RecordingHead head_;
  bool has_head_ = false;
};

/// Calls `step` `rate_hz` times a second, by a clock that doesn't drift, until it returns false or
/// an interrupt comes. False if one came. A step that takes too long shifts those behind it.
template <class Wait, class Step>
bool AtRate(double rate_hz, const Wait& interrupt, Step&& step) {
  using Clock = std::chrono::steady_clock;
  const auto period =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / rate_hz));
  auto next = Clock::now();
  while (!interrupt.Came()) {
    if (!step()) return true;
    next += period;
    next = std::max(next, Clock::now() - period);
    if (interrupt.WaitUntil(next)) return false;
  }
  return false;
}

}  // namespace korvane_tool
