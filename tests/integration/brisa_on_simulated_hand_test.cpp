// A KorvaneBrisa against the simulated hand: the two were written apart, from the two ends of the
// protocol, and check each other here.

#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <thread>

#include "protocol/can/korvane_brisa_can_impl.h"
#include "support/bus_device.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using test::BusDevice;

constexpr std::uint8_t kId = 0x27;

std::unique_ptr<KorvaneBrisaCanImpl> Connect(sim::VirtualBus& bus,
                                             const DispatchRules& rules = test::kLikeSocketCan,
                                             std::uint8_t id = kId) {
  auto hand = std::make_unique<KorvaneBrisaCanImpl>(HandType::RIGHT, id,
                                                    std::make_unique<BusDevice>(bus, rules));
  hand->SetFrameRecvTimeout(1000);
  return hand;
}

class BrisaOnSimulatedHand : public testing::TestWithParam<DispatchRules> {
 protected:
  BrisaOnSimulatedHand() { bus_.Add({sim::kBrisa, kId}); }

  sim::VirtualBus bus_;
};

INSTANTIATE_TEST_SUITE_P(Adapters, BrisaOnSimulatedHand,
                         testing::Values(test::kLikeSocketCan, test::kLikeHcan),
                         [](const auto& tested) {
                           return tested.param.process_every_frame ? "Hcan" : "SocketCan";
                         });

TEST_P(BrisaOnSimulatedHand, MovesToWhereItIsSent) {
  const auto hand = Connect(bus_, GetParam());
  EXPECT_EQ(hand->SetJointMotorPosi(3, 1234), 1234);
  while (hand->GetJointMotorPosi(3) != 1234) std::this_thread::yield();
  EXPECT_EQ(hand->GetJointMotorPosi(4), 4096);

  const std::vector<short> targets{0, 100, 200, 300, 400, 500, 600, 700, 800, 900};
  EXPECT_EQ(hand->SetAllJointMotorPosi(targets), targets);
  while (hand->GetAllJointMotorPosi() != targets) std::this_thread::yield();
}

