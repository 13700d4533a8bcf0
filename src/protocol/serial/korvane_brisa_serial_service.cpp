#include "protocol/serial/korvane_brisa_serial_impl.h"

#include "hand/tactile_layout.h"
#include "protocol/service/service_records.h"
#include "protocol/service/setting_rows.h"
#include "util/log.h"

// The service operations of the KorvaneBrisa on a serial link, without those that are the same on
// each link.

namespace talvera::korvane {
namespace {

using Command = ServiceCommand;

std::vector<std::uint16_t> Unsigned(const std::vector<short>& values) {
  return {values.begin(), values.end()};
}

}  // namespace

std::uint8_t KorvaneBrisaSerialImpl::GetPowerState() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = ReadService(__func__, Command::kGetPowerState);
  return reply ? reply->front() : std::uint8_t{0};
}

std::uint16_t KorvaneBrisaSerialImpl::SetSingleAxisPos(std::uint8_t axis, std::uint16_t pos) {
  const auto operation = link_.Operation(__func__);
  if (!link_.CheckReady() || !CheckArgument(IsAxis(axis) && pos <= setting::kMaxPos)) {
    return kNoReading;
  }
  SetJointMotorPosi(axis, static_cast<short>(pos));
  return GetSingleAxisPos(axis);
}

std::uint16_t KorvaneBrisaSerialImpl::GetSingleAxisPos(std::uint8_t axis) const {
  const auto operation = link_.Operation(__func__);
  if (!link_.CheckReady()) return kNoReading;
  return ReadPosition(__func__, axis).value_or(kNoReading);
}

std::uint16_t KorvaneBrisaSerialImpl::SetSingleActualAxisPos(std::uint8_t axis, std::uint16_t pos) {
  const auto operation = link_.Operation(__func__);
  return SetSingleAxisPos(axis, pos);
}

std::uint16_t KorvaneBrisaSerialImpl::GetSingleActualAxisPos(std::uint8_t axis) const {
  const auto operation = link_.Operation(__func__);
  return GetSingleAxisPos(axis);
}

SetAllAxisPosResponse KorvaneBrisaSerialImpl::SetAllAxisPos(
    const std::vector<std::uint16_t>& positions) {
  const auto operation = link_.Operation(__func__);
  if (!CheckArgument(positions.size() == kServiceAxes)) return {};
  const auto reply =
      ReadService(__func__, Command::kSetAllAxisPos, ServicePayload().AddAll(positions));
  return reply ? LoadAxisResponse(reply->data(), kServiceAxes) : SetAllAxisPosResponse{};
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisPos() const {
  const auto operation = link_.Operation(__func__);
  return link_.CheckReady() ? Unsigned(GetAllJointMotorPosi()) : std::vector<std::uint16_t>();
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisCurrent() const {
  const auto operation = link_.Operation(__func__);
  return link_.CheckReady() ? Unsigned(GetAllCurrentReport()) : std::vector<std::uint16_t>();
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::GetAllAxisVelocity() const {
  const auto operation = link_.Operation(__func__);
  return link_.CheckReady() ? Unsigned(GetAllJointMotorVelo()) : std::vector<std::uint16_t>();
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetAllAxisTemp() const {
  const auto operation = link_.Operation(__func__);
  if (!link_.CheckReady()) return {};
  std::vector<std::uint8_t> temperatures;
  temperatures.reserve(kServiceAxes);
  for (const unsigned short value : GetAllTemperatureReport()) {
    temperatures.push_back(static_cast<std::uint8_t>(value));
  }
  return temperatures;
}

std::uint16_t KorvaneBrisaSerialImpl::GetErrorCode() const {
  const auto operation = link_.Operation(__func__);
  if (!link_.CheckReady()) return 0;
  unsigned mask = 0;
  unsigned axis = 0;
  for (const unsigned short error : GetAllErrorReport()) mask |= (error & 1U) << axis++;
  return static_cast<std::uint16_t>(mask);
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetFingertipSensor(std::uint8_t sensor) const {
  const auto operation = link_.Operation(__func__);
  const auto finger = static_cast<Finger>(sensor);
  if (!link_.CheckReady() || !CheckArgument(IsFinger(finger))) return {};
  return GetTactileSensorData(finger);
}

std::vector<std::uint16_t> KorvaneBrisaSerialImpl::SetAllActualAxisPos(
    const std::vector<std::uint16_t>& positions) {
  const auto operation = link_.Operation(__func__);
  if (!CheckArgument(positions.size() == kServiceAxes)) return {};
  return ReadServiceWords(__func__, Command::kSetAllActualAxisPos,
                          ServicePayload().AddAll(positions));
}

AxisLimitPos KorvaneBrisaSerialImpl::GetAxisLimitPos() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = ReadService(__func__, Command::kGetAxisLimitPos);
  return reply ? LoadAxisLimits(reply->data(), kServiceAxes) : AxisLimitPos{};
}

SetAllAxisPosResponse KorvaneBrisaSerialImpl::SetPosSpeedCurData(
    const std::vector<std::uint16_t>& pos, const std::vector<std::int16_t>& speed,
    const std::vector<std::uint8_t>& current) {
  const auto operation = link_.Operation(__func__);
  const bool of_all =
      pos.size() == kServiceAxes && speed.size() == kServiceAxes && current.size() == kServiceAxes;
  if (!CheckArgument(of_all)) return {};
  const auto reply = ReadService(__func__, Command::kSetPosSpeedCurData,
                                 ServicePayload().AddAll(pos).AddAll(speed).AddAll(current));
  return reply ? LoadAxisResponse(reply->data(), kServiceAxes) : SetAllAxisPosResponse{};
}

std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetFingerTactileForce() const {
  const auto operation = link_.Operation(__func__);
  LogNotSupported(
      "[KorvaneBrisaSerialImpl] GetFingerTactileForce: Not implemented for USB (br7_hmi has no "
      "matching cmd)");
  return {};
}

std::uint8_t KorvaneBrisaSerialImpl::SetControlSource(std::uint8_t source) {
  const auto operation = link_.Operation(__func__);
  if (!CheckArgument(source <= 1)) return 0;
  const bool taken = Execute(__func__, Command::kSetControlSource, ServicePayload().Add8(source));
  return taken ? 1 : 0;
}

std::uint8_t KorvaneBrisaSerialImpl::GetControlSource() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = ReadService(__func__, Command::kGetControlSource);
  return reply ? reply->front() : std::uint8_t{0};
}

ProductSerialNumber KorvaneBrisaSerialImpl::GetProductSerialNumber() const {
  const auto operation = link_.Operation(__func__);
  const auto reply = ReadService(__func__, Command::kGetProductSerialNumber);
  return reply ? LoadProductSerialNumber(reply->data()) : ProductSerialNumber{};
}

FwVersion KorvaneBrisaSerialImpl::GetFwVersion() const {
  const auto operation = link_.Operation(__func__);
  return GetFwVersionInternal(/*no_crc=*/false);
}

}  // namespace talvera::korvane
