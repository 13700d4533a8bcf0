#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace talvera::korvane::test {

/// A file with the given bytes, for as long as this object lives.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::vector<std::uint8_t>& bytes)
      : path_((std::filesystem::temp_directory_path() / "korvane-XXXXXX").string()) {
    const int file = mkstemp(path_.data());
    const auto written = write(file, bytes.data(), bytes.size());
    complete_ = written == static_cast<ssize_t>(bytes.size());
    close(file);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { unlink(path_.c_str()); }

  const std::string& Path() const { return path_; }
  bool Complete() const { return complete_; }

 private:
  std::string path_;
  bool complete_ = false;
};

/// Bytes that differ from packet to packet, so that a packet in the wrong place shows.
inline std::vector<std::uint8_t> FirmwareBytes(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 31 + i / 2048 * 7 + i / 251);
  }
  return bytes;
}

}  // namespace talvera::korvane::test
