// The firmware update over the service protocol, against a hand that answers each frame as the test
// says. The waits pass at once: each of them ends when all answers have been taken, so that what
// happens first doesn't depend on the machine.

#include <gtest/gtest.h>

#include <map>

#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "support/tested_hands.h"
#include "support/update_run.h"
#include "util/bytes.h"
#include "util/crc16.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono_literals;
using namespace test;
using Frames = std::vector<CanfdFrame>;

CanfdFrame Reply(int child, std::uint8_t status = 0, int len = 6) {
  return FullFrame(9, {0xF2, static_cast<std::uint8_t>(child), status}, len);
}

class ServiceUpdateRun : public testing::Test, private Clock {
 protected:
  ServiceUpdateRun() {
    hand_.ota_clock = this;
    device_.script = [this](const CanfdFrame& frame) { return Answer(frame); };
  }

  /// Tells UpdateLetters of a request; V and S stand for the queries of version and serial number.
  /// False if more of it is to come.
  bool Take(const CanfdFrame& frame) {
    const std::uint8_t* const data = frame.data;
    const std::uint8_t child = data[1];
    if (data[0] == 0xF0) {
      in_packet_ += frame.len - 1U;
      EXPECT_EQ(frame.len, in_packet_ < 2048 ? 64 : 33);
      if (!letters_.Data(data + 1, frame.len - 1U)) return false;
      EXPECT_EQ(crc_, Crc16Modbus(letters_.LastPacket().data(), 2048));
    } else if (data[0] == 0xF1 && child == 2 && frame.len == 6) {
      letters_.StartPacket(LoadU16(data + 2));
      crc_ = LoadU16(data + 4);
      in_packet_ = 0;
      return false;
    } else if (data[0] == 0xF1 && child == 1) {
      letters_.Request(1, frame.len == 8 && LoadU32(data + 2) == size_ &&
                              LoadU16(data + 6) == (size_ + 2047) / 2048);
    } else if (data[0] == 0xF1) {
      letters_.Request(child, frame.len == 6 && LoadU32(data + 2) == 0);
    } else {
      letters_.Other(frame.len != 1 ? "?" : data[0] == 205 ? "V" : "S");
    }
    return true;
  }

  Frames Answer(const CanfdFrame& frame) {
    EXPECT_EQ(frame.can_id, 9U);
    if (!Take(frame)) return {};
    const std::string taken = letters_.Take();
    const char letter = taken.back();
    wire_ += taken;
    auto& next = answers_[letter];
    if (!next.empty()) {
      Frames answer = next.front();
      if (next.size() > 1) next.pop_front();
      return answer;
    }
    if (letter >= '0' && letter <= '9') return {Reply(2)};
    if (letter == 'V') return {FullFrame(9, {205, 2, 1}, 12)};
    if (letter == 'S') return {FullFrame(9, {194}, 20)};
    return {Reply(letter == 'U' ? 1 : letter == 'F' ? 3 : 4)};
  }

  std::string UpdateFrom(const std::string& path, KorvaneBrisaCanPrivateImpl& hand) {
    wire_.clear();
    letters_.TakeImage();
    runner_.Run(hand, *this, path);
    EXPECT_FALSE(hand.HasCallback());
    const std::string& reports = runner_.Outcome().reports;
    failure_ = LastFailure(hand).kind;
    why_ = LastFailure(hand).text;
    EXPECT_EQ(failure_ == FailureKind::NONE, reports.substr(reports.size() - 3) == "=0 ");
    return reports;
  }
  std::string Update(std::size_t size = kThreePackets) {
    size_ = size;
    return UpdateFrom(TemporaryFile(FirmwareBytes(size)).Path(), hand_);
  }
  const std::string& Errors() const { return runner_.Outcome().written.err; }
  std::chrono::nanoseconds Took() const { return runner_.Outcome().took; }

  /// The reports of a run of three packets that nothing disturbs, up to some.
  static std::string Clean(std::size_t count = 9) {
    return FirstWords("0/3=1 0/3=2 0/3=3 1/3=4 2/3=4 3/3=4 3/3=5 3/3=7 3/3=0 ", count);
  }
  static std::string Failed(int code) { return ReportText(code, 3, -1); }

