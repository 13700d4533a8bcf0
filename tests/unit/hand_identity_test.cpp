// The hands over CAN as objects: how they come up, with and without a link, their settings, who
// they are and how they are given another id.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <locale>
#include <optional>
#include <stdexcept>
#include <typeinfo>

#include "can/can_bus_device_socket_can.h"
#include "can/hcan_device.h"
#include "can/zlg_usbcanfd_device.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "support/temporary_file.h"
#include "support/tested_hands.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

using namespace test;
using namespace std::string_literals;
using Hand = KorvaneBase;

class HandObjects : public testing::TestWithParam<TestedHand>, protected HandPair<Hand> {
 protected:
  HandObjects() : HandPair(GetParam().make) {}

  std::uint32_t Id(std::uint32_t fields) const { return fields | tested_.family | kId; }

  const TestedHand& tested_ = GetParam();
  const bool is_brisa_ = tested_.class_name == kBrisa.class_name;
  const bool is_tessel_ = tested_.class_name == kTessel.class_name;
  const bool is_quill_ = tested_.class_name == kQuill.class_name;
};

INSTANTIATE_TEST_SUITE_P(All, HandObjects, testing::Values(kBrisa, kTessel, kQuill, kLumen, kVanta),
                         testing::PrintToStringParamName());

void ExpectMembers(const Hand& hand, const TestedHand& tested, bool mirrored, bool connected) {
  EXPECT_EQ(hand.model_code, tested.model_code);
  EXPECT_EQ(hand.device_id, kId);
  EXPECT_EQ(hand.mirrored, mirrored);
  EXPECT_EQ(hand.connected, connected);
}

TEST_P(HandObjects, BindToTheirTransportAndSendNothing) {
  for (const HandType type : {HandType::LEFT, HandType::RIGHT}) {
    for (const bool opens : {true, false}) {
      const Rig<Hand> rig(kId, type, opens, tested_.make);
      ExpectMembers(*rig.hand, tested_, type == HandType::LEFT, opens);
      EXPECT_TRUE(rig.device->TakeSent().empty());
      const bool bound = opens || is_tessel_;
      EXPECT_EQ(bool{rig.device->process_msg_}, bound);
      ASSERT_EQ(rig.device->matched_rep_id_ && rig.device->msg_match_judge_, bound);
      if (!bound) continue;
      EXPECT_EQ(rig.device->matched_rep_id_(0x13F10180), 0x03F20180U);
      EXPECT_EQ(rig.device->msg_match_judge_(0x01F10180, 0x01F20127), is_brisa_);
    }
  }
}

/// The receive thread of the transport uses the solver.
template <class Impl>
void ExpectSolver() {
  for (const HandType type : {HandType::LEFT, HandType::RIGHT}) {
    auto rig = std::make_unique<Rig<Impl>>(kId, type);
    EXPECT_EQ(rig->hand->solver->mirrored, type == HandType::LEFT);
    bool lived = false;
    rig->device->on_destroy = [&lived, &solver = rig->hand->solver] { lived = solver != nullptr; };
    rig.reset();
    EXPECT_TRUE(lived);
  }
}

TEST(HandSolvers, AreOfTheSideOfTheHandAndOutliveItsTransport) {
  ExpectSolver<KorvaneBrisaCanImpl>();
  ExpectSolver<KorvaneTesselCanImpl>();
}

// --- The classes and the ways to make their objects -----------------------------------------

template <class Impl>
constexpr bool kHasTcpForm = std::is_constructible_v<Impl, HandType, std::uint8_t, std::string,
                                                     unsigned short, std::uint8_t>;

/// `visit` gets a null pointer to the implementation class: its static operations are the model's.
template <class Visitor>
void ForEachHand(const Visitor& visit) {
  visit(static_cast<KorvaneBrisaCanImpl*>(nullptr), kBrisa);
  visit(static_cast<KorvaneTesselCanImpl*>(nullptr), kTessel);
  visit(static_cast<KorvaneQuillCanImpl*>(nullptr), kQuill);
  visit(static_cast<KorvaneLumenCanImpl*>(nullptr), kLumen);
  visit(static_cast<KorvaneVantaCanImpl*>(nullptr), kVanta);
}

