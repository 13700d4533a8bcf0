#pragma once

#include <korvane_types.h>

#include <string>
#include <vector>

#include "tool.h"

// Recordings as files hold them.

namespace korvane_tool {

/// What the first line of either format begins with.
inline constexpr const char* kCsvHead = "# ";

/// One reading of all quantities that were asked for.
struct Sample {
  double time_s = 0;  ///< Halfway through the requests, since the first one; never goes back.
  /// By quantity; as many values as Sampler::Names tells.
  std::vector<std::vector<double>> values;
  std::vector<talvera::korvane::TactileSensorData> touch;  ///< If it was asked for.
};

/// What a recording is of.
struct RecordingHead {
  std::string address;
  Model model = Model::BRISA;
  talvera::korvane::HandType side = talvera::korvane::HandType::RIGHT;
  double rate_hz = 0;
  std::vector<std::string> keys;  ///< Of the quantities.
};

Json ToJson(const RecordingHead& head);

/// A recording as it was read from a file.
struct Recording {
  RecordingHead head;
  std::vector<Sample> samples;

  /// The place of a quantity among the values; -1 if it wasn't recorded.
  int IndexOf(const std::string& key) const;
};

/// Reads either format. Throws a usage error that names the line if anything is wrong with it.
Recording ReadRecording(const std::string& path);

}  // namespace korvane_tool
