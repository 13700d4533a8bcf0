#pragma once

#include <cstdint>
#include <cstring>

/// Every multi-byte value of a frame or of a record of the closed libraries is little-endian and
/// passes through these functions; no buffer is ever read through a struct.
namespace talvera::korvane {

inline std::uint16_t LoadU16(const std::uint8_t* bytes) {
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

inline std::int16_t LoadS16(const std::uint8_t* bytes) {
  return static_cast<std::int16_t>(LoadU16(bytes));
}

inline std::uint32_t LoadU32(const std::uint8_t* bytes) {
  return LoadU16(bytes) | static_cast<std::uint32_t>(LoadU16(bytes + 2)) << 16;
}

inline void StoreU16(std::uint8_t* bytes, std::uint16_t value) {
  bytes[0] = static_cast<std::uint8_t>(value);
  bytes[1] = static_cast<std::uint8_t>(value >> 8);
}

inline void StoreU32(std::uint8_t* bytes, std::uint32_t value) {
  StoreU16(bytes, static_cast<std::uint16_t>(value));
  StoreU16(bytes + 2, static_cast<std::uint16_t>(value >> 16));
}

}  // namespace talvera::korvane