TEST(HandClasses, LeaveTheTransportOutWhenTheLinkIsOfNoKnownKind) {
  constexpr auto kNoKind = static_cast<ECanDeviceType>(2);
  constexpr char kBadKind[] = "[ERROR] Invalid device type: 2. Expected ZLG_USBCANFD or HCAN.\n";
  constexpr std::uint8_t kZero = 0;
  ForEachHand([&](auto type, const TestedHand& tested) {
    using Impl = std::remove_pointer_t<decltype(type)>;
    const auto expect_refused = [&](const std::string& line, auto... where) {
      const StreamCapture made(stderr);
      const Impl hand(HandType::LEFT, kId, where...);
      EXPECT_EQ(made.Text(), line);
      ExpectMembers(hand, tested, true, false);
      EXPECT_EQ(Told([&] { EXPECT_TRUE(hand.GetAllJointMotorPosi().empty()); }),
                tested.OfClass() + "[GetAllJointMotorPosi] no transport\n");
    };
    expect_refused(kBadKind, kZero, kZero, kNoKind);
    expect_refused(kBadKind, "serial", kZero, kNoKind);
    constexpr bool kQuillOrVanta =
        std::is_same_v<Impl, KorvaneQuillCanImpl> || std::is_same_v<Impl, KorvaneVantaCanImpl>;
    EXPECT_NE(kHasTcpForm<Impl>, kQuillOrVanta) << tested.class_name;
    if constexpr (kHasTcpForm<Impl>) {
      const auto port = static_cast<unsigned short>(8080);
      const std::string line = ": TCP CANFD is not supported on this platform.\n";
      expect_refused("[ERROR] " + tested.class_name + line, "127.0.0.1", port, kZero);
    }
  });
}

TEST(HandFactories, GiveAHandThatFailsWhenTheDeviceIsMissing) {
  const StreamCapture output(stdout);
  const StreamCapture errors(stderr);
  ForEachHand([](auto type, const TestedHand& tested) {
    using Impl = std::remove_pointer_t<decltype(type)>;
    const auto side = HandType::RIGHT;
    const std::string nowhere = "no such adapter";
    const std::pair<const std::type_info&, std::unique_ptr<Hand>> hands[] = {
        {typeid(CanBusDeviceSocketCan), Impl::createHandSocketCan(side, kId, "no-such-can")},
        {typeid(ZlgUsbcanfdDevice), Impl::createHandByZlgcan(side, kId, nowhere, 1)},
        {typeid(ZlgUsbcanfdDevice), Impl::createHandByZlgcan(side, kId, std::uint8_t{7}, 1)},
        {typeid(HcanDevice), Impl::createHandByHcan(side, kId, nowhere, 1)},
        {typeid(HcanDevice), Impl::createHandByHcan(side, kId, std::uint8_t{200}, 1)},
    };
    for (const auto& [kind, hand] : hands) {
      auto* const impl = dynamic_cast<Impl*>(hand.get());
      ASSERT_NE(impl, nullptr);
      const CanBusDeviceBase& transport = *impl->Link().transport;
      EXPECT_EQ(typeid(transport), kind);
      if (const auto* const adapter = dynamic_cast<const UsbCanAdapter*>(&transport)) {
        EXPECT_EQ(adapter->product_type_, tested.model_code);
        EXPECT_EQ(adapter->channel_id_, 1);
      }
      ExpectMembers(*hand, tested, false, false);
      EXPECT_EQ(hand->GetJointMotorPosi(1), 0);
    }
  });
  EXPECT_NE(errors.Text().find("[HCAN ERROR] Device with serial number"), std::string::npos);
}

TEST_P(HandObjects, HandTheirSettingsToTheTransportWhichHoldsThemToItsLimits) {
  EXPECT_EQ(hand_.GetRequestInterval(), 0);
  const auto fresh = tested_.make(HandType::LEFT, kId, std::make_unique<RecordingDevice>());
  EXPECT_EQ(fresh->GetFrameRecvTimeout(), 50);
  for (const auto& [given, interval, timeout] :
       {std::array{-1, 0, 10}, {5, 5, 10}, {500, 100, 500}, {5000, 100, 1000}}) {
    hand_.SetRequestInterval(given);
    hand_.SetFrameRecvTimeout(given);
    EXPECT_EQ(hand_.GetRequestInterval(), interval);
    EXPECT_EQ(hand_.GetFrameRecvTimeout(), timeout);
    EXPECT_EQ(device_.request_interval_ms_, interval);
    EXPECT_EQ(device_.frame_recv_timeout_ms_, timeout);
  }
  const auto* const brisa = dynamic_cast<KorvaneBrisa*>(&hand_);
  for (const bool on : {true, false}) {
    hand_.ShowDataDetails(on);
    EXPECT_EQ(device_.show_data_details_, on);
    EXPECT_TRUE(!brisa || brisa->solver->show_details == on);
  }
  hand_.SetFrameSendTimeout(123456);
  EXPECT_EQ(hand_.GetFrameSendTimeout(), 123456) << "the adapter's business, not the hand's";
}

