#include "korvane_sim/firmware_partition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "korvane_sim/simulated_hand.h"
#include "support/temporary_file.h"
#include "util/crc16.h"

namespace talvera::korvane::sim {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::FirmwareBytes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Bytes = std::vector<std::uint8_t>;
using Kind = UpdateFault::Kind;
using Statuses = std::vector<int>;

constexpr std::uint32_t kData = 0x01F000A7;
constexpr std::uint32_t kUpgrade = 0x01F100A7;
constexpr std::uint32_t kPacket = 0x02F100A7;
constexpr std::uint32_t kFinish = 0x03F100A7;
constexpr std::uint32_t kRestart = 0x04F100A7;
constexpr std::uint32_t kResult = 0x05F100A7;
constexpr std::uint32_t kVendor = 0x00010027;

std::uint8_t Byte(std::size_t value) { return static_cast<std::uint8_t>(value); }

Bytes Packets(std::size_t count) { return FirmwareBytes(count * 2048); }

/// The frames of an update, sent one by one to a hand with id 0x27. Identifiers are written without
/// the family, which is that of the hand.
class FirmwarePartitionTest : public testing::Test {
 protected:
  std::uint32_t Family() const { return std::uint32_t{hand_.Model().family} << 8; }

  std::vector<Frame> Send(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
    Frame frame{id | Family(), length, {}};
    std::copy(data.begin(), data.end(), frame.data.begin());
    return hand_.Handle(frame, now_);
  }

  /// The statuses that come back, each after a look at the rest of its frame.
  Statuses Ask(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
    Statuses statuses;
    for (const Frame& reply : Send(id, data, length)) {
      // A packet is acknowledged under its checksum request, the rest under the request itself.
      EXPECT_EQ(reply.id, ((id == kData ? kPacket : id) ^ 0x030000) | Family());
      EXPECT_EQ(reply.len, 4);
      EXPECT_EQ(reply.data[1] | reply.data[2] | reply.data[3], 0);
      statuses.push_back(reply.data[0]);
    }
    return statuses;
  }

  Statuses Upgrade(std::size_t size, std::size_t packets) {
    return Ask(kUpgrade,
               {Byte(size), Byte(size >> 8), Byte(size >> 16), Byte(size >> 24), Byte(packets),
                Byte(packets >> 8)},
               6);
  }

  void Announce(const Bytes& image, std::size_t number,
                std::uint16_t (*crc_of)(const std::uint8_t*, std::size_t) = Crc16Modbus) {
    const std::uint16_t crc = crc_of(&image[number * 2048], 2048);
    EXPECT_THAT(Send(kPacket, {Byte(number), Byte(number >> 8), Byte(crc), Byte(crc >> 8U)}),
                IsEmpty());
  }

  /// All that comes back to some of a packet's 32 data frames.
  Statuses SendData(const Bytes& image, std::size_t number, std::ptrdiff_t first = 0,
                    std::ptrdiff_t last = 32) {
    Statuses statuses;
    for (std::ptrdiff_t i = first; i < last; ++i) {
      const auto from = image.begin() + static_cast<std::ptrdiff_t>(number) * 2048 + i * 64;
      const Statuses part = Ask(kData, Bytes(from, from + 64));
      EXPECT_TRUE(part.empty() || i == 31) << "only whole packets are answered";
      statuses.insert(statuses.end(), part.begin(), part.end());
    }
    return statuses;
  }

  Statuses SendPacket(const Bytes& image, std::size_t number) {
    Announce(image, number);
    return SendData(image, number);
  }

  /// Everything up to the finish, which is the first thing that may fail.
  void Transmit(Bytes image) {
    const std::size_t packets = (image.size() + 2047) / 2048;
    ASSERT_THAT(Upgrade(image.size(), packets), ElementsAre(0));
    image.resize(packets * 2048, 0xFF);
    for (std::size_t i = 0; i < packets; ++i) ASSERT_THAT(SendPacket(image, i), ElementsAre(0));
  }

  void FinishAndRestart() {
    EXPECT_THAT(Ask(kFinish), ElementsAre(0));
    EXPECT_THAT(Ask(kRestart), ElementsAre(0));
  }

  /// When a restart is over; `version` is the middle number that the hand then has.
  void ExpectRuns(const Bytes& image, int version) {
    now_ += seconds(2);
    EXPECT_TRUE(hand_.Firmware().InstalledImage() == image) << hand_.Model().name << image.size();
    EXPECT_EQ(hand_.GetIdentity().software_version[1], version);
    EXPECT_THAT(Ask(kResult), ElementsAre(image.empty() ? 1 : 0));
    EXPECT_THAT(Ask(kFinish), ElementsAre(1)) << "a restart ends an update";
  }

