// The firmware update over a serial line: the library's own port and receive thread on a terminal
// of the kernel, and at its other end a hand that has its turn in each wait of the update, which
// pass in virtual time: it takes all that was sent and answers, and the wait ends when the answers
// were taken, so that nothing depends on the machine. Queries of the version wait in real time, in
// vain, and then find what the hand said to the query before.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "serial/usb_device.h"
#include "support/pseudo_terminal.h"
#include "support/update_run.h"
#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono_literals;
using std::string;
using std::to_string;
using test::FirstWords;
using test::kThreePackets;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using Bytes = std::vector<std::uint8_t>;
using Replies = std::vector<std::pair<std::uint8_t, std::uint32_t>>;  ///< Child and result.
using Duration = std::chrono::nanoseconds;

constexpr std::uint8_t kId = 0x21;
constexpr int kBaud = 921600;  // So fast that reads hardly wait.
constexpr std::size_t kPacket = 2048;
constexpr Duration kAccepted = 105ms, kDone = 3365ms;
/// What a run over three packets reports ("current/total=status") and requests if all goes well.
const string kGood = "0/3=1 0/3=2 0/3=3 1/3=4 2/3=4 3/3=4 3/3=5 3/3=6 3/3=7 3/3=0 ";
const string kGoodWire = "Vx U- V- 0m 1m 2m Fm Rm ";
const string kTwice = "0/3=1 0/3=2 1/3=9 0/3=8 " + kGood.substr(12);
const string kGivenUp = "0/3=1 0/3=2 1/3=9 -4/3=-1 ";
/// V is a query of the version, U, F and R are the other requests, 0 to 2 those of the packets. The
/// second sign stands for the trailer.
const string kFrames =
    "Vx eeaa210001cd7b1d V- eeaa210001cd5555 U- eeaa210008f1010008000001005555 "
    "U- eeaa210008f1016410000003005555 0x eeaa210006f1020000039008d6 "
    "1x eeaa210006f1020100ece661be 2x eeaa210006f102020079abca5b 0m eeaa210006f10200000074ddfa "
    "1m eeaa210006f10201005eb525f6 2m eeaa210006f10202003e2a4dda Fx eeaa210006f10300000000b3aa "
    "Rx eeaa210006f1040000000067cd Fm eeaa210006f10300000000e01d Rm eeaa210006f1040000000055dd ";
const string kKnown = "[USB_OTA][fw version: 2.0.0][hw version: 4.5.6][validation type: 1]\n";
const string kLost = "[USB_OTA]: exception during send/wait (device disconnected?): ";
const string kGivingUp = "[USB_OTA]: Reconnect failed, giving up\n";
const string kError = "[ERROR][KorvaneBrisaSerialImpl][UpdateFirmware] ";
const string kNoUpgrade = kError + "Upgrade request timeout\n";

class SerialUpdateRun : public testing::Test, public Clock {
 protected:
  /// What the hand has of an update.
  struct Received {
    string wire;
    TimePoint now{};
    Bytes image;
    std::map<int, unsigned> requests;  ///< How many there were to each child.
  };

