// The firmware update over the service protocol, against a hand that answers each frame as the test
// says. The waits pass at once: each of them ends when all answers have been taken, so that what
// happens first doesn't depend on the machine.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <tuple>

#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "support/temporary_file.h"
#include "support/tested_hands.h"
#include "util/bytes.h"
#include "util/crc16.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono_literals;
using namespace test;
using Report = std::tuple<int, int, int>;
using Reports = std::vector<Report>;
using Frames = std::vector<CanfdFrame>;

constexpr std::size_t kThreePackets = 2 * 2048 + 100;

CanfdFrame Reply(int child, std::uint8_t status = 0, int len = 6) {
  return FullFrame(9, {0xF2, static_cast<std::uint8_t>(child), status}, len);
}

Reports operator+(Reports reports, const Reports& more) {
  reports.insert(reports.end(), more.begin(), more.end());
  return reports;
}

class ServiceUpdateRun : public testing::Test, private Clock {
 protected:
  ServiceUpdateRun() {
    hand_.ota_clock = this;
    device_.script = [this](const CanfdFrame& frame) { return Answer(frame); };
  }

  /// The requests of a run by letters: U, F and R for upgrade, finish and restart, a packet's
  /// number when it is complete, V and S for version and serial number. Anything else is a question
  /// mark.
  char Take(const CanfdFrame& frame) {
    const std::uint8_t* const data = frame.data;
    const std::uint8_t child = data[1];
    if (data[0] == 0xF0 && frame.len == std::min<std::size_t>(64, 2048 - packet_.size() + 1)) {
      packet_.insert(packet_.end(), data + 1, data + frame.len);
      if (packet_.size() < 2048) return ' ';
      const bool good = crc_ == Crc16Modbus(packet_.data(), packet_.size());
      return good ? static_cast<char>('0' + number_) : '?';
    }
    if (data[0] == 0xF1 && child == 1 && frame.len == 8) {
      EXPECT_EQ(LoadU32(data + 2), size_);
      EXPECT_EQ(LoadU16(data + 6), (size_ + 2047) / 2048);
      return 'U';
    }
    if (data[0] == 0xF1 && child == 2 && frame.len == 6) {
      number_ = LoadU16(data + 2);
      crc_ = LoadU16(data + 4);
      packet_.clear();
      return ' ';
    }
    if (data[0] == 0xF1 && frame.len == 6 && LoadU32(data + 2) == 0) return child == 3 ? 'F' : 'R';
    if (frame.len == 1) return data[0] == 205 ? 'V' : 'S';
    return '?';
  }

  Frames Answer(const CanfdFrame& frame) {
    EXPECT_EQ(frame.can_id, 9U);
    const char letter = Take(frame);
    if (letter == ' ') return {};
    wire_ += letter;
    auto& next = answers_[letter];
    if (!next.empty()) {
      Frames answer = next.front();
      if (next.size() > 1) next.pop_front();
      return answer;
    }
    if (letter >= '0' && letter <= '9') {
      image_.insert(image_.end(), packet_.begin(), packet_.end());
      return {Reply(2)};
    }
    if (letter == 'V') return {FullFrame(9, {205, 2, 1}, 12)};
    if (letter == 'S') return {FullFrame(9, {194}, 20)};
    return {Reply(letter == 'U' ? 1 : letter == 'F' ? 3 : 4)};
  }

  Reports UpdateFrom(const std::string& path, KorvaneBrisaCanPrivateImpl& hand) {
    Reports reports;
    wire_.clear();
    image_.clear();
    const auto start = now_;
    told_ = Told([&] {
      hand.UpdateFirmware(path, [&](int current, int total, OtaProgressStatus status) {
        reports.emplace_back(current, total, static_cast<int>(status));
        if (on_report_) on_report_(status);
      });
    });
    took_ = now_ - start;
    EXPECT_FALSE(hand.HasCallback());
    failure_ = LastFailure(hand).kind;
    EXPECT_EQ(failure_ == FailureKind::NONE, std::get<2>(reports.back()) == 0);
    return reports;
  }
  Reports Update(std::size_t size = kThreePackets) {
    size_ = size;
    return UpdateFrom(TemporaryFile(FirmwareBytes(size)).Path(), hand_);
  }