  SimulatedHand::TimePoint now_{seconds(1000)};
  SimulatedHand hand_{kBrisa, 0x27};
};

TEST_F(FirmwarePartitionTest, InstallsInEveryModelWhatTheHostSentWithoutItsPadding) {
  for (const ModelRow* model : kModels) {
    hand_ = SimulatedHand(*model, 0x27);
    int version = 0;
    for (const std::size_t size : {1U, 2047U, 2048U, 2049U, 1U << 18}) {
      Transmit(FirmwareBytes(size));
      FinishAndRestart();
      ExpectRuns(FirmwareBytes(size), ++version);
    }
  }
}

TEST_F(FirmwarePartitionTest, RefusesLengthsThatDoNotFit) {
  const std::vector<std::pair<std::size_t, std::size_t>> lengths{
      {0, 0}, {0, 1},           {2048, 2},       {2049, 1},
      {1, 0}, {0x400001, 2049}, {0xFFFFFFFF, 0}, {0x08000000, 0}};
  for (const auto& [size, packets] : lengths) {
    EXPECT_THAT(Upgrade(size, packets), ElementsAre(3)) << size << " in " << packets;
  }
  EXPECT_THAT(Upgrade(0x400000, 2048), ElementsAre(0));
  EXPECT_THAT(Ask(kUpgrade, {1, 0, 0, 0, 1}, 5), IsEmpty());
}

TEST_F(FirmwarePartitionTest, TakesAPacketAgainAfterADamagedOrALostFrameOrAWrongChecksum) {
  const Bytes image = Packets(2);
  Bytes damaged = image;
  damaged[2047] ^= 1;
  ASSERT_THAT(Upgrade(image.size(), 2), ElementsAre(0));
  Announce(image, 0);
  EXPECT_THAT(SendData(damaged, 0), ElementsAre(1));
  EXPECT_THAT(SendData(image, 0), IsEmpty()) << "nothing announces it";
  Announce(image, 0);
  EXPECT_THAT(SendData(image, 0, 0, 9), IsEmpty());
  EXPECT_THAT(SendData(image, 0, 10), IsEmpty());
  hand_.Firmware().SetChecksum(UpdateChecksum::kXmodem);
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(1));
  Announce(image, 0, Crc16Xmodem);
  EXPECT_THAT(SendData(image, 0), ElementsAre(0));
  hand_.Firmware().SetChecksum(UpdateChecksum::kModbus);
  // Frames that aren't packet data don't count as such.
  Announce(image, 1);
  EXPECT_THAT(Ask(kData, {}, 48), IsEmpty());
  EXPECT_THAT(Ask(0x02F000A7), IsEmpty());
  EXPECT_THAT(Ask(0x01F00027), IsEmpty());
  EXPECT_THAT(SendData(image, 1), ElementsAre(0));
  FinishAndRestart();
  ExpectRuns(image, 1);
}

TEST_F(FirmwarePartitionTest, TakesTheNextPacketAndDropsOneThatItHas) {
  const Bytes image = Packets(3);
  ASSERT_THAT(Upgrade(image.size(), 3), ElementsAre(0));
  const std::vector<std::pair<std::size_t, Statuses>> packets{
      {1, {2}}, {0, {0}}, {0, {}}, {2, {2}}, {1, {0}}, {0, {}}, {2, {0}}, {2, {}}, {3, {2}}};
  for (const auto& [number, statuses] : packets) {
    EXPECT_EQ(SendPacket(Packets(4), number), statuses) << number;
  }
  // Nothing waits for the rest of a dropped packet.
  Announce(image, 0);
  EXPECT_THAT(SendData(image, 0, 0, 9), IsEmpty());
  EXPECT_THAT(Ask(kFinish), ElementsAre(0));
  EXPECT_THAT(SendData(image, 0, 9, 20), IsEmpty());
  EXPECT_THAT(Ask(kRestart), ElementsAre(0));
  EXPECT_THAT(SendData(image, 0, 20), IsEmpty());
  ExpectRuns(image, 1);
}

TEST_F(FirmwarePartitionTest, NeedsAWholeImageAndAFinishBeforeItInstalls) {
  const Bytes image = Packets(3);
  EXPECT_THAT(SendPacket(image, 0), IsEmpty());
  EXPECT_THAT(Ask(kFinish), ElementsAre(1));
  ASSERT_THAT(Upgrade(image.size(), 3), ElementsAre(0));
  EXPECT_THAT(Ask(kFinish), ElementsAre(2));
  SendPacket(image, 0);
  SendPacket(image, 1);
  EXPECT_THAT(Ask(kFinish), ElementsAre(2));
  // A new request starts over.
  ASSERT_THAT(Upgrade(image.size(), 3), ElementsAre(0));
  EXPECT_THAT(SendPacket(image, 2), ElementsAre(2));
  Transmit(image);
  EXPECT_THAT(Ask(kRestart), ElementsAre(0));
  ExpectRuns({}, 0);
}

