#include "protocol/can/korvane_quill_can_impl.h"

#include "hand/tactile_layout.h"
#include "protocol/can/tactile_reader.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr int kJoints = QuillRow::kModel.motors;

const char* CalibrationName(std::uint8_t function) {
  return function == function_code::kMinCalibration ? "SetMinPositionCalibration"
                                                    : "SetMaxPositionCalibration";
}

}  // namespace

// --- Calibration ----------------------------------------------------------------------------

void KorvaneQuillCanImpl::SetMinPositionCalibration() {
  Calibrate(function_code::kMinCalibration, "minimum", 0);
}
void KorvaneQuillCanImpl::SetMinPositionCalibration(std::uint8_t joint) {
  CalibrateJoint(function_code::kMinCalibration, "minimum", joint);
}
void KorvaneQuillCanImpl::SetMaxPositionCalibration() {
  Calibrate(function_code::kMaxCalibration, "maximum", 0);
}
void KorvaneQuillCanImpl::SetMaxPositionCalibration(std::uint8_t joint) {
  CalibrateJoint(function_code::kMaxCalibration, "maximum", joint);
}

void KorvaneQuillCanImpl::CalibrateJoint(std::uint8_t function, const char* end,
                                         std::uint8_t joint) const {
  const auto operation = engine_.Operation(CalibrationName(function));
  if (joint >= 1 && joint <= kJoints) return Calibrate(function, end, joint);
  engine_.LogAndRecord(FailureKind::BAD_ARGUMENT, Compose("[Error]: Invalid joint index ", joint,
                                                          ". Valid range is 1-", kJoints));
}

/// Joint 0 stands for all of them.
void KorvaneQuillCanImpl::Calibrate(std::uint8_t function, const char* end,
                                    std::uint8_t joint) const {
  const auto operation = engine_.Operation(CalibrationName(function));
  CanfdFrame frame = engine_.WriteFrame(function, joint);
  frame.len = 0;
  try {
    if (engine_.Send(frame) == -1) throw engine_.SendError("request send failed");
  } catch (const LinkError& error) {
    const std::string which = joint == 0 ? "" : Compose(" for joint ", joint);
    engine_.LogAndRecord(
        error.Kind(),
        Compose("[Error]: Failed to send ", end, " position calibration request", which),
        error.SystemError());
  } catch (const std::exception& error) {
    engine_.LogFailure({CalibrationName(function)}, error);
  }
}

// --- Tactile sensors ------------------------------------------------------------------------

TactileSensorData KorvaneQuillCanImpl::GetTactileSensorDataRaw(Finger finger) const {
  const auto operation = engine_.Operation(__func__);
  if (!IsFinger(finger, Finger::PALM)) {
    engine_.LogAndRecord(
        FailureKind::BAD_ARGUMENT,
        Compose("[Error]: Invalid sensor finger index for Quill (must be 0x01-0x06, no Dorsum): ",
                static_cast<int>(finger)));
    return {finger, {}};
  }
  return ReadTactileRaw(engine_, finger, [&] { return GetSensorDataLength(finger); });
}

/// A sensor whose reading is cut off ends the walk and is left out.
std::vector<TactileSensorData> KorvaneQuillCanImpl::GetAllTactileSensorDataRaw() const {
  const auto operation = engine_.Operation(__func__);
  std::vector<TactileSensorData> records;
  try {
    const auto stream = ReadTactileStream(engine_, "").value_or(std::vector<std::uint8_t>());
    std::size_t offset = 0;
    for (const Finger finger : SensorsUpTo<Finger::PALM>()) {
      if (offset >= stream.size()) break;
      const std::size_t length = GetSensorDataLength(finger);
      if (length > stream.size() - offset) {
        engine_.LogAndRecord(
            FailureKind::BAD_REPLY,
            Compose("[Warning]: Incomplete data for sensor ", static_cast<int>(finger)));
        break;
      }
      const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(offset);
      records.push_back({finger, {begin, begin + static_cast<std::ptrdiff_t>(length)}});
      offset += length;
    }
    if (records.size() < SensorsUpTo<Finger::PALM>().size()) {
      // Nothing is logged for a reply that ends where a sensor does.
      RecordFailure(engine_.diagnostics, FailureKind::BAD_REPLY,
                    Compose("the reply ends after ", records.size(), " sensors"));
    }
  } catch (const std::exception& error) {
    engine_.LogFailure({"GetAllTactileSensorDataRaw"}, error);
  }
  return records;
}

}  // namespace talvera::korvane
