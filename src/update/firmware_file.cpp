#include "update/firmware_file.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>

namespace talvera::korvane {
namespace {

constexpr unsigned kPacketShift = 11;
static_assert(std::tuple_size_v<FirmwarePacket> == 1U << kPacketShift);

FirmwareFile Failure(int error_code) {
  FirmwareFile file;
  file.error_code = error_code;
  return file;
}

}  // namespace

FirmwareFile ReadFirmwareFile(const std::string& path) {
  // Asked before it is opened: a pipe would block there, and a directory would open.
  std::error_code unknown;
  const auto status = std::filesystem::status(path, unknown);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    return Failure(kCannotReadFirmware);
  }
  std::ifstream stream(path, std::ios::in | std::ios::binary | std::ios::ate);
  if (!stream.is_open()) return Failure(kCannotOpenFirmware);
  const std::streamoff size = stream.tellg();
  if (size < 1) return Failure(kCannotReadFirmware);
  FirmwareFile file;
  try {
    file.bytes.resize(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc&) {
    return Failure(kCannotReadFirmware);
  } catch (const std::length_error&) {
    return Failure(kCannotReadFirmware);
  }
  stream.seekg(0);
  stream.read(reinterpret_cast<char*>(file.bytes.data()), size);
  file.read_failed = stream.fail();
  return file;
}

std::size_t PacketCount(std::size_t file_size) {
  const std::size_t rest = file_size & (std::tuple_size_v<FirmwarePacket> - 1);
  return (file_size >> kPacketShift) + (rest != 0 ? 1 : 0);
}

FirmwarePacket CutPacket(const std::vector<std::uint8_t>& bytes, std::size_t index) {
  FirmwarePacket packet;
  packet.fill(0xFF);
  const std::size_t begin = std::min(index << kPacketShift, bytes.size());
  const std::size_t count = std::min(packet.size(), bytes.size() - begin);
  std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(begin), count, packet.begin());
  return packet;
}

}  // namespace talvera::korvane
