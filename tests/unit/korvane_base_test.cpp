// The hand interface itself: records, enumerations, and what a model does that overrides nothing.

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

#include "korvane_brisa.h"
#include "private_korvane.h"
#include "support/capture.h"

namespace talvera::korvane {
namespace {

using test::StreamCapture;

TEST(Version, ShowsItsBuildOnlyIfThereIsOne) {
  const struct {
    Version version;
    const char* text;
  } rows[] = {{{1, 2, 3, 0}, "1.2.3"},
              {{1, 2, 3, 4}, "1.2.3.4"},
              {{0, 0, 0, 1}, "0.0.0.1"},
              {{0, 0, 0, 0}, "0.0.0"},
              {{255, 10, 65, 66}, "255.10.65.66"}};
  for (const auto& row : rows) EXPECT_EQ(row.version.ToString(), row.text);
}

TEST(VendorInfo, ShowsOneLineForEachField) {
  const VendorInfo info{"Model", "Serial", {1, 2, 3, 0}, {4, 5, 6, 7}, -24000, 65};
  EXPECT_EQ(info.ToString(),
            "\t[Product Model: Model]\n\t[Serial Number: Serial]\n\t[Hardware Version: 1.2.3]\n"
            "\t[Software Version: 4.5.6.7]\n\t[Supply Voltage: -24000mV]\n"
            "\t[Active Degrees of Freedom: 65]\n");
}

/// Programs in other languages, and those built against an older header, rely on the numbers.
TEST(Enumerations, HaveTheNumbersOfTheProtocol) {
  const auto number = [](auto value) { return static_cast<int>(value); };
  EXPECT_EQ(number(HandType::LEFT), 0);
  EXPECT_EQ(number(HandType::RIGHT), 1);
  EXPECT_EQ(number(ControlMode::POSITION_CURRENT), 4);
  EXPECT_EQ(number(ControlMode::VELOCITY_CURRENT), 5);
  EXPECT_EQ(number(ControlMode::POSITION_VELOCITY_CURRENT), 6);
  EXPECT_EQ(number(Finger::THUMB), 1);
  EXPECT_EQ(number(Finger::DORSUM), 7);
  EXPECT_EQ(number(ECanDeviceType::ZLG_USBCANFD), 0);
  EXPECT_EQ(number(ECanDeviceType::HCAN), 1);
  EXPECT_EQ(number(OtaProgressStatus::FAILED), -1);
  EXPECT_EQ(number(OtaProgressStatus::COMPLETE), 0);
  EXPECT_EQ(number(OtaProgressStatus::LINK_RECONNECTING), 9);
  EXPECT_EQ(sizeof(HandType) + sizeof(ControlMode) + sizeof(Finger), 3U);
}

std::optional<short> OptionalAt(const MixCtrl& record, std::size_t offset) {
  std::optional<short> value;
  std::memcpy(&value, reinterpret_cast<const char*>(&record) + offset, sizeof value);
  return value;
}

TEST(MixCtrl, IsPackedInThirteenBytes) {
  MixCtrl target{};
  target.joint_index = 3;
  target.mix_mode = 6;
  target.position = short{-2};
  target.current = short{0x1234};
  EXPECT_EQ(sizeof target, 13U);
  EXPECT_EQ(alignof(MixCtrl), 1U);
  EXPECT_EQ(*reinterpret_cast<const std::uint8_t*>(&target), 0xC3);
  EXPECT_EQ(OptionalAt(target, 1), std::optional<short>(-2));
  EXPECT_EQ(OptionalAt(target, 5), std::nullopt);
  EXPECT_EQ(OptionalAt(target, 9), std::optional<short>(0x1234));
}

/// A model that supplies what it must and nothing more.
class BareHand : public KorvaneBase {
 public:
  VendorInfo GetVendorInfo() const override { return {}; }
  DeviceInfo GetDeviceInfo() const override { return {}; }
  void ShowDataDetails(bool) const override {}
  void SetRequestInterval(int) override {}
  int GetRequestInterval() const override { return 0; }
  void SetFrameRecvTimeout(int) override {}
  int GetFrameRecvTimeout() const override { return 0; }
  void SetFrameSendTimeout(int) override {}
  int GetFrameSendTimeout() const override { return 0; }
  void SetDeviceId(std::uint8_t) override {}
  short GetJointMotorPosi(std::uint8_t) const override { return 1; }
  std::vector<short> GetAllJointMotorPosi() const override { return {1}; }
};

TEST(KorvaneBase, DoesNothingByDefaultAndSaysNothing) {
  BareHand hand;
  const StreamCapture output(stdout);
  const StreamCapture errors(stderr);
  EXPECT_EQ(hand.SetJointMotorPosi(1, 5), -1);
  EXPECT_TRUE(hand.SetAllJointMotorPosi({1, 2}).empty());
  EXPECT_TRUE(hand.SetAllActiveJointAngles({0.5}).empty());
  EXPECT_TRUE(hand.GetAllActiveJointAngles().empty());
  EXPECT_TRUE(hand.GetAllJointAngles().empty());
  EXPECT_TRUE(hand.GetAllJointPos({0.5}).empty());
  EXPECT_EQ(hand.GetJointMotorVelo(1), 0);
  EXPECT_TRUE(hand.GetAllJointMotorVelo().empty());
  EXPECT_EQ(hand.GetControlMode(1), ControlMode::MODE_0);
  EXPECT_TRUE(hand.GetAllControlMode().empty());
  EXPECT_EQ(hand.GetCurrentThreshold(1), 0);
  EXPECT_TRUE(hand.GetAllCurrentThreshold().empty());
  EXPECT_EQ(hand.GetErrorReport(1), 0);
  EXPECT_TRUE(hand.GetAllErrorReport().empty());
  EXPECT_EQ(hand.GetTemperatureReport(1), 0);
  EXPECT_TRUE(hand.GetAllTemperatureReport().empty());
  EXPECT_EQ(hand.GetCurrentReport(1), 0);
  EXPECT_TRUE(hand.GetAllCurrentReport().empty());
  hand.SetJointMotorVelo(1, 5);
  hand.SetAllJointMotorVelo({1});
  hand.SetControlMode(1, ControlMode::MODE_7);
  hand.SetAllControlMode({1});
  hand.SetCurrentThreshold(1, 5);
  hand.SetAllCurrentThreshold({1});
  MixCtrl unset{};
  unset.mix_mode = 6;
  hand.MixCtrlJointMotor({unset});
  hand.SetErrorReportPeriod(1, 5);
  hand.SetAllErrorReportPeriod({1});
  hand.SetTemperReportPeriod(1, 5);
  hand.SetAllTemperReportPeriod({1});
  hand.SetCurrentReportPeriod(1, 5);
  hand.SetAllCurrentReportPeriod({1});
  hand.SetHandGesture(1);
  EXPECT_FALSE(EnableConcurrentCalls(hand));
  EXPECT_EQ(output.Text() + errors.Text(), "");
}

TEST(KorvaneBase, TellsOnlyACallbackThatItCantUpdate) {
  BareHand hand;
  hand.UpdateFirmware("/does/not/matter", nullptr);
  std::vector<int> calls;
  hand.UpdateFirmware("/does/not/matter", [&](int current, int total, OtaProgressStatus status) {
    calls.insert(calls.end(), {current, total, static_cast<int>(status)});
  });
  EXPECT_EQ(calls, (std::vector<int>{-1, 0, -1}));
}

TEST(Korvane, HoldsItsMembersInOrderAndStartsUnconnected) {
  const BareHand hand;
  EXPECT_FALSE(hand.connected);
  const auto* const first = reinterpret_cast<const char*>(&hand.model_code);
  EXPECT_EQ(reinterpret_cast<const char*>(&hand.device_id), first + 1);
  EXPECT_EQ(reinterpret_cast<const char*>(&hand.mirrored), first + 2);
  EXPECT_EQ(reinterpret_cast<const char*>(&hand.connected), first + 3);
}

#if defined(__x86_64__)

/// Where an operation stands in its class's table. Programs that were built against an earlier
/// build of the library call by this number.
template <class Operation>
std::size_t SlotOf(Operation operation) {
  static_assert(std::is_member_function_pointer_v<Operation>);
  std::size_t offset_plus_one;
  std::memcpy(&offset_plus_one, &operation, sizeof offset_plus_one);
  return (offset_plus_one - 1) / sizeof(void*);
}

template <class... Operations>
void ExpectSlotsFrom(std::size_t first, Operations... operations) {
  std::size_t expected = first;
  for (const std::size_t slot : {SlotOf(operations)...}) EXPECT_EQ(slot, expected++);
}

TEST(OperationSlots, StayWhereProgramsCallThem) {
  using K = Korvane;
  ExpectSlotsFrom(0, &K::GetVendorInfo, &K::GetDeviceInfo, &K::ShowDataDetails,
                  &K::SetRequestInterval, &K::GetRequestInterval, &K::SetFrameRecvTimeout,
                  &K::GetFrameRecvTimeout, &K::SetFrameSendTimeout, &K::GetFrameSendTimeout,
                  &K::UpdateFirmware, &K::SetDeviceId);
  using B = KorvaneBase;
  ExpectSlotsFrom(0, &B::SetJointMotorPosi, &B::GetJointMotorPosi, &B::SetAllJointMotorPosi,
                  &B::GetAllJointMotorPosi, &B::SetAllActiveJointAngles,
                  &B::GetAllActiveJointAngles, &B::GetAllJointAngles, &B::GetAllJointPos,
                  &B::SetJointMotorVelo, &B::GetJointMotorVelo, &B::SetAllJointMotorVelo,
                  &B::GetAllJointMotorVelo, &B::SetControlMode, &B::GetControlMode,
                  &B::SetAllControlMode, &B::GetAllControlMode, &B::SetCurrentThreshold,
                  &B::GetCurrentThreshold, &B::SetAllCurrentThreshold, &B::GetAllCurrentThreshold,
                  &B::MixCtrlJointMotor, &B::GetErrorReport, &B::GetAllErrorReport,
                  &B::SetErrorReportPeriod, &B::SetAllErrorReportPeriod, &B::GetTemperatureReport,
                  &B::GetAllTemperatureReport, &B::SetTemperReportPeriod,
                  &B::SetAllTemperReportPeriod, &B::GetCurrentReport, &B::GetAllCurrentReport,
                  &B::SetCurrentReportPeriod, &B::SetAllCurrentReportPeriod, &B::SetHandGesture);
  using T = IBR7TactileSensor1D;
  ExpectSlotsFrom(0, &T::GetSensorDataLength, &T::GetSensorOrder, &T::GetTactileSensorDataRaw,
                  &T::GetAllTactileSensorDataRaw);
  using P = PrivateKorvane;
  ExpectSlotsFrom(0, &P::SetPowerState, &P::GetPowerState, &P::SetAxisHoming, &P::SetId,
                  &P::SaveParam, &P::SetSingleAxisPos, &P::GetSingleAxisPos, &P::SetAllAxisPos,
                  &P::GetAllAxisPos, &P::GetAllAxisCurrent, &P::GetAllAxisVelocity,
                  &P::GetAllAxisTemp, &P::GetErrorCode, &P::ClearError, &P::PlayAction,
                  &P::GetAllAxisPosRange, &P::GetFingertipSensor, &P::GetAllFingertipSensorA,
                  &P::GetAllFingertipSensorB, &P::GetAllFingertipSensorC, &P::SetRunMode,
                  &P::SetSingleActualAxisPos, &P::GetSingleActualAxisPos, &P::SetAllActualAxisPos,
                  &P::GetAllActualAxisPos, &P::GetAllLoadData, &P::SetAxisMinPos, &P::SetAxisMaxPos,
                  &P::ClearAllLimitPos, &P::SetAllRunSpeed, &P::SetOverloadTorque,
                  &P::SetOverloadProtectionTime, &P::SetProtectedTorque, &P::SetMinTorque,
                  &P::SetProtectiveCurrent, &P::GetAllElectricMotorId, &P::GetAllSensorId,
                  &P::SetAllAxisCvpUploadInterval, &P::GetAllAxisCvp, &P::GetAxisLimitPos,
                  &P::SetRightOrLeft, &P::SetPosSpeedCurData, &P::GetFingerTactileForce,
                  &P::SetTemperatureThreshold, &P::SetControlSource, &P::GetControlSource,
                  &P::SetProductSerialNumber, &P::GetProductSerialNumber, &P::GetFwVersion);
  EXPECT_GT(SlotOf(&KorvaneBrisa::GetTactileSensorData), SlotOf(&B::SetHandGesture));
  EXPECT_EQ(SlotOf(&KorvaneBrisa::GetAllTactileSensorData),
            SlotOf(&KorvaneBrisa::GetTactileSensorData) + 1);
}

#endif

}  // namespace
}  // namespace talvera::korvane
