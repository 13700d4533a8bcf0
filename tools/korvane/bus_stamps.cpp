#include "bus_stamps.h"

#include <fmt/format.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <linux/net_tstamp.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>

#include "percentile.h"

namespace korvane_tool {
namespace {

using Nanoseconds = std::int64_t;
using Steady = std::chrono::steady_clock;
using System = std::chrono::system_clock;

template <class Time>
Nanoseconds Ns(Time time) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

/// The kernel's stamps are of the system clock.
Nanoseconds ToSystem(Steady::time_point time) {
  return Ns(System::now()) - (Ns(Steady::now()) - Ns(time));
}

Json Percentiles(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double part) {
    return values.empty() ? 0 : std::round(Percentile(values, part) * 10) / 10;
  };
  return {{"p50_us", at(0.5)}, {"p99_us", at(0.99)}};
}

int OpenSocket(const std::string& interface, std::string& problem) {
  const int fd = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW);
  const int on = 1;
  const int stamps = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  // Index 0 would stand for all interfaces.
  const bool good = fd >= 0 && address.can_ifindex != 0 &&
                    setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof(on)) == 0 &&
                    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &stamps, sizeof(stamps)) == 0 &&
                    bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  if (good) return fd;
  problem = std::strerror(errno);
  if (fd >= 0) close(fd);
  return -1;
}

}  // namespace

BusStamps::BusStamps(const std::string& interface, std::uint8_t hand_id) : hand_id_(hand_id) {
  socket_ = OpenSocket(interface, problem_);
}

BusStamps::~BusStamps() {
  if (socket_ >= 0) close(socket_);
}

std::int64_t BusStamps::NextStamp() {
  for (;;) {
    canfd_frame frame{};
    iovec data{&frame, sizeof(frame)};
    alignas(cmsghdr) std::array<char, 256> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (recvmsg(socket_, &message, 0) < 0) return 0;
    // The low seven bits of an identifier are the hand's id.
    if ((frame.can_id & 0x7FU) != hand_id_) continue;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
         part = CMSG_NXTHDR(&message, part)) {
      if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_TIMESTAMPING) continue;
      timespec stamp{};
      std::memcpy(&stamp, CMSG_DATA(part), sizeof(stamp));
      return std::int64_t{stamp.tv_sec} * 1'000'000'000 + stamp.tv_nsec;
    }
  }
}

void BusStamps::EndRequest(Steady::time_point start, Steady::time_point end, bool answered) {
  const Nanoseconds request = NextStamp();
  const Nanoseconds reply = request == 0 ? 0 : NextStamp();
  while (NextStamp() != 0) {
  }
  if (!answered || reply == 0) return;
  const auto us = [](Nanoseconds from, Nanoseconds to) {
    return static_cast<double>(to - from) / 1000;
  };
  out_us_.push_back(us(ToSystem(start), request));
  between_us_.push_back(us(request, reply));
  in_us_.push_back(us(reply, ToSystem(end)));
}

Json BusStamps::ToJson() const {
  return {{"seen", out_us_.size()},
          {"host_out", Percentiles(out_us_)},
          {"bus_and_hand", Percentiles(between_us_)},
          {"host_in", Percentiles(in_us_)}};
}

}  // namespace korvane_tool
