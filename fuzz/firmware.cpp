// Firmware files: any file is cut into packets that hold it, and every kind of update brings it
// into a hand as it is.

#include <optional>

#include "can_hands.h"
#include "ota_load.h"
#include "serial/serial_library.h"
#include "serial_hand.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

constexpr std::size_t kPacket = 2048;
/// The last of the classes has no updates.
constexpr std::size_t kOverCan = std::size(kMakers) - 1;

/// Of any size up to ten packets, the bytes of the input over and over.
std::string File(Input& input) {
  std::string file(input.Take<std::uint16_t>() % (10 * kPacket), '\0');
  const auto part = input.Rest();
  for (std::size_t i = 0; i < file.size() && !part.empty(); ++i) file[i] = part[i % part.size()];
  return file;
}

void CheckPackets(const FirmwareImage& image, std::string file) {
  Require(image.error_code == (file.empty() ? -3 : 0));
  Require(image.file_size == static_cast<std::int64_t>(file.size()));
  Require(image.packets.size() == static_cast<std::size_t>(image.packet_count));
  file.resize(image.packets.size() * kPacket, '\xFF');
  std::string packets;
  for (const auto& packet : image.packets) packets.append(packet.begin(), packet.end());
  Require(packets == file);
}

/// What a simulated hand has installed after an update. The same for a serial hand.
Bytes UpdateOverCan(Maker make, const MemoryFile& file) {
  CanHand place(make);
  place.link->on_wait = [&](const Frames& sent) { return place.Answers(sent); };
  Update(*place.hand, true, file.Path());
  return place.end.hand.Firmware().InstalledImage();
}

/// Nothing if the pseudo-terminal took no more, as one may on a machine that is busy: its end.
std::optional<Bytes> UpdateOverSerial(const MemoryFile& file) {
  SerialHand place;
  place.clock.on_sleep = [&](auto) {
    place.Receive(place.end.OnSerial(place.line.Read(), place.clock.Now()));
  };
  try {
    Update(place.hand, true, file.Path());
  } catch (const serial::SerialException&) {
    return std::nullopt;
  }
  return place.end.hand.Firmware().InstalledImage();
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const std::size_t kind = input.Below(kOverCan + 2);
  const std::string bytes = File(input);
  const MemoryFile file(bytes);
  CheckPackets(LoadFirmwareOnly(file.Path()), bytes);
  if (kind > kOverCan) return;
  const auto installed =
      kind < kOverCan ? UpdateOverCan(kMakers[kind], file) : UpdateOverSerial(file);
  Require(!installed || *installed == Bytes(bytes.begin(), bytes.end()));
}
