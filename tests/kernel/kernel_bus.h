#pragma once

#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

// What the tests on a bus of the real kernel share.

namespace talvera::korvane::test {

inline std::string TestInterface() {
  const char* const name = std::getenv("KORVANE_TEST_CAN");
  return name != nullptr ? name : "";
}

inline void Shell(const std::string& command) {
  ASSERT_EQ(std::system(command.c_str()), 0) << command;  // NOLINT(concurrency-mt-unsafe)
}

/// An interface of the test's own.
class Interface {
 public:
  explicit Interface(std::string name, int mtu = 72) : name_(std::move(name)) {
    Shell("ip link add dev " + name_ + " type vcan");
    Shell("ip link set " + name_ + " mtu " + std::to_string(mtu));
    Shell("ip link set " + name_ + " up");
  }
  Interface(const Interface&) = delete;
  Interface& operator=(const Interface&) = delete;
  ~Interface() {
    if (!deleted_) Delete();
  }

  void Down() const { Shell("ip link set " + name_ + " down"); }
  void Up() const { Shell("ip link set " + name_ + " up"); }
  void Delete() {
    Shell("ip link del dev " + name_);
    deleted_ = true;
  }
  const std::string& Name() const { return name_; }

 private:
  std::string name_;
  bool deleted_ = false;
};

/// Another device on the bus, by plain sockets.
class RawSocket {
 public:
  explicit RawSocket(const std::string& interface) : fd_(socket(PF_CAN, SOCK_RAW, CAN_RAW)) {
    const int on = 1;
    setsockopt(fd_, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on);
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  RawSocket(const RawSocket&) = delete;
  RawSocket& operator=(const RawSocket&) = delete;
  ~RawSocket() { close(fd_); }

  void Send(std::uint32_t id, std::uint8_t len, std::uint8_t first) const {
    canfd_frame frame{};
    frame.can_id = id;
    frame.len = len;
    frame.data[0] = first;
    EXPECT_EQ(write(fd_, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
  }

  void SendClassic(std::uint32_t id, std::uint8_t len) const {
    can_frame frame{};
    frame.can_id = id;
    frame.len = len;
    EXPECT_EQ(write(fd_, &frame, sizeof frame), static_cast<ssize_t>(sizeof frame));
  }

  canfd_frame Receive() const {
    canfd_frame frame{};
    EXPECT_GT(read(fd_, &frame, sizeof frame), 0);
    return frame;
  }

 private:
  int fd_;
};

class OnTheKernelsBus : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(TestInterface(), "") << "run this through scripts/kernel-guest";
  }
};

}  // namespace talvera::korvane::test