TEST_F(FirmwarePartitionTest, IsSilentWhileItRestartsAndComesBackAtRest) {
  hand_.Firmware().SetRestartTime(milliseconds(300));
  hand_.JointMotor(3).PlaceAt(0);
  Send(0x031300A7, {0, 16});
  Transmit(Packets(1));
  FinishAndRestart();
  for (const std::uint32_t id : {kVendor, 0x00020000U, 0x00130027U, kUpgrade, kRestart, kResult}) {
    EXPECT_THAT(Send(id), IsEmpty()) << std::hex << id;
  }
  now_ += milliseconds(300) - std::chrono::nanoseconds(1);
  EXPECT_THAT(Send(kVendor), IsEmpty());
  now_ += milliseconds(1);
  EXPECT_THAT(Send(kVendor), SizeIs(1));
  EXPECT_EQ(hand_.JointMotor(3).Position(), 4096);
  EXPECT_EQ(hand_.JointMotor(3).Velocity(), 0);
  EXPECT_EQ(hand_.JointMotor(3).Errors(), 0);
  EXPECT_THAT(Upgrade(1, 1), ElementsAre(0));
}

TEST_F(FirmwarePartitionTest, FaultsStrikeTheRepliesThatTheyName) {
  FirmwarePartition& firmware = hand_.Firmware();
  firmware.AddFault({Kind::kRestartFirst, UpdateChild::kUpgrade, 0, 1});
  firmware.AddFault({Kind::kStatus, UpdateChild::kPacket, 5, 1});
  firmware.AddFault({Kind::kDuplicate, UpdateChild::kPacket, 0, 2});
  firmware.AddFault({Kind::kLose, UpdateChild::kPacket, 0, 3});
  firmware.AddFault({Kind::kShort, UpdateChild::kFinish, 0, 1});
  const Bytes image = Packets(2);
  const auto early = Send(kUpgrade, {0, 16, 0, 0, 2, 0}, 6);
  ASSERT_THAT(early, SizeIs(1));
  EXPECT_EQ(early[0].id, 0x04F201A7U);
  EXPECT_THAT(SendPacket(image, 0), IsEmpty()) << "the request didn't count";
  ASSERT_THAT(Upgrade(image.size(), 2), ElementsAre(0));
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(5));
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(0, 0));
  EXPECT_THAT(SendPacket(image, 0), IsEmpty()) << "and what is dropped is no reply to count";
  EXPECT_THAT(SendPacket(image, 1), IsEmpty());
  const auto cut = Send(kFinish);
  ASSERT_THAT(cut, SizeIs(1));
  EXPECT_EQ(cut[0].len, 3);
  FinishAndRestart();
  ExpectRuns(image, 1);

  // A reset keeps what was installed, and cleared faults count anew.
  firmware.ClearFaults();
  firmware.AddFault({Kind::kReset, UpdateChild::kPacket, 0, 1});
  ASSERT_THAT(Upgrade(2048, 1), ElementsAre(0));
  EXPECT_THAT(SendPacket(image, 0), IsEmpty());
  EXPECT_THAT(Send(kVendor), IsEmpty());
  ExpectRuns(image, 1);
}

TEST_F(FirmwarePartitionTest, SurvivesAnyFrame) {
  std::mt19937 random(1);
  hand_.Firmware().SetRestartTime(milliseconds(1));
  for (int i = 0; i < 20000; ++i) {
    // Mostly data, so that packets become whole; small numbers, so that requests are taken.
    Bytes data(64);
    for (auto& byte : data) byte = Byte(random() % 3);
    const bool is_data = random() % 4 != 0;
    const auto child = static_cast<std::uint32_t>(random() % (is_data ? 2 : 32));
    Send((is_data ? 0xF000A7U : 0xF100A7U) | child << 24, data,
         Byte(random() % 8 == 0 ? random() % 65 : 64));
    now_ += milliseconds(1);
  }
  now_ += seconds(1);
  Transmit(Packets(2));
  FinishAndRestart();
  EXPECT_TRUE(hand_.Firmware().InstalledImage() == Packets(2));
}

}  // namespace
}  // namespace talvera::korvane::sim