TEST_P(HandObjects, HaveNoSettingsWithoutATransport) {
  const Streams told = CaptureStreams([&] {
    without_transport_->SetRequestInterval(20);
    without_transport_->SetFrameRecvTimeout(20);
    without_transport_->SetFrameSendTimeout(20);
    without_transport_->ShowDataDetails(true);
    EXPECT_EQ(without_transport_->GetRequestInterval(), 0);
    EXPECT_EQ(without_transport_->GetFrameRecvTimeout(), 0);
    EXPECT_EQ(without_transport_->GetFrameSendTimeout(), 0);
  });
  const auto* const brisa = dynamic_cast<KorvaneBrisa*>(without_transport_.get());
  EXPECT_TRUE(!brisa || brisa->solver->show_details) << "the solver is there";
  EXPECT_EQ(told.out + told.err, "");
}

TEST_P(HandObjects, AllowConcurrentCallsWhereThereIsATransport) {
  EXPECT_TRUE(device_.serialized_queue_enabled_);
  EXPECT_TRUE(EnableConcurrentCalls(hand_) && EnableConcurrentCalls(hand_));
  EXPECT_FALSE(device_.serialized_queue_enabled_);
  device_.script = Replies({7, 0});
  EXPECT_EQ(hand_.GetJointMotorPosi(1), 7);
  EXPECT_FALSE(EnableConcurrentCalls(*without_transport_));
}

// --- Identity -------------------------------------------------------------------------------

/// A vendor reply; the texts are padded with NUL bytes to 16 and 14.
Bytes VendorReply(std::string model, std::string serial) {
  model.resize(16);
  serial.resize(14);
  const std::string reply = model + serial + "\1\2\3\0\xFF\6\7\x8\xFE\xFF\x41"s;
  return {reply.begin(), reply.end()};
}

TEST_P(HandObjects, ReadTheirRecordsWhateverTheirLength) {
  for (const int len : {0, 41, 64}) {
    device_.script = Replies(VendorReply("Hand", "SN0123456789AB"), len);
    const VendorInfo vendor = hand_.GetVendorInfo();
    EXPECT_EQ(vendor.product_model, is_quill_ ? "Hand" : "Hand" + std::string(12, '\0'));
    EXPECT_EQ(vendor.serial_number, "SN0123456789AB");
    EXPECT_EQ(vendor.hardware_version.ToString(), "1.2.3");
    EXPECT_EQ(vendor.software_version.ToString(), "255.6.7.8");
    EXPECT_EQ(vendor.supply_voltage_mv, -2);
    EXPECT_EQ(vendor.active_dof, 65);
    device_.script = Replies({0x27, 0xFF, 2, 3, 4, 5}, len);
    const DeviceInfo device = hand_.GetDeviceInfo();
    EXPECT_EQ(device.device_id, 0x27);
    EXPECT_EQ(Bytes(device.reserved, device.reserved + 4), (Bytes{0xFF, 2, 3, 4}));
    EXPECT_EQ(Show(device_.TakeSent()),
              Show({FullFrame(Id(0x00010000), {}), FullFrame(Id(0x00020000), {})}));
  }
}

TEST_P(HandObjects, ShowASerialNumberOnlyIfItWasEverWritten) {
  const std::pair<std::string, std::string> rows[] = {
      {"\0AB\0C"s, "\0AB\0C\0\0\0\0\0\0\0\0\0"s},
      {std::string(14, '\x7F'), std::string(14, '\x7F')},
      {"", "NaN"},
      {"SN0123456789A\x80", "NaN"},
      {std::string(14, '\xFF'), "NaN"}};
  for (const auto& [field, shown] : rows) {
    // Neighbouring fields with their top bit set don't count.
    device_.script = Replies(VendorReply(std::string(16, '\xFF'), field));
    EXPECT_EQ(hand_.GetVendorInfo().serial_number, shown);
    EXPECT_EQ(hand_.GetVendorInfo().product_model, std::string(16, '\xFF'));
  }
}

