// Hands of every model against their simulated selves: over the USB adapters' own code, and all
// together on one bus.

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "korvane_sim/in_process_adapters.h"
#include "protocol/can/korvane_brisa_can_impl.h"
#include "protocol/can/korvane_lumen_can_impl.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "protocol/can/korvane_tessel_can_impl.h"
#include "protocol/can/korvane_vanta_can_impl.h"
#include "support/bus_device.h"
#include "support/capture.h"

namespace talvera::korvane {
namespace {

using test::BusDevice;

constexpr int kPatientMs = 1000;
constexpr std::uint8_t kId = 0x21;

using AnyHand = std::unique_ptr<KorvaneBase>;

struct Model {
  const char* name;
  const sim::ModelRow* row;
  std::size_t joints;
  AnyHand (*by_zlg)(std::uint8_t adapter);
  AnyHand (*by_hcan)(std::uint8_t adapter);
  AnyHand (*on_bus)(sim::VirtualBus& bus, std::uint8_t id);
};

template <class Hand, class Impl>
Model ModelOf(const char* name, const sim::ModelRow& row, std::size_t joints) {
  return {name,
          &row,
          joints,
          [](std::uint8_t adapter) -> AnyHand {
            return Hand::createHandByZlgcan(HandType::LEFT, kId, adapter);
          },
          [](std::uint8_t adapter) -> AnyHand {
            return Hand::createHandByHcan(HandType::LEFT, kId, adapter);
          },
          [](sim::VirtualBus& bus, std::uint8_t id) -> AnyHand {
            return std::make_unique<Impl>(HandType::LEFT, id, std::make_unique<BusDevice>(bus));
          }};
}

const std::vector<Model>& Models() {
  static const std::vector<Model> models{
      ModelOf<KorvaneBrisa, KorvaneBrisaCanImpl>("Brisa", sim::kBrisa, 10),
      ModelOf<KorvaneTessel, KorvaneTesselCanImpl>("Tessel", sim::kTessel, 12),
      ModelOf<KorvaneQuill, KorvaneQuillCanImpl>("Quill", sim::kQuill, 10),
      ModelOf<KorvaneLumen, KorvaneLumenCanImpl>("Lumen", sim::kLumen, 4),
      ModelOf<KorvaneVanta, KorvaneVantaCanImpl>("Vanta", sim::kVanta, 20),
  };
  return models;
}

/// The bus pads the forty bytes of a KorvaneVanta to forty-eight; the hand's own values come first.
std::vector<short> OwnValues(std::vector<short> values, const Model& model) {
  EXPECT_GE(values.size(), model.joints);
  values.resize(model.joints);
  return values;
}

AnyHand Patient(AnyHand hand) {
  hand->SetFrameRecvTimeout(kPatientMs);
  return hand;
}

void ExpectIsItself(const KorvaneBase& hand, const Model& model, std::uint8_t id) {
  const std::string name = hand.GetVendorInfo().product_model;
  EXPECT_EQ(name.substr(0, model.row->product_model.size()), model.row->product_model);
  EXPECT_EQ(hand.GetDeviceInfo().device_id, id);
  OwnValues(hand.GetAllJointMotorPosi(), model);
}

/// A hand without motors answers with the default of all hands.
void ExpectMoves(KorvaneBase& hand, const Model& model) {
  const std::vector<short> targets(model.joints, 700);
  if (model.row == &sim::kQuill) {
    EXPECT_EQ(hand.SetAllJointMotorPosi(targets), std::vector<short>());
    return;
  }
  EXPECT_EQ(OwnValues(hand.SetAllJointMotorPosi(targets), model), targets);
  while (OwnValues(hand.GetAllJointMotorPosi(), model) != targets) std::this_thread::yield();
  hand.SetControlMode(1, ControlMode::POSITION_CURRENT);
  EXPECT_EQ(hand.GetControlMode(1), ControlMode::POSITION_CURRENT);
  EXPECT_GE(hand.GetAllErrorReport().size(), model.joints);
}

class EveryModel : public testing::TestWithParam<Model> {};

INSTANTIATE_TEST_SUITE_P(Is, EveryModel, testing::ValuesIn(Models()),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(EveryModel, MovesOverBothAdapters) {
  const test::StreamCapture out(stdout);
  const Model& model = GetParam();
  sim::InProcessAdapters adapters;
  adapters.Bus(0, 0).Add({*model.row, kId});
  for (const auto open : {model.by_zlg, model.by_hcan}) {
    const AnyHand hand = Patient(open(0));
    ASSERT_TRUE(hand->connected);
    ExpectIsItself(*hand, model, kId);
    ExpectMoves(*hand, model);
  }
}

TEST(DifferentHandsOnOneBus, AnswerForThemselves) {
  sim::VirtualBus bus;
  std::vector<AnyHand> hands;
  for (std::size_t i = 0; i < Models().size(); ++i) {
    const auto id = static_cast<std::uint8_t>(kId + i);
    bus.Add({*Models()[i].row, id});
    hands.push_back(Patient(Models()[i].on_bus(bus, id)));
  }
  auto& tessel = *hands[1];
  tessel.SetAllTemperReportPeriod(std::vector<unsigned short>(12, 1));
  tessel.SetAllCurrentReportPeriod(std::vector<unsigned short>(12, 1));
  for (std::size_t i = 0; i < hands.size(); ++i) {
    ExpectIsItself(*hands[i], Models()[i], static_cast<std::uint8_t>(kId + i));
    ExpectMoves(*hands[i], Models()[i]);
  }
  // Not the echo of the periods, which lands where a report would.
  while (tessel.GetTemperatureReport(12) <= 1) std::this_thread::yield();
  while (tessel.GetAllCurrentReport().size() != 12) std::this_thread::yield();
}

TEST(TesselOnItsBus, TellsTheFaultsThatTheHandReports) {
  sim::VirtualBus bus;
  bus.Add({sim::kTessel, kId});
  bus.WithHand(0,
               [](sim::SimulatedHand& hand) { hand.JointMotor(5).SetFault(sim::kMotorException); });
  AnyHand hand = Patient(Models()[1].on_bus(bus, kId));
  const auto written = test::CaptureStreams([&] {
    hand->SetAllErrorReportPeriod(std::vector<unsigned short>(12, 1));
    hand->SetAllTemperReportPeriod(std::vector<unsigned short>(12, 1));
    // The first report of faults is due before the first one of temperatures, which are above 1,
    // the period whose echo comes first.
    while (hand->GetTemperatureReport(1) <= 1) std::this_thread::yield();
    hand.reset();
  });
  EXPECT_NE(written.err.find("[ERROR]: Joint motor 5 motor exception!\n"), std::string::npos);
}

TEST(QuillOnItsBus, IsTaughtItsEnds) {
  sim::VirtualBus bus;
  bus.Add({sim::kQuill, kId});
  KorvaneQuillCanImpl hand(HandType::LEFT, kId, std::make_unique<BusDevice>(bus));
  hand.SetFrameRecvTimeout(kPatientMs);
  EXPECT_EQ(hand.GetAllTactileSensorDataRaw().size(), 6U);
  EXPECT_EQ(hand.GetTactileSensorDataRaw(Finger::PALM).data.size(), 78U);
}

}  // namespace
}  // namespace talvera::korvane
