#include "protocol/can/korvane_quill_can_impl.h"

#include "protocol/can/tactile_reader.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr int kJoints = QuillRow::kModel.motors;
constexpr Finger kQuillSensorOrder[] = {Finger::THUMB, Finger::INDEX,  Finger::MIDDLE,
                                        Finger::RING,  Finger::LITTLE, Finger::PALM};

}  // namespace

void KorvaneQuillCanImpl::ShowDataDetails(bool on) const {
  engine_.ShowDataDetails(on);
  show_details_ = on;
}

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
  if (joint >= 1 && joint <= kJoints) return Calibrate(function, end, joint);
  LogError(Compose("[Error]: Invalid joint index ", joint, ". Valid range is 1-", kJoints));
}

/// Joint 0 stands for all of them.
void KorvaneQuillCanImpl::Calibrate(std::uint8_t function, const char* end,
                                    std::uint8_t joint) const {
  CanfdFrame frame = engine_.WriteFrame(function, joint);
  frame.len = 0;
  try {
    if (engine_.transport && engine_.Send(frame) != -1) return;
  } catch (const std::exception& error) {
    const bool lower = function == function_code::kMinCalibration;
    engine_.LogFailure({lower ? "SetMinPositionCalibration" : "SetMaxPositionCalibration"}, error);
    return;
  }
  const std::string which = joint == 0 ? "" : Compose(" for joint ", joint);
  LogError(Compose("[Error]: Failed to send ", end, " position calibration request", which));
}

// --- Tactile sensors ------------------------------------------------------------------------

TactileSensorData KorvaneQuillCanImpl::GetTactileSensorDataRaw(Finger finger) const {
  if (finger < Finger::THUMB || finger > Finger::PALM) {
    LogError(
        Compose("[Error]: Invalid sensor finger index for Quill (must be 0x01-0x06, no Dorsum): ",
                static_cast<int>(finger)));
    return {finger, {}};
  }
  return ReadTactileRaw(engine_, finger, [&] { return GetSensorDataLength(finger); });
}

/// A sensor whose reading is cut off ends the walk and is left out.
std::vector<TactileSensorData> KorvaneQuillCanImpl::GetAllTactileSensorDataRaw() const {
  std::vector<TactileSensorData> records;
  try {
    const auto stream = ReadTactileStream(engine_).value_or(std::vector<std::uint8_t>());
    std::size_t offset = 0;
    for (const Finger finger : kQuillSensorOrder) {
      if (offset >= stream.size()) break;
      const std::size_t length = GetSensorDataLength(finger);
      if (length > stream.size() - offset) {
        LogError(Compose("[Warning]: Incomplete data for sensor ", static_cast<int>(finger)));
        break;
      }
      const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(offset);
      records.push_back({finger, {begin, begin + static_cast<std::ptrdiff_t>(length)}});
      offset += length;
    }
  } catch (const std::exception& error) {
    engine_.LogFailure({"GetAllTactileSensorDataRaw"}, error);
  }
  return records;
}

}  // namespace talvera::korvane