  TimePoint Now() const override { return now_; }
  void SleepFor(std::chrono::nanoseconds duration) override {
    now_ += duration;
    device_.Settle();
  }
  void WaitUntil(std::unique_lock<std::mutex>&, std::condition_variable&, TimePoint) override {}
  void NotifyAll(std::condition_variable&) override {}

  const Rig<KorvaneBrisaCanPrivateImpl> rig_{kId};
  KorvaneBrisaCanPrivateImpl& hand_ = *rig_.hand;
  RecordingDevice& device_ = *rig_.device;
  /// What answers a request instead of the usual, in turn; the last one stays.
  std::map<char, std::deque<Frames>> answers_;
  UpdateRunner runner_;
  UpdateLetters letters_;
  std::string wire_;
  FailureKind failure_ = FailureKind::NONE;
  std::string why_;

 private:
  TimePoint now_{};
  std::size_t size_ = kThreePackets;
  std::size_t in_packet_ = 0;
  std::uint16_t crc_ = 0;
};

TEST_F(ServiceUpdateRun, ReplacesTheFirmwareAndReportsEachStage) {
  EXPECT_EQ(Update(), Clean());
  EXPECT_EQ(wire_, "U012FRVS");
  EXPECT_EQ(Errors() + runner_.Outcome().written.out, "");
  EXPECT_GE(Took(), 3 * 175ms);
  EXPECT_EQ(letters_.TakeImage(), PaddedImage(kThreePackets));
  std::map<std::size_t, int> lengths;
  for (const CanfdFrame& frame : device_.TakeSent()) ++lengths[frame.len];
  const std::map<std::size_t, int> expected{{1, 2}, {6, 5}, {8, 1}, {33, 3}, {64, 96}};
  EXPECT_EQ(lengths, expected);
  EXPECT_EQ(Update(1), "0/1=1 0/1=2 0/1=3 1/1=4 1/1=5 1/1=7 1/1=0 ");
  EXPECT_EQ(wire_, "U0FRVS") << "the replies of the last run don't count";
}

TEST_F(ServiceUpdateRun, EndsAtAPacketThatIsRefusedOrNotAcknowledged) {
  for (const std::size_t packet : {0U, 1U, 2U}) {
    const char at = "012"[packet];
    const auto before = Clean(3 + packet);
    const std::string sent = std::string("U012").substr(0, 2 + packet);
    const auto expect = [&](const Frames& answer, int code, const std::string& wire) {
      answers_ = {{at, {answer}}};
      EXPECT_EQ(Update(), before + Failed(code)) << packet << " " << code;
      EXPECT_EQ(failure_, code == -6 ? FailureKind::NO_REPLY : FailureKind::REFUSED);
      EXPECT_EQ(wire_, wire);
      EXPECT_EQ(Errors(), "");
    };
    expect({Reply(2, 1)}, -7, sent);
    expect({Reply(2, 5)}, 5, sent);
    for (const Frames& nothing : {Frames{},
                                  Frames{Reply(2, 0, 5)},
                                  {FullFrame(9, {0xF3, 2}, 6)},
                                  {FullFrame(8, {0xF2, 2}, 6)}}) {
      expect(nothing, -6, sent);
      EXPECT_GE(Took(), 300s);
      EXPECT_LT(Took(), 302s);
    }
    expect({Reply(3)}, -6, sent + std::string(599, at));
    answers_ = {{at, {{Reply(4)}, {Reply(1, 7)}, {Reply(2)}}}};
    EXPECT_EQ(Update(), Clean()) << "sent again after a reply that speaks of something else";
    EXPECT_EQ(wire_, std::string("U012FRVS").insert(packet + 1, 2, at));
  }
  answers_ = {};
  EXPECT_EQ(Update(), Clean()) << "unusable afterwards";
}

