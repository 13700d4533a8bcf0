#pragma once

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace talvera::korvane::test {

/// A serial line whose device end the test holds. The path of the other end stays the same when
/// the device is unplugged and plugged in again, as it does for a device with a name of its own.
class PseudoTerminal {
 public:
  PseudoTerminal()
      : folder_((std::filesystem::temp_directory_path() / "korvane-tty-XXXXXX").string()) {
    if (mkdtemp(folder_.data()) == nullptr) Fail("mkdtemp");
    path_ = folder_ + "/port";
    Plug();
  }
  PseudoTerminal(const PseudoTerminal&) = delete;
  PseudoTerminal& operator=(const PseudoTerminal&) = delete;

  ~PseudoTerminal() {
    Unplug();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  const std::string& Path() const { return path_; }

  void Plug() {
    master_ = Checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    Checked(grantpt(master_));
    Checked(unlockpt(master_));
    std::array<char, 64> name{};
    Checked(-ptsname_r(master_, name.data(), name.size()));
    // An end of our own keeps the line and its settings while the library has its end closed.
    slave_ = Checked(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    Checked(tcgetattr(slave_, &settings));
    cfmakeraw(&settings);
    Checked(tcsetattr(slave_, TCSANOW, &settings));
    std::filesystem::create_symlink(name.data(), path_);
  }

  /// Whoever has the port open finds it dead, and whoever looks for it doesn't find it.
  void Unplug() {
    unlink(path_.c_str());
    for (int* const file : {&slave_, &master_}) {
      if (*file >= 0) close(std::exchange(*file, -1));
    }
  }

  void Write(const std::vector<std::uint8_t>& bytes) {
    if (write(master_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      Fail("write");
    }
  }

  /// What has arrived, once there is something or the time is over; empty then, and if something is
  /// broken.
  std::vector<std::uint8_t> ReadSome(int most_ms, std::size_t most = 256) {
    std::vector<std::uint8_t> bytes(most);
    pollfd event{master_, POLLIN, 0};
    const ssize_t got = poll(&event, 1, most_ms) < 1 ? 0 : read(master_, bytes.data(), most);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return bytes;
  }

  /// Waits until `size` bytes have arrived. Fewer come back only if something is broken.
  std::vector<std::uint8_t> Read(std::size_t size) {
    constexpr auto kLongest = std::chrono::seconds(60);
    std::vector<std::uint8_t> bytes(size);
    std::size_t count = 0;
    const auto end = std::chrono::steady_clock::now() + kLongest;
    while (count < size && std::chrono::steady_clock::now() < end) {
      pollfd event{master_, POLLIN, 0};
      if (poll(&event, 1, 1000) < 1) continue;
      const ssize_t got = read(master_, &bytes[count], size - count);
      if (got <= 0) break;
      count += static_cast<std::size_t>(got);
    }
    bytes.resize(count);
    return bytes;
  }

 private:
  [[noreturn]] static void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
  }

  static int Checked(int result) {
    if (result < 0) Fail("pseudo-terminal");
    return result;
  }

  std::string folder_;
  std::string path_;
  int master_ = -1;
  int slave_ = -1;
};

}  // namespace talvera::korvane::test
