// The firmware update of every model against a simulated hand that checks every packet. All waits
// pass in virtual time, and nothing depends on the machine. What sets one model apart is worked out
// here once more, so that these rows and those of the library check each other.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "support/bus_device.h"
#include "support/temporary_file.h"
#include "support/tested_hands.h"
#include "support/virtual_clock.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono_literals;
using std::to_string;
using test::CaptureStreams;
using test::FirmwareBytes;
using test::kId;
using Kind = sim::UpdateFault::Kind;
using Child = sim::UpdateChild;
using Report = std::tuple<int, int, int>;
using Reports = std::vector<Report>;
using StatusTexts = std::vector<std::pair<std::uint32_t, std::string>>;

constexpr std::size_t kThreePackets = 2 * 2048 + 100;
constexpr std::uint32_t kUnknownStatus = 0xFFFFFFFE;

std::string Line(const std::string& line, const std::string& level = "[INFO]: ") {
  return level + "[UpdateFirmware] " + line + "\n";
}

struct Model {
  const test::TestedHand& hand;
  const sim::ModelRow& row;
  void (*send_all)(KorvaneBase& hand);
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
  const auto query = [](KorvaneBase& hand) { dynamic_cast<Impl&>(hand).GetUpgradeResult(); };
  return {tested, row, send_all, query};
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

Reports operator+(Reports reports, const Reports& more) {
  reports.insert(reports.end(), more.begin(), more.end());
  return reports;
}

template <class Sequence>
Sequence Times(int count, const Sequence& part) {
  Sequence all;
  for (int i = 0; i < count; ++i) all.insert(all.end(), part.begin(), part.end());
  return all;
}

/// The report of a failed run, if there is one.
Reports Failed(int code, bool heard = true) { return Reports(heard ? 1 : 0, {code, 3, -1}); }

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
  void SetFault(Kind kind, Child child, std::uint32_t status = 0, unsigned at = 0) {
    clock_.SleepFor(1s);
    Firmware([&](auto& firmware) {
      firmware.ClearFaults();
      firmware.AddFault({kind, child, status, at});
    });
  }

  /// What an update writes, with whatever it is reported by.
  test::Streams Write(const std::string& path, const ProgressCallback& callback) {
    Wire();
    written_ = CaptureStreams([&] { hand_->UpdateFirmware(path, callback); });
    EXPECT_TRUE(model_.writes || written_.out.empty());
    return written_;
  }
  test::Streams UpdateSilently(std::size_t size = kThreePackets) {
    return Write(test::TemporaryFile(FirmwareBytes(size)).Path(), nullptr);
  }

  /// What the callback hears of an update; `written_` is what is written meanwhile.
  Reports UpdateFrom(const std::string& path) {
    reports_.clear();
    Write(path, [this](int current, int total, OtaProgressStatus status) {
      const std::lock_guard lock(mutex_);
      reports_.emplace_back(current, total, static_cast<int>(status));
    });
    return reports_;
  }
  Reports Update(std::size_t size = kThreePackets) {
    return UpdateFrom(test::TemporaryFile(FirmwareBytes(size)).Path());
  }

  bool Installed(std::size_t size = kThreePackets) {
    bool same = false;
    Firmware([&](auto& firmware) { same = firmware.InstalledImage() == FirmwareBytes(size); });
    return same;
  }

  std::uint32_t RequestId(std::uint32_t child) const { return child << 24 | 0x00F10080 | own_; }
  std::uint32_t ReplyId(std::uint32_t child) const { return RequestId(child) ^ 0x00030080; }

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

  /// The requests since the last update began: U, F and R for upgrade, finish and restart, and for
  /// a packet its number, if its 32 frames follow undisturbed. Anything else is a question mark.
  std::string Wire(std::size_t size = kThreePackets) {
    auto image = FirmwareBytes(size);
    image.resize((size + 2047) / 2048 * 2048, 0xFF);
    std::string text;
    std::size_t sent = 0, end = 0;  // in the packet that is under way
    while (const auto frame = sniffer_->Receive(0ns)) {
      const auto& [id, len, data] = *frame;
      if ((id & 0xFE0080) != 0xF00080) continue;  // not of the update, or a reply
      const std::size_t child = id >> 24;
      const std::size_t used = child == 1 ? 6 : child == 2 ? 4 : 0;
      const bool padded = std::none_of(data.begin() + used, data.end(), [](int b) { return b; });
      const bool request = sent == end && id == RequestId(id >> 24) && padded;
      if (sent < end && id == (0x01F00080 | own_) && len == 64 &&
          std::equal(data.begin(), data.end(), &image[sent])) {
        sent += 64;
      } else if (request && child == 2 && len == 64 && std::size_t{2048} * data[0] < image.size()) {
        text += static_cast<char>('0' + data[0]);
        sent = std::size_t{2048} * data[0];
        end = sent + 2048;
      } else {
        text += request && child < 5 && len == (child == 1 ? 6 : 64) ? "?U?FR"[child] : '?';
      }
    }
    return text + (sent < end ? "?" : "");
  }

