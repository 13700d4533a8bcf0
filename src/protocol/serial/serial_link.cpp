#include "protocol/serial/serial_link.h"

#include <stdexcept>
#include <utility>

#include "hand/hand_members.h"
#include "protocol/service/service_records.h"
#include "serial/usb_device.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

UsbFrameBuilder FrameOf(std::uint16_t device_id, ServiceCommand command,
                        const ServicePayload& payload) {
  UsbFrameBuilder frame(device_id, static_cast<std::uint8_t>(command));
  frame.AddData(payload.Data(), payload.Size());
  return frame;
}

void LogFailure(const char* operation, const std::exception& error) {
  LogError(Compose("[KorvaneBrisaSerialImpl] ", operation, ": ", error.what()));
}

}  // namespace

SerialLink::SerialLink(const Korvane& hand) : hand_(hand) {}
SerialLink::~SerialLink() = default;

bool SerialLink::Open(const std::string& port, int baud, FrameCallback callback) {
  const auto fail = [&](const char* why) {
    Close();
    LogError(Compose("[Error]: Failed to open USB serial port ", port, ": ", why));
    return false;
  };
  try {
    device = std::make_unique<UsbSerialDevice>(port, static_cast<unsigned>(baud));
    device->frame_callback_ = std::move(callback);
    device->Init();
    return device->isOpen();
  } catch (const std::exception& error) {
    return fail(error.what());
  } catch (...) {
    return fail("Unknown exception");
  }
}

// The callback may read `device`, which therefore stays as it is until no callback can run.
void SerialLink::Close() {
  if (device) device->StopReceiving();
  device.reset();
}

UsbSerialDevice& SerialLink::Device() const {
  if (!device) throw std::runtime_error("no transport");
  return *device;
}

bool SerialLink::Request(const char* operation, ServiceCommand command,
                         const ServicePayload& payload, SerialFrameCrcType crc) const {
  return RequestTo(DeviceIdOf(hand_), operation, command, payload, crc);
}

bool SerialLink::RequestTo(std::uint16_t device_id, const char* operation, ServiceCommand command,
                           const ServicePayload& payload, SerialFrameCrcType crc) const {
  try {
    UsbFrameBuilder frame = FrameOf(device_id, command, payload);
    const std::size_t size = frame.Finalize(crc);
    return Device().SendRequestWithReply(frame.Data(), size);
  } catch (const std::exception& error) {
    LogFailure(operation, error);
    return false;
  }
}

bool SerialLink::Write(const char* operation, ServiceCommand command,
                       const ServicePayload& payload) const {
  if (!device) return false;
  try {
    UsbFrameBuilder frame = FrameOf(DeviceIdOf(hand_), command, payload);
    const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
    return device->WriteRaw(frame.Data(), size) == size;
  } catch (const std::exception& error) {
    LogFailure(operation, error);
    return false;
  }
}

std::optional<ReplyCache::Bytes> SerialLink::Read(const char* operation, ServiceCommand command,
                                                  const ServicePayload& payload) const {
  if (!Request(operation, command, payload)) return std::nullopt;
  return replies.Take(SlotOf(command));
}

std::optional<ReplyCache::Bytes> SerialLink::ReadOrTakeEarlier(const char* operation,
                                                               ServiceCommand command) const {
  Request(operation, command, {});
  return replies.Take(SlotOf(command));
}

FwVersion SerialLink::QueryVersion(bool no_crc) const {
  if (!IsReady()) return {};
  const auto crc = no_crc ? SerialFrameCrcType::kNoCrc : SerialFrameCrcType::kCrc16Ccitt;
  Request("GetFwVersion", ServiceCommand::kGetFwVersion, {}, crc);
  const auto reply = replies.Take(ReplySlot::kVersion);
  return reply ? LoadFwVersion(reply->data()) : FwVersion{};
}

}  // namespace talvera::korvane
