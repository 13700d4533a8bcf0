#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace talvera::korvane {

using FirmwarePacket = std::array<std::uint8_t, 2048>;

inline constexpr int kCannotOpenFirmware = -2;
inline constexpr int kCannotReadFirmware = -3;

/// A firmware file as read.
struct FirmwareFile {
  /// 0, or why there are no packets.
  int error_code = 0;
  /// The file got shorter, or failed, while it was read. What is missing stands as zeros.
  bool read_failed = false;
  std::size_t size = 0;
  /// The file in order. The last packet is filled up with 0xFF, which is what erased flash reads.
  std::deque<FirmwarePacket> packets;
};

/// Reads the file at `path`. Never throws: a file that there is no memory for can't be read.
FirmwareFile ReadFirmwareFile(const std::string& path);

}  // namespace talvera::korvane
