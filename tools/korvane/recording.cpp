#include "recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "json_text.h"
#include "quantities.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

constexpr const char* kHeadKey = "korvane_recording";
constexpr int kVersion = 1;

class RecordingReader {
 public:
  explicit RecordingReader(const std::string& path) : path_(path), in_(path) {
    if (!in_)
      throw ToolError(kUsage, fmt::format("{} can't be read: {}", path, std::strerror(errno)));
    std::error_code unknown;
    if (std::filesystem::is_directory(path, unknown))
      throw ToolError(kUsage, path + " is a folder");
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
    auto json = JsonObjectIn(text);
    if (!json) Fail("that is no recording of korvane");
    return *std::move(json);
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

Json ToJson(const RecordingHead& head) {
  return {{kHeadKey, kVersion},
          {"address", head.address},
          {"model", ToString(head.model)},
          {"side", head.side == kv::HandType::LEFT ? "left" : "right"},
          {"rate_hz", NumberOf(head.rate_hz)},
          {"quantities", head.keys}};
}

int Recording::IndexOf(const std::string& key) const {
  const auto found = std::find(head.keys.begin(), head.keys.end(), key);
  return found == head.keys.end() ? -1 : static_cast<int>(found - head.keys.begin());
}

Recording ReadRecording(const std::string& path) { return RecordingReader(path).Read(); }

}  // namespace korvane_tool
