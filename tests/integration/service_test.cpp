// The service interface against simulated hands: the same tests over CAN and on a serial line, as
// far as the two promise the same. Library and simulator were written apart, from the two ends.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "korvane_link.h"
#include "korvane_sim/serial_hand.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "serial/usb_device.h"
#include "support/bus_device.h"
#include "support/capture.h"
#include "util/clock.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using test::CaptureStreams;
using U16s = std::vector<std::uint16_t>;

constexpr std::uint8_t kId = 0x21;

/// A simulated hand and what a technician has of it.
class Bench {
 public:
  explicit Bench(std::unique_ptr<KorvaneBase> made)
      : hand(std::move(made)), service(dynamic_cast<PrivateKorvane&>(*hand)) {}
  virtual ~Bench() = default;

  virtual sim::ServiceSettings Settings() const = 0;
  virtual void WithHand(const std::function<void(sim::SimulatedHand&)>& action) = 0;
  virtual void Restart() = 0;
  /// A reply that came after the wait would be taken for that to the next request.
  virtual void WaitLong() { hand->SetFrameRecvTimeout(1000); }

  std::unique_ptr<KorvaneBase> hand;
  PrivateKorvane& service;
};

sim::SimulatedHand MakeHand(const sim::ModelRow& model) {
  sim::SimulatedHand hand(model, kId);
  hand.Firmware().SetRestartTime(milliseconds(10));
  return hand;
}

template <class Hand>
class CanBench : public Bench {
 public:
  explicit CanBench(const sim::ModelRow& model, sim::VirtualBus made = sim::VirtualBus())
      : Bench(
            std::make_unique<Hand>(HandType::RIGHT, kId, std::make_unique<test::BusDevice>(made))),
        bus(std::move(made)) {
    bus.Add(MakeHand(model));
  }

  sim::ServiceSettings Settings() const override { return bus.Settings(0); }
  void WithHand(const std::function<void(sim::SimulatedHand&)>& action) override {
    bus.WithHand(0, action);
  }
  void Restart() override { bus.Restart(0); }

  sim::VirtualBus bus;
};

class SerialBench : public Bench {
 public:
  SerialBench() : SerialBench(std::make_unique<sim::SerialHand>(MakeHand(sim::kBrisa))) {}
  ~SerialBench() override { hand.reset(); }

  sim::ServiceSettings Settings() const override { return device_->Settings(); }
  void WithHand(const std::function<void(sim::SimulatedHand&)>& action) override {
    device_->WithHand(action);
  }
  void Restart() override { device_->Restart(); }
  /// What is written to a terminal arrives when the kernel has found the time to carry it, which on
  /// a busy machine took longer than the second that an application may wait.
  void WaitLong() override {
    dynamic_cast<KorvaneBrisaSerialImpl&>(*hand).Device()->frame_recv_timeout_ms_ = 20000;
  }

 private:
  explicit SerialBench(std::unique_ptr<sim::SerialHand> device)
      : Bench(MakeSerial(device->Path())), device_(std::move(device)) {
    // Otherwise a reply is lost that comes before the library waits for it.
    SetReceiving(*hand, Receiving::BY_EVENTS);
  }

  static std::unique_ptr<KorvaneBase> MakeSerial(const std::string& path) {
    std::unique_ptr<KorvaneBase> hand;
    CaptureStreams([&] {
      hand = std::make_unique<KorvaneBrisaSerialImpl>(HandType::RIGHT, kId, path, 115200);
    });
    return hand;
  }

  std::unique_ptr<sim::SerialHand> device_;
};

struct Place {
  const char* name;
  std::size_t axes;
  std::unique_ptr<Bench> (*make)();
};

class Service : public testing::TestWithParam<Place> {
 protected:
  /// A line that was just opened may take a moment.
  void SetUp() override {
    CaptureStreams([&] {
      while (hand_.GetVendorInfo().product_model.empty()) std::this_thread::yield();
    });
    bench_->WaitLong();
  }
  void Restart() {
    bench_->Restart();
    for (bool silent = true; silent;) {
      bench_->WithHand([&](auto& hand) { silent = hand.IsSilent(SystemClock().Now()); });
    }
  }

  U16s All(std::uint16_t value) const { return U16s(GetParam().axes, value); }

