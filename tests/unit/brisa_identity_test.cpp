// A KorvaneBrisa over CAN as an object: how it comes up, with and without a link, its settings,
// who it is and how it is given another id.

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "impl/korvane_brisa_can_impl.h"
#include "support/capture.h"
#include "support/recording_device.h"

namespace talvera::korvane {
namespace {

using namespace test;
using Hand = KorvaneBrisaCanImpl;

constexpr std::uint8_t kId = 0x27;
constexpr auto kNoKind = static_cast<ECanDeviceType>(2);
constexpr char kOfClass[] = "[ERROR][KorvaneBrisaCanImpl]";

// --- Coming up and going --------------------------------------------------------------------

void ExpectMembers(const KorvaneBrisa& hand, bool mirrored, bool connected) {
  EXPECT_EQ(hand.model_code, 0);
  EXPECT_EQ(hand.device_id, kId);
  EXPECT_EQ(hand.mirrored, mirrored);
  EXPECT_EQ(hand.connected, connected);
  ASSERT_NE(hand.solver, nullptr);
  EXPECT_EQ(hand.solver->mirrored, mirrored);
}

TEST(BrisaConstruction, BindsTheTransportAndSendsNothing) {
  for (const HandType type : {HandType::LEFT, HandType::RIGHT}) {
    const Rig<Hand> rig(kId, type);
    ExpectMembers(*rig.hand, type == HandType::LEFT, true);
    EXPECT_TRUE(rig.device->TakeSent().empty());
    ASSERT_TRUE(rig.device->process_msg_ && rig.device->matched_rep_id_ &&
                rig.device->msg_match_judge_);
    EXPECT_EQ(rig.device->matched_rep_id_(0x13F10180), 0x03F20180U);
    EXPECT_TRUE(rig.device->msg_match_judge_(0x01F10180, 0x01F20127));
  }
}

TEST(BrisaConstruction, BindsNothingToATransportThatDidntOpen) {
  const Rig<Hand> rig(kId, HandType::LEFT, /*opens=*/false);
  RecordingDevice& device = *rig.device;
  Hand& hand = *rig.hand;
  device.script = CantSend();
  ExpectMembers(hand, true, false);
  EXPECT_FALSE(device.process_msg_ || device.matched_rep_id_ || device.msg_match_judge_);

  const StreamCapture errors(stderr);
  EXPECT_EQ(hand.GetJointMotorPosi(1), 0);
  EXPECT_EQ(errors.Text(), std::string(kOfClass) + "[GetJointMotorPosi][index:1] " +
                               FrameText(FullFrame(0x01130127, {})) + " request send failed\n");
  hand.SetRequestInterval(7);
  EXPECT_EQ(hand.GetRequestInterval(), 7);
}

TEST(BrisaConstruction, LeavesTheTransportOutWhenTheLinkIsOfNoKnownKind) {
  constexpr char kBadKind[] = "[ERROR] Invalid device type: 2. Expected ZLG_USBCANFD or HCAN.\n";
  const struct {
    std::function<std::unique_ptr<Hand>()> make;
    std::string line;
  } rows[] = {
      {[] {
         return std::make_unique<Hand>(HandType::LEFT, kId, std::uint8_t{0}, std::uint8_t{0},
                                       kNoKind);
       },
       kBadKind},
      {[] {
         return std::make_unique<Hand>(HandType::LEFT, kId, "serial", std::uint8_t{0}, kNoKind);
       },
       kBadKind},
      {[] {
         return std::make_unique<Hand>(HandType::LEFT, kId, "127.0.0.1",
                                       static_cast<unsigned short>(8080), std::uint8_t{0});
       },
       "[ERROR] KorvaneBrisaCanImpl: TCP CANFD is not supported on this platform.\n"},
  };
  for (const auto& row : rows) {
    const StreamCapture made(stderr);
    const auto hand = row.make();
    EXPECT_EQ(made.Text(), row.line);
    ExpectMembers(*hand, true, false);
    const StreamCapture errors(stderr);
    EXPECT_EQ(hand->GetJointMotorPosi(1), 0);
    EXPECT_EQ(errors.Text(), std::string(kOfClass) + "[GetJointMotorPosi][index:1] no transport\n");
  }
}

TEST(BrisaConstruction, GivesAHandThatFailsWhenTheDeviceIsMissing) {
  const StreamCapture output(stdout);
  const StreamCapture errors(stderr);
  const std::string nowhere = "no such adapter";
  const std::unique_ptr<KorvaneBrisa> hands[] = {
      KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, "no-such-can"),
      KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, kId, nowhere),
      KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, kId, std::uint8_t{7}, std::uint8_t{1}),
      KorvaneBrisa::createHandByHcan(HandType::RIGHT, kId, nowhere),
      KorvaneBrisa::createHandByHcan(HandType::RIGHT, kId, std::uint8_t{200}, std::uint8_t{1}),
  };
  EXPECT_NE(errors.Text().find("[HCAN ERROR] Device with serial number"), std::string::npos);
  for (const auto& hand : hands) {
    ExpectMembers(*hand, false, false);
    EXPECT_EQ(hand->SetJointMotorPosi(1, 1), -1);
    EXPECT_TRUE(hand->GetAllJointMotorPosi().empty());
  }
}