TEST_P(HandObjects, HaveNoIdentityWhenTheyFail) {
  const std::string device_prefix = is_tessel_ ? "[GetDeviceInfo] Failed: device_id=39, error: "
                                               : tested_.OfClass() + "[GetDeviceInfo] ";
  const auto expect_none = [&](Hand& hand, const std::string& what, bool of_frame = true) {
    const StreamCapture errors(stderr);
    const VendorInfo vendor = hand.GetVendorInfo();
    EXPECT_EQ(vendor.ToString(), VendorInfo{}.ToString());
    EXPECT_TRUE(vendor.product_model.empty() && vendor.serial_number.empty());
    const DeviceInfo device = hand.GetDeviceInfo();
    const std::uint8_t zeros[sizeof device] = {};
    EXPECT_EQ(std::memcmp(&device, zeros, sizeof device), 0);
    const auto why = [&](std::uint32_t id) {
      return (of_frame ? FrameText(FullFrame(Id(id), {})) : "") + what + "\n";
    };
    EXPECT_EQ(errors.Text(), tested_.OfClass() + "[GetVendorInfo] " + why(0x00010000) +
                                 device_prefix + why(0x00020000));
  };
  device_.script = CantSend();
  expect_none(hand_, " request send failed");
  device_.script = Throws(std::logic_error("adapter broke"));
  expect_none(hand_, "adapter broke", false);
  device_.script = RepliesInFrames({});
  hand_.SetFrameRecvTimeout(10);
  expect_none(hand_, " request timeout (10ms)");
  expect_none(*without_transport_, "no transport", false);
}

TEST_P(HandObjects, TakeOnAnIdOnceItWasSentEvenIfTheDeviceIsSilent) {
  EXPECT_EQ(Told([&] { hand_.SetDeviceId(200); }), "");
  EXPECT_EQ(hand_.device_id, 200);
  hand_.SetDeviceId(5);
  const std::uint32_t family = tested_.family;
  EXPECT_EQ(Show(device_.TakeSent()),
            Show({FullFrame(family | 0x010200A7, {200}), FullFrame(family | 0x010200C8, {5})}));
  device_.script = Replies({9, 0});
  EXPECT_EQ(hand_.GetJointMotorPosi(3), 9);
  EXPECT_EQ(device_.TakeSent().at(0).can_id, family | 0x03130005U);
}

TEST_P(HandObjects, KeepTheirIdWhenANewOneCouldntBeSent) {
  const auto expect_failure = [](Hand& hand, const std::string& line) {
    EXPECT_EQ(Told([&] { hand.SetDeviceId(5); }), line);
    EXPECT_EQ(hand.device_id, kId);
  };
  const std::string not_sent =
      (is_tessel_ ? "[ERROR]" : "[Error]") + std::string(": Failed to send device ID request\n");
  device_.script = CantSend();
  expect_failure(hand_, not_sent);
  device_.script = Throws(std::logic_error("adapter broke"));
  expect_failure(hand_, tested_.OfClass() + "[SetDeviceId] adapter broke\n");
  expect_failure(*without_transport_, not_sent);
}

// --- The application's locale ---------------------------------------------------------------

/// Puts a comma after every digit.
struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\1"; }
  char do_decimal_point() const override { return '!'; }
};

/// Texts with numbers from different parts of the library.
std::string TextsWithNumbers() {
  const Rig<KorvaneTesselCanImpl> rig(kId);
  rig.hand->SetFrameRecvTimeout(10);
  const TemporaryFile image(FirmwareBytes(5000));
  KorvaneBrisaCanImpl brisa(HandType::RIGHT, kId, NoTransport());
  std::optional<KorvaneBrisaSerialImpl> serial;  // The serial library words its own failures.
  CaptureStreams([&] { serial.emplace(HandType::LEFT, kId, "/no/such/port", 115200); });
  const Streams streams = CaptureStreams([&] {
    rig.hand->GetVendorInfo();
    rig.hand->GetJointMotorPosi(100);
    rig.device->Receive(FullFrame(0x0C200127, {1}, 2));
    rig.hand->solver->ConvertActuator2Joint({12345});
    brisa.GetTactileSensorDataRaw(Finger::PALM);
    brisa.UpdateFirmware(image.Path(), nullptr);
    serial->GetJointMotorPosi(123);
    brisa.solver->SetHandGesture(2);
  });
  const auto time = std::chrono::system_clock::time_point(std::chrono::hours(400000));
  return streams.out + streams.err + FormatTimestamp(time) +
         VendorInfo{"", "", {10, 20, 30, 40}, {}, 24000, 12}.ToString();
}

TEST(Locales, ChangeNoText) {
  const std::string expected = TextsWithNumbers();
  const auto before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  const std::string texts = TextsWithNumbers();
  std::locale::global(before);
  EXPECT_EQ(texts, expected);
  EXPECT_NE(texts.find("24000mV"), std::string::npos);
  EXPECT_NE(texts.find("timeout (10ms)"), std::string::npos);
  EXPECT_NE(texts.find("5000 bytes, 3 packets"), std::string::npos);
}

}  // namespace
}  // namespace talvera::korvane
