// The firmware update against a simulated hand that checks every packet. All waits pass in virtual
// time, so that the whole fault matrix takes seconds and nothing depends on the machine.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <tuple>

#include "impl/korvane_brisa_can_impl.h"
#include "support/bus_device.h"
#include "support/capture.h"
#include "support/temporary_file.h"
#include "support/virtual_clock.h"

namespace talvera::korvane {
namespace {

using test::BusDevice;
using test::CaptureStreams;
using test::FirmwareBytes;
using test::TemporaryFile;
using test::VirtualClock;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr std::uint8_t kId = 0x27;
constexpr std::size_t kThreePackets = 2 * 2048 + 100;

using Report = std::tuple<int, int, int>;

/// A run of three packets that nothing disturbs.
const std::vector<Report> kCleanRun = {{0, 3, 1}, {0, 3, 2}, {0, 3, 3}, {0, 3, 4}, {1, 3, 4},
                                       {2, 3, 4}, {3, 3, 5}, {3, 3, 6}, {3, 3, 7}, {3, 3, 0}};

class BrisaUpdate : public testing::Test {
 protected:
  BrisaUpdate() {
    sim::SimulatedHand hand(sim::kBrisa, kId);
    hand.Firmware().SetRestartTime(std::chrono::milliseconds(50));
    bus_.Add(std::move(hand));
    sniffer_ = bus_.Open();
    hand_ = std::make_unique<KorvaneBrisaCanImpl>(HandType::RIGHT, kId,
                                                  std::make_unique<BusDevice>(bus_));
    hand_->ota_clock = &clock_;
    hand_->SetFrameRecvTimeout(1000);
  }

  void SetFault(const sim::UpdateFault& fault) {
    bus_.WithHand(0, [&](sim::SimulatedHand& hand) { hand.Firmware().AddFault(fault); });
  }

  /// What the callback heard.
  std::vector<Report> Update(std::size_t size = kThreePackets) {
    const TemporaryFile file(FirmwareBytes(size));
    reports_.clear();
    written_ = CaptureStreams([&] {
      hand_->UpdateFirmware(file.Path(), [this](int current, int total, OtaProgressStatus status) {
        const std::lock_guard lock(mutex_);
        reports_.emplace_back(current, total, static_cast<int>(status));
      });
    });
    return Reports();
  }

  std::vector<Report> Reports() {
    const std::lock_guard lock(mutex_);
    return reports_;
  }

  /// What a run without a callback wrote.
  test::Streams UpdateSilently(std::size_t size = kThreePackets) {
    const TemporaryFile file(FirmwareBytes(size));
    return CaptureStreams([&] { hand_->UpdateFirmware(file.Path(), nullptr); });
  }

  bool Installed(std::size_t size = kThreePackets) {
    bool same = false;
    bus_.WithHand(0, [&](sim::SimulatedHand& hand) {
      same = hand.Firmware().InstalledImage() == FirmwareBytes(size);
    });
    return same;
  }

  bool CallbackInstalled() {
    const std::lock_guard lock(hand_->ota_mutex);
    return static_cast<bool>(hand_->ota_progress_callback);
  }

  /// The update requests that went out since the last call, by child.
  std::vector<int> Requests() {
    std::vector<int> children;
    while (const auto frame = sniffer_->Receive(std::chrono::nanoseconds(0))) {
      if ((frame->id & 0x00FF0080) == 0x00F10080)
        children.push_back(static_cast<int>(frame->id >> 24));
    }
    return children;
  }