TEST(BrisaDestruction, EndsTheTransportBeforeWhatItsReceiveThreadUses) {
  auto rig = std::make_unique<Rig<Hand>>(kId);
  KorvaneBrisa& hand = *rig->hand;
  bool solver_lived = false;
  rig->device->on_destroy = [&] { solver_lived = hand.solver != nullptr; };
  rig.reset();
  EXPECT_TRUE(solver_lived);
}

TEST(BrisaUnsolicitedFrames, AreDropped) {
  const Rig<Hand> rig(kId);
  const StreamCapture output(stdout);
  const StreamCapture errors(stderr);
  for (const std::uint32_t id : {0x0U, 0x00210127U, 0x01200127U, 0x1FFFFFFFU, 0xFFFFFFFFU}) {
    for (const int len : {0, 64, 255}) rig.device->Receive(FullFrame(id, {}, len));
  }
  EXPECT_TRUE(rig.device->TakeSent().empty());
  EXPECT_EQ(output.Text() + errors.Text(), "");
}

// --- Settings of the link -------------------------------------------------------------------

TEST(BrisaSettings, AreHeldToTheirLimits) {
  const Rig<Hand> rig(kId);
  EXPECT_EQ(rig.hand->GetRequestInterval(), 0);
  const struct {
    int given;
    int interval;
    int receive;
  } rows[] = {{-1, 0, 10},       {0, 0, 10},           {9, 9, 10},      {10, 10, 10},
              {100, 100, 100},   {101, 100, 101},      {500, 100, 500}, {1000, 100, 1000},
              {5000, 100, 1000}, {INT_MAX, 100, 1000}, {INT_MIN, 0, 10}};
  for (const auto& row : rows) {
    rig.hand->SetRequestInterval(row.given);
    rig.hand->SetFrameRecvTimeout(row.given);
    EXPECT_EQ(rig.hand->GetRequestInterval(), row.interval) << row.given;
    EXPECT_EQ(rig.hand->GetFrameRecvTimeout(), row.receive) << row.given;
    EXPECT_EQ(rig.device->request_interval_ms_, row.interval);
    EXPECT_EQ(rig.device->frame_recv_timeout_ms_, row.receive);
  }
  rig.hand->SetFrameSendTimeout(123456);
  EXPECT_EQ(rig.hand->GetFrameSendTimeout(), 123456) << "the adapter's business, not the hand's";
}

TEST(BrisaSettings, LetAHandWaitFiftyMillisecondsAtFirst) {
  const Hand hand(HandType::RIGHT, kId, std::make_unique<RecordingDevice>());
  EXPECT_EQ(hand.GetFrameRecvTimeout(), 50);
}

