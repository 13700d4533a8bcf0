#include "samples.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <set>

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

/// "positions_3", "angles_index_flexion"
std::vector<std::string> ColumnsOf(const Sampler& sampler, const Sample& sample) {
  std::vector<std::string> columns{"time_s"};
  for (std::size_t i = 0; i < sample.values.size(); ++i) {
    const Quantity& quantity = *sampler.Quantities()[i];
    for (const auto& name : NamesOf(quantity, sampler.Hand(), sample.values[i].size())) {
      columns.push_back(fmt::format("{}_{}", quantity.key, name));
    }
  }
  for (const auto& sensor : sample.touch) {
    for (std::size_t cell = 1; cell <= sensor.data.size(); ++cell) {
      columns.push_back(fmt::format("touch_{}_{}", FingerName(sensor.finger), cell));
    }
  }
  return columns;
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ",") + part;
  return text;
}

}  // namespace

Sampler::Sampler(const OpenedHand& hand, const std::vector<std::string>& keys) : hand_(hand) {
  std::set<std::string> different;
  for (const std::string& key : keys) {
    if (!different.insert(key).second) throw ToolError(kUsage, key + " is named twice");
    if (key == "touch") {
      if (!HasTouch(hand)) {
        throw ToolError(kUsage, fmt::format("a {} has no touch sensors", hand.Info().name));
      }
      reads_touch_ = true;
      continue;
    }
    const Quantity& quantity = QuantityNamed(key);
    const auto probe = korvane_tool::Read(hand, quantity);
    if (!probe && probe.failure().kind == FailureKind::NOT_SUPPORTED) {
      const std::string hint =
          hand.Info().tells_by_reports ? ", unless --report-period is set" : "";
      throw ToolError(kUsage,
                      fmt::format("a {} doesn't tell its {} here{}", hand.Info().name, key, hint));
    }
    quantities_.push_back(&quantity);
  }
}

Outcome<Sample> Sampler::Read() {
  const auto begin = Clock::now();
  if (!std::exchange(started_, true)) start_ = begin;
  Sample sample;
  for (const Quantity* const quantity : quantities_) {
    auto values = korvane_tool::Read(hand_, *quantity);
    if (!values) return values.failure();
    sample.values.push_back(*std::move(values));
  }
  if (reads_touch_) {
    auto touch = ReadTouch(hand_);
    if (!touch) return touch.failure();
    sample.touch = *std::move(touch);
  }
  sample.time_s =
      std::chrono::duration<double>(begin + (Clock::now() - begin) / 2 - start_).count();
  return sample;
}

Option AddSamplingOptions(Options all, SamplingOptions& options, double least_rate_hz,
                          const std::string& about_values) {
  all.Add("--values", options.keys, about_values).SplitAtCommas().Value("KEY,...");
  all.Add("--report-period", options.report_period,
          "Switch the reports of a tessel on, which its currents and temperatures come in, "
          "and off at the end; in the hand's unit")
      .Within(1, 65535)
      .Value("N");
  all.Add("--seconds", options.seconds, "How long; until Ctrl-C without this")
      .Positive()
      .Value("S");
  return all.Add("--rate", options.rate_hz, "Readings in a second")
      .Within(least_rate_hz, 1000.0)
      .Value("HZ")
      .ShowDefault();
}

SampleWriter::SampleWriter(OutputFile& file, SampleFormat format, const Sampler& sampler,
                           double rate_hz)
    : file_(file), format_(format), sampler_(sampler) {
  const HandAddress& address = sampler.Hand().address;
  head_ = {address.ToString(), *address.model, address.side, rate_hz, {}};
  for (const Quantity* const quantity : sampler.Quantities())
    head_.keys.emplace_back(quantity->key);
}

void SampleWriter::Write(const Sample& sample) {
  if (!std::exchange(has_head_, true)) {
    const std::string head = ToJson(head_).dump();
    if (format_ == SampleFormat::CSV) {
      file_.Write(kCsvHead + head + "\n" + Joined(ColumnsOf(sampler_, sample)) + "\n");
    } else {
      file_.Write(head + "\n");
    }
  }
  file_.Write(format_ == SampleFormat::CSV ? CsvRow(sample) : JsonLine(sample));
  // A reader at the other end of a pipe wants each line when it is there, and so does a disk that
  // fills up.
  file_.Flush();
}

std::string SampleWriter::CsvRow(const Sample& sample) const {
  std::string row = fmt::format("{:.6f}", sample.time_s);
  for (const auto& values : sample.values) {
    for (const double value : values) row += fmt::format(",{}", NumberOf(value).dump());
  }
  for (const auto& sensor : sample.touch) {
    for (const std::uint8_t cell : sensor.data) row += fmt::format(",{}", cell);
  }
  return row + "\n";
}

std::string SampleWriter::JsonLine(const Sample& sample) const {
  Json json{{"time_s", std::round(sample.time_s * 1e6) / 1e6}};
  for (std::size_t i = 0; i < sample.values.size(); ++i) {
    json[head_.keys[i]] = NumbersOf(sample.values[i]);
  }
  for (const auto& sensor : sample.touch) json["touch"][FingerName(sensor.finger)] = sensor.data;
  return json.dump() + "\n";
}

}  // namespace korvane_tool