  VirtualClock clock_{2};
  sim::VirtualBus bus_{clock_};
  std::unique_ptr<sim::VirtualBus::Port> sniffer_;
  std::mutex mutex_;
  std::vector<Report> reports_;
  test::Streams written_;
  std::unique_ptr<KorvaneBrisaCanImpl> hand_;
};

using Kind = sim::UpdateFault::Kind;
using sim::UpdateChild;

/// The reports of a run up to and including the one that begins a stage.
std::vector<Report> CleanUpTo(std::size_t count) {
  return {kCleanRun.begin(), kCleanRun.begin() + static_cast<std::ptrdiff_t>(count)};
}

std::vector<Report> operator+(std::vector<Report> reports, const std::vector<Report>& more) {
  reports.insert(reports.end(), more.begin(), more.end());
  return reports;
}

std::multiset<std::string> SortedLines(const std::string& text) {
  std::istringstream stream(text);
  std::multiset<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.insert(line);
  return lines;
}

constexpr const char* kPrefix = "[ERROR][KorvaneBrisaCanImpl][";

TEST_F(BrisaUpdate, ReplacesTheFirmwareAndReportsEachStage) {
  EXPECT_THAT(Update(), ElementsAreArray(kCleanRun));
  EXPECT_TRUE(Installed());
  EXPECT_FALSE(CallbackInstalled());
  EXPECT_EQ(hand_->GetVendorInfo().software_version.minor, 1);
  EXPECT_THAT(Requests(), ElementsAre(1, 2, 2, 2, 3, 4));
  EXPECT_EQ(written_.err, "");
  // These are written with a callback too.
  EXPECT_EQ(written_.out,
            "[INFO]: [UpdateFirmware] Firmware length: 4196 bytes, Package num: 3\n"
            "[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=0\n"
            "[INFO]: [UpdateFirmware] Upgrade request accepted (UPGRADE response), starting "
            "package transmission\n"
            "[INFO]: [UpdateFirmware] Waiting for all packages to be transmitted...\n");
}

TEST_F(BrisaUpdate, InstallsFilesOfAnySizeByteForByte) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{2047}, std::size_t{2048},
                                 std::size_t{2049}, std::size_t{20000}}) {
    EXPECT_EQ(std::get<2>(Update(size).back()), 0) << size;
    EXPECT_TRUE(Installed(size)) << size;
  }
}

TEST_F(BrisaUpdate, WritesTheSameEventsWithoutACallback) {
  const auto written = UpdateSilently(1);
  EXPECT_EQ(written.err, "");
  // The two threads write at the same moment in places.
  EXPECT_EQ(
      SortedLines(written.out),
      SortedLines("[INFO]: [UpdateFirmware] Firmware file loaded: 1 bytes, 1 packets\n"
                  "[INFO]: [UpdateFirmware] Firmware length: 1 bytes, Package num: 1\n"
                  "[INFO]: [UpdateFirmware] Sending upgrade request (0x01)...\n"
                  "[INFO]: [ProcessMsg] Received OTA UPGRADE response: child_id=1, status=0\n"
                  "[INFO]: [ProcessMsg] OTA upgrade request accepted (status=0, child_id=UPGRADE)\n"
                  "[INFO]: [UpdateFirmware] Upgrade request accepted (UPGRADE response), starting "
                  "package transmission\n"
                  "[INFO]: [UpdateFirmware] Waiting for all packages to be transmitted...\n"
                  "[INFO]: [ProcessMsg] Packet 0/1 transmitted [OK]\n"
                  "[INFO]: [ProcessMsg][child_id:3][status: 0] OTA finished [OK]\n"
                  "[INFO]: [ProcessMsg][child_id: 4][status: 0] Restart acknowledged\n"
                  "[INFO]: [UpdateFirmware] All packages transmitted [OK]\n"
                  "[INFO]: [UpdateFirmware] Device reconnected after restart\n"
                  "[INFO]: [UpdateFirmware] Vendor Info: " +
                  hand_->GetVendorInfo().ToString() +
                  "\n[INFO]: [UpdateFirmware] OTA upgrade process completed [OK]!\n"));
}