  SerialUpdateRun() { MakeHand(line_.Path()); }
  void MakeHand(const string& port) {
    const test::StreamCapture out(stdout), err(stderr);
    hand_ = std::make_unique<KorvaneBrisaSerialImpl>(HandType::RIGHT, kId, port, kBaud);
    hand_->SetFrameRecvTimeout(10);
    hand_->ota_clock = this;
    if (UsbSerialDevice* const device = hand_->Device()) {
      device->clock_ = device->pause_clock_ = this;
    }
  }
  const test::UpdateOutcome& Run(const string& path, bool reports = true) {
    run_ = {};
    runner_.on_report = [this](const string& report) {
      if (report != unplugs_at_) return;
      line_.Unplug();
      while (hand_->Device()->running_) std::this_thread::yield();
    };
    const test::UpdateOutcome& outcome = runner_.Run(*hand_, *this, path, reports);
    reports ? ExpectFailureAsReported() : ExpectFailureAsTold();
    return outcome;
  }
  /// By the last report, "code/total=-1" or "total/total=0".
  void ExpectFailureAsReported() const {
    const string& reports = runner_.Outcome().reports;
    const std::size_t last = reports.find_last_of(' ', reports.size() - 2) + 1;
    const int code = std::stoi(reports.substr(last));
    const bool open = hand_->Device() != nullptr && hand_->Device()->isOpen();
    FailureKind kind = FailureKind::REFUSED;
    if (code <= -4 && code >= -6) kind = open ? FailureKind::NO_REPLY : FailureKind::NO_LINK;
    if (code == -2 || code == -3) kind = FailureKind::BAD_ARGUMENT;
    const bool complete = reports.find("=0 ", last) != string::npos;
    if (complete) kind = FailureKind::NONE;
    for (const auto& [request, replies] : faults_) {
      const int child = request.first;
      const bool refused = std::any_of(replies.begin(), replies.end(), [&](const auto& reply) {
        // No report tells that the upgrade or the restart is refused.
        const bool ends = child == 1 || reply.second == static_cast<std::uint32_t>(code);
        return reply.second != 0 && (child == 4 || (!complete && ends));
      });
      if (refused) kind = FailureKind::REFUSED;
    }
    EXPECT_EQ(LastFailure(*hand_).kind, kind) << reports;
    EXPECT_EQ(LastFailure(*hand_).operation, kind == FailureKind::NONE ? "" : "UpdateFirmware");
  }
  void ExpectFailureAsTold() const {
    const Failure failure = LastFailure(*hand_);
    if (failure.kind == FailureKind::NONE) {
      EXPECT_THAT(Written().err, Not(HasSubstr(kError)));
      return;
    }
    EXPECT_THAT(Written().out + Written().err, HasSubstr(failure.text + "\n"));
  }
  const test::UpdateOutcome& Update(std::size_t size = kThreePackets, bool reports = true) {
    return Run(test::TemporaryFile(test::FirmwareBytes(size)).Path(), reports);
  }
  const test::Streams& Written() const { return runner_.Outcome().written; }
  const string& SilentErrors() { return Update(kThreePackets, false).written.err; }
  void Expect(const string& reports, const string& wire, Duration took, bool keeps = true) {
    EXPECT_EQ(runner_.Outcome().reports, reports);
    EXPECT_EQ(run_.wire, wire);
    Bytes image = test::PaddedImage(kThreePackets);
    const auto packets = std::count_if(wire.begin(), wire.end(), isdigit);
    image.resize(static_cast<std::size_t>(packets) * kPacket);
    EXPECT_EQ(run_.image, image);
    EXPECT_EQ(Duration(run_.now.time_since_epoch()).count(), took.count());
    EXPECT_EQ(hand_->HasCallback(), keeps);
  }
  /// An update fails after so many good reports and so long a time from acceptance on.
  void Fails(int child, unsigned at, const Replies& replies, std::size_t good, int code,
             Duration wait, const string& line, const string& out = "", bool keeps = false) {
    SCOPED_TRACE(to_string(at) + line);
    faults_ = {{{child, at}, replies}};
    EXPECT_THAT(Update().written.out, EndsWith(kKnown + out));
    const string wire = FirstWords(kGoodWire, good + (good < 7 ? 1 : 0));
    Expect(FirstWords(kGood, good) + to_string(code) + "/3=-1 ", wire, kAccepted + wait, keeps);
    EXPECT_EQ(SilentErrors(), line.empty() ? "" : kError + line + "\n");
  }
  TimePoint Now() const override { return run_.now; }
  void WaitUntil(std::unique_lock<std::mutex>&, std::condition_variable&, TimePoint) override {}
  void NotifyAll(std::condition_variable&) override {}
  /// The port's own pauses around each write are left out.
  void SleepFor(Duration duration) override {
    if (duration < 1ms) return;
    run_.now += duration;
    if (duration == 2s && comes_back_ && access(line_.Path().c_str(), F_OK) != 0) line_.Plug();
    if (hand_->Device() && hand_->Device()->running_) Step();
  }
  /// The hand takes and answers all that was sent. What no frame begins with tells where that ends.
  void Step() {
    const Bytes end(5);
    const int port = open(line_.Path().c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    ASSERT_EQ(write(port, end.data(), end.size()), 5);
    close(port);
    for (Bytes frame = line_.Read(5); frame != end; frame = line_.Read(5)) {
      const Bytes rest = line_.Read(frame.at(4) + 2U);
      frame.insert(frame.end(), rest.begin(), rest.end());
      frame[5] == 0xF0 ? TakeData(frame) : Take(frame);
    }
  }
  void Take(const Bytes& frame) {
    const string digits = "0123456789abcdef";
    string hex;
    for (const unsigned byte : frame) hex += {digits[byte / 16], digits[byte % 16]};
    const std::size_t at = kFrames.find(" " + hex + " ");
    run_.wire += at == string::npos ? hex + " " : kFrames.substr(at - 2, 3);
    if (frame[5] == 0xCD) return Send(UsbFrameBuilder(kId, 0xCD).AddData(version_.data(), 10));
    if (frame[6] != 2) Answer(frame[6]);
  }
  void TakeData(const Bytes& frame) {
    const auto crc = hand_->ota_validation_type == 1 ? Crc16Modbus : Crc16Xmodem;
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 7), (Bytes{0xEE, 0xAA, kId, 0, 66, 0xF0, 0}));
    EXPECT_EQ(LoadU16(&frame[71]), crc(frame.data(), 71));
    run_.image.insert(run_.image.end(), frame.begin() + 7, frame.begin() + 71);
    if (run_.image.size() % kPacket == 0) Answer(2);
  }
  void Answer(std::uint8_t child) {
    const auto fault = faults_.find({child, run_.requests[child]++});
    const Replies usual{{child, 0}};
    for (const auto& [to, value] : fault == faults_.end() ? usual : fault->second) {
      Send(UsbFrameBuilder(kId, 0xF2).AddUint8(to).AddUint32(value));
    }
  }
  /// Returns when the library has taken the frame.
  void Send(UsbFrameBuilder& frame) {
    UsbSerialDevice& device = *hand_->Device();
    const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
    MutexLock lock(device.reply_mutex_);
    device.reply_received_ = false;
    line_.Write({frame.Data(), frame.Data() + size});
    device.reply_cv_.wait(
        lock, [&]() KORVANE_REQUIRES(device.reply_mutex_) { return device.reply_received_; });
    while (device.recv_buffer_pos_ != 0U) std::this_thread::yield();
  }

  Received run_;
  test::UpdateRunner runner_;
  Bytes version_{1, 0, 0, 2, 0, 0, 4, 5, 6, 10};  ///< What queries get.
  /// What the hand replies to which request to which child, in place of what it should.
  std::map<std::pair<int, unsigned>, Replies> faults_;
  string unplugs_at_;       ///< The report.
  bool comes_back_ = true;  ///< When the library waits for it.
  test::PseudoTerminal line_;
  std::unique_ptr<KorvaneBrisaSerialImpl> hand_;
};

