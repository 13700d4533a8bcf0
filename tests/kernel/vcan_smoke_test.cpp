// Proves that the bus on which the kernel tests run is what they take it for: a kernel's CAN FD
// interface that carries frames unchanged and that a test may reconfigure. If these fail, the other
// kernel tests say nothing about the library.

#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kNoFrameWithinMs = 10'000;  // far beyond any delay of a loaded machine

// A raw CAN FD socket on one interface, closed at the end of its life.
class CanSocket {
 public:
  explicit CanSocket(const std::string& interface_name)
      : fd_(socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW)) {
    const int on = 1;
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(if_nametoindex(interface_name.c_str()));
    is_open_ = fd_ >= 0 && address.can_ifindex != 0 &&
               setsockopt(fd_, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on) == 0 &&
               bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~CanSocket() {
    if (fd_ >= 0) close(fd_);
  }
  CanSocket(const CanSocket&) = delete;
  CanSocket& operator=(const CanSocket&) = delete;

  bool IsOpen() const { return is_open_; }

  // 0, or the errno of a frame that wasn't taken.
  int Send(const canfd_frame& frame) const {
    return write(fd_, &frame, sizeof frame) == static_cast<ssize_t>(sizeof frame) ? 0 : errno;
  }

  // The size that the kernel gave; -1 if no frame came.
  ssize_t Receive(canfd_frame& frame) const {
    pollfd waiting{fd_, POLLIN, 0};
    if (poll(&waiting, 1, kNoFrameWithinMs) != 1) return -1;
    return read(fd_, &frame, sizeof frame);
  }

 private:
  int fd_;
  bool is_open_ = false;
};

canfd_frame MakeFrame(canid_t id, std::uint8_t length) {
  canfd_frame frame{};
  frame.can_id = id;
  frame.len = length;
  for (std::uint8_t i = 0; i < length; ++i)
    frame.data[i] = static_cast<std::uint8_t>(0xA5 ^ (3 * i));
  return frame;
}

class VcanSmokeTest : public testing::Test {
 protected:
  void SetUp() override {
    const char* name = std::getenv("KORVANE_TEST_CAN");
    ASSERT_NE(name, nullptr) << "KORVANE_TEST_CAN names no CAN interface; run this program with "
                                "scripts/kernel-guest -- PROGRAM";
    interface_name_ = name;
  }

  const std::string& InterfaceName() const { return interface_name_; }

  static int Shell(const std::string& command) { return std::system(command.c_str()); }

 private:
  std::string interface_name_;
};

TEST_F(VcanSmokeTest, AFrameOfSixtyFourBytesReachesAnotherSocketByteForByte) {
  const CanSocket sender(InterfaceName());
  const CanSocket receiver(InterfaceName());
  ASSERT_TRUE(sender.IsOpen() && receiver.IsOpen());

  const canfd_frame sent = MakeFrame(0x01030201 | CAN_EFF_FLAG, CANFD_MAX_DLEN);
  ASSERT_EQ(sender.Send(sent), 0);

  canfd_frame received{};
  ASSERT_EQ(receiver.Receive(received), static_cast<ssize_t>(CANFD_MTU));
  EXPECT_EQ(received.can_id, sent.can_id);
  EXPECT_EQ(received.len, sent.len);
  EXPECT_EQ(std::memcmp(received.data, sent.data, sizeof sent.data), 0);
}

// Hands use lengths that no CAN FD controller puts on the wire as they are; a virtual bus carries
// them unchanged.
TEST_F(VcanSmokeTest, EveryLengthUpToSixtyFourPassesAsItIs) {
  const CanSocket sender(InterfaceName());
  const CanSocket receiver(InterfaceName());
  ASSERT_TRUE(sender.IsOpen() && receiver.IsOpen());

  for (std::uint8_t length = 0; length <= CANFD_MAX_DLEN; ++length) {
    SCOPED_TRACE(static_cast<int>(length));
    ASSERT_EQ(sender.Send(MakeFrame(0x7FF, length)), 0);
    canfd_frame received{};
    ASSERT_EQ(receiver.Receive(received), static_cast<ssize_t>(CANFD_MTU));
    ASSERT_EQ(received.len, length);
    ASSERT_EQ(std::memcmp(received.data, MakeFrame(0x7FF, length).data, sizeof received.data), 0);
  }
}

TEST_F(VcanSmokeTest, AnInterfaceWithAnMtuOfSixteenTakesNoFdFrames) {
  ASSERT_EQ(Shell("ip link add dev vcan16 type vcan && ip link set dev vcan16 mtu 16 && "
                  "ip link set dev vcan16 up"),
            0);
  const CanSocket sender("vcan16");
  EXPECT_TRUE(sender.IsOpen());
  EXPECT_EQ(sender.Send(MakeFrame(0x7FF, 8)), EINVAL);
  EXPECT_EQ(Shell("ip link del dev vcan16"), 0);
}

TEST_F(VcanSmokeTest, AnInterfaceCanBeTakenDownAndDeletedUnderAnOpenSocket) {
  ASSERT_EQ(Shell("ip link add dev vcan9 type vcan && ip link set dev vcan9 mtu 72 && "
                  "ip link set dev vcan9 up"),
            0);
  const CanSocket sender("vcan9");
  ASSERT_TRUE(sender.IsOpen());
  EXPECT_EQ(sender.Send(MakeFrame(0x7FF, 8)), 0);
  EXPECT_EQ(Shell("ip link set dev vcan9 down"), 0);
  EXPECT_EQ(sender.Send(MakeFrame(0x7FF, 8)), ENETDOWN);
  EXPECT_EQ(Shell("ip link del dev vcan9"), 0);
  EXPECT_EQ(sender.Send(MakeFrame(0x7FF, 8)), ENXIO);
}

}  // namespace