  /// The wire as far as the packets have come.
  std::string Packets(const std::string& numbers) const {
    return (model_.first_packet_twice ? "U0" : "U") + numbers;
  }

  /// The reports of a run of three packets that nothing disturbs, or the first of them.
  Reports Clean(std::size_t count = 10) const {
    const int first = model_.first_packet;
    const Reports all{{0, 3, 1},         {0, 3, 2}, {0, 3, 3}, {first, 3, 4}, {first + 1, 3, 4},
                      {first + 2, 3, 4}, {3, 3, 5}, {3, 3, 6}, {3, 3, 7},     {3, 3, 0}};
    return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)};
  }

  /// An error status: as its reply tells it, and as the run does.
  Reports Failure(int told, int code) const {
    return Failed(told, model_.replies_report) + Failed(code);
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
  const std::uint32_t own_ = model_.hand.family | kId;
  const Reports silence_ = Failed(-4, model_.reports_silence);
  test::VirtualClock clock_{2};
  sim::VirtualBus bus_{clock_};
  const std::unique_ptr<sim::VirtualBus::Port> sniffer_ = bus_.Open();
  std::mutex mutex_;
  Reports reports_;
  test::Streams written_;
  std::unique_ptr<KorvaneBase> hand_;
  CanUpdateState* state_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(, HandUpdate,
                         testing::Values(Brisa(), Tessel(), Lumen(), Vanta(), Quill()),
                         testing::PrintToStringParamName());

const std::string kLength = Line("Firmware length: 4196 bytes, Package num: 3");
const std::string kReceived =
    "[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=0\n";
const std::string kAccepted =
    Line("Upgrade request accepted (UPGRADE response), starting package transmission");
const std::string kWaiting = Line("Waiting for all packages to be transmitted...");

TEST_P(HandUpdate, ReplacesTheFirmwareAndReportsEachStage) {
  EXPECT_EQ(Update(), Clean());
  EXPECT_TRUE(Installed());
  EXPECT_FALSE(state_->HasCallback());
  EXPECT_EQ(hand_->GetVendorInfo().software_version.minor, 1);
  EXPECT_EQ(Wire(), Packets("012") + "FR");
  EXPECT_EQ(written_.err, "");
  EXPECT_EQ(written_.out, Stage(kLength + kReceived + kAccepted + kWaiting));
}

TEST_P(HandUpdate, WritesTheSameEventsWithoutACallback) {
  const auto written = UpdateSilently();
  EXPECT_EQ(written.err, "");
  const auto vendor_info = Line("Vendor Info: " + hand_->GetVendorInfo().ToString());
  EXPECT_EQ(written.out, Stage(Line("Firmware file loaded: 4196 bytes, 3 packets") + kLength) +
                             Stage(Line("Sending upgrade request (0x01)...") + kReceived) +
                             Reply(" OTA upgrade request accepted (status=0, child_id=UPGRADE)") +
                             Stage(kAccepted) + Reply(" Packet 0/3 transmitted [OK]") +
                             Stage(kWaiting) + Reply(" Packet 1/3 transmitted [OK]") +
                             Reply(" Packet 2/3 transmitted [OK]") +
                             Reply("[child_id:3][status: 0] OTA finished [OK]") +
                             Reply("[child_id: 4][status: 0] Restart acknowledged") +
                             Stage(Line("All packages transmitted [OK]") +
                                   Line("Device reconnected after restart") + vendor_info) +
                             model_.completed);
}

TEST_P(HandUpdate, InstallsFilesOfAnySizeByteForByteInThePaceThatTheHandNeeds) {
  for (const std::size_t size : {1U, 2047U, 2048U, 2049U, 20000U}) {
    const auto start = clock_.Now();
    EXPECT_EQ(std::get<2>(Update(size).back()), 0) << size;
    // 100 ms, the packets, 100 ms; none of it real time.
    EXPECT_GE(clock_.Now() - start, 200ms + 170ms * ((size + 2047) / 2048));
    EXPECT_TRUE(Installed(size)) << size;
    EXPECT_EQ(Wire(size), Packets(std::string("0123456789", (size + 2047) / 2048)) + "FR");
  }
}

TEST_P(HandUpdate, EndsWhenTheHandRefusesTheRequest) {
  for (const auto& [status, text] :
       StatusTexts{{1, "[ERROR]: Flash partition table acquisition failed\n"},
                   {2, "[ERROR]: Download partition erase failed\n"},
                   {3, "[ERROR]: Firmware length invalid\n"},
                   {kUnknownStatus, ""}}) {
    SetFault(Kind::kStatus, Child::kUpgrade, status);
    const int code = static_cast<int>(status);
    EXPECT_EQ(Update(), Clean(2) + Failed(code, model_.replies_report) +
                            Failed(code, model_.reports_refusal));
    const std::string rejected = "pgrade request rejected, error code: " + to_string(status);
    const std::string lines = RunError("U" + rejected) + Stage(text);
    EXPECT_EQ(written_.err, lines);
    EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
    EXPECT_EQ(Wire(), "U");
    std::string silent = ReplyError(" OTA u" + rejected + ", child_id: 1");
    EXPECT_EQ(UpdateSilently().err, silent.append(lines));
  }
}

TEST_P(HandUpdate, EndsAtTheFirstPacketThatTheHandRefuses) {
  for (const auto& [status, text] :
       StatusTexts{{1, "[ERROR]: Checksum verification failed\n"}, {5, ""}, {kUnknownStatus, ""}}) {
    for (unsigned packet = 1; packet <= 3; ++packet) {
      if (packet == 1 && status == 1 && model_.other_checksum) continue;
      const unsigned at = packet == 1 ? 0 : packet;  // each time, as it may go out twice
      const int code = static_cast<int>(status);
      SetFault(Kind::kStatus, Child::kPacket, status, at);
      EXPECT_EQ(Update(), Clean(2 + packet) + Failure(status == 1 ? -7 : code, code)) << packet;
      EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
      EXPECT_EQ(Wire(), Packets(std::string("012", packet)));
      SetFault(Kind::kStatus, Child::kPacket, status, at);
      const std::string failed = "transmission failed, error code: " + to_string(status);
      const std::string line = " Packet " + to_string(packet) + "/3 " + failed;
      EXPECT_EQ(UpdateSilently().err, ReplyError(line, text) + RunError("OTA " + failed));
    }
  }
  SetFault(Kind::kStatus, Child::kPacket, 5, 1);
  EXPECT_EQ(Update(), model_.first_packet_twice ? Clean() : Clean(3) + Failure(5, 5));
  EXPECT_EQ(Wire(), model_.first_packet_twice ? "U0012FR" : "U0");
}

TEST_P(HandUpdate, TellsARefusalOfTheFinishAndOfTheRestart) {
  for (const auto& [status, text] :
       StatusTexts{{1, "[ERROR]: No OTA request\n"},
                   {2, "[ERROR]: Firmware incomplete\n"},
                   {3, "[ERROR]: Flash partition table acquisition failed\n"},
                   {4, "[ERROR]: Upgrade flag setting failed\n"},
                   {kUnknownStatus, ""}}) {
    const int code = static_cast<int>(status);
    SetFault(Kind::kStatus, Child::kFinish, status);
    EXPECT_EQ(Update(), Clean(6) + Failure(code, code));
    EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
    Disturb(450ms);  // so slow that each wait meets its own reply
    const std::string number = to_string(status);
    const std::string line = "[child_id:3][status: " + number + "] OTA finish [NG]";
    EXPECT_EQ(UpdateSilently(1).err,
              ReplyError(line, text) + RunError("OTA finish failed, error code: " + number));
    Disturb(0ms);
  }
  SetFault(Kind::kStatus, Child::kRestart, 7);
  EXPECT_EQ(Update(), Clean(7) + Failed(7));
  EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
  Disturb(450ms);
  const auto written = UpdateSilently(1);
  EXPECT_EQ(written.err, RunError("OTA restart failed, error code: 7"));
  const std::string line = "[ProcessMsg][child_id: 4][status: 7] Restart response received\n";
  EXPECT_EQ(written.out.find("[INFO]: " + line) != std::string::npos, model_.writes_replies);
}

TEST_P(HandUpdate, TriesTheOtherChecksumOnceAtTheFirstPacketIfAtAll) {
  Firmware([](auto& firmware) { firmware.SetChecksum(sim::UpdateChecksum::kXmodem); });
  auto expected = Clean();
  expected.insert(expected.begin() + 3, {-7, 3, -1});
  const bool tries = model_.other_checksum;
  EXPECT_EQ(Update(), tries ? expected : Clean(3) + Failure(-7, 1));
  EXPECT_EQ(Installed(), tries);
  EXPECT_EQ(Wire(), tries ? "U0012FR" : Packets("0"));
  const std::string told =
      "[WARN][KorvaneBrisaCanImpl][UpdateFirmware] First OTA packet CRC failed with Modbus, "
      "fallback to CCITT and retry once\n";
  EXPECT_EQ(written_.err, tries ? told : "");
  if (!tries) return;
  SetFault(Kind::kStatus, Child::kPacket, 1);
  EXPECT_EQ(Update(), Clean(3) + Failed(-7) + Failure(-7, 1));
  EXPECT_EQ(Wire(), "U00");
}

TEST_P(HandUpdate, GivesUpOnAStageWhoseReplyNeverComesAndSucceedsTheNextTime) {
  for (unsigned stage = 1; stage <= 5; ++stage) {
    const bool is_packet = stage <= 3;
    const Child child = is_packet ? Child::kPacket : stage == 4 ? Child::kFinish : Child::kRestart;
    const unsigned at = is_packet ? stage : 1;
    const int code = is_packet ? -6 : stage == 4 ? -4 : -5;
    const std::string line =
        is_packet ? "OTA transmission timeout: " + to_string(4 - stage) + " packages remaining"
                  : std::string(stage == 4 ? "OTA finish" : "OTA restart") + " response timeout";
    // A reply of three bytes is no reply, and one to the restart of another update a wrong one.
    for (const Kind kind : {Kind::kLose, Kind::kShort, Kind::kReset, Kind::kRestartFirst}) {
      SCOPED_TRACE("stage " + to_string(stage) + " kind " + to_string(static_cast<int>(kind)));
      auto expected = Clean(2 + stage);
      if (kind == Kind::kRestartFirst) {
        if (stage == 5 || (stage == 1 && model_.first_packet_twice)) continue;
        expected.emplace_back(static_cast<int>(stage) - 1, 3, 6);
      }
      SetFault(kind, child, 0, at);
      const auto start = clock_.Now();
      EXPECT_EQ(Update(), expected + Failed(code));
      EXPECT_GE(clock_.Now() - start, is_packet ? 300s : 30s);
      EXPECT_EQ(state_->HasCallback(), !is_packet && model_.keeps_callback);
      SetFault(kind, child, 0, at);
      EXPECT_EQ(UpdateSilently().err, RunError(line));
      EXPECT_EQ(Update(), Clean());
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
    EXPECT_EQ(reports.back(), (Report{3, 3, 0})) << static_cast<int>(child);
    EXPECT_EQ(std::count_if(reports.begin(), reports.end(),
                            [](const Report& report) { return std::get<2>(report) == 6; }),
              child == Child::kRestart && model_.repeats_restart ? 2 : 1);
    EXPECT_TRUE(Installed());
    EXPECT_EQ(Wire().find('?'), std::string::npos);
  }
}

TEST_P(HandUpdate, AsksTwelveTimesWhenNothingAnswers) {
  bus_.SetPlugged(0, false);
  const auto start = clock_.Now();
  EXPECT_EQ(Update(), Clean(2) + silence_);
  EXPECT_EQ(clock_.Now() - start, 5100ms);
  EXPECT_EQ(Wire(), std::string(12, 'U'));
  EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
  std::string resent;
  for (int i = 0; i <= 10; ++i) {
    resent += "[DEBUG]: [UpdateFirmware] Sent UPGRADE request (attempt " + to_string(i) + ")\n";
  }
  EXPECT_EQ(written_.out, Stage(kLength + resent));
  EXPECT_EQ(written_.err, NoReply("99", "-1"));
  const auto written = UpdateSilently();
  EXPECT_EQ(written.out, Stage(Line("Firmware file loaded: 4196 bytes, 3 packets") + kLength +
                               Line("Sending upgrade request (0x01)...") + resent));
  EXPECT_EQ(written.err, NoReply("99", "-1"));
}

TEST_P(HandUpdate, WaitsForAHandThatStillRestartsAndTellsWhatItHeardInTheEnd) {
  SetFault(Kind::kRestartFirst, Child::kUpgrade, 0, 1);
  auto expected = Clean();
  expected.insert(expected.begin() + 2, {0, 3, 6});
  EXPECT_EQ(Update(), expected);
  EXPECT_THAT(written_.out, testing::HasSubstr(model_.restarting));
  Disturb(1ms);  // the reply to the last request is too late
  SetFault(Kind::kRestartFirst, Child::kUpgrade);
  const auto start = clock_.Now();
  const std::size_t heard = model_.repeats_restart ? 11 : 1;
  EXPECT_EQ(Update(), Clean(2) + Reports(heard, {0, 3, 6}) + silence_);
  EXPECT_EQ(clock_.Now() - start, 7100ms) << "it was given two seconds for that";
  EXPECT_EQ(written_.err, NoReply("0", "4"));
  // The hand's own 99 reads as no reply.
  SetFault(Kind::kStatus, Child::kUpgrade, 99);
  EXPECT_EQ(Update(), Clean(2) + Times(11, Failed(99, model_.replies_report)) + silence_);
  EXPECT_EQ(written_.err, NoReply("99", "1"));
}

TEST_P(HandUpdate, CountsAsDoneWhenTheHandDoesNotComeBack) {
  Firmware([](auto& firmware) { firmware.SetRestartTime(1h); });
  hand_->SetFrameRecvTimeout(10);
  EXPECT_EQ(Update(), Clean(8) + Reports(10, {3, 3, 7}) + Reports(1, {3, 3, 0}));
  EXPECT_FALSE(state_->HasCallback());
  EXPECT_TRUE(Installed());
  clock_.SleepFor(1h);
  const auto written = UpdateSilently();
  EXPECT_THAT(written.err, testing::EndsWith("timeout (10ms)\n" + model_.not_back));
  const auto line = Line("OTA upgrade process completed (device may need manual verification)");
  EXPECT_THAT(written.out, testing::EndsWith(Stage(line)));
}

TEST_P(HandUpdate, ReportsAFileThatIsNoImage) {
  Update();  // leaves counts of its own behind
  const test::TemporaryFile empty({});
  for (const auto& [path, code, line] :
       {std::tuple{std::string("/no/such/file"), -2, std::string("Failed to read /no/such/file")},
        {empty.Path(), -3, "File is empty"},
        {std::string("/tmp"), -3, "File is empty"}}) {
    EXPECT_EQ(UpdateFrom(path), (Reports{{code, 0, -1}}));
    EXPECT_EQ(written_.err, "");
    EXPECT_FALSE(state_->HasCallback());
    EXPECT_EQ(Write(path, nullptr).err, RunError(line));
  }
  EXPECT_EQ(Wire(), "");
}

TEST_P(HandUpdate, ReportsALateReplyAsLongAsTheCallbackStays) {
  SetFault(Kind::kLose, Child::kFinish);
  const auto before = Update();
  Arrive(ReplyId(4));
  EXPECT_EQ(reports_, before + Reports(model_.keeps_callback ? 1 : 0, {3, 3, 6}));
  EXPECT_TRUE(state_->ota_restart_ok);
}

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

TEST_P(HandUpdate, CannotBeginWithoutATransport) {
  UseTransport(nullptr);
  EXPECT_EQ(Update(1), (Reports{{0, 1, 1}, {0, 1, 2}}));
  EXPECT_EQ(written_.err, RunError("Failed to send upgrade request: no transport"));
  EXPECT_EQ(state_->HasCallback(), model_.keeps_callback);
  EXPECT_EQ(test::Told([&] { model_.send_all(*hand_); }),
            Error("SendPackage] Failed to send checksum request: no transport") +
                Error("SendFinishRequest] no transport") +
                Error("SendRestartRequest] no transport"));
}

TEST_P(HandUpdate, AsksForTheResultTenTimesAtMost) {
  const auto gave_up = Error("GetUpgradeResult] Failed to get upgrade result after 10 retries");
  std::string gone;
  for (int i = 1; i <= 10 && model_.writes; ++i) {
    gone += "[WARN][" + model_.hand.class_name + "][GetUpgradeResult][retry:" + to_string(i) +
            "/10] gone\n";
  }
  const int if_bad = model_.asks_until_good ? 10 : 1;
  const auto bad = Times(if_bad, model_.result_bad) + (model_.asks_until_good ? gave_up : "");
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
    EXPECT_EQ(clock.Now() - start, model_.pause * (tries - 1));
    const std::string query = test::Show(std::vector{test::FullFrame(RequestId(5), {})});
    EXPECT_EQ(test::Show(rig.device->TakeSent()), Times(tries, query));
  }
}

}  // namespace
}  // namespace talvera::korvane
