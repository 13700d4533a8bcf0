// The firmware update of every model against a simulated hand that checks every packet. All waits
// pass in virtual time, and nothing depends on the machine. What sets one model apart is worked out
// here once more, so that these rows and those of the library check each other.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/allocation_hook.h"
#include "support/bus_device.h"
#include "support/tested_hands.h"
#include "support/update_run.h"
#include "support/virtual_clock.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono_literals;
using std::to_string;
using test::CaptureStreams;
using test::FirmwareBytes;
using test::kId;
using test::kThreePackets;
using test::ReportText;
using test::Times;
using Kind = sim::UpdateFault::Kind;
using Child = sim::UpdateChild;

/// Reported as -4, which is also how a missing reply is.
constexpr std::uint32_t kUnknownStatus = 0xFFFFFFFC;

std::string Line(const std::string& line, const std::string& level = "[INFO]: ") {
  return level + "[UpdateFirmware] " + line + "\n";
}

struct Model {
  const test::TestedHand& hand;
  const sim::ModelRow& row;
  void (*send_all)(KorvaneBase& hand);
  void (*send_restart)(KorvaneBase& hand);
  void (*query_result)(KorvaneBase& hand);

  // Replies of whatever device are taken, and of whatever family.
  bool any_sender = false, any_family = true;
  bool other_checksum = false, first_packet_twice = false;
  int first_packet = 0;  ///< What the first packet is reported as.
  // An error status is reported as it comes; by the run so are a refusal and a silent hand.
  bool replies_report = true, reports_refusal = false, reports_silence = false;
  bool keeps_callback = true;    ///< After some of the failures.
  bool repeats_restart = false;  ///< A second reply to the restart request is one more.
  bool asks_until_good = true;   ///< The query for the last update's result, once a pause.
  std::chrono::seconds pause{1};
  // Anything at all; the run step by step, and what statuses mean; each reply.
  bool writes = true, writes_stages = true, writes_replies = true;
  std::string restarting =
      Line("Received restart response (0x04), device will restart. Waiting for restart...");
  std::string retry = "[WARN]: [UpdateFirmware] Upgrade request no response (status=";
  std::string retry_unheard{};  ///< In place of the other while nothing has come.
  std::string no_reply = "Upgrade request failed after 10 retries: no valid response";
  std::string completed = Line("OTA upgrade process completed [OK]!");
  std::string not_back = Line(
      "Could not reconnect to device after restart, but restart response was received", "[WARN]: ");
  std::string late_result{};
  std::string result_good =
      "[INFO]: [GetUpgradeResult] OTA upgrade result query successful, upgrade completed!\n";
  std::string result_bad = "[WARN]: [GetUpgradeResult] OTA upgrade result: 6, retrying...\n";
};

std::ostream& operator<<(std::ostream& out, const Model& m) { return out << m.hand.class_name; }

template <class Impl>
Model ModelOf(const test::TestedHand& tested, const sim::ModelRow& row) {
  const auto send_all = [](KorvaneBase& hand) {
    dynamic_cast<Impl&>(hand).SendPackage();
    dynamic_cast<Impl&>(hand).SendFinishRequest();
    dynamic_cast<Impl&>(hand).SendRestartRequest();
  };
  const auto send_restart = [](KorvaneBase& hand) {
    dynamic_cast<Impl&>(hand).SendRestartRequest();
  };
  const auto query = [](KorvaneBase& hand) { dynamic_cast<Impl&>(hand).GetUpgradeResult(); };
  return {tested, row, send_all, send_restart, query};
}

Model Brisa() {
  auto model = ModelOf<KorvaneBrisaCanImpl>(test::kBrisa, sim::kBrisa);
  model.any_sender = model.other_checksum = true;
  return model;
}

Model Vanta() { return ModelOf<KorvaneVantaCanImpl>(test::kVanta, sim::kVanta); }

Model Tessel() {
  auto model = ModelOf<KorvaneTesselCanImpl>(test::kTessel, sim::kTessel);
  model.first_packet_twice = model.repeats_restart = true;
  model.first_packet = 1;
  model.replies_report = model.keeps_callback = model.asks_until_good = false;
  model.reports_refusal = model.reports_silence = true;
  model.pause = 0s;
  model.writes_stages = model.writes_replies = false;
  const std::string run = "[KorvaneTesselCanImpl][UpdateFirmware] ";
  model.restarting = "[INFO]" + run + "Received restart response (0x04), waiting for restart...\n";
  model.retry = "[WARN]" + run + "Upgrade request no response (status=";
  model.no_reply = "Upgrade request failed after 10 retries";
  model.completed = "[INFO]" + run + "OTA upgrade process completed [OK]\n";
  model.not_back = "[WARN]" + run + "Could not reconnect after restart, OTA completed " +
                   "(manual verification may be needed)\n";
  model.late_result = "[INFO][KorvaneTesselCanImpl] OTA upgrade completed\n";
  model.result_good = "[INFO][KorvaneTesselCanImpl] OTA upgrade result: success\n";
  model.result_bad = "[ERROR][KorvaneTesselCanImpl] OTA upgrade result: 6\n";
  return model;
}

