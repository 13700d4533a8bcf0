#include "can/can_bus_device_socket_can.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "util/log.h"

namespace talvera::korvane {
namespace {

CanfdFrame ToCanfdFrame(const canfd_frame& raw, std::size_t bytes_read) {
  const std::size_t available = bytes_read - std::min(bytes_read, offsetof(canfd_frame, data));
  CanfdFrame frame;
  frame.can_id = raw.can_id & kCanIdMask;
  frame.len = static_cast<std::uint8_t>(
      std::min({std::size_t{raw.len}, std::size_t{kMaxPayload}, available}));
  std::memcpy(frame.data, raw.data, frame.len);
  return frame;
}

}  // namespace

CanBusDeviceSocketCan::CanBusDeviceSocketCan(const std::string& interface_name)
    : interface_name_(interface_name) {
  if (CanBusDeviceSocketCan::OpenDevice() == -1) {
    LogError("[ERROR]: Failed to open SocketCAN device: " + interface_name_);
    return;
  }
  LogInfo("[INFO]: SocketCAN device " + interface_name_ + " opened successfully.");
  if (!StartReceiveThread(recv_thread_)) AbandonSocket();
}

CanBusDeviceSocketCan::~CanBusDeviceSocketCan() {
  StopReceiveThread(recv_thread_);
  CanBusDeviceSocketCan::CloseDevice();
}

int CanBusDeviceSocketCan::OpenDevice() {
  if (open_) return 0;
  socket_fd_ = socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  if (socket_fd_ < 0) {
    LogError("[ERROR]: Failed to create CAN socket");
    return -1;
  }
  fcntl(socket_fd_, F_SETFL, fcntl(socket_fd_, F_GETFL, 0) | O_NONBLOCK);
  const int index = FindInterface();
  if (index < 0) {
    LogError("[ERROR]: Failed to get interface index for " + interface_name_);
    return AbandonSocket();
  }
  const int enabled = 1;
  // A kernel without CAN FD still carries frames of up to 8 bytes. There is no filter: the match
  // judge sorts out which frame answers which request.
  static_cast<void>(
      setsockopt(socket_fd_, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &enabled, sizeof enabled));
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = index;
  const int bound = bind(socket_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  if (bound < 0) return AbandonSocket();
  // Last, as from here on other threads send and receive through the socket.
  open_ = true;
  return bound;
}

int CanBusDeviceSocketCan::FindInterface() const {
  ifreq request{};
  std::strncpy(request.ifr_name, interface_name_.c_str(), IFNAMSIZ - 1);
  return ioctl(socket_fd_, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

int CanBusDeviceSocketCan::AbandonSocket() {
  open_ = false;
  close(socket_fd_);
  socket_fd_ = -1;
  return -1;
}

int CanBusDeviceSocketCan::CloseDevice() {
  if (!open_.exchange(false)) return -1;
  return close(socket_fd_);
}

int CanBusDeviceSocketCan::SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) {
  if (len > kMaxPayload || !open_) return -1;
  canfd_frame frame{};
  frame.can_id = id > kMaxStandardId ? id | CAN_EFF_FLAG : id;
  frame.len = len;
  std::copy_n(data, len, frame.data);
  return write(socket_fd_, &frame, sizeof frame) < 1 ? -1 : 0;
}

void CanBusDeviceSocketCan::RecvFrame() {
  // The socket never blocks and the loop never sleeps: that costs a core for each hand and keeps
  // the time from the wire to the waiting request at its least.
  while (!stop_flag_) {
    canfd_frame raw{};
    const ssize_t bytes = open_ ? read(socket_fd_, &raw, sizeof raw) : -1;
    if (bytes > 0) Dispatch(ToCanfdFrame(raw, static_cast<std::size_t>(bytes)), kSocketCanDispatch);
  }
}

}  // namespace talvera::korvane
