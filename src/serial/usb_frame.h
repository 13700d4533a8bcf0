#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "util/crc16.h"

namespace talvera::korvane {

/// What closes a serial frame.
enum class SerialFrameCrcType : std::uint8_t {
  kNoCrc = 0,       ///< the marker 0x55 0x55
  kCrc16Ccitt = 1,  ///< CRC-16/XMODEM
  kCrc16Modbus = 2,
};

inline constexpr std::uint16_t kUsbFrameHeader = 0xAAEE;
inline constexpr std::uint16_t kAnyDeviceId = 0x7FF;
inline constexpr std::uint16_t kNoCrcMarker = 0x5555;

inline constexpr std::size_t kUsbFrameDeviceId = 2;  ///< offsets on the wire
inline constexpr std::size_t kUsbFrameLength = 4;
inline constexpr std::size_t kUsbFrameCommand = 5;
inline constexpr std::size_t kUsbFrameData = 6;
inline constexpr std::size_t kUsbFrameTrailerSize = 2;

/// `length` counts the command and the data, which is not the whole frame.
inline constexpr std::size_t kUsbFrameOverhead = kUsbFrameCommand + kUsbFrameTrailerSize;
inline constexpr std::size_t kMinUsbFrameSize = kUsbFrameOverhead + 1;
inline constexpr std::uint8_t kMaxReceivedLength = 64;

/// One received frame, with its multi-byte fields as numbers of the host. The trailer follows the
/// last byte of the data.
struct UsbFrame {
  std::uint16_t header;
  std::uint16_t device_id;
  std::uint8_t length;  ///< data size + 1
  std::uint8_t command;
  std::uint8_t data[kMaxReceivedLength - 1 + kUsbFrameTrailerSize];
};

/// Writes one frame: a plain value, one for each frame.
///
/// A frame has room for 120 bytes of data. What would pass that is refused whole, and the frame
/// with it: Finalize then returns 0.
class UsbFrameBuilder {
 public:
  UsbFrameBuilder(std::uint16_t device_id, std::uint8_t command);

  UsbFrameBuilder& AddUint8(std::uint8_t value) { return AddValue(value, sizeof value); }
  UsbFrameBuilder& AddInt8(std::int8_t value) { return AddUint8(static_cast<std::uint8_t>(value)); }
  UsbFrameBuilder& AddUint16(std::uint16_t value) { return AddValue(value, sizeof value); }
  UsbFrameBuilder& AddInt16(std::int16_t value) {
    return AddUint16(static_cast<std::uint16_t>(value));
  }
  UsbFrameBuilder& AddUint32(std::uint32_t value) { return AddValue(value, sizeof value); }
  UsbFrameBuilder& AddInt32(std::int32_t value) {
    return AddUint32(static_cast<std::uint32_t>(value));
  }
  UsbFrameBuilder& AddData(const std::uint8_t* data, std::size_t size);

  /// Writes the length and the trailer. Returns the size of the frame.
  std::size_t Finalize(SerialFrameCrcType type);

  const std::uint8_t* Data() const { return bytes_.data(); }

 private:
  UsbFrameBuilder& AddValue(std::uint32_t value, std::size_t size);

  std::array<std::uint8_t, 128> bytes_{};
  std::uint64_t position_ = kUsbFrameData;
  bool refused_ = false;
};

/// The fields in front of the data. `bytes` holds at least kMinUsbFrameSize of them.
UsbFrame LoadUsbFrameHead(const std::uint8_t* bytes);

/// Whether the trailer of a received frame, all of which `bytes` holds, lets it pass.
bool TrailerPasses(const std::uint8_t* bytes);

}  // namespace talvera::korvane
