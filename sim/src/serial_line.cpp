#include "serial_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace talvera::korvane::sim {
namespace {

std::runtime_error Failure(const std::string& what) {
  return std::runtime_error(what + ": " + std::generic_category().message(errno));
}

UniqueFd OpenMaster() {
  UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
  if (!master || grantpt(master.Get()) != 0 || unlockpt(master.Get()) != 0) {
    throw Failure("no pseudo-terminal to be had");
  }
  return master;
}

std::string DeviceOf(const UniqueFd& master) {
  std::array<char, 64> name{};
  if (ptsname_r(master.Get(), name.data(), name.size()) != 0) throw Failure("ptsname");
  return name.data();
}

UniqueFd OpenRaw(const std::string& device) {
  UniqueFd slave(open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios settings{};
  if (!slave || tcgetattr(slave.Get(), &settings) != 0) throw Failure("can't open " + device);
  cfmakeraw(&settings);
  if (tcsetattr(slave.Get(), TCSANOW, &settings) != 0) throw Failure("can't set up " + device);
  return slave;
}

bool LeadsNowhere(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode) &&
         stat(path.c_str(), &info) != 0 && errno == ENOENT;
}

void MakeLink(const std::string& device, const std::string& link) {
  if (symlink(device.c_str(), link.c_str()) == 0) return;
  if (errno == EEXIST) {
    if (!LeadsNowhere(link)) {
      throw std::runtime_error(link + " exists; remove it or choose another name for the port");
    }
    unlink(link.c_str());
    if (symlink(device.c_str(), link.c_str()) == 0) return;
  }
  throw Failure("can't make the link " + link);
}

}  // namespace

SerialLine::SerialLine(std::string link)
    : link_(std::move(link)),
      master_(OpenMaster()),
      device_(DeviceOf(master_)),
      slave_(OpenRaw(device_)) {
  if (!link_.empty()) MakeLink(device_, link_);
}

SerialLine::~SerialLine() {
  std::error_code no_link;
  if (std::filesystem::read_symlink(link_, no_link) == device_) unlink(link_.c_str());
}

std::vector<std::uint8_t> SerialLine::Read() {
  std::vector<std::uint8_t> bytes(4096);
  const ssize_t size = read(master_.Get(), bytes.data(), bytes.size());
  if (size < 0) return {};
  bytes.resize(static_cast<std::size_t>(size));
  return bytes;
}

void SerialLine::Write(const std::vector<std::uint8_t>& bytes) {
  static_cast<void>(write(master_.Get(), bytes.data(), bytes.size()));
}

}  // namespace talvera::korvane::sim