Model Lumen() {
  auto model = ModelOf<KorvaneLumenCanImpl>(test::kLumen, sim::kLumen);
  model.reports_silence = true;
  model.keeps_callback = model.writes_replies = model.asks_until_good = false;
  model.retry_unheard = Line(
      "No OTA response from device (status=WAITING_RESPONSE, child_id=-1). Retrying... "
      "Check: device supports OTA, firmware compatible, CAN connection.",
      "[WARN]: ");
  model.no_reply += " from device (device may not support OTA or firmware incompatible).";
  model.result_good = "[INFO][KorvaneLumenCanImpl] OTA upgrade result: success\n";
  model.result_bad = "[ERROR][KorvaneLumenCanImpl] OTA upgrade result: 6\n";
  return model;
}

Model Quill() {
  auto model = ModelOf<KorvaneQuillCanImpl>(test::kQuill, sim::kQuill);
  model.any_family = model.keeps_callback = false;
  model.reports_refusal = model.reports_silence = true;
  model.writes = model.writes_stages = model.writes_replies = false;
  model.restarting = model.completed = model.not_back = model.result_good = model.result_bad = "";
  return model;
}

/// The report of a failed run, if there is one.
std::string Failed(int code, bool reported = true) {
  return reported ? ReportText(code, 3, -1) : "";
}

class HandUpdate : public testing::TestWithParam<Model> {
 protected:
  HandUpdate() {
    bus_.Add(sim::SimulatedHand(model_.row, kId));
    Firmware([](auto& firmware) { firmware.SetRestartTime(50ms); });
    UseTransport(std::make_unique<test::BusDevice>(bus_));
  }

  void UseTransport(std::unique_ptr<CanBusDeviceBase> transport) {
    hand_ = model_.hand.make(HandType::RIGHT, kId, std::move(transport));
    hand_->SetFrameRecvTimeout(1000);
    state_ = dynamic_cast<CanUpdateState*>(hand_.get());
    state_->ota_clock = &clock_;
  }

  void Firmware(const std::function<void(sim::FirmwarePartition&)>& action) {
    bus_.WithHand(0, [&](sim::SimulatedHand& hand) { action(hand.Firmware()); });
  }

  /// From now on this goes wrong, and nothing else. The hand may be restarting, which is awaited.
  void SetFaults(const std::vector<sim::UpdateFault>& faults) {
    clock_.SleepFor(1s);
    Firmware([&](auto& firmware) {
      firmware.ClearFaults();
      for (const auto& fault : faults) firmware.AddFault(fault);
    });
  }
  void SetFault(Kind kind, Child child, std::uint32_t status = 0, unsigned at = 0) {
    SetFaults({{kind, child, status, at}});
  }

  /// What the callback hears of an update; what is written meanwhile is in Written().
  std::string UpdateFrom(const std::string& path, bool with_callback = true) {
    while (sniffer_->Receive(0ns)) {
    }
    runner_.Run(*hand_, clock_, path, with_callback);
    EXPECT_TRUE(model_.writes || Written().out.empty());
    return runner_.Outcome().reports;
  }
  std::string Update(std::size_t size = kThreePackets, bool with_callback = true) {
    return UpdateFrom(test::TemporaryFile(FirmwareBytes(size)).Path(), with_callback);
  }
  const test::Streams& UpdateSilently(std::size_t size = kThreePackets) {
    Update(size, false);
    return Written();
  }
  const test::Streams& Written() const { return runner_.Outcome().written; }
  std::chrono::nanoseconds Took() const { return runner_.Outcome().took; }

  bool Installed(std::size_t size = kThreePackets) {
    bool same = false;
    Firmware([&](auto& firmware) { same = firmware.InstalledImage() == FirmwareBytes(size); });
    return same;
  }

  std::uint32_t RequestId(std::uint32_t child, std::uint32_t id = kId) const {
    return child << 24 | 0x00F10080 | model_.hand.family | id;
  }
  std::uint32_t ReplyId(std::uint32_t child, std::uint32_t id = kId) const {
    return RequestId(child, id) ^ 0x00030080;
  }

  /// A frame from the hand or another, or one that only looks like that. Returns when it is taken.
  void Arrive(std::uint32_t id, std::uint8_t status = 0, std::uint8_t len = 4) {
    sniffer_->Send({id, len, {status}});
    clock_.SleepFor(1ms);
  }
  void Disturb(std::chrono::milliseconds delay, double foreign = 0) {
    sim::Faults faults;
    faults.delay = delay;
    faults.foreign = foreign;
    bus_.SetFaults(faults);
  }