TEST_F(SerialUpdateRun, InstallsTheImageWithTheChecksumOfTheHandsVersion) {
  const std::vector<std::array<std::uint8_t, 5>> versions{
      {0, 0, 0, 0, 0},  {0, 9, 9, 9, 0},  {1, 0, 0, 0, 0},  {1, 0, 0, 9, 0},  {1, 0, 1, 0, 1},
      {1, 1, 0, 0, 1},  {2, 0, 0, 0, 1},  {14, 9, 9, 9, 1}, {15, 0, 0, 0, 1}, {15, 0, 0, 1, 0},
      {15, 0, 1, 0, 0}, {15, 1, 0, 0, 0}, {16, 0, 0, 0, 0}, {255, 1, 1, 1, 0}};
  const std::tuple<int, string, string> runs[] = {
      {1, "0/1=1 0/1=2 0/1=3 1/1=4 1/1=5 1/1=6 1/1=7 1/1=0 ", "Vx U- V- 0m Fm Rm "},
      {3, kGood, kGoodWire},
      {3, "", kGoodWire}};
  string stages;
  for (const string line :
       {"Upgrade request accepted, starting package transmission",
        "Waiting for all packages to be transmitted...", "All packages transmitted [OK]",
        "OTA finish [OK]", "OTA restart [OK], device will restart",
        "Waiting for device to restart...", "USB OTA upgrade process completed!"}) {
    stages += "[INFO]: [UpdateFirmware] " + line + "\n";
  }
  string before = "0.0.0][hw version:0.0.0]\n";  // The answer to the first query comes late.
  for (const auto& [major, minor, patch, build, type] : versions) {
    const string text = Version{major, minor, patch, build}.ToString();
    EXPECT_EQ(ValidationTypeOf({major, minor, patch, build}), type) << text;
    version_ = {1, 0, 0, major, minor, patch, 4, 5, 6, 10};
    for (auto [packets, reports, wire] : runs) {
      if (build != 0) break;  // It isn't on the wire.
      Update(packets == 1 ? kPacket : kThreePackets, !reports.empty());
      if (type == 0) std::replace(wire.begin(), wire.end(), 'm', 'x');
      Expect(reports, wire, kDone - (3 - packets) * 20ms, !reports.empty());
      EXPECT_EQ(Written().err + Written().out,
                Compose("OTA preparing [fw version: ", before, "[USB_OTA][fw version: ", text,
                        "][hw version: 4.5.6][validation type: ", int{type}, "]\n",
                        reports.empty() ? stages : ""));
      before = text + "][hw version:4.5.6]\n";
    }
  }
}

