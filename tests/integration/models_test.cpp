// Hands of every model against their simulated selves: over the USB adapters' own code, and all
// together on one bus.

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "korvane_diagnostics.h"
#include "korvane_sim/in_process_adapters.h"
#include "support/patient_link.h"
#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

constexpr std::uint8_t kId = 0x21;

using AnyHand = std::unique_ptr<KorvaneBase>;

struct Model {
  test::TestedHand tested;
  const sim::ModelRow* row;
  AnyHand (*by_zlg)(std::uint8_t adapter, std::uint8_t id);
  AnyHand (*by_hcan)(std::uint8_t adapter, std::uint8_t id);
};

void PrintTo(const Model& model, std::ostream* out) { *out << model.row->name; }

template <class Hand>
Model ModelOf(const test::TestedHand& tested, const sim::ModelRow& row) {
  return {tested, &row,
          [](std::uint8_t adapter, std::uint8_t id) -> AnyHand {
            return Hand::createHandByZlgcan(HandType::LEFT, id, adapter);
          },
          [](std::uint8_t adapter, std::uint8_t id) -> AnyHand {
            return Hand::createHandByHcan(HandType::LEFT, id, adapter);
          }};
}

const std::vector<Model>& Models() {
  static const std::vector<Model> models{ModelOf<KorvaneBrisa>(test::kBrisa, sim::kBrisa),
                                         ModelOf<KorvaneTessel>(test::kTessel, sim::kTessel),
                                         ModelOf<KorvaneQuill>(test::kQuill, sim::kQuill),
                                         ModelOf<KorvaneLumen>(test::kLumen, sim::kLumen),
                                         ModelOf<KorvaneVanta>(test::kVanta, sim::kVanta)};
  return models;
}

/// The bus pads the forty bytes of a KorvaneVanta to forty-eight; the hand's own values come first.
std::vector<short> OwnValues(std::vector<short> values, const Model& model) {
  EXPECT_GE(values.size(), model.tested.motors);
  values.resize(model.tested.motors);
  return values;
}

void ExpectIsItself(const KorvaneBase& hand, const Model& model, std::uint8_t id) {
  const std::string name = hand.GetVendorInfo().product_model;
  EXPECT_EQ(name.substr(0, model.row->product_model.size()), model.row->product_model);
  EXPECT_EQ(hand.GetDeviceInfo().device_id, id);
  OwnValues(hand.GetAllJointMotorPosi(), model);
}

/// A hand without motors answers with the default of all hands.
void ExpectMoves(KorvaneBase& hand, const Model& model) {
  const std::vector<short> targets(model.tested.motors, 700);
  if (model.row == &sim::kQuill) {
    EXPECT_EQ(hand.SetAllJointMotorPosi(targets), std::vector<short>());
    return;
  }
  EXPECT_EQ(OwnValues(hand.SetAllJointMotorPosi(targets), model), targets);
  while (OwnValues(hand.GetAllJointMotorPosi(), model) != targets) std::this_thread::yield();
  hand.SetControlMode(1, ControlMode::POSITION_CURRENT);
  EXPECT_EQ(hand.GetControlMode(1), ControlMode::POSITION_CURRENT);
  EXPECT_GE(hand.GetAllErrorReport().size(), model.tested.motors);
}

class EveryModel : public testing::TestWithParam<Model> {};

INSTANTIATE_TEST_SUITE_P(Is, EveryModel, testing::ValuesIn(Models()),
                         testing::PrintToStringParamName());

/// With hands of all models on the bus.
TEST_P(EveryModel, MovesOverBothAdapters) {
  const test::StreamCapture out(stdout);
  const Model& model = GetParam();
  sim::InProcessAdapters adapters;
  std::uint8_t id = kId;
  for (std::size_t i = 0; i < Models().size(); ++i) {
    const auto other_id = static_cast<std::uint8_t>(kId + i);
    adapters.Bus(0, 0).Add({*Models()[i].row, other_id});
    if (Models()[i].row == model.row) id = other_id;
  }
  for (const auto open : {model.by_zlg, model.by_hcan}) {
    const AnyHand hand = open(0, id);
    ASSERT_TRUE(hand->connected);
    test::BePatient(*hand);
    ExpectIsItself(*hand, model, id);
    ExpectMoves(*hand, model);
    if (model.row != &sim::kTessel) continue;
    hand->SetAllTemperReportPeriod(std::vector<unsigned short>(12, 1));
    hand->SetAllCurrentReportPeriod(std::vector<unsigned short>(12, 1));
    // Not the echo of the periods, which lands where a report would.
    while (hand->GetTemperatureReport(12) <= 1) std::this_thread::yield();
    while (hand->GetAllCurrentReport().size() != 12) std::this_thread::yield();
  }
}

/// One hand of each model on one channel of an adapter, asked from a thread each.
class HandsOnOneUsbChannel : public testing::Test {
 protected:
  HandsOnOneUsbChannel() {
    for (std::size_t i = 0; i < Models().size(); ++i) {
      adapters_.Bus(0, 0).Add({*Models()[i].row, IdOf(i)});
    }
  }

  static std::uint8_t IdOf(std::size_t i) { return static_cast<std::uint8_t>(kId + i); }

  static void ExpectAnswers(KorvaneBase& hand, std::uint64_t requests) {
    for (std::uint64_t i = 0; i < requests; ++i) {
      EXPECT_TRUE(Checked(hand, [](auto& h) { return h.GetAllJointMotorPosi(); }));
    }
    EXPECT_EQ(StatisticsOf(hand).replies, requests);
  }

  sim::InProcessAdapters adapters_;
};

// The library hands each frame to one reader, and each object reads for itself.
TEST_F(HandsOnOneUsbChannel, EachGetItsRepliesWhoeverReadsThem) {
  for (const auto open : {&Model::by_zlg, &Model::by_hcan}) {
    const test::StreamCapture out(stdout);
    const test::StreamCapture err(stderr);
    std::vector<AnyHand> hands;
    for (std::size_t i = 0; i < Models().size(); ++i) {
      hands.push_back((Models()[i].*open)(0, IdOf(i)));
      test::BePatient(*hands.back());
    }
    std::vector<std::thread> threads;
    threads.reserve(hands.size());
    for (const AnyHand& hand : hands) threads.emplace_back([&] { ExpectAnswers(*hand, 300); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(err.Text().find("did not match"), std::string::npos) << "a frame that was taken";
  }
}

TEST_F(HandsOnOneUsbChannel, ComeAndGoWhileTheOthersTalk) {
  const test::StreamCapture out(stdout);
  const AnyHand stays[] = {Models()[0].by_hcan(0, IdOf(0)), Models()[4].by_hcan(0, IdOf(4))};
  std::vector<std::thread> threads;
  for (const AnyHand& hand : stays) {
    test::BePatient(*hand);
    threads.emplace_back([&] { ExpectAnswers(*hand, 500); });
  }
  for (int i = 0; i < 20; ++i) {
    const AnyHand guest = Models()[3].by_hcan(0, IdOf(3));
    test::BePatient(*guest);
    ExpectAnswers(*guest, 3);
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace talvera::korvane
