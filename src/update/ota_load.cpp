#include "ota_load.h"

#include <new>

#include "update/firmware_file.h"

namespace talvera::korvane {

FirmwareImage LoadFirmwareOnly(const std::string& path) {
  FirmwareImage image;
  const FirmwareFile file = ReadFirmwareFile(path);
  image.error_code = file.error_code;
  image.packet_count = static_cast<std::int32_t>(file.packets.size());
  image.file_size = static_cast<std::int64_t>(file.size);
  try {
    if (!file.read_failed) image.packets.assign(file.packets.begin(), file.packets.end());
  } catch (const std::bad_alloc&) {
    image.error_code = kCannotReadFirmware;
  }
  if (file.read_failed) image.error_code = kCannotReadFirmware;
  return image;
}

}  // namespace talvera::korvane
