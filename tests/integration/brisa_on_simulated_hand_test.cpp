// A KorvaneBrisa against the simulated hand: the two were written apart, from the two ends of the
// protocol, and check each other here.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "protocol/can/korvane_brisa_can_impl.h"
#include "support/bus_device.h"
#include "support/capture.h"
#include "support/patient_link.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using test::BusDevice;

constexpr std::uint8_t kId = 0x27;

std::unique_ptr<KorvaneBrisaCanImpl> Connect(sim::VirtualBus& bus,
                                             const DispatchRules& rules = test::kLikeSocketCan) {
  auto hand = std::make_unique<KorvaneBrisaCanImpl>(HandType::RIGHT, kId,
                                                    std::make_unique<BusDevice>(bus, rules));
  test::BePatient(*hand);
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

// --- Several threads ------------------------------------------------------------------------

constexpr int kThreads = 8;

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

void Ask(const KorvaneBrisa& hand, int requests, int seed, Tally& tally) {
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
    threads.emplace_back([&, i] { Ask(hand, requests, i, tally); });
  }
  for (auto& thread : threads) thread.join();
}

TEST_P(BrisaOnSimulatedHand, AnswersEachOfManyThreadsItsOwnQuestion) {
  bus_.WithHand(0, GiveDistinctValues);
  const auto hand = Connect(bus_, GetParam());
  ASSERT_TRUE(EnableConcurrentCalls(*hand));
  Tally tally;
  AskFromThreads(*hand, 1000, tally);
  EXPECT_EQ(tally.right, kThreads * 1000);
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
  test::CaptureStreams([&] { AskFromThreads(*hand, 80, tally); });
  EXPECT_EQ(tally.wrong, 0);
  EXPECT_GT(tally.right, 0) << "how many depends on the machine, whose delays are failures too";
  EXPECT_EQ(tally.right + tally.failed, kThreads * 80);
  const auto statistics = bus_.Statistics();
  EXPECT_GT(statistics.duplicated, 0U);
  EXPECT_GT(statistics.reordered, 0U);
  EXPECT_GT(statistics.foreign, 0U);
}

}  // namespace
}  // namespace talvera::korvane