  const std::unique_ptr<Bench> bench_ = GetParam().make();
  PrivateKorvane& service_ = bench_->service;
  KorvaneBase& hand_ = *bench_->hand;
};

INSTANTIATE_TEST_SUITE_P(
    , Service,
    testing::Values(
        Place{"BrisaOverCan", 10,
              []() -> std::unique_ptr<Bench> {
                return std::make_unique<CanBench<KorvaneBrisaCanPrivateImpl>>(sim::kBrisa);
              }},
        Place{"LumenOverCan", 4,
              []() -> std::unique_ptr<Bench> {
                return std::make_unique<CanBench<KorvaneLumenCanPrivateImpl>>(sim::kLumen);
              }},
        Place{"BrisaOnSerial", 10,
              []() -> std::unique_ptr<Bench> { return std::make_unique<SerialBench>(); }}),
    [](const auto& place) { return place.param.name; });

TEST_P(Service, SetsWhatATechnicianSets) {
  EXPECT_TRUE(service_.SetAxisHoming(1, -20));
  EXPECT_TRUE(service_.SetAxisMinPos(2, 100));
  EXPECT_TRUE(service_.SetAxisMaxPos(2, 3000));
  EXPECT_TRUE(service_.SetOverloadTorque(3, 200));
  EXPECT_TRUE(service_.SetOverloadProtectionTime(3, 201));
  EXPECT_TRUE(service_.SetProtectedTorque(3, 99));
  EXPECT_TRUE(service_.SetMinTorque(3, 7));
  EXPECT_TRUE(service_.SetProtectiveCurrent(4, 3250));
  EXPECT_TRUE(service_.SetRunMode(4, 1));
  EXPECT_TRUE(service_.SetRightOrLeft(1));
  EXPECT_TRUE(service_.SetTemperatureThreshold(90));
  EXPECT_EQ(service_.SetControlSource(1), 1);
  EXPECT_TRUE(service_.SetAllAxisCvpUploadInterval(0));
  const sim::ServiceSettings now = bench_->Settings();
  EXPECT_EQ(now.axes[0].homing, -20);
  EXPECT_EQ(now.axes[1].lower, 100);
  EXPECT_EQ(now.axes[1].upper, 3000);
  EXPECT_EQ(now.axes[2].overload_torque, 200);
  EXPECT_EQ(now.axes[2].overload_ms, 201);
  EXPECT_EQ(now.axes[2].protected_torque, 99);
  EXPECT_EQ(now.axes[2].min_torque, 7);
  EXPECT_EQ(now.axes[3].current, 3250);
  EXPECT_EQ(now.axes[3].mode, 1);
  EXPECT_EQ(now.side, 1);
  EXPECT_EQ(now.temperature_threshold, 90);
  EXPECT_EQ(service_.GetControlSource(), 1);
  const AxisLimitPos limits = service_.GetAxisLimitPos();
  ASSERT_EQ(limits.lower.size(), GetParam().axes);
  EXPECT_EQ(limits.lower[1], 100);
  EXPECT_EQ(limits.upper[1], 3000);
  EXPECT_EQ(service_.GetAllAxisPosRange()[1], 2900);
  EXPECT_TRUE(service_.ClearAllLimitPos());
  EXPECT_EQ(service_.GetAxisLimitPos().lower, All(0));
  EXPECT_TRUE(service_.SetPowerState(0));
  EXPECT_EQ(service_.GetPowerState(), 0);
}

TEST_P(Service, KeepsWhatIsSavedAndForgetsTheRest) {
  std::vector<std::uint8_t> number(19);
  for (std::size_t i = 0; i < number.size(); ++i) number[i] = static_cast<std::uint8_t>('A' + i);
  EXPECT_TRUE(service_.SetProductSerialNumber(number));
  EXPECT_TRUE(service_.SetAxisMaxPos(1, 2000));
  EXPECT_TRUE(service_.SaveParam());
  EXPECT_TRUE(service_.SetAxisMaxPos(1, 1000));
  EXPECT_TRUE(service_.SetAxisMaxPos(2, 1000));
  EXPECT_TRUE(service_.SetProductSerialNumber(std::vector<std::uint8_t>(19, 'z')));
  Restart();
  EXPECT_EQ(bench_->Settings().axes[0].upper, 2000) << "before it is asked";
  const U16s upper = service_.GetAxisLimitPos().upper;
  ASSERT_GE(upper.size(), 2U);
  EXPECT_EQ(upper[0], 2000);
  EXPECT_EQ(upper[1], 4096);
  const ProductSerialNumber kept = service_.GetProductSerialNumber();
  EXPECT_EQ(std::memcmp(&kept, number.data(), number.size()), 0);
  EXPECT_EQ(hand_.GetVendorInfo().serial_number, "ABCDEFGHIJKLMNOPQRS");
  bench_->WithHand([](sim::SimulatedHand& hand) {
    EXPECT_EQ(hand.GetIdentity().serial_number, "ABCDEFGHIJKLMNOPQRS") << "told in public too";
  });
}

