#include "ota_load.h"

#include "update/firmware_file.h"

namespace talvera::korvane {

FirmwareImage LoadFirmwareOnly(const std::string& path) {
  FirmwareImage image;
  const FirmwareFile file = ReadFirmwareFile(path);
  image.error_code = file.error_code;
  if (file.error_code != 0) return image;
  const std::size_t count = PacketCount(file.bytes.size());
  image.packet_count = static_cast<std::int32_t>(count);
  image.file_size = static_cast<std::int64_t>(file.bytes.size());
  if (file.read_failed) {
    image.error_code = kCannotReadFirmware;
    return image;
  }
  image.packets.reserve(count);
  for (std::size_t i = 0; i < count; ++i) image.packets.push_back(CutPacket(file.bytes, i));
  return image;
}

}  // namespace talvera::korvane
