#pragma once

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace talvera::korvane::bench {

/// The interface of the kernel to measure on; null for sockets that lead elsewhere.
inline const char* Interface() {
  return std::getenv("KORVANE_TEST_CAN");  // NOLINT(concurrency-mt-unsafe)
}

/// What hand objects are told.
inline const char* InterfaceName() { return Interface() != nullptr ? Interface() : "pair"; }

inline int OrThrow(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

/// A socket for CAN FD frames that blocks, without the library.
inline int OpenCanSocket() {
  const int fd = OrThrow(socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW), "socket");
  const int on = 1;
  setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on);
  ifreq request{};
  std::strncpy(request.ifr_name, InterfaceName(), IFNAMSIZ - 1);
  OrThrow(ioctl(fd, SIOCGIFINDEX, &request), InterfaceName());
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = request.ifr_ifindex;
  OrThrow(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  return fd;
}

}  // namespace talvera::korvane::bench