TEST(BrisaSettings, DontDelayTheNextRequestByANewInterval) {
  const Rig<Hand> rig(kId);
  const auto now = [] {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  constexpr std::int64_t kInterval = 100'000'000;
  const std::int64_t before = now();
  rig.hand->SetRequestInterval(100);
  EXPECT_GE(rig.device->last_request_time_, before - kInterval);
  EXPECT_LE(rig.device->last_request_time_, now() - kInterval);
}

TEST(BrisaSettings, DoNothingWithoutATransportButReachTheSolver) {
  Hand hand(HandType::RIGHT, kId, NoTransport());
  const StreamCapture output(stdout);
  const StreamCapture errors(stderr);
  hand.SetRequestInterval(20);
  hand.SetFrameRecvTimeout(20);
  hand.SetFrameSendTimeout(20);
  EXPECT_EQ(hand.GetRequestInterval(), 0);
  EXPECT_EQ(hand.GetFrameRecvTimeout(), 0);
  EXPECT_EQ(hand.GetFrameSendTimeout(), 0);
  hand.ShowDataDetails(true);
  EXPECT_TRUE(hand.solver->show_details);
  hand.ShowDataDetails(false);
  EXPECT_FALSE(hand.solver->show_details);
  EXPECT_EQ(output.Text() + errors.Text(), "");
}

TEST(BrisaSettings, ShowDetailsOfFramesAndAngles) {
  const Rig<Hand> rig(kId);
  rig.device->script = Replies({}, 20);
  const StreamCapture output(stdout);
  rig.hand->SetAllActiveJointAngles(std::vector<double>(10, 9.0));
  EXPECT_EQ(output.Text(), "");
  rig.hand->ShowDataDetails(true);
  rig.hand->SetAllActiveJointAngles(std::vector<double>(10, 9.0));
  const std::string lines = output.Text();
  EXPECT_EQ(lines.rfind("joint position over limit\n", 0), 0U);
  const std::string sent = FrameText(rig.device->TakeSent().at(1));
  EXPECT_NE(lines.find("] SND: " + sent + "\n"), std::string::npos);
  EXPECT_NE(lines.find("] RCV: [CANID:00130127][DATA:00 00 "), std::string::npos);
  rig.hand->ShowDataDetails(false);
  rig.hand->GetJointMotorPosi(1);
  EXPECT_EQ(output.Text(), lines);
}

TEST(BrisaSettings, AllowConcurrentCallsWhereThereIsATransport) {
  const Rig<Hand> rig(kId);
  EXPECT_TRUE(rig.device->serialized_queue_enabled_);
  for (int times = 0; times < 2; ++times) {
    EXPECT_TRUE(EnableConcurrentCalls(*rig.hand));
    EXPECT_FALSE(rig.device->serialized_queue_enabled_);
  }
  rig.device->script = Replies({7, 0});
  EXPECT_EQ(rig.hand->GetJointMotorPosi(1), 7);
  Hand without_transport(HandType::RIGHT, kId, NoTransport());
  EXPECT_FALSE(EnableConcurrentCalls(without_transport));
}

// --- Identity -------------------------------------------------------------------------------

/// A vendor reply; the texts are padded with NUL bytes to 16 and 14.
Bytes VendorReply(std::string model, std::string serial) {
  model.resize(16);
  serial.resize(14);
  const std::string text = model + serial;
  Bytes data(text.begin(), text.end());
  const Bytes rest{1, 2, 3, 0, 255, 6, 7, 8, 0xC0, 0x5D, 10};
  data.insert(data.end(), rest.begin(), rest.end());
  return data;
}

TEST(BrisaIdentity, ReadsTheVendorRecordWhateverItsLength) {
  const Rig<Hand> rig(kId);
  for (const int len : {0, 41, 64}) {
    rig.device->script = Replies(VendorReply("Brisa", "SN0123456789AB"), len);
    const VendorInfo info = rig.hand->GetVendorInfo();
    EXPECT_EQ(info.product_model, "Brisa" + std::string(11, '\0'));
    EXPECT_EQ(info.serial_number, "SN0123456789AB");
    EXPECT_EQ(info.hardware_version.ToString(), "1.2.3");
    EXPECT_EQ(info.software_version.ToString(), "255.6.7.8");
    EXPECT_EQ(info.supply_voltage_mv, 0x5DC0);
    EXPECT_EQ(info.active_dof, 10);
    EXPECT_EQ(Show(rig.device->TakeSent()), Show({FullFrame(0x00010127, {})}));
  }
  Bytes reply = VendorReply("", "");
  reply[38] = 0xFE;
  reply[39] = 0xFF;
  rig.device->script = Replies(reply);
  EXPECT_EQ(rig.hand->GetVendorInfo().supply_voltage_mv, -2);
}

TEST(BrisaIdentity, ShowsASerialNumberOnlyIfItWasEverWritten) {
  const std::string nul(1, '\0');
  const struct {
    std::string field;
    std::string shown;
  } rows[] = {
      {"AB", "AB" + std::string(12, '\0')},
      {nul + "AB" + nul + "C", nul + "AB" + nul + "C" + std::string(9, '\0')},
      {std::string(13, '\0') + "Z", std::string(13, '\0') + "Z"},
      {std::string(14, '\x7F'), std::string(14, '\x7F')},
      {"", "NaN"},
      {"SN0123456789A\x80", "NaN"},
      {"\x80", "NaN"},
      {std::string(14, '\xFF'), "NaN"},
  };
  const Rig<Hand> rig(kId);
  for (const auto& row : rows) {
    // Neighbouring fields with their top bit set don't count.
    rig.device->script = Replies(VendorReply(std::string(16, '\xFF'), row.field));
    const VendorInfo info = rig.hand->GetVendorInfo();
    EXPECT_EQ(info.serial_number, row.shown);
    EXPECT_EQ(info.product_model, std::string(16, '\xFF'));
  }
}

TEST(BrisaIdentity, ReadsTheDeviceRecordWhateverItsLength) {
  const Rig<Hand> rig(kId);
  rig.device->script = Replies({0x27, 0xFF, 2, 3, 4, 5}, 1);
  const DeviceInfo info = rig.hand->GetDeviceInfo();
  EXPECT_EQ(info.device_id, 0x27);
  EXPECT_EQ(Bytes(info.reserved, info.reserved + 4), (Bytes{0xFF, 2, 3, 4}));
  EXPECT_EQ(Show(rig.device->TakeSent()), Show({FullFrame(0x00020127, {})}));
}

void ExpectNoIdentity(const Hand& hand, const std::string& vendor_error,
                      const std::string& device_error) {
  const StreamCapture errors(stderr);
  const VendorInfo vendor = hand.GetVendorInfo();
  EXPECT_EQ(vendor.ToString(), VendorInfo{}.ToString());
  EXPECT_TRUE(vendor.product_model.empty() && vendor.serial_number.empty());
  const DeviceInfo device = hand.GetDeviceInfo();
  const std::uint8_t zeros[sizeof device] = {};
  EXPECT_EQ(std::memcmp(&device, zeros, sizeof device), 0);
  EXPECT_EQ(errors.Text(), std::string(kOfClass) + "[GetVendorInfo] " + vendor_error + "\n" +
                               kOfClass + "[GetDeviceInfo] " + device_error + "\n");
}

TEST(BrisaIdentity, IsEmptyOnFailure) {
  const Rig<Hand> rig(kId);
  const std::string vendor = FrameText(FullFrame(0x00010127, {}));
  const std::string device = FrameText(FullFrame(0x00020127, {}));
  rig.device->script = CantSend();
  ExpectNoIdentity(*rig.hand, vendor + " request send failed", device + " request send failed");
  rig.device->script = Throws(std::logic_error("adapter broke"));
  ExpectNoIdentity(*rig.hand, "adapter broke", "adapter broke");
  rig.device->script = RepliesInFrames({});
  rig.hand->SetFrameRecvTimeout(10);
  ExpectNoIdentity(*rig.hand, vendor + " request timeout (10ms)",
                   device + " request timeout (10ms)");
  ExpectNoIdentity(Hand(HandType::RIGHT, kId, NoTransport()), "no transport", "no transport");
}

TEST(BrisaDeviceId, IsTakenOnOnceItWasSentEvenIfTheHandIsSilent) {
  const Rig<Hand> rig(kId);
  const StreamCapture errors(stderr);
  rig.hand->SetDeviceId(200);
  EXPECT_EQ(rig.hand->device_id, 200);
  rig.hand->SetDeviceId(5);
  EXPECT_EQ(Show(rig.device->TakeSent()),
            Show({FullFrame(0x010201A7, {200}), FullFrame(0x010201C8, {5})}));
  EXPECT_EQ(errors.Text(), "");
  rig.device->script = Replies({9, 0});
  EXPECT_EQ(rig.hand->GetJointMotorPosi(3), 9);
  EXPECT_EQ(rig.device->TakeSent().at(0).can_id, 0x03130105U);
}

TEST(BrisaDeviceId, StaysWhenItCouldntBeSent) {
  constexpr char kNotSent[] = "[Error]: Failed to send device ID request\n";
  const Rig<Hand> rig(kId);
  Hand without_transport(HandType::RIGHT, kId, NoTransport());
  const auto expect_failure = [](Hand& hand, const std::string& line) {
    const StreamCapture errors(stderr);
    hand.SetDeviceId(5);
    EXPECT_EQ(hand.device_id, kId);
    EXPECT_EQ(errors.Text(), line);
  };
  rig.device->script = CantSend();
  expect_failure(*rig.hand, kNotSent);
  rig.device->script = Throws(std::logic_error("adapter broke"));
  expect_failure(*rig.hand, std::string(kOfClass) + "[SetDeviceId] adapter broke\n");
  expect_failure(without_transport, kNotSent);
}

TEST(BrisaBroadcast, FindsNobodyThroughAnAdapterThatIsntThere) {
  const StreamCapture output(stdout);
  const auto expect_none = [](const std::function<DeviceInfo()>& ask, const std::string& line) {
    const StreamCapture errors(stderr);
    const DeviceInfo info = ask();
    const std::uint8_t zeros[sizeof info] = {};
    EXPECT_EQ(std::memcmp(&info, zeros, sizeof info), 0);
    const std::string lines = errors.Text();
    ASSERT_GE(lines.size(), line.size());
    EXPECT_EQ(lines.substr(lines.size() - line.size()), line);
  };
  expect_none([] { return KorvaneBrisa::GetDeviceInfoFromBroadcastSocketCan("no-such-can"); },
              "[Error]: Failed to initialize SocketCAN device for broadcast request\n");
  expect_none([] { return KorvaneBrisa::GetDeviceInfoFromBroadcast("no such adapter", 0); },
              "[Error]: Failed to initialize CAN device for broadcast request\n");
}

/// How the other models differ, as a row of their kind would say it.
constexpr Wording kOtherWording{
    "", "", "", "", "", "[ERROR]: no id", "[GetDeviceInfo] Failed: device_id=", "[ERROR]: "};

constexpr HandModel MakeOtherModel() {
  HandModel model = BrisaRow::kModel;
  model.family = 0x700;
  model.wording = &kOtherWording;
  model.product_model_ends_at_nul = true;
  return model;
}

struct OtherRow {
  static constexpr HandModel kModel = MakeOtherModel();
  static void Prepare(KorvaneBrisa& /*hand*/, HandType /*type*/) {}
};

TEST(IdentityOfAnotherModel, FollowsItsRow) {
  class OtherHand : public CanHandWithoutReportPeriods<KorvaneBrisa, OtherRow> {
   public:
    using CanHandWithoutReportPeriods::CanHandWithoutReportPeriods;
    std::vector<std::uint8_t> GetTactileSensorData(Finger) const override { return {}; }
    std::vector<TactileSensorData> GetAllTactileSensorData() const override { return {}; }
    TactileSensorData GetTactileSensorDataRaw(Finger finger) const override { return {finger, {}}; }
    std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override { return {}; }
  };
  auto device = std::make_unique<test::RecordingDevice>();
  test::RecordingDevice& adapter = *device;
  OtherHand hand(HandType::RIGHT, 5, std::move(device));
  adapter.script = test::Replies({'Q', 'u', 'i', 'l', 'l'});
  hand.SetFrameRecvTimeout(1000);
  EXPECT_EQ(hand.GetVendorInfo().product_model, "Quill");
  EXPECT_EQ(adapter.TakeSent().at(0).can_id, 0x00010705U);
  adapter.script = test::CantSend();
  const std::string told = test::CaptureStreams([&] {
                             EXPECT_EQ(hand.GetDeviceInfo().device_id, 0);
                             hand.SetDeviceId(9);
                           }).err;
  EXPECT_EQ(told.find("[GetDeviceInfo] Failed: device_id=5, error: [CANID:00020705]"), 0U) << told;
  EXPECT_NE(told.find("\n[ERROR]: no id\n"), std::string::npos) << told;
}

}  // namespace
}  // namespace talvera::korvane