  /// The reports of a run of three packets that nothing disturbs, up to some.
  static Reports Clean(std::size_t count = 9) {
    Reports all{{0, 3, 1}, {0, 3, 2}, {0, 3, 3}, {1, 3, 4}, {2, 3, 4},
                {3, 3, 4}, {3, 3, 5}, {3, 3, 7}, {3, 3, 0}};
    all.resize(count);
    return all;
  }
  static Reports Failed(int code) { return {{code, 3, -1}}; }

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
  std::function<void(OtaProgressStatus)> on_report_;
  std::string wire_, told_;
  FailureKind failure_ = FailureKind::NONE;
  Bytes image_;
  std::chrono::nanoseconds took_{};

 private:
  TimePoint now_{};
  Bytes packet_;
  std::size_t size_ = kThreePackets;
  unsigned number_ = 0, crc_ = 0;
};

TEST_F(ServiceUpdateRun, ReplacesTheFirmwareAndReportsEachStage) {
  EXPECT_EQ(Update(), Clean());
  EXPECT_EQ(wire_, "U012FRVS");
  EXPECT_EQ(told_, "");
  EXPECT_GE(took_, 3 * 175ms);
  Bytes padded = FirmwareBytes(kThreePackets);
  padded.resize(std::size_t{3} * 2048, 0xFF);
  EXPECT_EQ(image_, padded);
  std::map<std::size_t, int> lengths;
  for (const CanfdFrame& frame : device_.TakeSent()) ++lengths[frame.len];
  const std::map<std::size_t, int> expected{{1, 2}, {6, 5}, {8, 1}, {33, 3}, {64, 96}};
  EXPECT_EQ(lengths, expected);
  EXPECT_EQ(Update(1),
            (Reports{{0, 1, 1}, {0, 1, 2}, {0, 1, 3}, {1, 1, 4}, {1, 1, 5}, {1, 1, 7}, {1, 1, 0}}));
  EXPECT_EQ(wire_, "U0FRVS") << "the replies of the last run don't count";
}

TEST_F(ServiceUpdateRun, IsSilentWithoutACallback) {
  const TemporaryFile file(FirmwareBytes(kThreePackets));
  const Streams streams = CaptureStreams([&] { hand_.UpdateFirmware(file.Path(), nullptr); });
  EXPECT_EQ(streams.out + streams.err, "");
  EXPECT_EQ(wire_, "U012FRVS");
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
      EXPECT_EQ(told_, "");
    };
    expect({Reply(2, 1)}, -7, sent);
    expect({Reply(2, 5)}, 5, sent);
    for (const Frames& nothing : {Frames{},
                                  Frames{Reply(2, 0, 5)},
                                  {FullFrame(9, {0xF3, 2}, 6)},
                                  {FullFrame(8, {0xF2, 2}, 6)}}) {
      expect(nothing, -6, sent);
      EXPECT_GE(took_, 300s);
      EXPECT_LT(took_, 302s);
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
    EXPECT_EQ(wire_ + told_, "U");
  }
  answers_ = {{'U', {{}}}};
  hand_.SetFrameRecvTimeout(10);
  EXPECT_EQ(Update(), Clean(2) + Failed(-4));
  EXPECT_EQ(wire_, "U") << "it isn't repeated";
  EXPECT_EQ(told_,
            "[ERROR][KorvaneBrisaCanPrivateImpl] UpdateFirmware upgrade request: "
            "[CANID:009][DATA:f1 01 64 10 00 00 03 00 ] request timeout (10ms)\n");
  EXPECT_EQ(failure_, FailureKind::NO_REPLY);
}

