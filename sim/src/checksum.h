#pragma once

#include <cstddef>
#include <cstdint>

namespace talvera::korvane::sim {

// Worked out bit by bit and apart from the host's tables, so that the two check each other.

inline std::uint16_t Modbus(const std::uint8_t* data, std::size_t size) {
  unsigned crc = 0xFFFF;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1U) != 0 ? crc >> 1 ^ 0xA001U : crc >> 1;
  }
  return static_cast<std::uint16_t>(crc);
}

inline std::uint16_t Xmodem(const std::uint8_t* data, std::size_t size) {
  unsigned crc = 0;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= static_cast<unsigned>(data[i]) << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = ((crc & 0x8000U) != 0 ? crc << 1 ^ 0x1021U : crc << 1) & 0xFFFFU;
    }
  }
  return static_cast<std::uint16_t>(crc);
}

}  // namespace talvera::korvane::sim
