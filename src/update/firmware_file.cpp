#include "update/firmware_file.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <vector>

namespace talvera::korvane {
namespace {

FirmwareFile NoFile(int error_code) {
  FirmwareFile file;
  file.error_code = error_code;
  return file;
}

std::deque<FirmwarePacket> CutIntoPackets(const std::vector<std::uint8_t>& bytes) {
  std::deque<FirmwarePacket> packets;
  for (std::size_t begin = 0; begin < bytes.size(); begin += std::tuple_size_v<FirmwarePacket>) {
    FirmwarePacket& packet = packets.emplace_back();
    packet.fill(0xFF);
    const std::size_t count = std::min(packet.size(), bytes.size() - begin);
    std::copy_n(&bytes[begin], count, packet.begin());
  }
  return packets;
}

FirmwareFile Read(const std::string& path) {
  // Asked before the file is opened: a pipe would block there, and a folder would open.
  std::error_code unknown;
  const auto status = std::filesystem::status(path, unknown);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    return NoFile(kCannotReadFirmware);
  }
  std::ifstream stream(path, std::ios::in | std::ios::binary);
  if (!stream.is_open()) return NoFile(kCannotOpenFirmware);
  // Not opened at its end: a file that can't be measured would count as one that doesn't open.
  stream.seekg(0, std::ios::end);
  const std::streamoff size = stream.tellg();
  if (size < 1) return NoFile(kCannotReadFirmware);
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
  stream.seekg(0);
  stream.read(reinterpret_cast<char*>(bytes.data()), size);
  return {0, stream.fail(), bytes.size(), CutIntoPackets(bytes)};
}

}  // namespace

FirmwareFile ReadFirmwareFile(const std::string& path) {
  try {
    return Read(path);
  } catch (const std::bad_alloc&) {
    return NoFile(kCannotReadFirmware);
  } catch (const std::length_error&) {
    return NoFile(kCannotReadFirmware);
  }
}

}  // namespace talvera::korvane