TEST_F(ServiceUpdateRun, EndsWhenFinishOrRestartIsNotAcknowledged) {
  for (const Frames& answer : {Frames{}, Frames{Reply(3, 4)}, Frames{Reply(2)}}) {
    answers_ = {{'F', {answer}}};
    EXPECT_EQ(Update(), Clean(7) + Failed(-4)) << "finishing is told before it is asked for";
    EXPECT_EQ(wire_, "U012F");
    EXPECT_GE(took_, 30s);
    const bool refused = !answer.empty() && answer[0].data[1] == 3;
    EXPECT_EQ(failure_, refused ? FailureKind::REFUSED : FailureKind::NO_REPLY);
  }
  for (const Frames& answer : {Frames{}, Frames{Reply(4, 1)}, Frames{Reply(3)}}) {
    answers_ = {{'R', {answer}}};
    EXPECT_EQ(Update(), Clean(7) + Failed(-5));
    EXPECT_EQ(wire_, "U012FR");
  }
}

TEST_F(ServiceUpdateRun, CountsAsDoneWhetherOrNotTheHandComesBack) {
  on_report_ = [this](OtaProgressStatus status) {
    if (status == OtaProgressStatus::RECONNECTING) hand_.SetFrameRecvTimeout(10);
  };
  answers_ = {{'V', {{}}}};
  EXPECT_EQ(Update(), (Clean(7) + Reports(10, {3, 3, 7}) + Reports{{3, 3, 0}}));
  EXPECT_EQ(wire_, "U012FR" + std::string(10, 'V'));
  EXPECT_NE(told_.find("[KorvaneBrisaCanPrivateImpl] GetVendorInfo: "), std::string::npos);
}

TEST_F(ServiceUpdateRun, DoesNotBeginWithoutALinkOrAFile) {
  const Rig<KorvaneBrisaCanPrivateImpl> closed(kId, HandType::RIGHT, false);
  KorvaneBrisaCanPrivateImpl none(HandType::RIGHT, kId, NoTransport());
  for (auto* const hand : {closed.hand.get(), &none}) {
    EXPECT_EQ(UpdateFrom("/no/such/file", *hand), (Reports{{-1, 0, -1}}));
    EXPECT_EQ(failure_, FailureKind::NO_LINK);
  }
  EXPECT_EQ(UpdateFrom("/no/such/file", hand_), (Reports{{-2, 0, -1}}));
  EXPECT_EQ(failure_, FailureKind::BAD_ARGUMENT);
  EXPECT_EQ(UpdateFrom(TemporaryFile({}).Path(), hand_), (Reports{{-3, 0, -1}}));
  EXPECT_EQ(wire_ + told_, "");
  EXPECT_EQ(Told([&] { hand_.UpdateFirmware("/no/such/file", nullptr); }),
            "[ERROR][KorvaneBrisaCanPrivateImpl] UpdateFirmware: cannot open /no/such/file\n");
  EXPECT_EQ(Told([&] { hand_.UpdateFirmware(TemporaryFile({}).Path(), nullptr); }), "");
}

TEST_F(ServiceUpdateRun, TakesItsStepsOneByOneToo) {
  std::array<char, 2048> packet{};
  packet.fill('x');
  EXPECT_EQ(hand_.SendOtaRequestSynch(1, kThreePackets, 3).data[1], 1);
  hand_.SendOtaTransmitAndData(packet, 7);
  hand_.SendOtaFinish();
  hand_.SendOtaRestart();
  device_.Settle();
  EXPECT_EQ(wire_, "U7FR");
  EXPECT_TRUE(hand_.ota_finish_ok && hand_.ota_restart_ok && hand_.ota_responded);
  hand_.OtaOnResponse(2, 9);
  EXPECT_EQ(hand_.ota_child_id, 2);
  EXPECT_EQ(hand_.ota_package_result, 9U);
}

}  // namespace
}  // namespace talvera::korvane
