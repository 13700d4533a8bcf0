// A KorvaneBrisa through the two USB adapters' own code, on adapters inside the process: opening,
// sharing and closing of devices as applications see it.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "korvane_brisa.h"
#include "korvane_sim/in_process_adapters.h"
#include "support/capture.h"
#include "support/patient_link.h"
#include "support/process_resources.h"

namespace talvera::korvane {
namespace {

using Hand = std::unique_ptr<KorvaneBrisa>;

struct AdapterKind {
  const char* name;
  Hand (*open)(HandType, std::uint8_t, std::uint8_t, std::uint8_t);
};

class BrisaOnAdapters : public testing::TestWithParam<AdapterKind> {
 protected:
  BrisaOnAdapters() { adapters_.Bus(0, 0).Add({sim::kBrisa, 1}); }

  static Hand Open() {
    auto hand = GetParam().open(HandType::LEFT, 1, 0, 0);
    test::BePatient(*hand);
    return hand;
  }

  sim::InProcessAdapters adapters_;
};

INSTANTIATE_TEST_SUITE_P(Both, BrisaOnAdapters,
                         testing::Values(AdapterKind{"Zlg", &KorvaneBrisa::createHandByZlgcan},
                                         AdapterKind{"Hcan", &KorvaneBrisa::createHandByHcan}),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(BrisaOnAdapters, LeavesNothingBehindAfterManyHands) {
  const test::StreamCapture out(stdout);
  const short expected = Open()->GetCurrentThreshold(1);
  EXPECT_GT(expected, 0);
  const auto run = [expected](int cycles) {
    for (int i = 0; i < cycles; ++i) ASSERT_EQ(Open()->GetCurrentThreshold(1), expected) << i;
  };
  run(20);  // Until every buffer that the process keeps is as large as it gets.
  const auto before = test::MeasureResources();
  run(40);  // Each takes the 50 ms that a receive thread waits for frames.
  const auto after = test::MeasureResources();
  EXPECT_EQ(after.descriptors, before.descriptors);
  // A thread that was joined may still be listed for a moment, now or before.
  EXPECT_LE(after.threads, before.threads + 1);
  EXPECT_LE(after.heap_bytes, before.heap_bytes + 512) << "less than one allocation a cycle";
}

template <class Where>
int AskForId(const Where& where, std::uint8_t channel) {
  return test::Repeat(
      [&] { return KorvaneBrisa::GetDeviceInfoFromBroadcast(where, channel).device_id; },
      [](std::uint8_t id) { return id != 0; });
}

TEST(BroadcastQuery, FindsTheHandOfTheBusThatIsAskedAndLeavesOthersAlone) {
  sim::InProcessAdapters adapters({2, 2});
  EXPECT_EQ(KorvaneBrisa::GetDeviceInfoFromBroadcast(0, 0).device_id, 0) << "an empty bus";
  EXPECT_EQ(KorvaneBrisa::GetDeviceInfoFromBroadcast(5, 0).device_id, 0) << "no such adapter";
  adapters.Bus(1, 0).Add({sim::kBrisa, 1});
  const auto live = KorvaneBrisa::createHandByZlgcan(HandType::LEFT, 1, 1, 0);
  test::BePatient(*live);
  std::uint8_t id = 0x31;
  for (const auto& [adapter, channel] : {std::pair(0, 0), std::pair(0, 1), std::pair(1, 1)}) {
    const auto on_channel = static_cast<std::uint8_t>(channel);
    adapters.Bus(static_cast<std::size_t>(adapter), on_channel).Add({sim::kBrisa, ++id});
    EXPECT_EQ(AskForId(static_cast<std::uint8_t>(adapter), on_channel), id);
    EXPECT_EQ(AskForId("ZLG-000" + std::to_string(adapter), on_channel), id);
    EXPECT_EQ(live->SetJointMotorPosi(1, id), id);
  }
}

}  // namespace
}  // namespace talvera::korvane
