#include "serial/usb_frame.h"

#include <algorithm>

#include "util/bytes.h"

namespace talvera::korvane {
namespace {

constexpr std::uint8_t kVersionReply = 0xCD;
constexpr std::uint8_t kUpdateReply = 0xF2;

std::uint16_t Trailer(SerialFrameCrcType type, const std::uint8_t* bytes, std::size_t size) {
  switch (type) {
    case SerialFrameCrcType::kCrc16Ccitt:
      return Crc16Xmodem(bytes, size);
    case SerialFrameCrcType::kCrc16Modbus:
      return Crc16Modbus(bytes, size);
    case SerialFrameCrcType::kNoCrc:
      break;
  }
  return kNoCrcMarker;
}

}  // namespace

UsbFrameBuilder::UsbFrameBuilder(std::uint16_t device_id, std::uint8_t command) {
  StoreU16(bytes_.data(), kUsbFrameHeader);
  StoreU16(&bytes_[kUsbFrameDeviceId], device_id);
  bytes_[kUsbFrameCommand] = command;
}

UsbFrameBuilder& UsbFrameBuilder::AddData(const std::uint8_t* data, std::size_t size) {
  refused_ = refused_ || size > bytes_.size() - kUsbFrameTrailerSize - position_;
  if (refused_) return *this;
  std::copy_n(data, size, &bytes_[position_]);
  position_ += size;
  return *this;
}

UsbFrameBuilder& UsbFrameBuilder::AddValue(std::uint32_t value, std::size_t size) {
  std::array<std::uint8_t, sizeof value> bytes;
  StoreU32(bytes.data(), value);
  return AddData(bytes.data(), size);
}

std::size_t UsbFrameBuilder::Finalize(SerialFrameCrcType type) {
  if (refused_) return 0;
  bytes_[kUsbFrameLength] = static_cast<std::uint8_t>(position_ - kUsbFrameCommand);
  StoreU16(&bytes_[position_], Trailer(type, bytes_.data(), position_));
  return position_ + kUsbFrameTrailerSize;
}

UsbFrame LoadUsbFrameHead(const std::uint8_t* bytes) {
  return {LoadU16(bytes),
          LoadU16(bytes + kUsbFrameDeviceId),
          bytes[kUsbFrameLength],
          bytes[kUsbFrameCommand],
          {}};
}

bool TrailerPasses(const std::uint8_t* bytes) {
  const std::size_t length = bytes[kUsbFrameLength];
  const std::uint8_t command = bytes[kUsbFrameCommand];
  const std::size_t checked = kUsbFrameCommand + length;
  const std::uint16_t trailer = LoadU16(bytes + checked);
  // The marker passes for any command, although its sender may have meant a checksum; and the
  // version and update replies are never checked, since hands differ in what they put there.
  // Firmware in the field relies on both.
  if (trailer == kNoCrcMarker) return true;
  if (length != 0 && (command == kVersionReply || command == kUpdateReply)) return true;
  return trailer == Crc16Xmodem(bytes, checked);
}

}  // namespace talvera::korvane