TEST_P(BrisaOnSimulatedHand, KeepsWhatIsSetForEachMotor) {
  const auto hand = Connect(bus_, GetParam());
  hand->SetCurrentThreshold(2, 321);
  EXPECT_EQ(hand->GetCurrentThreshold(2), 321);
  hand->SetAllCurrentThreshold({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
  EXPECT_EQ(hand->GetAllCurrentThreshold(), (std::vector<short>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));

  // Modes go out without waiting, and the answers come in the order of the requests.
  hand->SetControlMode(1, ControlMode::VELOCITY_CURRENT);
  EXPECT_EQ(hand->GetControlMode(1), ControlMode::VELOCITY_CURRENT);
  hand->SetAllControlMode(std::vector<std::uint8_t>(10, 6));
  EXPECT_EQ(hand->GetAllControlMode(), std::vector<std::uint8_t>(10, 6));
}

TEST_P(BrisaOnSimulatedHand, TellsReportsThatTheHandMeasured) {
  bus_.WithHand(0, [](sim::SimulatedHand& hand) {
    hand.JointMotor(4).SetFault(sim::kMotorException);
    hand.JointMotor(4).SetTemperature(55);
  });
  const auto hand = Connect(bus_, GetParam());
  EXPECT_EQ(hand->GetErrorReport(4), sim::kMotorException);
  EXPECT_EQ(hand->GetErrorReport(5), 0);
  EXPECT_EQ(hand->GetAllErrorReport().at(3), sim::kMotorException);
  EXPECT_GT(hand->GetTemperatureReport(4), hand->GetTemperatureReport(5));
  EXPECT_EQ(hand->GetAllTemperatureReport().size(), 10U);
  EXPECT_EQ(hand->GetAllCurrentReport().size(), 10U);
  EXPECT_EQ(hand->GetAllJointMotorVelo().size(), 10U);
}

TEST_P(BrisaOnSimulatedHand, TakesMixedCommands) {
  const auto hand = Connect(bus_, GetParam());
  std::vector<MixCtrl> targets(2);
  for (std::uint8_t i = 0; i < 2; ++i) {
    targets[i].joint_index = (i + 1) & 0x1F;
    targets[i].mix_mode = 6;
    targets[i].position = static_cast<short>(1000 + i);
    targets[i].velocity = short{20000};
    targets[i].current = short{500};
  }
  hand->MixCtrlJointMotor(targets);
  EXPECT_EQ(hand->GetControlMode(2), ControlMode::POSITION_VELOCITY_CURRENT);
  while (hand->GetJointMotorPosi(2) != 1001) std::this_thread::yield();
}

TEST_P(BrisaOnSimulatedHand, GoesThroughItsGesturesAndTellsItsAngles) {
  const auto hand = Connect(bus_, GetParam());
  for (int gesture = 0; gesture <= 16; ++gesture) {
    hand->SetHandGesture(gesture);
    const std::vector<int> inputs = hand->solver->SetHandGesture(gesture);
    const std::vector<short> expected(inputs.begin(), inputs.end());
    bus_.WithHand(0, [&](sim::SimulatedHand& device) {
      for (std::size_t i = 0; i < expected.size(); ++i)
        device.JointMotor(i + 1).PlaceAt(expected[i]);
    });
    EXPECT_EQ(hand->GetAllJointMotorPosi(), expected) << "gesture " << gesture;
  }
  EXPECT_EQ(hand->GetAllActiveJointAngles().size(), 10U);
  EXPECT_EQ(hand->GetAllJointAngles().size(), 16U);
  const std::vector<double> angles(10, 0.1);
  EXPECT_EQ(hand->SetAllActiveJointAngles(angles).size(), 10U);
}

TEST_P(BrisaOnSimulatedHand, IsItself) {
  const auto hand = Connect(bus_, GetParam());
  const VendorInfo vendor = hand->GetVendorInfo();
  EXPECT_EQ(vendor.product_model.size(), 16U);
  EXPECT_EQ(vendor.product_model.substr(0, 12), "KorvaneBrisa");
  EXPECT_EQ(vendor.active_dof, 10);
  EXPECT_EQ(hand->GetDeviceInfo().device_id, kId);

  hand->SetDeviceId(5);
  EXPECT_EQ(hand->GetDeviceInfo().device_id, 5);
}

TEST_P(BrisaOnSimulatedHand, FeelsMoreWhenItCloses) {
  const auto hand = Connect(bus_, GetParam());
  const auto sum = [&] {
    const auto summary = hand->GetTactileSensorData(Finger::INDEX);
    return std::accumulate(summary.begin(), summary.end(), 0);
  };
  const int open = sum();
  bus_.WithHand(0, [](sim::SimulatedHand& device) { device.SetContact(2, 1.0); });
  EXPECT_GT(sum(), open);
}

TEST(BrisaTactileArrays, AreWholeOverAnAdapterThatKeepsAllFrames) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, kId});
  const auto hand = Connect(bus);
  for (const Finger finger : hand->GetSensorOrder()) {
    EXPECT_EQ(hand->GetTactileSensorDataRaw(finger).data.size(), hand->GetSensorDataLength(finger));
  }
  // The hand also sends 10 frames for all sensors; each record must be what the sensor itself says.
  const auto all = hand->GetAllTactileSensorDataRaw();
  ASSERT_EQ(all.size(), 7U);
  bus.WithHand(0, [&](sim::SimulatedHand& device) {
    for (const auto& record : all) {
      const auto number = static_cast<std::size_t>(record.finger);
      EXPECT_EQ(record.data, device.TactileBytes(number, record.data.size()));
    }
  });
}

TEST(BrisaTactileArrays, AreCutOffOverAnAdapterThatStoresOneFrame) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, kId});
  const auto hand = Connect(bus, test::kLikeHcan);
  hand->SetFrameRecvTimeout(10);
  EXPECT_EQ(hand->GetTactileSensorDataRaw(Finger::INDEX).data.size(), 18U);
  EXPECT_EQ(hand->GetTactileSensorDataRaw(Finger::DORSUM).data.size(), 62U);
}

TEST(BrisaOnOneBus, TwoHandsAnswerForThemselves) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, 1});
  bus.Add({sim::kBrisa, 2});
  const auto first = Connect(bus, test::kLikeSocketCan, 1);
  const auto second = Connect(bus, test::kLikeSocketCan, 2);
  first->SetCurrentThreshold(1, 111);
  second->SetCurrentThreshold(1, 222);
  EXPECT_EQ(first->GetCurrentThreshold(1), 111);
  EXPECT_EQ(second->GetCurrentThreshold(1), 222);
}