TEST_F(ServiceUpdateRun, EndsAtAnUpgradeRequestThatIsNotAccepted) {
  for (const auto& [answer, code] : std::vector<std::pair<Frames, int>>{
           {{Reply(1, 3)}, 3}, {{Reply(1, 0, 5)}, -4}, {{FullFrame(9, {0xF1, 1}, 6)}, -4}}) {
    answers_ = {{'U', {answer}}};
    EXPECT_EQ(Update(), Clean(2) + Failed(code));
    EXPECT_EQ(failure_, code == 3 ? FailureKind::REFUSED : FailureKind::BAD_REPLY);
    EXPECT_EQ(wire_ + Errors(), "U");
  }
  answers_ = {{'U', {{}}}};
  hand_.SetFrameRecvTimeout(10);
  EXPECT_EQ(Update(), Clean(2) + Failed(-4));
  EXPECT_EQ(wire_, "U") << "it isn't repeated";
  EXPECT_EQ(Errors(),
            "[ERROR][KorvaneBrisaCanPrivateImpl] UpdateFirmware upgrade request: "
            "[CANID:009][DATA:f1 01 64 10 00 00 03 00 ] request timeout (10ms)\n");
  EXPECT_EQ(failure_, FailureKind::NO_REPLY);
}

TEST_F(ServiceUpdateRun, EndsWhenFinishOrRestartIsNotAcknowledged) {
  for (const Frames& answer : {Frames{}, Frames{Reply(3, 4)}, Frames{Reply(2, 4)}}) {
    answers_ = {{'F', {answer}}};
    EXPECT_EQ(Update(), Clean(7) + Failed(-4)) << "finishing is told before it is asked for";
    EXPECT_EQ(wire_, "U012F");
    EXPECT_GE(Took(), 30s);
    const bool refused = !answer.empty() && answer[0].data[1] == 3;
    EXPECT_EQ(failure_, refused ? FailureKind::REFUSED : FailureKind::NO_REPLY);
    EXPECT_EQ(why_ == "the end of the update isn't confirmed", !refused) << why_;
  }
  for (const Frames& answer : {Frames{}, Frames{Reply(4, 1)}, Frames{Reply(3)}}) {
    answers_ = {{'R', {answer}}};
    EXPECT_EQ(Update(), Clean(7) + Failed(-5));
    EXPECT_EQ(wire_, "U012FR");
  }
}

TEST_F(ServiceUpdateRun, CountsAsDoneWhetherOrNotTheHandComesBack) {
  runner_.on_report = [this](const std::string& report) {
    if (report == "3/3=7 ") hand_.SetFrameRecvTimeout(10);
  };
  answers_ = {{'V', {{}}}};
  EXPECT_EQ(Update(), Clean(7) + Times(10, "3/3=7 ") + "3/3=0 ");
  EXPECT_EQ(wire_, "U012FR" + std::string(10, 'V'));
  EXPECT_NE(Errors().find("[KorvaneBrisaCanPrivateImpl] GetVendorInfo: "), std::string::npos);
}

TEST_F(ServiceUpdateRun, DoesNotBeginWithoutALinkOrAFile) {
  const Rig<KorvaneBrisaCanPrivateImpl> closed(kId, HandType::RIGHT, false);
  KorvaneBrisaCanPrivateImpl none(HandType::RIGHT, kId, NoTransport());
  for (auto* const hand : {closed.hand.get(), &none}) {
    EXPECT_EQ(UpdateFrom("/no/such/file", *hand), "-1/0=-1 ");
    EXPECT_EQ(failure_, FailureKind::NO_LINK);
  }
  EXPECT_EQ(UpdateFrom("/no/such/file", hand_), "-2/0=-1 ");
  EXPECT_EQ(failure_, FailureKind::BAD_ARGUMENT);
  EXPECT_EQ(UpdateFrom(TemporaryFile({}).Path(), hand_), "-3/0=-1 ");
  EXPECT_EQ(wire_ + Errors(), "");
  EXPECT_EQ(Told([&] { hand_.UpdateFirmware("/no/such/file", nullptr); }),
            "[ERROR][KorvaneBrisaCanPrivateImpl] UpdateFirmware: cannot open /no/such/file\n");
  EXPECT_EQ(Told([&] { hand_.UpdateFirmware(TemporaryFile({}).Path(), nullptr); }), "");
}

}  // namespace
}  // namespace talvera::korvane