TEST_F(SerialUpdateRun, EndsAtWhatIsRefusedOrNotAnswered) {
  const string stray = "[USB_OTA][<unknown> child_id:0x7][responseValue:05 00 00 00]\n";
  for (unsigned at = 0; at < 3; ++at) {
    const auto pass = (at + 1) * 20ms;
    string left = "OTA transmission timeout: " + to_string(2 - at) + " packages remaining";
    string no_ack =
        "[USB_OTA] timeout: no ACK for packet " + to_string(at) +
        ", recv_thread_running=1 (0=RecvThread already dead, 1=thread alive but no ACK received)\n";
    if (at == 2) left.clear();
    if (at == 2) no_ack = "[USB_OTA] timeout: no ACK for last packet 2, not sending FINISH\n";
    Fails(2, at, {}, 3 + at, -6, 3s, left, no_ack);
    Fails(2, at, {{7, 5}}, 3 + at, -6, 3s, left, stray + no_ack);
    Fails(2, at, {{2, 1}}, 3 + at, 1, pass, "OTA transmission failed, error code: 1");
    Fails(2, at, {{2, 5}}, 3 + at, 5, pass, "OTA transmission failed, error code: 5");
    Fails(2, at, {{2, 1}, {1, 0}}, 3 + at, -7, pass, "Package transmission failed, error code: 1");
  }
  Fails(3, 0, {{3, 6}}, 7, 6, 160ms, "OTA finish failed, error code: 6");
  Fails(3, 0, {{3, 0xFFFFFFFC}}, 7, -4, 160ms, "OTA finish failed, error code: 4294967292");
  Fails(3, 0, {{3, 6}, {1, 0}}, 7, 6, 160ms, "OTA finish failed, error code: 6", "", true);
  Fails(3, 0, {}, 7, -4, 8060ms, "OTA finish response timeout");
  Fails(4, 0, {}, 8, -5, 2160ms, "OTA restart response timeout", "", true);
  faults_ = {{{2, 1}, {{7, 5}, {2, 0}}}, {{4, 0}, {{4, 6}}}};
  EXPECT_EQ(Update().reports, kGood) << "which goes on with any reply to a restart";
  EXPECT_EQ(LastFailure(*hand_).text, "the hand refuses to restart, with status 6");
}

TEST_F(SerialUpdateRun, IsApartFromWhatItsCallbackAsksOfTheHand) {
  const test::TemporaryFile image(test::FirmwareBytes(kThreePackets));
  const test::StreamCapture out(stdout), err(stderr);
  for (const bool refused : {false, true}) {
    run_ = {};
    if (refused) faults_ = {{{3, 0}, {{3, 6}}}};
    const auto done = Checked(*hand_, [&](auto& hand) {
      hand.UpdateFirmware(image.Path(), [&](int, int, OtaProgressStatus) {
        const auto bad = Checked(hand, [](auto& h) { h.SetJointMotorPosi(99, 1); });
        EXPECT_EQ(bad.failure().kind, FailureKind::BAD_ARGUMENT);
      });
    });
    const FailureKind kind = refused ? FailureKind::REFUSED : FailureKind::NONE;
    EXPECT_EQ(done.failure().kind, kind);
    EXPECT_EQ(LastFailure(*hand_).kind, kind);
  }
}

// A reply that comes in pieces keeps them all, also when the buffer was to be forgotten before.
TEST_F(SerialUpdateRun, InstallsTheImageByEventsToo) {
  SetReceiving(*hand_, Receiving::BY_EVENTS);
  Update();
  Expect(kGood, kGoodWire, kDone);
}