  /// The requests since the last update began, as UpdateLetters.
  std::string Wire(std::size_t size = kThreePackets) {
    letters_.expected = test::PaddedImage(size);
    while (const auto frame = sniffer_->Receive(0ns)) {
      const auto& [id, len, data] = *frame;
      if ((id & 0xFE0080) != 0xF00080) continue;  // not of the update, or a reply
      const std::size_t child = id >> 24;
      const std::size_t used = child == 1 ? 6 : child == 2 ? 4 : 0;
      const bool padded = std::none_of(data.begin() + used, data.end(), [](int b) { return b; });
      const bool request = id == RequestId(id >> 24) && padded;
      if (id == (RequestId(1) ^ 0x10000) && len == 64) {
        letters_.Data(data.data(), 64);
        continue;
      }
      if (child == 2 && request && len == 64) {
        letters_.StartPacket(data[0]);
      } else {
        letters_.Request(child, request && len == (child == 1 ? 6 : 64));
      }
    }
    return letters_.Take();
  }

  /// The wire as far as the packets have come.
  std::string Packets(const std::string& numbers) const {
    return (model_.first_packet_twice ? "U0" : "U") + numbers;
  }

  /// The reports of a run of three packets that nothing disturbs, or the first of them.
  std::string Clean(std::size_t count = 10) const {
    const bool from_one = model_.first_packet == 1;
    return test::FirstWords(std::string("0/3=1 0/3=2 0/3=3 ") +
                                (from_one ? "1/3=4 2/3=4 3/3=4 " : "0/3=4 1/3=4 2/3=4 ") +
                                "3/3=5 3/3=6 3/3=7 3/3=0 ",
                            count);
  }

  /// An error status: as its reply reports it, and as the run does.
  std::string Failure(int of_reply, int of_run) const {
    return Failed(of_reply, model_.replies_report) + Failed(of_run);
  }

  // What is written, as far as the model does.
  std::string Error(const std::string& line) const {
    return model_.writes ? model_.hand.OfClass() + "[" + line + "\n" : "";
  }
  std::string RunError(const std::string& line) const { return Error("UpdateFirmware] " + line); }
  std::string Stage(const std::string& lines) const { return model_.writes_stages ? lines : ""; }
  std::string Reply(const std::string& line, const std::string& level = "[INFO]: ") const {
    return model_.writes_replies ? level + "[ProcessMsg]" + line + "\n" : "";
  }
  std::string ReplyError(const std::string& line, const std::string& text = "") const {
    return model_.writes_replies ? Error("ProcessMsg]" + line) + text : "";
  }
  std::string NoReply(const std::string& status, const std::string& child) const {
    const bool unheard = child == "-1" && !model_.retry_unheard.empty();
    const std::string line = model_.retry + status + ", child_id=" + child + "), retrying...\n";
    return Times(model_.writes ? 8 : 0, unheard ? model_.retry_unheard : line) +
           RunError(model_.no_reply);
  }

  const Model& model_ = GetParam();
  const std::string silence_ = Failed(-4, model_.reports_silence);
  test::VirtualClock clock_{2};
  sim::VirtualBus bus_{clock_};
  const std::unique_ptr<sim::VirtualBus::Port> sniffer_ = bus_.Open();
  test::UpdateRunner runner_;
  test::UpdateLetters letters_;
  std::unique_ptr<KorvaneBase> hand_;
  CanUpdateState* state_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(, HandUpdate,
                         testing::Values(Brisa(), Tessel(), Lumen(), Vanta(), Quill()),
                         testing::PrintToStringParamName());

// --- What is reported and sent --------------------------------------------------------------

TEST_P(HandUpdate, InstallsFilesOfAnySizeByteForByteInThePaceThatTheHandNeeds) {
  EXPECT_EQ(Update(), Clean());
  EXPECT_FALSE(state_->HasCallback());
  EXPECT_EQ(hand_->GetVendorInfo().software_version.minor, 1);
  EXPECT_EQ(Wire(), Packets("012") + "FR");
  for (const std::size_t size : {1U, 2047U, 2048U, 2049U, 20000U}) {
    EXPECT_THAT(Update(size), testing::EndsWith("=0 ")) << size;
    // 100 ms, the packets, 100 ms; none of it real time.
    EXPECT_GE(Took(), 200ms + 170ms * ((size + 2047) / 2048));
    EXPECT_TRUE(Installed(size)) << size;
    EXPECT_EQ(Wire(size), Packets(std::string("0123456789", (size + 2047) / 2048)) + "FR");
  }
}

TEST_P(HandUpdate, EndsWhenTheHandRefusesTheRequest) {
  for (const std::uint32_t status : {std::uint32_t{2}, kUnknownStatus}) {
    SetFault(Kind::kStatus, Child::kUpgrade, status);
    const int code = static_cast<int>(status);
    EXPECT_EQ(Update(), Clean(2) + Failed(code, model_.replies_report) +
                            Failed(code, model_.reports_refusal));
    EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::REFUSED);
    EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
    EXPECT_EQ(Wire(), "U");
  }
}

