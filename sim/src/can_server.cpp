#include "can_server.h"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "wire.h"
#include "world.h"

namespace talvera::korvane::sim {
namespace {

std::runtime_error Failure(const std::string& what) {
  return std::runtime_error(what + ": " + std::generic_category().message(errno));
}

ifreq RequestFor(const std::string& name) {
  ifreq request{};
  std::copy_n(name.begin(), std::min(name.size(), sizeof(request.ifr_name) - 1), request.ifr_name);
  return request;
}

/// The interface's index. Its name and MTU are checked on the way.
int CheckInterface(int fd, const std::string& name) {
  if (name.size() >= IFNAMSIZ) throw std::runtime_error("interface name too long: " + name);
  ifreq request = RequestFor(name);
  if (ioctl(fd, SIOCGIFINDEX, &request) != 0) {
    throw std::runtime_error("no interface " + name + "; make one with: ip link add dev " + name +
                             " type vcan && ip link set " + name + " mtu 72 up");
  }
  const int index = request.ifr_ifindex;
  if (ioctl(fd, SIOCGIFMTU, &request) == 0 && request.ifr_mtu != CANFD_MTU) {
    throw std::runtime_error(name + " carries no CAN FD; for a virtual interface: ip link set " +
                             name + " mtu 72");
  }
  request = RequestFor(name);
  if (ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) == 0) {
    std::cerr << "korvane-sim: warning: " << name << " is down; bring it up with: ip link set "
              << name << " up\n";
  }
  return index;
}

UniqueFd OpenInterface(const std::string& name) {
  UniqueFd fd(socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW));
  if (!fd) {
    throw Failure(
        "this kernel offers no CAN sockets (modprobe can-raw; see --adapters for a way "
        "without CAN)");
  }
  const int index = CheckInterface(fd.Get(), name);
  const int on = 1;
  if (setsockopt(fd.Get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof(on)) != 0) {
    throw Failure("CAN FD on " + name);
  }
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = index;
  if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw Failure("bind to " + name);
  }
  return fd;
}

ReadResult ReadCan(int fd, Frame& frame) {
  canfd_frame raw{};
  const ssize_t size = read(fd, &raw, sizeof(raw));
  if (size < 0) {
    // An interface that is down may come back; one that was deleted doesn't.
    return errno == ENODEV || errno == EBADF ? ReadResult::kEnd : ReadResult::kNothing;
  }
  frame = Frame{};
  const bool extended = (raw.can_id & CAN_EFF_FLAG) != 0;
  frame.id = raw.can_id & (extended ? CAN_EFF_MASK : CAN_SFF_MASK);
  if ((size != CANFD_MTU && size != CAN_MTU) || (raw.can_id & (CAN_ERR_FLAG | CAN_RTR_FLAG)) != 0 ||
      extended != IsExtended(frame.id)) {
    return ReadResult::kNothing;
  }
  frame.len = std::min<std::uint8_t>(raw.len, size == CAN_MTU ? CAN_MAX_DLEN : CANFD_MAX_DLEN);
  std::copy_n(raw.data, frame.len, frame.data.begin());
  return ReadResult::kFrame;
}

bool WriteCan(int fd, const Frame& frame) {
  canfd_frame raw{};
  raw.can_id = frame.id | (IsExtended(frame.id) ? CAN_EFF_FLAG : 0U);
  raw.len = frame.len;
  std::copy_n(frame.data.begin(), frame.len, raw.data);
  // What a full or stopped interface doesn't take is lost: there is no telling when it will.
  static_cast<void>(send(fd, &raw, sizeof(raw), MSG_DONTWAIT));
  return true;
}

}  // namespace

CanServer::CanServer(std::string interface_name, VirtualBus& bus)
    : interface_name_(std::move(interface_name)),
      fd_(OpenInterface(interface_name_)),
      link_(MakeLink(bus)) {
  thread_ = std::thread([this] { Serve(); });
}

CanServer::~CanServer() {
  stop_.Set();
  thread_.join();
}

void CanServer::Serve() {
  if (CarryFrames({fd_.Get(), ReadCan, WriteCan}, *link_, stop_)) {
    std::cerr << "korvane-sim: " + interface_name_ + " is gone; its hands are off\n";
  }
}

}  // namespace talvera::korvane::sim