TEST_F(SerialUpdateRun, HasTimeForAHundredAndFiftyPackets) {
  EXPECT_THAT(Update(150 * kPacket).reports, EndsWith("150/150=6 150/150=7 150/150=0 "));
  EXPECT_TRUE(run_.image == test::FirmwareBytes(150 * kPacket));
  string reports = "0/151=1 0/151=2 0/151=3 ";
  for (int index = 1; index <= 150; ++index) reports += to_string(index) + "/151=4 ";
  EXPECT_EQ(Update(151 * kPacket).reports, reports + "-6/151=-1 ");
  EXPECT_THAT(Written().out, EndsWith(" no ACK for last packet 150, not sending FINISH\n"));
  EXPECT_EQ(run_.requests[3], 0U);
}

TEST_F(SerialUpdateRun, AsksThreeTimesForTheUpgradeAndReconnectsBetween) {
  const string again =
      "[USB] Reconnect: waiting 2s for device re-enumeration...\n[USB][serial port: " +
      line_.Path() + "] reconnect [ok]\n";
  const string dump = "[USB_OTA] recv_buffer_pos_=0, first 0 bytes (hex): \n";
  for (const Replies& replies : {Replies{{1, 3}}, {}}) {
    const string told =
        replies.empty() ? "" : "[USB_OTA] recv UPGRADE ACK result=3 (upgrade request rejected)\n";
    faults_ = {{{1, 0}, replies}, {{1, 1}, replies}, {{1, 2}, replies}};
    EXPECT_THAT(Update().written.out,
                EndsWith(Compose("]\n", told, again, kKnown, told, again, told)));
    Expect("0/3=1 0/3=2 1/3=9 0/3=8 2/3=9 0/3=8 -4/3=-1 ", "Vx U- V- U- U- ", 10905ms, false);
    EXPECT_EQ(LastFailure(*hand_).text + "\n", replies.empty() ? kNoUpgrade : told);
    EXPECT_EQ(SilentErrors(), Compose(dump, dump, dump, kNoUpgrade));
    faults_ = {{{1, 0}, replies}};
    Update();
    Expect(kTwice, "Vx U- V- U- 0m 1m 2m Fm Rm ", kDone + 4400ms);
  }
  comes_back_ = false;
  unplugs_at_ = "1/3=9 ";
  EXPECT_THAT(Update().written.err, EndsWith(kGivingUp));
  Expect(kGivenUp, "Vx U- ", 4105ms, false);
  EXPECT_THAT(SilentErrors(), EndsWith(kGivingUp + kNoUpgrade));
}

/// What was sent before the port goes is lost, also the query of the version.
TEST_F(SerialUpdateRun, ReconnectsWhenThePortGoesBeforeTheFirstPacket) {
  unplugs_at_ = "0/3=2 ";
  EXPECT_THAT(Update().written.err, EndsWith(", will reconnect and retry\n"));
  Expect(kTwice, "V- U- 0x 1x 2x Fx Rx ", kDone + 2300ms);
  unplugs_at_ = "0/3=3 ";
  EXPECT_THAT(Update().written.out,
              HasSubstr("[USB_OTA]: recv thread dead before first packet, reconnecting...\n"));
  Expect("0/3=1 0/3=2 0/3=3 0/3=8 " + kGood.substr(18), "Vx U- 0m 1m 2m Fm Rm ", kDone + 2500ms);
  unplugs_at_ = "1/3=4 ";
  EXPECT_ANY_THROW(Update()) << "a packet can't be written";
  EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::SEND_FAILED);
  Expect(FirstWords(kGood, 4), "Vx U- V- 0m ", kAccepted + 20ms);
}

TEST_F(SerialUpdateRun, EndsWithoutAnImageOrAPort) {
  const test::TemporaryFile empty({});
  for (const bool missing : {false, true}) {
    const string path = missing ? "/no/such/file" : empty.Path();
    EXPECT_EQ(Run(path).written.out + Written().err, "");
    Expect(missing ? "-2/0=-1 " : "-3/0=-1 ", "", 0ms, false);
    EXPECT_EQ(Run(path, false).written.err,
              Compose(kError, missing ? "Failed to read " + path : "File is empty", "\n"));
  }
  MakeHand("/no/such/port");
  EXPECT_EQ(Update().written.err, kLost + "no transport, will reconnect and retry\n" + kGivingUp);
  Expect(kGivenUp, "", 5ms, false);
}

}  // namespace
}  // namespace talvera::korvane
