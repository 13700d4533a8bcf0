// The SocketCAN adapter on a bus of the real kernel. Needs an interface of MTU 72 that is up, named
// by KORVANE_TEST_CAN, and the right to make others: scripts/kernel-guest provides both.

#include <gtest/gtest.h>
#include <linux/can.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "can/can_bus_device_socket_can.h"
#include "kernel/kernel_bus.h"
#include "korvane_diagnostics.h"
#include "korvane_link.h"
#include "korvane_lumen.h"
#include "korvane_observe.h"
#include "korvane_quill.h"
#include "korvane_tessel.h"
#include "korvane_vanta.h"
#include "protocol/can/korvane_brisa_can_impl.h"
#include "support/capture.h"
#include "support/patient_link.h"
#include "support/process_resources.h"
#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

using test::Interface;
using test::MeasureResources;
using test::RawSocket;
using test::Shell;
using test::SimulatorProcess;
using test::TestInterface;

using SocketCanOnTheKernel = test::OnTheKernelsBus;

std::unique_ptr<KorvaneBrisa> OpenHand(const std::string& interface, std::uint8_t id = 1) {
  auto hand = KorvaneBrisa::createHandSocketCan(HandType::RIGHT, id, interface);
  test::BePatient(*hand);
  return hand;
}

TEST_F(SocketCanOnTheKernel, DrivesHandsOfAllModelsOnOneBus) {
  SimulatorProcess simulator({"--can", TestInterface(), "--hand", "brisa:1", "--hand", "tessel:2",
                              "--hand", "quill:3", "--hand", "lumen:4", "--hand", "vanta:5"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const std::string bus = TestInterface();
  std::vector<std::unique_ptr<KorvaneBase>> hands;
  hands.push_back(KorvaneBrisa::createHandSocketCan(HandType::RIGHT, 1, bus));
  hands.push_back(KorvaneTessel::createHandSocketCan(HandType::RIGHT, 2, bus));
  hands.push_back(KorvaneQuill::createHandSocketCan(HandType::RIGHT, 3, bus));
  hands.push_back(KorvaneLumen::createHandSocketCan(HandType::RIGHT, 4, bus));
  hands.push_back(KorvaneVanta::createHandSocketCan(HandType::RIGHT, 5, bus));
  const std::size_t joints[] = {10, 12, 10, 4, 20};
  for (std::size_t i = 0; i < hands.size(); ++i) {
    test::BePatient(*hands[i]);
    EXPECT_EQ(hands[i]->GetDeviceInfo().device_id, i + 1);
    EXPECT_GE(hands[i]->GetAllJointMotorPosi().size(), joints[i]);
    if (i == 2) continue;  // no motors
    EXPECT_EQ(hands[i]->SetJointMotorPosi(2, 123), 123);
    while (hands[i]->GetJointMotorPosi(2) != 123) {
    }
  }
  EXPECT_EQ(dynamic_cast<KorvaneBrisa&>(*hands[0]).GetAllTactileSensorDataRaw().size(), 7U);
  const auto found =
      test::Repeat([&] { return KorvaneBrisa::GetDeviceInfoFromBroadcastSocketCan(bus); },
                   [](const DeviceInfo& info) { return info.device_id != 0; });
  EXPECT_NE(found.device_id, 0);
  EXPECT_EQ(simulator.End(SIGINT), 0);
}

TEST_F(SocketCanOnTheKernel, LeavesNothingBehindAfterManyHands) {
  SimulatorProcess simulator({"--can", TestInterface(), "--hand", "brisa:1"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto cycle = [] { return OpenHand(TestInterface())->GetJointMotorPosi(1); };
  EXPECT_EQ(cycle(), 4096);
  const auto before = MeasureResources();
  for (int i = 0; i < test::kManyCycles; ++i) ASSERT_EQ(cycle(), 4096) << i;
  const auto after = MeasureResources();
  EXPECT_EQ(after.descriptors, before.descriptors);
  // A thread that was joined may still be listed for a moment, now or before.
  EXPECT_LE(after.threads, before.threads + 1);
  EXPECT_LE(after.heap_bytes, before.heap_bytes + 4096);
}

TEST_F(SocketCanOnTheKernel, IgnoresFramesOfOtherDevices) {
  const RawSocket other(TestInterface());
  CanBusDeviceSocketCan device(TestInterface());
  ASSERT_TRUE(device.IsInit());
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<CanfdFrame> unmatched;
  device.BindCallbacks(
      [&](const CanfdFrame& frame) {
        const std::lock_guard lock(mutex);
        unmatched.push_back(frame);
        cv.notify_all();
      },
      [](std::uint32_t id) { return id; },
      [](std::uint32_t request, std::uint32_t received) { return request == received; });
  other.Send(0x03130128 | CAN_EFF_FLAG, 64, 1);
  other.SendClassic(0x123, 8);
  other.SendClassic(0x124, 0);
  std::unique_lock lock(mutex);
  cv.wait(lock, [&] { return unmatched.size() == 3; });
  EXPECT_EQ(unmatched[0].can_id, 0x03130128U);
  EXPECT_EQ(unmatched[0].len, 64);
  EXPECT_EQ(unmatched[1].can_id, 0x123U);
  EXPECT_EQ(unmatched[1].len, 8);
  EXPECT_EQ(unmatched[2].len, 0);
}

TEST_F(SocketCanOnTheKernel, SendsStandardFramesUpTo2047AndExtendedOnesAbove) {
  const RawSocket other(TestInterface());
  CanBusDeviceSocketCan device(TestInterface());
  std::uint8_t data[64] = {7};
  EXPECT_EQ(device.SendFrame(0x7FF, data, 64), 0);
  EXPECT_EQ(device.SendFrame(0x800, data, 10), 0);
  EXPECT_EQ(device.SendFrame(0x7FF, data, 65), -1);
  canfd_frame frame = other.Receive();
  EXPECT_EQ(frame.can_id, 0x7FFU);
  EXPECT_EQ(frame.len, 64);
  EXPECT_EQ(frame.data[0], 7);
  frame = other.Receive();
  EXPECT_EQ(frame.can_id, 0x800U | CAN_EFF_FLAG);
  EXPECT_EQ(frame.len, 10);
  EXPECT_EQ(frame.flags & CANFD_BRS, 0);
}

TEST_F(SocketCanOnTheKernel, TellsOfAnInterfaceThatIsNotThere) {
  const test::StreamCapture errors(stderr);
  const auto hand = OpenHand("nosuchcan0");
  EXPECT_FALSE(hand->connected);
  const Failure open = LastFailure(*hand);
  EXPECT_EQ(open.text, "[ERROR]: Failed to get interface index for nosuchcan0");
  EXPECT_NE(AdviceOn(open).find("ip link add dev nosuchcan0 type vcan"), std::string::npos);
  EXPECT_EQ(hand->SetJointMotorPosi(1, 1), -1);
  const std::string told = errors.Text();
  EXPECT_EQ(told.find("[ERROR]: Failed to get interface index for nosuchcan0\n"
                      "[ERROR]: Failed to open SocketCAN device: nosuchcan0\n"),
            0U)
      << told;
  EXPECT_NE(told.find("request send failed"), std::string::npos);
  EXPECT_EQ(LastFailure(*hand).kind, FailureKind::NO_LINK);
  EXPECT_EQ(LastFailure(*hand).system_error, ENODEV);
}

TEST_F(SocketCanOnTheKernel, CutsALongNameToFifteenCharacters) {
  const Interface interface("can234567890123");
  EXPECT_TRUE(CanBusDeviceSocketCan("can2345678901234").IsInit());
  EXPECT_TRUE(CanBusDeviceSocketCan("can234567890123").IsInit());
}

TEST_F(SocketCanOnTheKernel, FailsWhileTheInterfaceIsDownAndComesBackWithIt) {
  const Interface interface("vcan_down");
  SimulatorProcess simulator({"--can", interface.Name(), "--hand", "brisa:1"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto hand = OpenHand(interface.Name());
  EXPECT_EQ(hand->SetJointMotorPosi(1, 5), 5);
  interface.Down();
  EXPECT_EQ(hand->SetJointMotorPosi(1, 6), -1);
  EXPECT_EQ(LastFailure(*hand).kind, FailureKind::SEND_FAILED);
  EXPECT_EQ(LastFailure(*hand).system_error, ENETDOWN);
  EXPECT_TRUE(hand->GetAllJointMotorPosi().empty());
  interface.Up();
  EXPECT_EQ(hand->SetJointMotorPosi(1, 7), 7);
  EXPECT_FALSE(StatisticsOf(*hand).link_lost);
}

TEST_F(SocketCanOnTheKernel, SurvivesTheEndOfItsInterface) {
  Interface interface("vcan_gone");
  const auto hand = OpenHand(interface.Name());
  ASSERT_TRUE(hand->connected);
  interface.Delete();
  EXPECT_EQ(hand->SetJointMotorPosi(1, 5), -1);
  EXPECT_TRUE(hand->GetAllTactileSensorDataRaw().empty());
  EXPECT_TRUE(StatisticsOf(*hand).link_lost);
}

TEST_F(SocketCanOnTheKernel, CannotSendWhereTheInterfaceCarriesNoLongFrames) {
  const Interface interface("vcan_classic", 16);
  const auto hand = OpenHand(interface.Name());
  EXPECT_EQ(hand->SetJointMotorPosi(1, 5), -1);
  EXPECT_EQ(LastFailure(*hand).system_error, EINVAL);
}

// Asleep while nothing comes: a hand costs next to nothing then, and wakes for whatever is to be
// done.
TEST_F(SocketCanOnTheKernel, ReceivesByEventsWhenToldTo) {
  Interface interface("vcan_events");
  SimulatorProcess simulator({"--can", interface.Name(), "--hand", "brisa:1"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  SetDefaultReceiving(Receiving::BY_EVENTS);
  const auto hand = OpenHand(interface.Name());
  SetDefaultReceiving(Receiving::AS_EVER);
  std::vector<FrameEvent> events;
  ObserveFrames(*hand, [&events](const FrameEvent& event) { events.push_back(event); });
  EXPECT_EQ(hand->SetJointMotorPosi(1, 5), 5);
  ObserveFrames(*hand, {});
  ASSERT_EQ(events.size(), 2U);
  EXPECT_TRUE(events[0].sent);
  EXPECT_EQ(events[1].id, 0x01130101U);
  for (const auto how : {Receiving::AS_EVER, Receiving::BY_EVENTS}) {
    SetReceiving(*hand, how);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(hand->SetJointMotorPosi(1, 7), 7);
  }
  const std::clock_t before = std::clock();
  usleep(300'000);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5) << "spins";
  interface.Down();
  EXPECT_EQ(hand->SetJointMotorPosi(1, 6), -1);
  interface.Up();
  EXPECT_EQ(hand->SetJointMotorPosi(1, 8), 8);
  interface.Delete();
  EXPECT_EQ(hand->SetJointMotorPosi(1, 9), -1);
  EXPECT_TRUE(StatisticsOf(*hand).link_lost);
}

/// A request that waits when the interface goes, or goes down, gets no reply and nothing worse.
TEST_F(SocketCanOnTheKernel, ARequestOutlivesItsInterface) {
  for (const auto how : {Receiving::AS_EVER, Receiving::BY_EVENTS}) {
    for (const bool gone : {false, true}) {
      SCOPED_TRACE(testing::Message() << "by events " << (how == Receiving::BY_EVENTS) << gone);
      Interface interface("vcan_wait");
      const RawSocket other(interface.Name());
      const auto hand = OpenHand(interface.Name());
      hand->SetFrameRecvTimeout(1000);
      SetReceiving(*hand, how);
      auto failure = std::async(std::launch::async, [&hand] {
        hand->GetJointMotorPosi(1);
        return LastFailure(*hand);
      });
      other.Receive();
      gone ? interface.Delete() : interface.Down();
      EXPECT_EQ(failure.get().kind, FailureKind::NO_REPLY);
      EXPECT_EQ(hand->SetJointMotorPosi(1, 5), -1);
      EXPECT_EQ(StatisticsOf(*hand).link_lost, gone);
    }
  }
}

TEST_F(SocketCanOnTheKernel, FailsWhenTheSendBufferIsFull) {
  const Interface interface("vcan_full");
  // A bucket that lets almost nothing through: frames pile up in the interface's queue.
  Shell("tc qdisc add dev " + interface.Name() + " root tbf rate 8bit burst 80 limit 500");
  CanBusDeviceSocketCan device(interface.Name());
  std::uint8_t data[64] = {};
  int sent = 0;
  while (sent < 10000 && device.SendFrame(0x800, data, 64) == 0) ++sent;
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 10000);
  EXPECT_EQ(device.SendFrame(0x800, data, 64), -1);
}

}  // namespace
}  // namespace talvera::korvane