TEST_F(BrisaUpdate, SendsPacketsInThePaceAndShapeThatTheHandNeeds) {
  const auto start = clock_.Now();
  Update(1);
  // 100 ms, one packet, two polls at most until the end is seen, 100 ms; none of it real time.
  EXPECT_GE(clock_.Now() - start, std::chrono::milliseconds(370));
  std::vector<sim::Frame> frames;
  while (const auto frame = sniffer_->Receive(std::chrono::nanoseconds(0)))
    frames.push_back(*frame);
  const auto is = [](std::uint32_t id) { return [id](const sim::Frame& f) { return f.id == id; }; };
  EXPECT_EQ(std::count_if(frames.begin(), frames.end(), is(0x01F001A7)), 32);
  const auto upgrade = std::find_if(frames.begin(), frames.end(), is(0x01F101A7));
  ASSERT_NE(upgrade, frames.end());
  EXPECT_EQ(upgrade->len, 6);
  EXPECT_THAT(std::vector<int>(upgrade->data.begin(), upgrade->data.begin() + 7),
              ElementsAre(1, 0, 0, 0, 1, 0, 0));
  const auto checksum = std::find_if(frames.begin(), frames.end(), is(0x02F101A7));
  ASSERT_NE(checksum, frames.end());
  EXPECT_EQ(checksum->len, 64);
}

TEST_F(BrisaUpdate, EndsWhenTheHandRefusesTheRequest) {
  for (const auto& [status, text] : std::vector<std::pair<std::uint32_t, std::string>>{
           {1, "[ERROR]: Flash partition table acquisition failed\n"},
           {2, "[ERROR]: Download partition erase failed\n"},
           {3, "[ERROR]: Firmware length invalid\n"},
           {9, ""}}) {
    SetFault({Kind::kStatus, UpdateChild::kUpgrade, status});
    const int code = static_cast<int>(status);
    EXPECT_THAT(Update(), ElementsAreArray(CleanUpTo(2) + std::vector<Report>{{code, 3, -1}}));
    const std::string rejected =
        std::string(kPrefix) +
        "UpdateFirmware] Upgrade request rejected, error code: " + std::to_string(status) + "\n" +
        text;
    EXPECT_EQ(written_.err, rejected);
    EXPECT_TRUE(CallbackInstalled());
    EXPECT_EQ(UpdateSilently().err, std::string(kPrefix) +
                                        "ProcessMsg] OTA upgrade request rejected, error code: " +
                                        std::to_string(status) + ", child_id: 1\n" + rejected);
    bus_.WithHand(0, [](sim::SimulatedHand& hand) { hand.Firmware().ClearFaults(); });
  }
}

TEST_F(BrisaUpdate, EndsAtTheFirstPacketThatTheHandRefuses) {
  for (unsigned packet = 1; packet <= 3; ++packet) {
    SetFault({Kind::kStatus, UpdateChild::kPacket, 5, packet});
    EXPECT_THAT(Update(), ElementsAreArray(CleanUpTo(2 + packet) +
                                           std::vector<Report>{{5, 3, -1}, {5, 3, -1}}))
        << packet;
    EXPECT_TRUE(CallbackInstalled());
    bus_.WithHand(0, [](sim::SimulatedHand& hand) { hand.Firmware().ClearFaults(); });
  }
  SetFault({Kind::kStatus, UpdateChild::kPacket, 1, 2});
  Requests();
  EXPECT_THAT(Update(),
              ElementsAreArray(CleanUpTo(4) + std::vector<Report>{{-7, 3, -1}, {1, 3, -1}}));
  EXPECT_THAT(Requests(), ElementsAre(1, 2, 2)) << "a later packet isn't sent again";

  bus_.WithHand(0, [](sim::SimulatedHand& hand) { hand.Firmware().ClearFaults(); });
  SetFault({Kind::kStatus, UpdateChild::kPacket, 1, 2});
  EXPECT_EQ(UpdateSilently().err,
            std::string(kPrefix) + "ProcessMsg] Packet 2/3 transmission failed, error code: 1\n" +
                "[ERROR]: Checksum verification failed\n" + kPrefix +
                "UpdateFirmware] OTA transmission failed, error code: 1\n");
}