TEST_P(HandUpdate, EndsAtTheFirstPacketThatTheHandRefuses) {
  for (const std::uint32_t status : {std::uint32_t{1}, std::uint32_t{5}, kUnknownStatus}) {
    for (unsigned packet = 1; packet <= 3; ++packet) {
      if (packet == 1 && status == 1 && model_.other_checksum) continue;
      const unsigned at = packet == 1 ? 0 : packet;  // each time, as it may go out twice
      const int code = static_cast<int>(status);
      SetFault(Kind::kStatus, Child::kPacket, status, at);
      EXPECT_EQ(Update(), Clean(2 + packet) + Failure(status == 1 ? -7 : code, code)) << packet;
      EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::REFUSED);
      EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
      EXPECT_EQ(Wire(), Packets(std::string("012", packet)));
    }
  }
  SetFault(Kind::kStatus, Child::kPacket, 5, 1);
  EXPECT_EQ(Update(), model_.first_packet_twice ? Clean() : Clean(3) + Failure(5, 5));
  EXPECT_EQ(Wire(), model_.first_packet_twice ? "U0012FR" : "U0");
}

/// Also where the first packet goes out twice: its copy may wait for its turn when the refusal
/// comes, or the acceptance may be seen after it.
TEST_P(HandUpdate, ReportsARefusalOfTheFirstPacketWithinASecond) {
  for (const bool seen_late : {false, true}) {
    SetFaults(
        {{Kind::kStatus, Child::kPacket, 5, 1},
         {Kind::kLose, Child::kPacket, 0, 2},
         {seen_late ? Kind::kLose : Kind::kDuplicate, Child::kUpgrade, 0, seen_late ? 1U : 9U}});
    EXPECT_EQ(Update(), Clean(3) + Failure(5, 5)) << seen_late;
    EXPECT_LT(Took(), 1300ms);
  }
}

TEST_P(HandUpdate, EndsWhenTheFinishOrTheRestartIsRefused) {
  for (const std::uint32_t status : {std::uint32_t{4}, kUnknownStatus}) {
    const int code = static_cast<int>(status);
    SetFault(Kind::kStatus, Child::kFinish, status);
    EXPECT_EQ(Update(), Clean(6) + Failure(code, code));
    EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::REFUSED);
    EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
    SetFault(Kind::kStatus, Child::kRestart, status);
    EXPECT_EQ(Update(), Clean(7) + Failed(code));
    EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
  }
}

TEST_P(HandUpdate, TriesTheOtherChecksumOnceAtTheFirstPacketIfAtAll) {
  Firmware([](auto& firmware) { firmware.SetChecksum(sim::UpdateChecksum::kXmodem); });
  const bool tries = model_.other_checksum;
  EXPECT_EQ(Update(),
            Clean(3) + (tries ? Failed(-7) + Clean().substr(Clean(3).size()) : Failure(-7, 1)));
  EXPECT_EQ(Installed(), tries);
  EXPECT_EQ(Wire(), tries ? "U0012FR" : Packets("0"));
  EXPECT_EQ(Written().err,
            tries ? "[WARN][KorvaneBrisaCanImpl][UpdateFirmware] First OTA packet CRC failed with "
                    "Modbus, fallback to CCITT and retry once\n"
                  : "");
  if (!tries) return;
  SetFault(Kind::kStatus, Child::kPacket, 1);
  EXPECT_EQ(Update(), Clean(3) + Failed(-7) + Failure(-7, 1));
  EXPECT_EQ(Wire(), "U00");
}

TEST_P(HandUpdate, GivesUpOnAStageWhoseReplyNeverComesAndSucceedsTheNextTime) {
  for (unsigned stage = 1; stage <= 5; ++stage) {
    const bool is_packet = stage <= 3;
    const Child child = is_packet ? Child::kPacket : stage == 4 ? Child::kFinish : Child::kRestart;
    const int code = is_packet ? -6 : stage == 4 ? -4 : -5;
    // A reply of three bytes is no reply, and one to the restart of another update a wrong one.
    for (const Kind kind : {Kind::kLose, Kind::kShort, Kind::kReset, Kind::kRestartFirst}) {
      SCOPED_TRACE("stage " + to_string(stage) + " kind " + to_string(static_cast<int>(kind)));
      auto expected = Clean(2 + stage);
      if (kind == Kind::kRestartFirst) {
        if (stage == 5 || (stage == 1 && model_.first_packet_twice)) continue;
        expected += ReportText(static_cast<int>(stage) - 1, 3, 6);
      }
      SetFault(kind, child, 0, is_packet ? stage : 1);
      EXPECT_EQ(Update(), expected + Failed(code));
      EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::NO_REPLY);
      EXPECT_GE(Took(), is_packet ? 300s : 30s);
      EXPECT_EQ(state_->HasCallback(), !is_packet && model_.keeps_callback);
      EXPECT_EQ(Update(), Clean());
      EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::NONE);
      EXPECT_TRUE(Installed());
    }
  }
}

