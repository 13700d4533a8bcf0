// The hand interface itself: records, what programs rely on, and what a model does that overrides
// nothing.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <type_traits>

#include "korvane_brisa.h"
#include "korvane_open.h"
#include "korvane_quill.h"
#include "korvane_tessel.h"
#include "private_korvane.h"
#include "support/all_operations.h"
#include "support/bare_hand.h"
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

// Programs in other languages, and those built against an older header, rely on these.
static_assert(static_cast<int>(ControlMode::POSITION_VELOCITY_CURRENT) == 6);
static_assert(static_cast<int>(Finger::DORSUM) == 7);
static_assert(static_cast<int>(ECanDeviceType::HCAN) == 1);
static_assert(static_cast<int>(OtaProgressStatus::LINK_RECONNECTING) == 9);
static_assert(sizeof(HandType) + sizeof(ControlMode) + sizeof(Finger) == 3);
static_assert(sizeof(MixCtrl) == 13 && alignof(MixCtrl) == 1);

TEST(KorvaneBase, DoesNothingByDefaultAndSaysNothing) {
  test::BareHand hand;
  const Failure nobody = IdentifyHand(hand).failure();
  EXPECT_EQ(nobody.kind, FailureKind::NO_REPLY);
  EXPECT_EQ(nobody.system_error, 0);
  const StreamCapture output(stdout);
  const StreamCapture errors(stderr);
  const std::string none = "||0.0.0|0.0.0|0|0";
  const std::map<std::string, std::string> results{
      {"GetVendorInfo", none},       {"GetDeviceInfo", "0 0 0 0 0"}, {"SetJointMotorPosi", "-1"},
      {"GetJointMotorPosi", "1"},    {"GetAllJointMotorPosi", "1"},  {"GetJointMotorVelo", "0"},
      {"GetControlMode", "0"},       {"GetCurrentThreshold", "0"},   {"GetErrorReport", "0"},
      {"GetTemperatureReport", "0"}, {"GetCurrentReport", "0"},      {"GetFrameRecvTimeout", "0"}};
  for (const auto& operation : test::HandOperations(1)) {
    const auto result = results.find(operation.name);
    EXPECT_EQ(operation.call(hand), result == results.end() ? "" : result->second)
        << operation.name;
  }
  EXPECT_FALSE(EnableConcurrentCalls(hand));
  EXPECT_FALSE(hand.connected);
  EXPECT_EQ(output.Text() + errors.Text(), "");
}

TEST(KorvaneBase, TellsOnlyACallbackThatItCantUpdate) {
  test::BareHand hand;
  hand.UpdateFirmware("/does/not/matter", nullptr);
  std::vector<int> calls;
  hand.UpdateFirmware("/does/not/matter", [&](int current, int total, OtaProgressStatus status) {
    calls.insert(calls.end(), {current, total, static_cast<int>(status)});
  });
  EXPECT_EQ(calls, (std::vector<int>{-1, 0, -1}));
}

// Nobody deletes a hand through these.
static_assert(!std::is_destructible_v<CanFactories<KorvaneBrisa>>);
static_assert(!std::is_destructible_v<CanBroadcasts<KorvaneBrisa>>);

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

TEST(OperationSlots, StayWhereProgramsCallThem) {
  using ForAll = void (KorvaneQuill::*)();
  using ForOne = void (KorvaneQuill::*)(std::uint8_t);
  const std::pair<std::size_t, std::size_t> rows[] = {
      {SlotOf(&Korvane::GetVendorInfo), 0},
      {SlotOf(&Korvane::SetDeviceId), 10},
      {SlotOf(&KorvaneBase::SetJointMotorPosi), 0},
      {SlotOf(&KorvaneBase::SetHandGesture), 33},
      {SlotOf(&IBR7TactileSensor1D::GetSensorDataLength), 0},
      {SlotOf(&IBR7TactileSensor1D::GetAllTactileSensorDataRaw), 3},
      {SlotOf(&PrivateKorvane::SetPowerState), 0},
      {SlotOf(&PrivateKorvane::GetFwVersion), 48},
      {SlotOf(&KorvaneBrisa::GetTactileSensorData), 38},
      {SlotOf(&KorvaneBrisa::GetAllTactileSensorData), 39},
      {SlotOf(&KorvaneTessel::GetTactileSensor3DData), 36},
      {SlotOf<ForAll>(&KorvaneQuill::SetMinPositionCalibration), 38},
      {SlotOf<ForOne>(&KorvaneQuill::SetMaxPositionCalibration), 41},
  };
  for (const auto& row : rows) EXPECT_EQ(row.first, row.second) << "row " << &row - rows;
}

#endif

}  // namespace
}  // namespace talvera::korvane
