#include "protocol/serial/serial_link.h"

#include <stdexcept>
#include <utility>

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

bool SerialLink::Open(
    const std::string& port, int baud,
    std::function<void(std::uint8_t, const std::uint8_t*, std::size_t)> callback) {
  const auto tell = [&](const char* what) {
    device.reset();
    LogError(Compose("[Error]: Failed to open USB serial port ", port, ": ", what));
    return false;
  };
  try {
    device = std::make_unique<UsbSerialDevice>(port, static_cast<unsigned>(baud));
    device->frame_callback_ = std::move(callback);
    device->Init();
    return device->isOpen();
  } catch (const std::exception& error) {
    return tell(error.what());
  } catch (...) {
    return tell("Unknown exception");
  }
}

UsbSerialDevice& SerialLink::Device() const {
  if (!device) throw std::runtime_error("no transport");
  return *device;
}

bool SerialLink::Request(const char* operation, ServiceCommand command,
                         const ServicePayload& payload, SerialFrameCrcType crc) const {
  return RequestTo(hand_.device_id, operation, command, payload, crc);
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
    UsbFrameBuilder frame = FrameOf(hand_.device_id, command, payload);
    const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
    return device->WriteRaw(frame.Data(), size) == size;
  } catch (const std::exception& error) {
    LogFailure(operation, error);
    return false;
  }
}

FwVersion SerialLink::QueryVersion(bool no_crc) const {
  if (!IsReady()) return {};
  const auto crc = no_crc ? SerialFrameCrcType::kNoCrc : SerialFrameCrcType::kCrc16Ccitt;
  Request("GetFwVersion", ServiceCommand::kGetFwVersion, {}, crc);
  const auto reply = replies.Take(ReplySlot::kVersion);
  return reply ? LoadFwVersion(reply->data()) : FwVersion{};
}

}  // namespace talvera::korvane