TEST_P(HandUpdate, GoesOnAfterALostRequestAndDuplicateReplies) {
  for (const Kind kind : {Kind::kLose, Kind::kShort, Kind::kReset}) {
    SetFault(kind, Child::kUpgrade, 0, 1);
    EXPECT_EQ(Update(), Clean());
    // The run sends what is in front when it sees the acceptance, half a second later.
    EXPECT_EQ(Wire(), model_.first_packet_twice ? "UU0122FR" : "UU012FR");
  }
  for (const Child child : {Child::kUpgrade, Child::kPacket, Child::kFinish, Child::kRestart}) {
    SetFault(Kind::kDuplicate, child, 0, 1);
    const auto reports = Update();
    EXPECT_THAT(reports, testing::EndsWith(" 3/3=0 ")) << static_cast<int>(child);
    const bool twice = child == Child::kRestart && model_.repeats_restart;
    EXPECT_EQ(reports.find("=6 ") != reports.rfind("=6 "), twice);
    EXPECT_TRUE(Installed());
    EXPECT_EQ(Wire().find('?'), std::string::npos);
  }
}

TEST_P(HandUpdate, AsksTwelveTimesWhenNothingAnswers) {
  bus_.SetPlugged(0, false);
  EXPECT_EQ(Update(), Clean(2) + silence_);
  EXPECT_EQ(Took(), 5100ms);
  EXPECT_EQ(Wire(), std::string(12, 'U'));
  EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
}

TEST_P(HandUpdate, WaitsForAHandThatStillRestarts) {
  SetFault(Kind::kRestartFirst, Child::kUpgrade, 0, 1);
  EXPECT_EQ(Update(), Clean(2) + "0/3=6 " + Clean().substr(Clean(2).size()));
  Disturb(1ms);  // the reply to the last request is too late
  SetFault(Kind::kRestartFirst, Child::kUpgrade);
  EXPECT_EQ(Update(), Clean(2) + Times(model_.repeats_restart ? 11 : 1, "0/3=6 ") + silence_);
  EXPECT_EQ(Took(), 7100ms) << "it was given two seconds for that";
  // The hand's own 99 reads as no reply.
  SetFault(Kind::kStatus, Child::kUpgrade, 99);
  EXPECT_EQ(Update(), Clean(2) + Times(11, Failed(99, model_.replies_report)) + silence_);
}

TEST_P(HandUpdate, ReportsAFileThatIsNoImage) {
  Update();  // leaves counts of its own behind
  for (const auto& [path, code] : {std::pair<std::string, int>{"/no/such/file", -2},
                                   {test::TemporaryFile({}).Path(), -2},
                                   {"/tmp", -3}}) {
    EXPECT_EQ(UpdateFrom(path), ReportText(code, 0, -1));
    EXPECT_EQ(Written().err, "");
    EXPECT_FALSE(state_->HasCallback());
  }
}

TEST_P(HandUpdate, ReportsAFileThatThereIsNoMemoryFor) {
  if (!test::AllocationHook::Works()) GTEST_SKIP() << "a sanitizer allocates";
  const test::TemporaryFile image(FirmwareBytes(kThreePackets));
  // For the stream, the bytes of the file and each packet.
  for (int allocation = 1; allocation <= 5; ++allocation) {
    const test::AllocationHook none_left(2048, allocation, &test::ThrowBadAlloc);
    EXPECT_EQ(runner_.Run(*hand_, clock_, image.Path()).reports, "-3/0=-1 ") << allocation;
    EXPECT_TRUE(none_left.Ran());
    EXPECT_FALSE(state_->HasCallback());
  }
}

TEST_P(HandUpdate, CannotBeginWithoutATransport) {
  UseTransport(nullptr);
  EXPECT_EQ(Update(), Clean(2));
  EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
  EXPECT_EQ(test::Told([&] { model_.send_all(*hand_); }),
            Error("SendPackage] Failed to send checksum request: no transport") +
                Error("SendFinishRequest] no transport") +
                Error("SendRestartRequest] no transport"));
  EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::NO_LINK);
  EXPECT_EQ(LastFailure(*hand_).operation, "SendRestartRequest");
}

// --- What is written ------------------------------------------------------------------------