TEST_P(Service, MovesAxesWithinTheirLimits) {
  EXPECT_TRUE(service_.SetAxisMaxPos(2, 500));
  U16s expected = All(700);
  expected[1] = 500;
  service_.SetAllAxisPos(All(700));
  while (service_.GetAllAxisPos() != expected) std::this_thread::yield();
  EXPECT_EQ(service_.SetAllAxisPos(All(700)).pos, expected);
  EXPECT_TRUE(service_.SetAxisHoming(1, 100));
  EXPECT_EQ(service_.GetSingleAxisPos(1), 600) << "counted from where the axis is at home";
  EXPECT_EQ(service_.GetAllActualAxisPos()[0], 700);
  service_.SetSingleAxisPos(3, 900);
  while (service_.GetSingleAxisPos(3) != 900) std::this_thread::yield();
  EXPECT_GE(hand_.SetJointMotorPosi(4, 300), 0);
  while (hand_.GetJointMotorPosi(4) != 300) std::this_thread::yield();
}

TEST_P(Service, ReadsEverythingThereIs) {
  const std::size_t axes = GetParam().axes;
  EXPECT_EQ(service_.GetAllAxisCurrent().size(), 10U);
  EXPECT_EQ(service_.GetAllAxisVelocity().size(), 10U);
  EXPECT_EQ(service_.GetAllAxisTemp().size(), 10U);
  EXPECT_GT(service_.GetAllAxisTemp()[axes - 1], 0);
  EXPECT_EQ(service_.GetAllLoadData().size(), 10U);
  EXPECT_EQ(service_.GetAllElectricMotorId()[axes - 1], axes);
  EXPECT_EQ(service_.GetAllSensorId().size(), 7U);
  EXPECT_EQ(service_.GetAllAxisCvp().size(), 60U);
  EXPECT_EQ(service_.GetAllActualAxisPos().size(), axes);
  EXPECT_EQ(hand_.GetVendorInfo().software_version.ToString(), "1.0.0");
  EXPECT_EQ(service_.GetFwVersion().firmware.ToString(), "1.0.0");
  EXPECT_EQ(service_.GetFwVersion().last, axes);
  EXPECT_EQ(hand_.GetDeviceInfo().device_id, kId);
  if (const auto* const brisa = dynamic_cast<KorvaneBrisa*>(&hand_)) {
    EXPECT_EQ(service_.GetAllFingertipSensorA().size(), 48U);
    EXPECT_EQ(service_.GetAllFingertipSensorB().size(), 32U);
    EXPECT_EQ(service_.GetAllFingertipSensorC().size(), 50U);
    EXPECT_EQ(brisa->GetAllTactileSensorData().size(), 7U);
    EXPECT_EQ(hand_.GetAllJointAngles().size(), 16U);
  }
}

TEST_P(Service, TellsErrorsUntilTheyAreCleared) {
  EXPECT_EQ(service_.GetErrorCode(), 0);
  bench_->WithHand([](sim::SimulatedHand& hand) { hand.JointMotor(1).SetFault(1); });
  EXPECT_NE(service_.GetErrorCode(), 0);
  bench_->WithHand([](sim::SimulatedHand& hand) { hand.JointMotor(1).SetFault(0); });
  EXPECT_NE(service_.GetErrorCode(), 0);
  EXPECT_TRUE(service_.SaveParam());
  Restart();
  EXPECT_NE(service_.GetErrorCode(), 0) << "they were saved too";
  EXPECT_TRUE(service_.ClearError());
  EXPECT_EQ(service_.GetErrorCode(), 0);
}

}  // namespace
}  // namespace talvera::korvane