TEST(BrisaThatVanishes, FailsInTimeAndComesBack) {
  sim::VirtualBus bus;
  bus.Add({sim::kBrisa, kId});
  {
    const auto hand = Connect(bus);
    hand->SetFrameRecvTimeout(10);
    bus.SetPlugged(0, false);
    EXPECT_EQ(hand->SetJointMotorPosi(1, 5), -1);
    EXPECT_TRUE(hand->GetAllJointMotorPosi().empty());
    bus.SetPlugged(0, true);
    hand->SetFrameRecvTimeout(1000);
    EXPECT_EQ(hand->SetJointMotorPosi(1, 5), 5);
    bus.SetPlugged(0, false);
  }  // destroying a hand whose device is gone must neither hang nor crash
}

// --- Several threads ------------------------------------------------------------------------

constexpr int kThreads = 8;
constexpr int kRequests = 1000;

/// Every question has an answer that no other question has.
short ThresholdOf(int motor) { return static_cast<short>(100 + motor); }
short PositionOf(int motor) { return static_cast<short>(2000 + motor); }

void GiveDistinctValues(sim::SimulatedHand& hand) {
  for (int motor = 1; motor <= 10; ++motor) {
    auto& joint = hand.JointMotor(static_cast<std::size_t>(motor));
    joint.SetThreshold(ThresholdOf(motor));
    joint.PlaceAt(PositionOf(motor));
  }
}

struct Tally {
  std::atomic<int> right{0};
  std::atomic<int> failed{0};
  std::atomic<int> wrong{0};

  void Count(short answer, short expected) {
    ++(answer == expected ? right : answer == 0 ? failed : wrong);
  }
};

void AskMany(const KorvaneBrisa& hand, int requests, int seed, Tally& tally) {
  for (int i = 0; i < requests; ++i) {
    const int motor = (seed * 7 + i) % 10 + 1;
    const auto index = static_cast<std::uint8_t>(motor);
    if ((seed + i) % 2 == 0) {
      tally.Count(hand.GetCurrentThreshold(index), ThresholdOf(motor));
    } else {
      tally.Count(hand.GetJointMotorPosi(index), PositionOf(motor));
    }
  }
}

void AskFromThreads(const KorvaneBrisa& hand, int requests, Tally& tally) {
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] { AskMany(hand, requests, i, tally); });
  }
  for (auto& thread : threads) thread.join();
}

TEST_P(BrisaOnSimulatedHand, AnswersEachOfManyThreadsItsOwnQuestion) {
  bus_.WithHand(0, GiveDistinctValues);
  const auto hand = Connect(bus_, GetParam());
  ASSERT_TRUE(EnableConcurrentCalls(*hand));
  Tally tally;
  AskFromThreads(*hand, kRequests, tally);
  EXPECT_EQ(tally.right, kThreads * kRequests);
}

TEST_P(BrisaOnSimulatedHand, AnswersOneThreadThroughTheQueue) {
  bus_.WithHand(0, GiveDistinctValues);
  const auto hand = Connect(bus_, GetParam());
  Tally tally;
  AskMany(*hand, kRequests, 0, tally);
  EXPECT_EQ(tally.right, kRequests);
}

TEST_P(BrisaOnSimulatedHand, NeverAnswersWithAnotherValueOnABadBus) {
  bus_.WithHand(0, GiveDistinctValues);
  sim::Faults faults;
  faults.loss = 0.05;
  faults.duplicate = 0.1;
  faults.reorder = 0.1;
  faults.foreign = 0.1;
  faults.reorder_window = milliseconds(20);  // past the receive time-out: late answers
  bus_.SetFaults(faults);
  const auto hand = Connect(bus_, GetParam());
  ASSERT_TRUE(EnableConcurrentCalls(*hand));
  hand->SetFrameRecvTimeout(10);
  Tally tally;
  testing::internal::CaptureStderr();
  AskFromThreads(*hand, kRequests, tally);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(tally.wrong, 0);
  EXPECT_GT(tally.right, kThreads * kRequests / 2);
  EXPECT_EQ(tally.right + tally.failed, kThreads * kRequests);
  const auto statistics = bus_.Statistics();
  EXPECT_GT(statistics.duplicated, 0U);
  EXPECT_GT(statistics.reordered, 0U);
  EXPECT_GT(statistics.foreign, 0U);
}

}  // namespace
}  // namespace talvera::korvane