TEST_P(HandUpdate, WritesItsStagesAndWithoutACallbackWhatItWouldReport) {
  const auto length = Line("Firmware length: 4196 bytes, Package num: 3");
  const auto received =
      "[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=0\n";
  const auto accepted =
      Line("Upgrade request accepted (UPGRADE response), starting package transmission");
  const auto waiting = Line("Waiting for all packages to be transmitted...");
  Update();
  EXPECT_EQ(Written().err, "");
  EXPECT_EQ(Written().out, Stage(length + received + accepted + waiting));
  const auto& written = UpdateSilently();
  EXPECT_EQ(written.err, "");
  const auto vendor_info = Line("Vendor Info: " + hand_->GetVendorInfo().ToString());
  EXPECT_EQ(written.out, Stage(Line("Firmware file loaded: 4196 bytes, 3 packets") + length) +
                             Stage(Line("Sending upgrade request (0x01)...") + received) +
                             Reply(" OTA upgrade request accepted (status=0, child_id=UPGRADE)") +
                             Stage(accepted) + Reply(" Packet 0/3 transmitted [OK]") +
                             Stage(waiting) + Reply(" Packet 1/3 transmitted [OK]") +
                             Reply(" Packet 2/3 transmitted [OK]") +
                             Reply("[child_id:3][status: 0] OTA finished [OK]") +
                             Reply("[child_id: 4][status: 0] Restart acknowledged") +
                             Stage(Line("All packages transmitted [OK]") +
                                   Line("Device reconnected after restart") + vendor_info) +
                             model_.completed);
  // A hand that doesn't come back counts as updated.
  Firmware([](auto& firmware) { firmware.SetRestartTime(1h); });
  hand_->SetFrameRecvTimeout(10);
  EXPECT_EQ(Update(), Clean(8) + Times(10, "3/3=7 ") + "3/3=0 ");
  clock_.SleepFor(1h);
  UpdateSilently();
  EXPECT_THAT(written.err, testing::EndsWith("timeout (10ms)\n" + model_.not_back));
  EXPECT_THAT(written.out,
              testing::EndsWith(Stage(Line("OTA upgrade process completed (device may need manual "
                                           "verification)"))));
}

TEST_P(HandUpdate, WritesWhatGoesWrong) {
  const auto refused = [&](std::uint32_t status, const std::string& text) {
    const std::string line = "pgrade request rejected, error code: " + to_string(status);
    return ReplyError(" OTA u" + line + ", child_id: 1") + RunError("U" + line) + Stage(text);
  };
  const auto packet_failed = [&](int packet, std::uint32_t status, const std::string& text) {
    const std::string line = "transmission failed, error code: " + to_string(status);
    return ReplyError(" Packet " + to_string(packet) + "/3 " + line, text) +
           RunError("OTA " + line);
  };
  const auto left = [&](int packets) {
    return RunError("OTA transmission timeout: " + to_string(packets) + " packages remaining");
  };
  const std::pair<sim::UpdateFault, std::string> rows[] = {
      {{Kind::kStatus, Child::kUpgrade, 1},
       refused(1, "[ERROR]: Flash partition table acquisition failed\n")},
      {{Kind::kStatus, Child::kUpgrade, 2},
       refused(2, "[ERROR]: Download partition erase failed\n")},
      {{Kind::kStatus, Child::kUpgrade, 3}, refused(3, "[ERROR]: Firmware length invalid\n")},
      {{Kind::kStatus, Child::kUpgrade, kUnknownStatus}, refused(kUnknownStatus, "")},
      {{Kind::kStatus, Child::kPacket, 1, 2},
       packet_failed(2, 1, "[ERROR]: Checksum verification failed\n")},
      {{Kind::kStatus, Child::kPacket, 5, 3}, packet_failed(3, 5, "")},
      {{Kind::kLose, Child::kPacket, 0, 1}, left(3)},
      {{Kind::kLose, Child::kPacket, 0, 3}, left(1)},
      {{Kind::kLose, Child::kFinish}, RunError("OTA finish response timeout")},
      {{Kind::kLose, Child::kRestart}, RunError("OTA restart response timeout")}};
  for (const auto& [fault, lines] : rows) {
    SetFaults({fault});
    EXPECT_EQ(UpdateSilently().err, lines)
        << static_cast<int>(fault.child) << " " << fault.status << " " << fault.at;
  }
  SetFault(Kind::kStatus, Child::kUpgrade, 99);
  EXPECT_EQ((Update(), Written().err), NoReply("99", "1"));
  Disturb(1ms);  // the reply to the last request is too late
  SetFault(Kind::kRestartFirst, Child::kUpgrade);
  EXPECT_EQ((Update(), Written().err), NoReply("0", "4"));
  EXPECT_THAT(Written().out, testing::HasSubstr(model_.restarting));
  Disturb(0ms);
  SetFaults({});
  bus_.SetPlugged(0, false);
  std::string resent;
  for (int i = 0; i <= 10; ++i) {
    resent += "[DEBUG]: [UpdateFirmware] Sent UPGRADE request (attempt " + to_string(i) + ")\n";
  }
  EXPECT_EQ(UpdateSilently().err, NoReply("99", "-1"));
  EXPECT_THAT(Written().out, testing::EndsWith(Stage(resent)));
  EXPECT_EQ((UpdateFrom("/no/such/file", false), Written().err),
            RunError("Failed to read /no/such/file"));
  EXPECT_EQ((UpdateFrom("/tmp", false), Written().err), RunError("File is empty"));
  UseTransport(nullptr);
  EXPECT_EQ(UpdateSilently().err, RunError("Failed to send upgrade request: no transport"));
}