TEST_F(BrisaUpdate, FallsBackToTheOtherChecksumOnceAtTheFirstPacket) {
  bus_.WithHand(0, [](sim::SimulatedHand& hand) {
    hand.Firmware().SetChecksum(sim::UpdateChecksum::kXmodem);
  });
  auto expected = kCleanRun;
  expected.insert(expected.begin() + 3, {-7, 3, -1});
  EXPECT_THAT(Update(), ElementsAreArray(expected));
  EXPECT_TRUE(Installed());
  EXPECT_THAT(Requests(), ElementsAre(1, 2, 2, 2, 2, 3, 4));
  EXPECT_EQ(written_.err,
            "[WARN][KorvaneBrisaCanImpl][UpdateFirmware] First OTA packet CRC failed with Modbus, "
            "fallback to CCITT and retry once\n");

  SetFault({Kind::kStatus, UpdateChild::kPacket, 1});
  EXPECT_THAT(Update(), ElementsAreArray(CleanUpTo(3) + std::vector<Report>{
                                                            {-7, 3, -1}, {-7, 3, -1}, {1, 3, -1}}));
}

TEST_F(BrisaUpdate, TellsARefusalOfTheFinishAndOfTheRestart) {
  for (const auto& [status, text] : std::vector<std::pair<std::uint32_t, std::string>>{
           {1, "[ERROR]: No OTA request\n"},
           {2, "[ERROR]: Firmware incomplete\n"},
           {3, "[ERROR]: Flash partition table acquisition failed\n"},
           {4, "[ERROR]: Upgrade flag setting failed\n"},
           {9, ""}}) {
    SetFault({Kind::kStatus, UpdateChild::kFinish, status});
    const int code = static_cast<int>(status);
    EXPECT_THAT(Update(),
                ElementsAreArray(CleanUpTo(6) + std::vector<Report>{{code, 3, -1}, {code, 3, -1}}));
    EXPECT_THAT(UpdateSilently().err,
                HasSubstr(std::string(kPrefix) + "ProcessMsg][child_id:3][status: " +
                          std::to_string(status) + "] OTA finish [NG]\n" + text));
    bus_.WithHand(0, [](sim::SimulatedHand& hand) { hand.Firmware().ClearFaults(); });
  }
  SetFault({Kind::kStatus, UpdateChild::kRestart, 7});
  EXPECT_THAT(Update(), ElementsAreArray(CleanUpTo(7) + std::vector<Report>{{7, 3, -1}}));
  const auto written = UpdateSilently();
  EXPECT_THAT(
      written.out,
      HasSubstr("[INFO]: [ProcessMsg][child_id: 4][status: 7] Restart response received\n"));
  // Whichever wait sees the status tells it.
  const std::string prefix = std::string(kPrefix) + "UpdateFirmware] OTA ";
  EXPECT_THAT(written.err, testing::AnyOf(prefix + "restart failed, error code: 7\n",
                                          prefix + "transmission failed, error code: 7\n"));
}

TEST_F(BrisaUpdate, GivesUpOnAStageWhoseReplyNeverComes) {
  struct Case {
    UpdateChild child;
    std::size_t stages;
    int code;
    bool callback_stays;
    std::string line;
    int seconds;
  };
  for (const auto& [child, stages, code, stays, line, seconds] :
       {Case{UpdateChild::kPacket, 3, -6, false, "OTA transmission timeout: 3 packages remaining",
             300},
        Case{UpdateChild::kFinish, 6, -4, true, "OTA finish response timeout", 30},
        Case{UpdateChild::kRestart, 7, -5, true, "OTA restart response timeout", 30}}) {
    // A reply of three bytes is no reply.
    for (const Kind kind : {Kind::kLose, Kind::kShort}) {
      SetFault({kind, child});
      const auto start = clock_.Now();
      EXPECT_THAT(Update(),
                  ElementsAreArray(CleanUpTo(stages) + std::vector<Report>{{code, 3, -1}}));
      EXPECT_GE(clock_.Now() - start, std::chrono::seconds(seconds));
      EXPECT_EQ(CallbackInstalled(), stays);
      EXPECT_EQ(UpdateSilently().err, std::string(kPrefix) + "UpdateFirmware] " + line + "\n");
      bus_.WithHand(0, [](sim::SimulatedHand& hand) { hand.Firmware().ClearFaults(); });
      clock_.SleepFor(std::chrono::seconds(1));  // the hand may be restarting
    }
  }
}

