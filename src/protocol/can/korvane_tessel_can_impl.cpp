#include "protocol/can/korvane_tessel_can_impl.h"

#include <cstring>

#include "hand/tactile_layout.h"
#include "util/log.h"

namespace talvera::korvane {

// The interface takes the periods by value.
// NOLINTBEGIN(performance-unnecessary-value-param)

void KorvaneTesselCanImpl::SetErrorReportPeriod(std::uint8_t index, unsigned short period) {
  engine_.WriteMotor(TesselRow::kModel.error, index, period);
}
void KorvaneTesselCanImpl::SetAllErrorReportPeriod(std::vector<unsigned short> periods) {
  WritePeriods(TesselRow::kModel.error, periods);
}
void KorvaneTesselCanImpl::SetTemperReportPeriod(std::uint8_t index, unsigned short period) {
  engine_.WriteMotor(TesselRow::kModel.temperature, index, period);
}
void KorvaneTesselCanImpl::SetAllTemperReportPeriod(std::vector<unsigned short> periods) {
  WritePeriods(TesselRow::kModel.temperature, periods);
}
void KorvaneTesselCanImpl::SetCurrentReportPeriod(std::uint8_t index, unsigned short period) {
  engine_.WriteMotor(TesselRow::kModel.current, index, period);
}
void KorvaneTesselCanImpl::SetAllCurrentReportPeriod(std::vector<unsigned short> periods) {
  WritePeriods(TesselRow::kModel.current, periods);
}

// NOLINTEND(performance-unnecessary-value-param)

void KorvaneTesselCanImpl::WritePeriods(const MotorQuantity& quantity,
                                        const std::vector<unsigned short>& periods) {
  engine_.WriteAll(quantity, std::vector<short>(periods.begin(), periods.end()));
}

TactileSensor3DData KorvaneTesselCanImpl::GetTactileSensor3DData(Finger finger) const {
  const auto operation = engine_.Operation(__func__);
  TactileSensor3DData record{};
  if (finger == Finger::PALM || finger == Finger::DORSUM) {
    engine_.LogAndRecord(
        FailureKind::BAD_ARGUMENT,
        "[ERROR]: Korvane Tessel does not support PALM or DORSUM sensors. Only THUMB, INDEX, "
        "MIDDLE, RING, LITTLE are supported.");
    return record;
  }
  if (!IsFinger(finger)) {
    engine_.LogAndRecord(FailureKind::BAD_ARGUMENT, "[ERROR]: Invalid finger type");
    return record;
  }
  const auto reply = engine_.ReadOrLog(
      {"GetTactileSensor3DData"},
      engine_.ReadFrame(function_code::kTactileSummary, static_cast<std::uint8_t>(finger)),
      sizeof record.data);
  if (reply) std::memcpy(record.data, reply->data, sizeof record.data);
  return record;
}

}  // namespace talvera::korvane
