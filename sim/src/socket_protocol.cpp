#include "socket_protocol.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "wire.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::size_t kSerialSize = 20;
constexpr std::size_t kTypeSize = 40;
constexpr std::size_t kInfoSize = 1 + 1 + 4 + kSerialSize + kTypeSize;

/// How long a connection waits for a simulator that doesn't move.
constexpr timeval kPatience{1, 0};

std::optional<sockaddr_un> AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return std::nullopt;
  }
  std::copy(path.begin(), path.end(), address.sun_path);
  return address;
}

/// Opens a socket and does `action` (bind or connect) with the address of `path`.
UniqueFd OpenWith(const std::string& path, int (*action)(int, const sockaddr*, socklen_t)) {
  const auto address = AddressOf(path);
  if (!address) return UniqueFd();
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!fd) return fd;
  setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
  setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
  // The sockets interface takes every kind of address as a sockaddr.
  if (action(fd.Get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0) {
    return UniqueFd();
  }
  return fd;
}

std::string Padded(std::string text, std::size_t width) {
  text.resize(width);
  return text;
}

std::string UpToNul(const std::string& text) { return text.substr(0, text.find('\0')); }

}  // namespace

std::string SocketPath() {
  if (const char* path = std::getenv("KORVANE_SIM_SOCKET"); path != nullptr && *path != '\0') {
    return path;
  }
  if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir != nullptr && *dir != '\0') {
    return std::string(dir) + "/korvane-sim.sock";
  }
  return "/tmp/korvane-sim-" + std::to_string(getuid()) + ".sock";
}

UniqueFd ConnectTo(const std::string& path) { return OpenWith(path, connect); }

UniqueFd ListenAt(const std::string& path) {
  UniqueFd fd = OpenWith(path, bind);
  if (fd && listen(fd.Get(), 64) != 0) return UniqueFd();
  return fd;
}

bool SendFrame(int fd, const Frame& frame, int flags) {
  std::array<std::uint8_t, kMaxMessage> message{};
  StoreU32(message.data(), frame.id);
  const std::size_t length = std::min(std::size_t{frame.len}, frame.data.size());
  std::copy_n(frame.data.begin(), length, message.begin() + kFrameHead);
  const std::size_t size = kFrameHead + length;
  return send(fd, message.data(), size, flags | MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

ReadResult ReadFrame(int fd, Frame& frame) {
  std::array<std::uint8_t, kMaxMessage> message{};
  const ssize_t size = recv(fd, message.data(), message.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (size < 0) {
    const bool later = errno == EAGAIN || errno == EINTR;
    return later ? ReadResult::kNothing : ReadResult::kEnd;
  }
  if (size < static_cast<ssize_t>(kFrameHead) || size > static_cast<ssize_t>(kMaxMessage)) {
    return ReadResult::kEnd;  // The end of the connection reads as 0.
  }
  frame = Frame{};
  frame.id = LoadU32(message.data());
  frame.len = static_cast<std::uint8_t>(static_cast<std::size_t>(size) - kFrameHead);
  std::copy_n(message.begin() + kFrameHead, frame.len, frame.data.begin());
  return ReadResult::kFrame;
}

std::string EncodeInfo(const AdapterInfo& info) {
  std::array<std::uint8_t, 4> clock{};
  StoreU32(clock.data(), info.clock_hz);
  std::string message{'\x01', static_cast<char>(info.channels)};
  message.append(clock.begin(), clock.end());
  return message + Padded(info.serial_number, kSerialSize) + Padded(info.hardware_type, kTypeSize);
}

std::optional<AdapterInfo> DecodeInfo(const std::string& message) {
  if (message.size() != kInfoSize || message[0] != '\x01') return std::nullopt;
  std::array<std::uint8_t, 4> clock{};
  std::copy_n(message.begin() + 2, clock.size(), clock.begin());
  return AdapterInfo{UpToNul(message.substr(6, kSerialSize)),
                     UpToNul(message.substr(6 + kSerialSize)),
                     static_cast<std::uint8_t>(message[1]), LoadU32(clock.data())};
}

}  // namespace talvera::korvane::sim