TEST_F(BrisaUpdate, GoesOnAfterLostAndDuplicateAcknowledgments) {
  SetFault({Kind::kLose, UpdateChild::kUpgrade, 0, 1});
  EXPECT_THAT(Update(), ElementsAreArray(kCleanRun));
  EXPECT_THAT(written_.out,
              HasSubstr("[DEBUG]: [UpdateFirmware] Sent UPGRADE request (attempt 0)\n"));
  for (const auto child :
       {UpdateChild::kUpgrade, UpdateChild::kPacket, UpdateChild::kFinish, UpdateChild::kRestart}) {
    bus_.WithHand(0, [](sim::SimulatedHand& hand) { hand.Firmware().ClearFaults(); });
    clock_.SleepFor(std::chrono::seconds(1));
    SetFault({Kind::kDuplicate, child, 0, child == UpdateChild::kPacket ? 1U : 0U});
    EXPECT_EQ(Update().back(), (Report{3, 3, 0})) << static_cast<int>(child);
    EXPECT_TRUE(Installed());
  }
  EXPECT_THAT(written_.out, HasSubstr("[DEBUG]: [ProcessMsg] Ignoring duplicate RESTART response "
                                      "(device restarting)\n"));
}

TEST_F(BrisaUpdate, AsksTwelveTimesWhenNothingAnswers) {
  bus_.SetPlugged(0, false);
  const auto start = clock_.Now();
  EXPECT_THAT(Update(), ElementsAreArray(CleanUpTo(2)));
  EXPECT_EQ(clock_.Now() - start, std::chrono::milliseconds(5100));
  EXPECT_THAT(Requests(), ElementsAreArray(std::vector<int>(12, 1)));
  EXPECT_TRUE(CallbackInstalled());
  std::string warnings;
  for (int i = 3; i <= 10; ++i) {
    warnings +=
        "[WARN]: [UpdateFirmware] Upgrade request no response (status=99, child_id=-1), "
        "retrying...\n";
  }
  EXPECT_EQ(written_.err,
            warnings + kPrefix +
                "UpdateFirmware] Upgrade request failed after 10 retries: no valid response\n");
}

TEST_F(BrisaUpdate, WaitsForAHandThatStillRestartsFromAnEarlierUpdate) {
  SetFault({Kind::kRestartFirst, UpdateChild::kUpgrade, 0, 1});
  auto expected = kCleanRun;
  expected.insert(expected.begin() + 2, {0, 3, 6});
  EXPECT_THAT(Update(), ElementsAreArray(expected));
  EXPECT_THAT(written_.out, HasSubstr("Received restart response (0x04), device will restart. "
                                      "Waiting for restart...\n"));
}

TEST_F(BrisaUpdate, FailsWhenTheHandResetsInTheMiddleAndSucceedsTheNextTime) {
  SetFault({Kind::kReset, UpdateChild::kPacket, 0, 2});
  EXPECT_EQ(Update().back(), (Report{-6, 3, -1}));
  EXPECT_FALSE(Installed());
  EXPECT_EQ(hand_->GetVendorInfo().software_version.minor, 0);
  EXPECT_THAT(Update(), ElementsAreArray(kCleanRun));
  EXPECT_TRUE(Installed());
}

TEST_F(BrisaUpdate, CountsAsDoneWhenTheHandDoesNotComeBack) {
  bus_.WithHand(
      0, [](sim::SimulatedHand& hand) { hand.Firmware().SetRestartTime(std::chrono::hours(1)); });
  hand_->SetFrameRecvTimeout(10);
  auto expected = CleanUpTo(8) + std::vector<Report>(10, Report{3, 3, 7});
  expected.emplace_back(3, 3, 0);
  EXPECT_THAT(Update(), ElementsAreArray(expected));
  EXPECT_FALSE(CallbackInstalled());
}

