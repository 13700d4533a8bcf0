#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The two checksums that hands use, over one table each.

namespace talvera::korvane {

using Crc16Table = std::array<std::uint16_t, 256>;

namespace crc16_internal {

constexpr std::uint16_t ReflectedEntry(std::uint16_t value) {
  for (int bit = 0; bit < 8; ++bit) {
    const bool carry = (value & 1) != 0;
    value = static_cast<std::uint16_t>((value >> 1) ^ (carry ? 0xA001 : 0));
  }
  return value;
}

constexpr std::uint16_t ForwardEntry(std::uint16_t value) {
  value = static_cast<std::uint16_t>(value << 8);
  for (int bit = 0; bit < 8; ++bit) {
    const bool carry = (value & 0x8000) != 0;
    value = static_cast<std::uint16_t>((value << 1) ^ (carry ? 0x1021 : 0));
  }
  return value;
}

constexpr Crc16Table MakeTable(std::uint16_t (*entry)(std::uint16_t)) {
  Crc16Table table{};
  for (std::size_t i = 0; i < table.size(); ++i) table[i] = entry(static_cast<std::uint16_t>(i));
  return table;
}

}  // namespace crc16_internal

/// Polynomial 0x8005, reflected.
inline constexpr Crc16Table kCrc16ModbusTable =
    crc16_internal::MakeTable(&crc16_internal::ReflectedEntry);

/// Polynomial 0x1021, not reflected.
inline constexpr Crc16Table kCrc16CcittTable =
    crc16_internal::MakeTable(&crc16_internal::ForwardEntry);

/// CRC-16/MODBUS: initial value 0xFFFF, reflected, no final XOR.
constexpr std::uint16_t Crc16Modbus(const std::uint8_t* bytes, std::size_t size) {
  std::uint16_t crc = 0xFFFF;
  for (std::size_t i = 0; i < size; ++i) {
    crc = static_cast<std::uint16_t>((crc >> 8) ^ kCrc16ModbusTable[(crc ^ bytes[i]) & 0xFF]);
  }
  return crc;
}

/// CRC-16/XMODEM: initial value 0, not reflected, no final XOR.
constexpr std::uint16_t Crc16Xmodem(const std::uint8_t* bytes, std::size_t size) {
  std::uint16_t crc = 0;
  for (std::size_t i = 0; i < size; ++i) {
    crc = static_cast<std::uint16_t>((crc << 8) ^ kCrc16CcittTable[((crc >> 8) ^ bytes[i]) & 0xFF]);
  }
  return crc;
}

}  // namespace talvera::korvane
