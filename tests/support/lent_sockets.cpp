#include "support/lent_sockets.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

using talvera::korvane::test::LentSockets;

// In place of the C library's: what the adapter calls to open its socket.
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  if (LentSockets::AreFor(domain)) return LentSockets::Next();
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  if (LentSockets::AreFor(address->sa_family)) return 0;
  return static_cast<int>(syscall(SYS_bind, fd, address, size));
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (LentSockets::AreFor(AF_CAN) && request == SIOCGIFINDEX) {
    static_cast<ifreq*>(argument)->ifr_ifindex = 1;
    return 0;
  }
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
}
