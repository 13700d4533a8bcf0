#include "serial/port_claim.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "serial/serial_library.h"

namespace talvera::korvane {
namespace {

/// The speeds that the library sets in the usual way. Any other one it asks of the driver.
constexpr unsigned kUsualSpeeds[] = {
    0,      50,      75,      110,     134,     150,     200,     300,     600,    1200,   1800,
    2400,   4800,    9600,    19200,   38400,   57600,   115200,  230400,  460800, 500000, 576000,
    921600, 1000000, 1152000, 1500000, 2000000, 2500000, 3000000, 3500000, 4000000};

template <class Reason>
[[noreturn]] void Refuse(Reason reason) {
  throw serial::IOException(__FILE__, __LINE__, reason);
}

void Check(int result) {
  if (result < 0) Refuse(errno);
}

/// The library opens the port a second time, and gets the next descriptor that is free. Returns it.
int CheckRoomForDescriptor(int descriptor) {
  const int next = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  Check(next);
  close(next);
  if (next >= FD_SETSIZE)
    Refuse("too many open files: a serial port needs a descriptor below 1024");
  return next;
}

/// Sets an unusual speed just as the library is going to.
void CheckSpeed(int descriptor, unsigned baud) {
  if (std::find(std::begin(kUsualSpeeds), std::end(kUsualSpeeds), baud) != std::end(kUsualSpeeds)) {
    return;
  }
  serial_struct settings{};
  Check(ioctl(descriptor, TIOCGSERIAL, &settings));
  settings.custom_divisor = settings.baud_base / static_cast<int>(baud);
  settings.flags &= ~static_cast<int>(ASYNC_SPD_MASK);
  settings.flags |= static_cast<int>(ASYNC_SPD_CUST);
  Check(ioctl(descriptor, TIOCSSERIAL, &settings));
}

void CheckTerminal(int descriptor) {
  termios settings{};
  Check(tcgetattr(descriptor, &settings));
}

/// The lock belongs to this opening of the port, so that it excludes other objects of this process
/// too, and ends with the process however that ends.
void Lock(int descriptor) {
  if (flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
  Refuse("the port is in use by another hand object or program");
}

}  // namespace

PortClaim::PortClaim(const std::string& port, unsigned baud)
    : descriptor_(open(port.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)) {
  Check(Descriptor());
  CheckTerminal(Descriptor());
  Lock(Descriptor());
  next_ = CheckRoomForDescriptor(Descriptor());
  CheckSpeed(Descriptor(), baud);
}

/// Another file of the process may have got that number; it is left alone unless it is this port,
/// which nobody else is to have.
void PortClaim::CloseLost() const {
  struct stat claimed {};
  struct stat lost {};
  if (fstat(Descriptor(), &claimed) != 0 || fstat(next_, &lost) != 0) return;
  if (claimed.st_dev == lost.st_dev && claimed.st_ino == lost.st_ino) close(next_);
}

/// A child of this process that hasn't started its program yet may share the descriptor: so the
/// lock is given back by itself.
PortClaim::~PortClaim() {
  if (descriptor_) flock(Descriptor(), LOCK_UN);
}

}  // namespace talvera::korvane
