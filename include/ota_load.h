#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "korvane_export.h"

namespace talvera::korvane {

/// A firmware file, cut into the packets in which it would be sent to a hand.
struct FirmwareImage {
  /// Number of packets.
  std::int32_t packet_count = 0;
  /// Length of the file in bytes.
  std::int64_t file_size = 0;
  /// 0 on success; -2 if the file can't be opened; -3 if it is empty, not a regular file, or can't
  /// be read.
  std::int32_t error_code = 0;
  /// The file in order, 2048 bytes a packet, the last one filled up with 0xFF.
  std::vector<std::array<std::uint8_t, 2048>> packets;
};

/// Reads a firmware file without talking to a hand. Any regular file of at least one byte is an
/// image: the library doesn't look inside.
///
/// Failures show in `error_code` alone: nothing is thrown for a bad file, and nothing is written.
/// `packet_count` and `file_size` are 0 then, unless the file could be measured and not read.
/// Blocks for the reading of the file. May be called from any thread.
KORVANE_EXPORT FirmwareImage LoadFirmwareOnly(const std::string& path);

}  // namespace talvera::korvane
