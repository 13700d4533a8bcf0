#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "korvane_sim/service_face.h"

namespace talvera::korvane::sim {

/// The last two bytes of a frame: a checksum of all before them, or a marker that there is none.
enum class SerialTrailer : std::uint8_t { kNone, kXmodem, kModbus };

inline SerialTrailer TrailerOf(UpdateChecksum checksum) {
  return checksum == UpdateChecksum::kModbus ? SerialTrailer::kModbus : SerialTrailer::kXmodem;
}

struct SerialFrame {
  std::uint16_t device_id = 0;
  ServiceMessage message;
  SerialTrailer trailer = SerialTrailer::kNone;
};

std::vector<std::uint8_t> BuildSerialFrame(const SerialFrame& frame);

/// Finds the frames of a host in what it sends.
class SerialFrameParser {
 public:
  void Feed(const std::vector<std::uint8_t>& bytes);

  /// The next frame whose trailer is the one that its command must have; `checksum` is that of
  /// update frames. None until more bytes come.
  std::optional<SerialFrame> Next(UpdateChecksum checksum);

  /// How often what began like a frame was none.
  std::uint64_t Rejected() const { return rejected_; }
  void Clear() { buffer_.clear(); }

 private:
  void Drop(std::size_t count);
  void SkipToHeader();

  std::vector<std::uint8_t> buffer_;
  std::uint64_t rejected_ = 0;
};

}  // namespace talvera::korvane::sim