/// So slow that each wait meets its own reply.
TEST_P(HandUpdate, WritesARefusalOfTheFinishAndOfTheRestart) {
  Disturb(450ms);
  for (const auto& [status, text] : std::vector<std::pair<std::uint32_t, std::string>>{
           {1, "[ERROR]: No OTA request\n"},
           {2, "[ERROR]: Firmware incomplete\n"},
           {3, "[ERROR]: Flash partition table acquisition failed\n"},
           {4, "[ERROR]: Upgrade flag setting failed\n"},
           {kUnknownStatus, ""}}) {
    SetFault(Kind::kStatus, Child::kFinish, status);
    const std::string number = to_string(status);
    EXPECT_EQ(UpdateSilently(1).err,
              ReplyError("[child_id:3][status: " + number + "] OTA finish [NG]", text) +
                  RunError("OTA finish failed, error code: " + number));
  }
  SetFault(Kind::kStatus, Child::kRestart, 7);
  EXPECT_EQ(UpdateSilently(1).err, RunError("OTA restart failed, error code: 7"));
  const std::string line = "[ProcessMsg][child_id: 4][status: 7] Restart response received\n";
  EXPECT_EQ(Written().out.find("[INFO]: " + line) != std::string::npos, model_.writes_replies);
}

// --- Frames outside of a run ----------------------------------------------------------------

TEST_P(HandUpdate, TakesFramesOutsideARunAsItsModelDoes) {
  for (const auto id : {ReplyId(0), ReplyId(0x1F), ReplyId(2) ^ 0x30000, RequestId(2)}) Arrive(id);
  Arrive(ReplyId(2), 0, 3);
  EXPECT_EQ(state_->ota_status, 99U) << "none of these is a reply";
  EXPECT_EQ(state_->ota_child_id, -1);
  EXPECT_EQ(state_->ota_package_index, 0U);
  EXPECT_EQ(CaptureStreams([&] { Arrive(ReplyId(5)); }).out, model_.late_result);
  EXPECT_EQ(state_->ota_status, model_.late_result.empty() ? 99U : 0U);
  const auto restarts = [&] {
    Arrive(ReplyId(4));
    Arrive(ReplyId(4), 7);
  };
  EXPECT_EQ(CaptureStreams(restarts).out,
            Reply("[child_id: 4][status: 0] Restart acknowledged") +
                Reply(" Ignoring duplicate RESTART response (device restarting)", "[DEBUG]: "));
  EXPECT_EQ(state_->ota_status, model_.repeats_restart ? 7U : 0U);
}

TEST_P(HandUpdate, TakesRepliesOfTheSendersThatItsModelListensTo) {
  Disturb(0ms, /*foreign=*/1);
  EXPECT_EQ(Update() == Clean(), !model_.any_sender);
  const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
  const auto& index = dynamic_cast<CanUpdateState&>(*rig.hand).ota_package_index;
  // With the write flag and one of the adapter too.
  for (const auto& [id, taken] : {std::pair{ReplyId(2), true},
                                  {ReplyId(2) | 0x80000080, true},
                                  {ReplyId(2) ^ 0x22, model_.any_sender},
                                  {ReplyId(2) ^ 0x600, model_.any_family}}) {
    const std::uint32_t before = index;
    CaptureStreams([&, &reply_id = id] { rig.device->Receive(test::FullFrame(reply_id, {}, 4)); });
    EXPECT_EQ(index, before + (taken ? 1 : 0)) << id;
    // An acknowledgment without a packet still counts, and asks the hand to finish.
    const std::string finish = test::Show(std::vector{test::FullFrame(RequestId(3), {})});
    EXPECT_EQ(test::Show(rig.device->TakeSent()), taken ? finish : "");
  }
}

