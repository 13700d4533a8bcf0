#include "can/can_bus_device_socket_can.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "util/log.h"

namespace talvera::korvane {
namespace {

/// More than come between two requests, unless the bus is full.
constexpr int kMostTaken = 64;

CanfdFrame ToCanfdFrame(const canfd_frame& raw, std::size_t bytes_read) {
  const std::size_t available = bytes_read - std::min(bytes_read, offsetof(canfd_frame, data));
  CanfdFrame frame;
  frame.can_id = raw.can_id & kCanIdMask;
  frame.len = static_cast<std::uint8_t>(
      std::min({std::size_t{raw.len}, std::size_t{kMaxPayload}, available}));
  std::memcpy(frame.data, raw.data, frame.len);
  return frame;
}

/// Gives the receive thread's turn back, also when memory runs out in it.
struct ReceiversTurn {
  ReadingTurn& turn;
  ~ReceiversTurn() { turn.GiveBack(); }
};

}  // namespace

CanBusDeviceSocketCan::CanBusDeviceSocketCan(Closed, const std::string& interface_name)
    : interface_name_(interface_name) {}

CanBusDeviceSocketCan::CanBusDeviceSocketCan(const std::string& interface_name)
    : CanBusDeviceSocketCan(Closed{}, interface_name) {
  turn_.Open();
  wake_receiver_ = [this] { turn_.Wake(); };
  if (CanBusDeviceSocketCan::OpenDevice() == -1) {
    const std::string line = "[ERROR]: Failed to open SocketCAN device: " + interface_name_;
    LogError(line);
    if (open_failure_.empty()) open_failure_ = line;
    return;
  }
  LogInfo("[INFO]: SocketCAN device " + interface_name_ + " opened successfully.");
  if (StartReceiveThread(recv_thread_)) return;
  CanBusDeviceSocketCan::CloseDevice();
  socket_fd_ = -1;
}

CanBusDeviceSocketCan::~CanBusDeviceSocketCan() {
  StopReceiveThread(recv_thread_);
  CanBusDeviceSocketCan::CloseDevice();
}

int CanBusDeviceSocketCan::OpenDevice() {
  if (open_) return 0;
  if (!MakeSocket()) return OpenFailed("[ERROR]: Failed to create CAN socket");
  const int index = FindInterface();
  if (index < 0) {
    system_error_ = errno;
    AbandonSocket();
    return OpenFailed("[ERROR]: Failed to get interface index for " + interface_name_);
  }
  const int bound = BindTo(index);
  if (bound < 0) {
    system_error_ = errno;
    return AbandonSocket();
  }
  turn_.Watch(socket_fd_);
  // Last, as from here on other threads send and receive through the socket, and may close it.
  open_ = true;
  return bound;
}

bool CanBusDeviceSocketCan::MakeSocket() {
  socket_fd_ = socket(AF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  if (socket_fd_ < 0) {
    system_error_ = errno;
    return false;
  }
  // A thread that reads a socket which blocks couldn't be ended.
  const int flags = fcntl(socket_fd_, F_GETFL, 0);
  if (flags >= 0 && fcntl(socket_fd_, F_SETFL, flags | O_NONBLOCK) >= 0) return true;
  system_error_ = errno;
  AbandonSocket();
  return false;
}

int CanBusDeviceSocketCan::BindTo(int interface_index) const {
  const int enabled = 1;
  // A kernel without CAN FD still carries frames of up to 8 bytes. There is no filter: the match
  // judge sorts out which frame answers which request.
  static_cast<void>(
      setsockopt(socket_fd_, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &enabled, sizeof enabled));
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = interface_index;
  return bind(socket_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
}

int CanBusDeviceSocketCan::OpenFailed(const std::string& line) {
  open_failure_ = line;
  LogError(line);
  return -1;
}

int CanBusDeviceSocketCan::FindInterface() const {
  ifreq request{};
  std::strncpy(request.ifr_name, interface_name_.c_str(), IFNAMSIZ - 1);
  return ioctl(socket_fd_, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

int CanBusDeviceSocketCan::AbandonSocket() {
  close(socket_fd_);
  socket_fd_ = -1;
  return -1;
}

int CanBusDeviceSocketCan::CloseDevice() {
  if (!open_.exchange(false)) return -1;
  turn_.Unwatch();
  return close(socket_fd_);
}

int CanBusDeviceSocketCan::SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) {
  if (len > kMaxPayload || !open_) return -1;
  canfd_frame frame{};
  frame.can_id = id > kMaxStandardId ? id | CAN_EFF_FLAG : id;
  frame.len = len;
  std::copy_n(data, len, frame.data);
  if (write(socket_fd_, &frame, sizeof frame) >= 1) return 0;
  NoteError(errno);
  return -1;
}

void CanBusDeviceSocketCan::RecvFrame() {
  // The socket never blocks. Unless the application asked for events the loop never sleeps: that
  // costs a core for each hand and keeps the time from the wire to the waiting request at its
  // least.
  while (!stop_flag_) {
    if (by_events_) turn_.Sleep();
    if (!turn_.Take()) continue;
    const ReceiversTurn turn{turn_};
    for (const CanfdFrame& frame : std::exchange(handed_over_, {})) HandOver(frame);
    if (const auto frame = ReadFrame()) Dispatch(*frame, kSocketCanDispatch);
  }
}

std::optional<CanfdFrame> CanBusDeviceSocketCan::ReadFrame() {
  canfd_frame raw{};
  const ssize_t bytes = open_ ? read(socket_fd_, &raw, sizeof raw) : -1;
  if (bytes < 0 && open_ && errno != EAGAIN) NoteError(errno);
  if (bytes <= 0) return std::nullopt;
  return ToCanfdFrame(raw, static_cast<std::size_t>(bytes));
}

bool CanBusDeviceSocketCan::TakeTurn() {
  if (!by_events_ || !turn_.TakeForCaller()) return false;
  try {
    TakeWhatIsThere();
  } catch (...) {
    LeaveToReceiver();
    throw;
  }
  if (handed_over_.empty()) return true;
  LeaveToReceiver();
  return false;
}

void CanBusDeviceSocketCan::TakeWhatIsThere() {
  for (int i = 0; i < kMostTaken; ++i) {
    const auto frame = ReadFrame();
    if (!frame) return;
    if (!Match(*frame, kSocketCanDispatch)) handed_over_.push_back(*frame);
  }
}

bool CanBusDeviceSocketCan::ReadInTurn(int most_ms) {
  pollfd watched{open_ ? socket_fd_ : -1, POLLIN, 0};
  if (poll(&watched, 1, most_ms) < 1) return true;
  const auto frame = ReadFrame();
  if (!frame || Match(*frame, kSocketCanDispatch)) return true;
  // Callbacks run on the receive thread. What comes after this frame is for that thread too, so
  // that everything happens in the order of the bus.
  handed_over_.push_back(*frame);
  LeaveToReceiver();
  return false;
}

void CanBusDeviceSocketCan::LeaveToReceiver() {
  turn_.GiveBackByCaller();
  turn_.Wake();
}

/// An interface that was unregistered takes its sockets with it for good; one that is down may come
/// back.
void CanBusDeviceSocketCan::NoteError(int system_error) {
  system_error_ = system_error;
  if (system_error == ENODEV || system_error == ENXIO) counters_.link_lost = true;
}

}  // namespace talvera::korvane
