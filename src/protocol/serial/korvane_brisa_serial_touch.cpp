#include "protocol/serial/korvane_brisa_serial_impl.h"

#include "hand/tactile_layout.h"
#include "protocol/service/service_records.h"
#include "util/log.h"

// The tactile operations of the KorvaneBrisa on a serial link.

namespace talvera::korvane {

/// Any hand on the port answers. A reading of another length is cut, or filled up with zeros.
std::vector<std::uint8_t> KorvaneBrisaSerialImpl::GetTactileSensorData(Finger finger) const {
  const auto operation = link_.Operation(__func__);
  RequireFinger(finger, link_.diagnostics);
  const auto number = static_cast<std::uint8_t>(static_cast<std::uint8_t>(finger) - 1);
  link_.replies.AwaitSensor(number);
  std::optional<Bytes> reply;
  if (link_.RequestTo(kAnyDeviceId, __func__, ServiceCommand::kGetFingertipSensor,
                      ServicePayload().Add8(number), SerialFrameCrcType::kCrc16Ccitt)) {
    reply = link_.TakeReply(ReplySlot::kSensor);
  }
  if (!reply) {
    link_.LogReadFailed(
        Compose("get joint sensor data failed, finger type: ", static_cast<std::uint8_t>(finger)));
  }
  Bytes reading = reply.value_or(Bytes());
  reading.resize(SummaryBytesOf(finger));
  return reading;
}

std::vector<TactileSensorData> KorvaneBrisaSerialImpl::GetAllTactileSensorData() const {
  const auto operation = link_.Operation(__func__);
  if (!link_.CheckReady()) return {};
  const auto a = GetAllFingertipSensorA();
  const auto b = GetAllFingertipSensorB();
  return SplitFingertipGroups(a, b, GetAllFingertipSensorC());
}

TactileSensorData KorvaneBrisaSerialImpl::GetTactileSensorDataRaw(Finger finger) const {
  const auto operation = link_.Operation(__func__);
  LogNotSupported("[Error]: GetTactileSensorDataRaw is not supported by USB communication.");
  return {finger, {}};
}

std::vector<TactileSensorData> KorvaneBrisaSerialImpl::GetAllTactileSensorDataRaw() const {
  const auto operation = link_.Operation(__func__);
  LogNotSupported("[Error]: GetAllTactileSensorDataRaw is not supported by USB communication.");
  return {};
}

}  // namespace talvera::korvane
