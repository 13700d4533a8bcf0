// A KorvaneBrisa through the two USB adapters' own code, on adapters inside the process: opening,
// sharing and closing of devices as applications see it.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "korvane_brisa.h"
#include "korvane_sim/in_process_adapters.h"
#include "support/capture.h"
#include "support/process_resources.h"

namespace talvera::korvane {
namespace {

using test::MeasureResources;

constexpr int kPatientMs = 1000;

struct AdapterKind {
  const char* name;
  const char* serial_number;
  /// Where a second hand of the same device is heard: a ZLG channel has one owner, an HCAN device
  /// opens the channel of its first hand alone.
  std::uint8_t second_channel;
  std::unique_ptr<KorvaneBrisa> (*by_index)(HandType, std::uint8_t, std::uint8_t, std::uint8_t);
  std::unique_ptr<KorvaneBrisa> (*by_serial)(HandType, std::uint8_t, const std::string&,
                                             std::uint8_t);
};

class BrisaOnAdapters : public testing::TestWithParam<AdapterKind> {
 protected:
  BrisaOnAdapters() {
    adapters_.Bus(0, 0).Add({sim::kBrisa, 1});
    adapters_.Bus(0, 1).Add({sim::kBrisa, 1});
    adapters_.Bus(1, 0).Add({sim::kBrisa, 3});
  }

  static std::unique_ptr<KorvaneBrisa> Open(std::uint8_t id, std::uint8_t adapter,
                                            std::uint8_t channel) {
    auto hand = GetParam().by_index(HandType::LEFT, id, adapter, channel);
    hand->SetFrameRecvTimeout(kPatientMs);
    return hand;
  }

  sim::InProcessAdapters adapters_{{2, 2}};
};

INSTANTIATE_TEST_SUITE_P(
    Both, BrisaOnAdapters,
    testing::Values(AdapterKind{"Zlg", "ZLG-0001", 1, &KorvaneBrisa::createHandByZlgcan,
                                &KorvaneBrisa::createHandByZlgcan},
                    AdapterKind{"Hcan", "HCAN-0001", 0, &KorvaneBrisa::createHandByHcan,
                                &KorvaneBrisa::createHandByHcan}),
    [](const auto& tested) { return tested.param.name; });

TEST_P(BrisaOnAdapters, IsFoundByIndexAndByAPartOfTheSerialNumber) {
  const auto by_index = Open(1, 0, 0);
  EXPECT_TRUE(by_index->connected);
  EXPECT_EQ(by_index->SetJointMotorPosi(1, 77), 77);

  const auto by_serial = GetParam().by_serial(HandType::LEFT, 3, GetParam().serial_number, 0);
  EXPECT_TRUE(by_serial->connected);
  by_serial->SetFrameRecvTimeout(kPatientMs);
  EXPECT_EQ(by_serial->SetJointMotorPosi(1, 78), 78);
  EXPECT_EQ(by_index->SetJointMotorPosi(1, 79), 79) << "a scan must leave a device in use alone";
}

TEST_P(BrisaOnAdapters, IsNotConnectedWhereThereIsNoAdapter) {
  const auto missing = GetParam().by_index(HandType::LEFT, 1, 7, 0);
  EXPECT_FALSE(missing->connected);
  EXPECT_EQ(missing->SetJointMotorPosi(1, 1), -1);
  EXPECT_FALSE(GetParam().by_serial(HandType::LEFT, 1, "no such number", 0)->connected);
}

TEST_P(BrisaOnAdapters, SharesADeviceInAnyOrderOfClosing) {
  for (const bool first_goes_first : {true, false}) {
    std::array<std::unique_ptr<KorvaneBrisa>, 2> hands{Open(1, 0, 0),
                                                       Open(1, 0, GetParam().second_channel)};
    hands[first_goes_first ? 0 : 1].reset();
    auto& left = hands[first_goes_first ? 1 : 0];
    EXPECT_EQ(left->SetJointMotorPosi(2, 9), 9);
    left.reset();
    EXPECT_EQ(Open(1, 0, 0)->SetJointMotorPosi(2, 10), 10) << "the device must open again";
  }
}

TEST_P(BrisaOnAdapters, LeavesNothingBehindAfterManyHands) {
  const test::StreamCapture out(stdout);
  const auto cycle = [] { return Open(1, 0, 0)->GetCurrentThreshold(1); };
  const short expected = cycle();
  EXPECT_GT(expected, 0);
  const auto before = MeasureResources();
  for (int i = 0; i < test::kManyCycles; ++i) ASSERT_EQ(cycle(), expected) << i;
  const auto after = MeasureResources();
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_LE(after.heap_bytes, before.heap_bytes + 4096);
}

TEST_P(BrisaOnAdapters, EndsCleanlyWhenTheHandVanished) {
  const auto hand = Open(1, 0, 0);
  hand->SetFrameRecvTimeout(10);
  adapters_.Bus(0, 0).SetPlugged(0, false);
  EXPECT_EQ(hand->SetJointMotorPosi(1, 1), -1);
}

TEST(BrisaOnTwoChannels, HandsDoNotHearEachOther) {
  sim::InProcessAdapters adapters;
  adapters.Bus(0, 0).Add({sim::kBrisa, 1});
  adapters.Bus(0, 1).Add({sim::kBrisa, 1});
  const auto first = KorvaneBrisa::createHandByZlgcan(HandType::LEFT, 1, 0, 0);
  const auto second = KorvaneBrisa::createHandByZlgcan(HandType::LEFT, 1, 0, 1);
  first->SetFrameRecvTimeout(kPatientMs);
  second->SetFrameRecvTimeout(kPatientMs);
  first->SetCurrentThreshold(1, 11);
  second->SetCurrentThreshold(1, 22);
  EXPECT_EQ(first->GetCurrentThreshold(1), 11);
  EXPECT_EQ(second->GetCurrentThreshold(1), 22);
}

TEST(BroadcastQuery, FindsAHandOnAnUnknownBus) {
  sim::InProcessAdapters adapters;
  EXPECT_EQ(KorvaneBrisa::GetDeviceInfoFromBroadcast(0, 0).device_id, 0) << "an empty bus";
  adapters.Bus(0, 0).Add({sim::kBrisa, 0x31});
  // A busy machine may let the fixed 50 ms pass; asking again is what a user does too.
  DeviceInfo info{};
  for (int i = 0; i < 100 && info.device_id == 0; ++i) {
    info = KorvaneBrisa::GetDeviceInfoFromBroadcast("ZLG-0000", 0);
  }
  EXPECT_EQ(info.device_id, 0x31);
  EXPECT_EQ(KorvaneBrisa::GetDeviceInfoFromBroadcast(5, 0).device_id, 0) << "no such adapter";
}

}  // namespace
}  // namespace talvera::korvane
