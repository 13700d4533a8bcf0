#include "protocol/serial/serial_brisa.h"

#include "hand/refusals.h"
#include "protocol/service/service_records.h"
#include "serial/usb_device.h"
#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using Command = ServiceCommand;

/// For these only a reply counts that comes after the request. For all others one that came before
/// it does too, if nobody has read it: applications rely on getting reports that way.
bool CountsNewRepliesOnly(Command command) {
  return command == Command::kSetAllAxisPos || command == Command::kSetAllActualAxisPos ||
         command == Command::kGetAllActualAxisPos || command == Command::kGetAxisLimitPos ||
         command == Command::kSetPosSpeedCurData;
}

}  // namespace

// --- Refusals -------------------------------------------------------------------------------

// Lines about single axes go to the standard output stream, as they always have.
bool SerialBrisa::CheckIndex(std::uint8_t index, const char* what) const {
  if (IsAxis(index)) return true;
  const std::string line = Compose("the ", what, " index input error, should be 1 -10, ");
  LogInfo(line);
  link_.Record(FailureKind::BAD_ARGUMENT, line);
  return false;
}

bool SerialBrisa::CheckJointCount(std::size_t count) const {
  if (count == kServiceAxes) return true;
  link_.LogRefused(FailureKind::BAD_ARGUMENT,
                   Compose(refusal::kWrongSize, kServiceAxes, refusal::kWrongSizeEnd));
  return false;
}

void SerialBrisa::RefusePeriods(const char* operation) const {
  const auto scope = link_.Operation(operation);
  LogNotSupported(
      Compose("[Error]: ", operation, " is not supported by KorvaneBrisa (BR7) via USB."));
}

void SerialBrisa::LogNotSupported(const std::string& line) const {
  link_.LogRefused(FailureKind::NOT_SUPPORTED, line);
}

void SerialBrisa::LogReadFailed(const char* what, std::uint8_t index) const {
  link_.LogReadFailed(Compose("get ", what, " failed, joint_motor_index: ", index));
}

ObservableLink* SerialBrisa::Observable() const { return link_.device.get(); }

// --- Requests -------------------------------------------------------------------------------

bool SerialBrisa::Execute(const char* operation, Command command, const ServicePayload& payload) {
  return link_.CheckReady() && link_.Request(operation, command, payload);
}

std::optional<SerialBrisa::Bytes> SerialBrisa::ReadService(const char* operation, Command command,
                                                           const ServicePayload& payload) const {
  if (!link_.CheckReady()) return std::nullopt;
  if (CountsNewRepliesOnly(command)) link_.replies.Forget(SlotOf(command));
  return link_.Read(operation, command, payload);
}

SerialBrisa::Words SerialBrisa::ReadServiceWords(const char* operation, Command command,
                                                 const ServicePayload& payload) const {
  const auto reply = ReadService(operation, command, payload);
  return reply ? ServiceWords<std::uint16_t>(reply->data(), kServiceAxes) : Words();
}

SerialBrisa::Words SerialBrisa::ReadWords(const ServiceReading& reading) const {
  const auto scope = link_.Operation(reading.operation);
  return ReadServiceWords(reading.operation, reading.command);
}

SerialBrisa::Bytes SerialBrisa::ReadBytes(const ServiceReading& reading) const {
  const auto scope = link_.Operation(reading.operation);
  return ReadService(reading.operation, reading.command).value_or(Bytes());
}

std::optional<std::uint16_t> SerialBrisa::ReadPosition(const char* operation,
                                                       std::uint8_t index) const {
  if (!CheckIndex(index, "joint")) return std::nullopt;
  const auto reply =
      link_.Read(operation, Command::kGetSingleAxisPos, ServicePayload().Add8(index));
  if (reply) return LoadU16(reply->data());
  LogReadFailed("joint motor posi", index);
  return std::nullopt;
}

}  // namespace talvera::korvane
