#include "serial_frame.h"

#include <algorithm>
#include <array>

#include "checksum.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::array<std::uint8_t, 2> kHeader{0xEE, 0xAA};
constexpr std::size_t kLengthAt = 4;
constexpr std::size_t kCommandAt = 5;
constexpr std::size_t kDataAt = 6;
constexpr std::size_t kTrailerSize = 2;
constexpr std::size_t kMaxLength = 121;  // The host builds frames of up to 128 bytes.
constexpr std::uint16_t kNoChecksum = 0x5555;

constexpr std::uint8_t kVersionQuery = 0xCD;
constexpr std::uint8_t kUpgradeChild = 1;

std::uint16_t TrailerValue(SerialTrailer trailer, const std::uint8_t* data, std::size_t size) {
  if (trailer == SerialTrailer::kNone) return kNoChecksum;
  return trailer == SerialTrailer::kModbus ? Modbus(data, size) : Xmodem(data, size);
}

/// The kinds of trailer that a command may have. A host that asks for an update doesn't know yet
/// which checksum the hand uses.
std::vector<SerialTrailer> AllowedTrailers(const ServiceMessage& message, UpdateChecksum checksum) {
  const bool request = message.command == kUpdateRequestCommand;
  if (message.command == kVersionQuery) return {SerialTrailer::kXmodem, SerialTrailer::kNone};
  if (request && !message.data.empty() && message.data[0] == kUpgradeChild) {
    return {SerialTrailer::kNone};
  }
  if (request || message.command == kUpdateDataCommand) return {TrailerOf(checksum)};
  return {SerialTrailer::kXmodem};
}

}  // namespace

std::vector<std::uint8_t> BuildSerialFrame(const SerialFrame& frame) {
  const auto& data = frame.message.data;
  const std::size_t checked = kDataAt + data.size();
  std::vector<std::uint8_t> bytes(checked + kTrailerSize);
  std::copy(kHeader.begin(), kHeader.end(), bytes.begin());
  StoreU16(bytes.data() + kHeader.size(), frame.device_id);
  bytes[kLengthAt] = static_cast<std::uint8_t>(data.size() + 1);
  bytes[kCommandAt] = frame.message.command;
  std::copy(data.begin(), data.end(), bytes.data() + kDataAt);
  StoreU16(bytes.data() + checked, TrailerValue(frame.trailer, bytes.data(), checked));
  return bytes;
}

void SerialFrameParser::Feed(const std::vector<std::uint8_t>& bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

void SerialFrameParser::Drop(std::size_t count) {
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(count));
}

void SerialFrameParser::SkipToHeader() {
  auto header = std::search(buffer_.begin(), buffer_.end(), kHeader.begin(), kHeader.end());
  if (header == buffer_.end() && !buffer_.empty() && buffer_.back() == kHeader[0]) --header;
  buffer_.erase(buffer_.begin(), header);
}

std::optional<SerialFrame> SerialFrameParser::Next(UpdateChecksum checksum) {
  for (SkipToHeader(); buffer_.size() >= kDataAt; SkipToHeader()) {
    const std::size_t length = buffer_[kLengthAt];
    const std::size_t size = kCommandAt + length;
    const bool possible = length >= 1 && length <= kMaxLength;
    if (possible && buffer_.size() < size + kTrailerSize) return std::nullopt;
    if (possible) {
      SerialFrame frame{LoadU16(buffer_.data() + kHeader.size()), {buffer_[kCommandAt], {}}};
      const auto data = buffer_.begin() + static_cast<std::ptrdiff_t>(kDataAt);
      frame.message.data.assign(data, data + static_cast<std::ptrdiff_t>(length - 1));
      for (const SerialTrailer trailer : AllowedTrailers(frame.message, checksum)) {
        if (TrailerValue(trailer, buffer_.data(), size) != LoadU16(buffer_.data() + size)) continue;
        frame.trailer = trailer;
        Drop(size + kTrailerSize);
        return frame;
      }
    }
    ++rejected_;
    Drop(1);
  }
  return std::nullopt;
}

}  // namespace talvera::korvane::sim