TEST_F(BrisaUpdate, ReportsAFileThatIsNoImage) {
  const auto run = [&](const std::string& path, bool with_callback) {
    reports_.clear();
    written_ = CaptureStreams([&] {
      hand_->UpdateFirmware(
          path, with_callback
                    ? ProgressCallback([this](int current, int total, OtaProgressStatus status) {
                        reports_.emplace_back(current, total, static_cast<int>(status));
                      })
                    : nullptr);
    });
  };
  Update();  // leaves counts of its own behind
  const TemporaryFile empty({});
  for (const auto& [path, code, line] :
       {std::tuple{std::string("/no/such/file"), -2, std::string("Failed to read /no/such/file")},
        {empty.Path(), -3, "File is empty"},
        {std::string("/tmp"), -3, "File is empty"}}) {
    run(path, true);
    EXPECT_THAT(reports_, ElementsAre(Report{code, 0, -1}));
    EXPECT_EQ(written_.err, "");
    EXPECT_FALSE(CallbackInstalled());
    run(path, false);
    EXPECT_EQ(written_.err, std::string(kPrefix) + "UpdateFirmware] " + line + "\n");
  }
}

TEST_F(BrisaUpdate, ReportsALateReplyUntilTheNextRun) {
  SetFault({Kind::kLose, UpdateChild::kFinish});
  Update();
  ASSERT_TRUE(CallbackInstalled());
  CanfdFrame late;
  late.can_id = 0x04F20127;
  late.len = 4;
  hand_->ProcessMsg(late);
  EXPECT_EQ(Reports().back(), (Report{3, 3, 6}));
}

TEST_F(BrisaUpdate, LeavesItsStateAloneWhenAFrameIsNoReply) {
  const auto count = [&] { return hand_->ota_package_index.load(); };
  CanfdFrame frame;
  frame.len = 4;
  for (const std::uint32_t id : {0x00F20127U, 0x05F20127U, 0x1FF20127U, 0x02F10127U, 0x02F00127U}) {
    frame.can_id = id;
    hand_->ProcessMsg(frame);
  }
  frame.can_id = 0x02F20127;
  frame.len = 3;
  hand_->ProcessMsg(frame);
  EXPECT_EQ(hand_->ota_status, 99U);
  EXPECT_EQ(hand_->ota_child_id, -1);
  EXPECT_EQ(count(), 0U);

  // An acknowledgment without a packet still counts, and asks the hand to finish. It may come from
  // any device and with the flag bits of an adapter.
  frame.can_id = 0x82F20105;
  frame.len = 4;
  CaptureStreams([&] { hand_->ProcessMsg(frame); });
  EXPECT_EQ(count(), 1U);
  EXPECT_THAT(Requests(), ElementsAre(3));
}

TEST_F(BrisaUpdate, CannotBeginWithoutATransport) {
  KorvaneBrisaCanImpl hand(HandType::RIGHT, kId, nullptr);
  hand.ota_clock = &clock_;
  const TemporaryFile file(FirmwareBytes(1));
  std::vector<int> statuses;
  const auto written = CaptureStreams([&] {
    hand.UpdateFirmware(file.Path(), [&](int, int, OtaProgressStatus status) {
      statuses.push_back(static_cast<int>(status));
    });
    hand.SendPackage();
    hand.SendFinishRequest();
  });
  EXPECT_THAT(statuses, ElementsAre(1, 2));
  EXPECT_EQ(written.err, std::string(kPrefix) +
                             "UpdateFirmware] Failed to send upgrade request: no transport\n" +
                             kPrefix +
                             "SendPackage] Failed to send checksum request: no transport\n" +
                             kPrefix + "SendFinishRequest] no transport\n");
  EXPECT_TRUE(hand.ota_progress_callback);
}

TEST_F(BrisaUpdate, AsksForTheResultUntilItIsGood) {
  Update();
  EXPECT_EQ(CaptureStreams([&] { hand_->GetUpgradeResult(); }).out,
            "[INFO]: [GetUpgradeResult] OTA upgrade result query successful, upgrade completed!\n");
  EXPECT_EQ(hand_->ota_status, 0U);
  SetFault({Kind::kStatus, UpdateChild::kResult, 6});
  std::string expected;
  for (int i = 0; i < 10; ++i) {
    expected += "[WARN]: [GetUpgradeResult] OTA upgrade result: 6, retrying...\n";
  }
  EXPECT_EQ(
      CaptureStreams([&] { hand_->GetUpgradeResult(); }).err,
      expected + kPrefix + "GetUpgradeResult] Failed to get upgrade result after 10 retries\n");
}

}  // namespace
}  // namespace talvera::korvane