/// An id that a program gives the hand counts at once, however it is given.
TEST_P(HandUpdate, GoesToThePresentId) {
  const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
  const auto& index = dynamic_cast<CanUpdateState&>(*rig.hand).ota_package_index;
  std::vector<std::function<void(std::uint8_t)>> ways{
      [&](std::uint8_t id) { rig.hand->SetDeviceId(id); },
      [&](std::uint8_t id) { rig.hand->device_id = id; }};
  if (auto* const tessel = dynamic_cast<KorvaneTessel*>(rig.hand.get())) {
    ways.emplace_back([=](std::uint8_t id) { tessel->Reset(id, HandType::LEFT); });
  }
  if (auto* const vanta = dynamic_cast<KorvaneVanta*>(rig.hand.get())) {
    ways.emplace_back([=](std::uint8_t id) { vanta->Reset(id, HandType::LEFT); });
  }
  std::uint8_t id = kId;
  for (const auto& give : ways) {
    const std::uint32_t before = index;
    const std::uint8_t old_id = id++;
    give(id);
    rig.device->TakeSent();
    CaptureStreams([&] {
      rig.device->Receive(test::FullFrame(ReplyId(2, old_id), {}, 4));
      rig.device->Receive(test::FullFrame(ReplyId(2, id), {}, 4));
    });
    EXPECT_EQ(index, before + (model_.any_sender ? 2 : 1));
    const auto sent = rig.device->TakeSent();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(test::Show({sent.back()}), test::Show({test::FullFrame(RequestId(3, id), {})}));
    rig.device->script = test::Replies({0}, 4);
    CaptureStreams([&] { model_.query_result(*rig.hand); });
    EXPECT_EQ(rig.device->TakeSent().at(0).can_id, RequestId(5, id));
    rig.device->script = test::RepliesInFrames({});
  }
}

/// ThreadSanitizer's case: the receive thread compares the id while others change and use it.
TEST_P(HandUpdate, TakesRepliesWhileTheIdChanges) {
  const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
  const auto& status = dynamic_cast<CanUpdateState&>(*rig.hand).ota_status;
  CaptureStreams([&] {
    std::thread changes([&] {
      for (std::uint8_t id = 1; id <= 100; ++id) rig.hand->SetDeviceId(id);
    });
    std::thread sends([&] {
      for (int i = 0; i < 100; ++i) model_.send_restart(*rig.hand);
    });
    for (std::uint8_t id = 1; id <= 100; ++id) {
      rig.device->Receive(test::FullFrame(ReplyId(2, id), {5}, 4));
    }
    changes.join();
    sends.join();
    rig.device->Receive(test::FullFrame(ReplyId(2, 100), {6}, 4));
  });
  EXPECT_EQ(status, 6U);
  EXPECT_EQ(rig.hand->device_id, 100);
}

TEST_P(HandUpdate, AsksForTheResultTenTimesAtMost) {
  const auto gave_up = Error("GetUpgradeResult] Failed to get upgrade result after 10 retries");
  std::string gone;
  for (int i = 1; i <= 10 && model_.writes; ++i) {
    gone += "[WARN][" + model_.hand.class_name + "][GetUpgradeResult][retry:" + to_string(i) +
            "/10] gone\n";
  }
  const int if_bad = model_.asks_until_good ? 10 : 1;
  const auto bad = Times(static_cast<std::size_t>(if_bad), model_.result_bad) +
                   (model_.asks_until_good ? gave_up : "");
  for (const auto& [status, tries, out, err] : {std::tuple{0, 1, model_.result_good, std::string()},
                                                {6, if_bad, "", bad},
                                                {99, 10, "", gone + gave_up}}) {
    const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
    // Only the model that listens to all knows the hand's own answer; the others take an echo.
    const std::uint32_t id = model_.any_sender ? ReplyId(5) : RequestId(5) & ~0x80U;
    const auto reply = test::FullFrame(id, {static_cast<std::uint8_t>(status)}, 4);
    rig.device->script = [=](const CanfdFrame&) { return std::vector{reply}; };
    if (status == 99) rig.device->script = test::Throws(std::runtime_error("gone"));
    auto& state = dynamic_cast<CanUpdateState&>(*rig.hand);
    test::VirtualClock clock(1);
    state.ota_clock = &clock;
    const auto start = clock.Now();
    const auto written = CaptureStreams([&] { model_.query_result(*rig.hand); });
    EXPECT_EQ(written.out, out);
    EXPECT_EQ(written.err, err);
    EXPECT_EQ(state.ota_status, static_cast<std::uint32_t>(status));
    EXPECT_EQ(LastFailure(*rig.hand).kind, tries == 1     ? FailureKind::NONE
                                           : status == 99 ? FailureKind::SEND_FAILED
                                                          : FailureKind::REFUSED);
    EXPECT_EQ(clock.Now() - start, model_.pause * (tries - 1));
    const std::string query = test::Show(std::vector{test::FullFrame(RequestId(5), {})});
    EXPECT_EQ(test::Show(rig.device->TakeSent()), Times(static_cast<std::size_t>(tries), query));
  }
}

}  // namespace
}  // namespace talvera::korvane
