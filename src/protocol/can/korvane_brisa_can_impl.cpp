#include "protocol/can/korvane_brisa_can_impl.h"

#include "hand/tactile_layout.h"
#include "protocol/can/tactile_reader.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

/// The bytes of the sensor at `offset`, which is left where it is if the stream ends before them.
std::vector<std::uint8_t> TakeSensor(const CanPublicEngine& engine,
                                     const std::vector<std::uint8_t>& stream, std::size_t& offset,
                                     std::size_t length, Finger finger) {
  const std::size_t available = stream.size() - offset;
  const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(offset);
  if (length > available) {
    engine.LogAndRecord(FailureKind::BAD_REPLY,
                        Compose("[Warning]: Incomplete data for sensor ", static_cast<int>(finger),
                                ", expected ", length, " bytes, got ", available));
    return {begin, stream.end()};
  }
  offset += length;
  return {begin, begin + static_cast<std::ptrdiff_t>(length)};
}

}  // namespace

void KorvaneBrisaCanImpl::ShowDataDetails(bool on) const {
  engine_.ShowDataDetails(on);
  solver->show_details = on;
}

std::vector<std::uint8_t> KorvaneBrisaCanImpl::GetTactileSensorData(Finger finger) const {
  return ReadTactileSummary(engine_, finger);
}

std::vector<TactileSensorData> KorvaneBrisaCanImpl::GetAllTactileSensorData() const {
  const auto operation = engine_.Operation(__func__);
  std::vector<TactileSensorData> records;
  for (const Finger finger : GetSensorOrder()) {
    records.push_back({finger, GetTactileSensorData(finger)});
  }
  return records;
}

TactileSensorData KorvaneBrisaCanImpl::GetTactileSensorDataRaw(Finger finger) const {
  const auto operation = engine_.Operation(__func__);
  RequireFinger(finger, engine_.diagnostics);
  return ReadTactileRaw(engine_, finger, [&] { return GetSensorDataLength(finger); });
}

std::vector<TactileSensorData> KorvaneBrisaCanImpl::GetAllTactileSensorDataRaw() const {
  const auto operation = engine_.Operation(__func__);
  std::vector<TactileSensorData> records;
  try {
    const auto stream = ReadTactileStream(engine_, "[Warning]: No tactile sensor data available");
    if (!stream) return records;
    std::size_t offset = 0;
    for (const Finger finger : GetSensorOrder()) {
      records.push_back(
          {finger, TakeSensor(engine_, *stream, offset, GetSensorDataLength(finger), finger)});
    }
  } catch (const std::exception& error) {
    engine_.LogFailure({"GetAllTactileSensorDataRaw"}, error);
  }
  return records;
}

}  // namespace talvera::korvane
