#include "protocol/can/tactile_reader.h"

#include <algorithm>

#include "hand/tactile_layout.h"
#include "protocol/can/can_identifier.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr std::size_t kHeaderBytes = 2;
constexpr std::size_t kBytesPerFrame = kMaxPayload - kHeaderBytes;
constexpr std::uint8_t kAllSensorsFrames = 10;

std::uint8_t FramesFor(std::size_t bytes) {
  return static_cast<std::uint8_t>((bytes + kBytesPerFrame - 1) / kBytesPerFrame);
}

void Append(std::vector<std::uint8_t>& data, const CanfdFrame& frame, std::size_t count) {
  data.insert(data.end(), frame.data + kHeaderBytes, frame.data + kHeaderBytes + count);
}

/// Nothing came. `line`, if there is one, is what is logged for it.
void FailWithoutFrames(const CanPublicEngine& engine, const CanBusDeviceBase::GatheredFrames& reply,
                       const std::string& line) {
  const LinkError error = reply.error.value_or(LinkError(FailureKind::BAD_REPLY, "no frames"));
  if (line.empty()) return RecordFailure(engine.diagnostics, error, error.what());
  engine.LogAndRecord(error.Kind(), line, error.SystemError());
}

}  // namespace

std::vector<std::uint8_t> ReadTactileSummary(const CanPublicEngine& engine, Finger finger) {
  const auto operation = engine.Operation("GetTactileSensorData");
  RequireFinger(finger, engine.diagnostics);
  std::vector<std::uint8_t> summary(SummaryBytesOf(finger));
  const auto number = static_cast<std::uint8_t>(finger);
  const auto reply =
      engine.ReadOrLog({"GetTactileSensorData", "finger", number},
                       engine.ReadFrame(function_code::kTactileSummary, number), summary.size());
  if (reply) std::copy_n(reply->data, summary.size(), summary.begin());
  return summary;
}

TactileSensorData ReadTactileRaw(const CanPublicEngine& engine, Finger finger,
                                 const std::function<std::size_t()>& length_of) {
  const auto operation = engine.Operation("GetTactileSensorDataRaw");
  TactileSensorData record{finger, {}};
  const int number = static_cast<int>(finger);
  try {
    const std::size_t length = length_of();
    const auto reply = engine.RequestFrames(
        engine.ReadFrame(function_code::kTactileRaw, static_cast<std::uint8_t>(finger)),
        FramesFor(length));
    if (reply.frames.empty()) {
      FailWithoutFrames(engine, reply,
                        Compose("[Warning]: No tactile sensor data available for sensor ", number));
      return record;
    }
    // The frames' lengths don't count here: hands in the field send the last one at full length.
    for (const CanfdFrame& frame : reply.frames) {
      Append(record.data, frame, std::min(length - record.data.size(), kBytesPerFrame));
    }
    if (record.data.size() < length) {
      engine.LogAndRecord(FailureKind::BAD_REPLY,
                          Compose("[Warning]: Incomplete data for sensor ", number, ". Expected ",
                                  length, " bytes, got ", record.data.size()));
    }
  } catch (const std::exception& error) {
    engine.LogFailure({"GetTactileSensorDataRaw", "finger", number}, error);
  }
  return record;
}

std::optional<std::vector<std::uint8_t>> ReadTactileStream(const CanPublicEngine& engine,
                                                           const char* no_data) {
  const auto reply =
      engine.RequestFrames(engine.ReadFrame(function_code::kTactileRaw, 0), kAllSensorsFrames);
  if (reply.frames.empty()) {
    FailWithoutFrames(engine, reply, no_data);
    return std::nullopt;
  }
  std::vector<std::uint8_t> stream;
  for (const CanfdFrame& frame : reply.frames) {
    const std::size_t end = std::clamp<std::size_t>(frame.len, kHeaderBytes, kMaxPayload);
    Append(stream, frame, end - kHeaderBytes);
  }
  return stream;
}

}  // namespace talvera::korvane
