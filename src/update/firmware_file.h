#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace talvera::korvane {

using FirmwarePacket = std::array<std::uint8_t, 2048>;

inline constexpr int kCannotOpenFirmware = -2;
inline constexpr int kCannotReadFirmware = -3;

/// A firmware file as read.
struct FirmwareFile {
  /// 0, or why there are no bytes to speak of.
  int error_code = 0;
  /// The file got shorter, or failed, while it was read. What is missing stands as zeros.
  bool read_failed = false;
  std::vector<std::uint8_t> bytes;
};

FirmwareFile ReadFirmwareFile(const std::string& path);

std::size_t PacketCount(std::size_t file_size);

/// Packet number `index`, counted from 0. Erased flash reads 0xFF, and so does the padding.
FirmwarePacket CutPacket(const std::vector<std::uint8_t>& bytes, std::size_t index);

}  // namespace talvera::korvane
