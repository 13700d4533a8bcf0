#include "samples.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using Clock = std::chrono::steady_clock;

constexpr const char* kHeadKey = "korvane_recording";
constexpr int kVersion = 1;
constexpr const char* kCsvHead = "# ";

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
      columns.push_back(fmt::format("touch_{}_{}", NameOf(sensor.finger), cell));
    }
  }
  return columns;
}

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ",") + part;
  return text;
}

// --- reading
// --------------------------------------------------------------------------------------

class RecordingReader {
 public:
  explicit RecordingReader(const std::string& path) : path_(path), in_(path) {
    if (!in_)
      throw ToolError(kUsage, fmt::format("{} can't be read: {}", path, std::strerror(errno)));
  }

  Recording Read() {
    std::string line;
    if (!Next(line)) Fail("it is empty");
    const bool csv = line.rfind(kCsvHead, 0) == 0;
    ReadHead(csv ? line.substr(std::strlen(kCsvHead)) : line);
    if (csv) {
      if (!Next(line)) Fail("the names of the columns are missing");
      ReadColumns(line);
    }
    while (Next(line)) csv ? ReadRow(line) : ReadObject(line);
    if (recording_.samples.empty()) Fail("there is no sample in it");
    return std::move(recording_);
  }

 private:
  [[noreturn]] void Fail(const std::string& reason) const {
    throw ToolError(kUsage, fmt::format("{}, line {}: {}", path_, line_, reason));
  }

  bool Next(std::string& line) {
    while (std::getline(in_, line)) {
      ++line_;
      if (!line.empty()) return true;
    }
    return false;
  }

  Json Parse(const std::string& text) const {
    Json json = Json::parse(text, nullptr, false);
    if (!json.is_object()) Fail("that is no recording of korvane");
    return json;
  }

  void ReadHead(const std::string& text) {
    const Json json = Parse(text);
    if (!json.contains(kHeadKey)) Fail("that is no recording of korvane");
    if (json[kHeadKey] != kVersion) Fail("a later version of korvane wrote that");
    try {
      const auto model = json.at("model").get<std::string>();
      const auto& models = kv::AllModels();
      const auto row = std::find_if(models.begin(), models.end(),
                                    [&](const ModelInfo& info) { return model == info.name; });
      if (row == models.end()) Fail(fmt::format("there is no model {}", model));
      RecordingHead& head = recording_.head;
      head.model = row->model;
      head.address = json.value("address", "");
      head.side = json.value("side", "right") == "left" ? kv::HandType::LEFT : kv::HandType::RIGHT;
      head.rate_hz = json.value("rate_hz", 0.0);
      head.keys = json.at("quantities").get<std::vector<std::string>>();
    } catch (const Json::exception& error) {
      Fail(error.what());
    }
  }

  /// Columns of one quantity stand side by side.
  void ReadColumns(const std::string& line) {
    std::stringstream in(line);
    for (std::string name; std::getline(in, name, ',');) {
      int quantity = -1;
      for (std::size_t i = 0; i < recording_.head.keys.size(); ++i) {
        if (name.rfind(recording_.head.keys[i] + "_", 0) == 0) quantity = static_cast<int>(i);
      }
      columns_.push_back(quantity);
    }
    if (columns_.size() < 2 || line.rfind("time_s,", 0) != 0)
      Fail("the first column must be time_s");
  }

  double NumberIn(const std::string& text) const {
    const Json number = Json::parse(text, nullptr, false);
    if (!number.is_number()) Fail(fmt::format("\"{}\" is no number", text));
    return number.get<double>();
  }

  void ReadRow(const std::string& line) {
    Sample sample;
    sample.values.resize(recording_.head.keys.size());
    std::stringstream in(line);
    std::size_t column = 0;
    for (std::string text; std::getline(in, text, ','); ++column) {
      if (column >= columns_.size()) Fail("it has more values than there are columns");
      const double number = NumberIn(text);
      if (column == 0) sample.time_s = number;
      if (columns_[column] >= 0) {
        sample.values[static_cast<std::size_t>(columns_[column])].push_back(number);
      }
    }
    if (column != columns_.size()) Fail("it has fewer values than there are columns");
    Add(std::move(sample));
  }

  void ReadObject(const std::string& line) {
    const Json json = Parse(line);
    Sample sample;
    try {
      sample.time_s = json.at("time_s").get<double>();
      for (const std::string& key : recording_.head.keys) {
        sample.values.push_back(json.at(key).get<std::vector<double>>());
      }
    } catch (const Json::exception& error) {
      Fail(error.what());
    }
    Add(std::move(sample));
  }

  void Add(Sample sample) {
    auto& samples = recording_.samples;
    if (!samples.empty() && sample.time_s < samples.back().time_s)
      Fail("its time lies before that of the line above");
    if (!samples.empty()) {
      for (std::size_t i = 0; i < sample.values.size(); ++i) {
        if (sample.values[i].size() != samples.front().values[i].size()) {
          Fail("it has another number of values than the lines above");
        }
      }
    }
    samples.push_back(std::move(sample));
  }

  std::string path_;
  std::ifstream in_;
  int line_ = 0;
  std::vector<int> columns_;
  Recording recording_;
};

}  // namespace

Sampler::Sampler(const OpenedHand& hand, const std::vector<std::string>& keys) : hand_(hand) {
  for (const std::string& key : keys) {
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

double Percentile(const std::vector<double>& sorted, double part) {
  const auto last = static_cast<double>(sorted.size() - 1);
  return sorted[static_cast<std::size_t>(std::ceil(part * last))];
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

Json ToJson(const RecordingHead& head) {
  return {{kHeadKey, kVersion},
          {"address", head.address},
          {"model", ToString(head.model)},
          {"side", head.side == kv::HandType::LEFT ? "left" : "right"},
          {"rate_hz", NumberOf(head.rate_hz)},
          {"quantities", head.keys}};
}

OutputFile::OutputFile(const std::string& path, bool overwrite)
    : name_(path == "-" ? "the standard output" : path), file_(stdout) {
  if (path == "-") return;
  file_ = std::fopen(path.c_str(), overwrite ? "we" : "wxe");
  if (file_ != nullptr) return;
  const std::string hint = errno == EEXIST ? "; --overwrite replaces it" : "";
  throw ToolError(kUsage,
                  fmt::format("{} can't be written: {}{}", path, std::strerror(errno), hint));
}

OutputFile::~OutputFile() {
  if (!IsStandardOutput()) std::fclose(file_);
}

void OutputFile::Write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), file_) != text.size()) Fail();
}

void OutputFile::Flush() {
  if (std::fflush(file_) != 0) Fail();
}

void OutputFile::Fail() const {
  throw ToolError(kFailed, fmt::format("{} can't be written: {}", name_, std::strerror(errno)));
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
  for (const auto& sensor : sample.touch) json["touch"][NameOf(sensor.finger)] = sensor.data;
  return json.dump() + "\n";
}

int Recording::IndexOf(const std::string& key) const {
  const auto found = std::find(head.keys.begin(), head.keys.end(), key);
  return found == head.keys.end() ? -1 : static_cast<int>(found - head.keys.begin());
}

Recording ReadRecording(const std::string& path) { return RecordingReader(path).Read(); }

}  // namespace korvane_tool
