#include "korvane_sim/firmware_partition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
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
using Bytes = std::vector<std::uint8_t>;
using Kind = UpdateFault::Kind;
using Statuses = std::vector<int>;

constexpr std::uint32_t kUpgradeId = 0x01F101A7;
constexpr std::uint32_t kPacketId = 0x02F101A7;
constexpr std::uint32_t kFinishId = 0x03F101A7;
constexpr std::uint32_t kRestartId = 0x04F101A7;
constexpr std::uint32_t kResultId = 0x05F101A7;
constexpr std::uint32_t kDataId = 0x01F001A7;
constexpr std::size_t kFrames = 32;

/// The frames of an update, sent one by one to a hand with id 0x27.
class FirmwarePartitionTest : public testing::Test {
 protected:
  FirmwarePartitionTest() { hand_.Advance(now_); }

  std::vector<Frame> Send(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
    Frame frame;
    frame.id = id;
    frame.len = length;
    std::copy(data.begin(), data.end(), frame.data.begin());
    return hand_.Handle(frame, now_);
  }

  /// The statuses that come back, each after a look at the rest of its frame.
  Statuses Ask(std::uint32_t id, const Bytes& data = {}, std::uint8_t length = 64) {
    Statuses statuses;
    for (const Frame& reply : Send(id, data, length)) {
      EXPECT_EQ(reply.len, 4);
      EXPECT_EQ(reply.data[1] | reply.data[2] | reply.data[3], 0);
      // A packet is acknowledged under its checksum request, the rest under the request itself.
      EXPECT_EQ(reply.id, id == kDataId ? 0x02F201A7U : (id & 0xFF00FFFF) | 0xF20000U);
      statuses.push_back(reply.data[0]);
    }
    return statuses;
  }

  Statuses Upgrade(std::size_t size, std::size_t packets) {
    return Ask(kUpgradeId,
               {static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8),
                static_cast<std::uint8_t>(size >> 16), static_cast<std::uint8_t>(size >> 24),
                static_cast<std::uint8_t>(packets), static_cast<std::uint8_t>(packets >> 8)},
               6);
  }

  static Bytes PacketOf(const Bytes& image, std::size_t number) {
    Bytes packet(2048, 0xFF);
    const std::size_t from = number * 2048;
    const std::size_t count = std::min<std::size_t>(2048, image.size() - from);
    std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(from), count, packet.begin());
    return packet;
  }

  void Announce(std::size_t number, std::uint16_t crc) {
    EXPECT_THAT(
        Send(kPacketId, {static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number >> 8),
                         static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)}),
        IsEmpty());
  }

  /// All that comes back to some of a packet's data frames.
  Statuses SendData(const Bytes& packet, std::size_t first = 0, std::size_t last = kFrames) {
    Statuses statuses;
    for (std::size_t i = first; i < last; ++i) {
      const auto from = packet.begin() + static_cast<std::ptrdiff_t>(i * 64);
      const Statuses part = Ask(kDataId, Bytes(from, from + 64));
      EXPECT_TRUE(part.empty() || i + 1 == kFrames) << "only whole packets are answered";
      statuses.insert(statuses.end(), part.begin(), part.end());
    }
    return statuses;
  }

  Statuses SendPacket(const Bytes& image, std::size_t number) {
    const Bytes packet = PacketOf(image, number);
    Announce(number, Crc16Modbus(packet.data(), packet.size()));
    return SendData(packet);
  }

  /// Everything up to the finish, which is the first thing that may fail.
  void Transmit(const Bytes& image) {
    const std::size_t packets = (image.size() + 2047) / 2048;
    ASSERT_THAT(Upgrade(image.size(), packets), ElementsAre(0));
    for (std::size_t i = 0; i < packets; ++i) ASSERT_THAT(SendPacket(image, i), ElementsAre(0));
  }

  void Install(const Bytes& image) {
    Transmit(image);
    EXPECT_THAT(Ask(kFinishId), ElementsAre(0));
    EXPECT_THAT(Ask(kRestartId), ElementsAre(0));
  }

  int MinorVersion() { return hand_.GetIdentity().software_version[1]; }

  SimulatedHand hand_{kBrisa, 0x27};
  SimulatedHand::TimePoint now_{seconds(1000)};
};

TEST_F(FirmwarePartitionTest, InstallsWhatTheHostSentWithoutItsPadding) {
  EXPECT_THAT(Ask(kResultId), ElementsAre(1));
  int version = MinorVersion();
  for (const std::size_t size : {1U, 2047U, 2048U, 2049U, 1U << 20}) {
    Install(FirmwareBytes(size));
    EXPECT_TRUE(hand_.Firmware().InstalledImage() == FirmwareBytes(size)) << size;
    EXPECT_EQ(MinorVersion(), ++version);
    now_ += seconds(2);
    EXPECT_THAT(Ask(kResultId), ElementsAre(0));
  }
}

TEST_F(FirmwarePartitionTest, RefusesLengthsThatDoNotFit) {
  for (const auto& [size, packets] :
       std::vector<std::pair<std::size_t, std::size_t>>{{0, 0},
                                                        {0, 1},
                                                        {2048, 2},
                                                        {2049, 1},
                                                        {1, 0},
                                                        {(4U << 20) + 1, 2049},
                                                        {0xFFFFFFFF, 0},
                                                        {0x08000000, 0}}) {
    EXPECT_THAT(Upgrade(size, packets), ElementsAre(3)) << size << " in " << packets;
  }
  EXPECT_THAT(Upgrade(4U << 20, 2048), ElementsAre(0));
  EXPECT_THAT(Ask(kUpgradeId, {1, 0, 0, 0, 1}, 5), IsEmpty());
}

TEST_F(FirmwarePartitionTest, ChecksEachPacketInTheSetChecksumAndTakesItAgain) {
  const Bytes image = FirmwareBytes(3000);
  const Bytes packet = PacketOf(image, 0);
  ASSERT_THAT(Upgrade(image.size(), 2), ElementsAre(0));
  Bytes damaged = packet;
  damaged.back() ^= 1;
  Announce(0, Crc16Modbus(packet.data(), packet.size()));
  EXPECT_THAT(SendData(damaged), ElementsAre(1));
  EXPECT_THAT(SendData(packet), IsEmpty()) << "nothing announces it";

  hand_.Firmware().SetChecksum(UpdateChecksum::kXmodem);
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(1));
  Announce(0, Crc16Xmodem(packet.data(), packet.size()));
  EXPECT_THAT(SendData(packet), ElementsAre(0));

  hand_.Firmware().SetChecksum(UpdateChecksum::kModbus);
  EXPECT_THAT(SendPacket(image, 1), ElementsAre(0));
  EXPECT_THAT(Ask(kFinishId), ElementsAre(0));
  Ask(kRestartId);
  EXPECT_TRUE(hand_.Firmware().InstalledImage() == image);
}

TEST_F(FirmwarePartitionTest, TakesTheNextPacketOrARepeatOfTheLastOne) {
  const Bytes image = FirmwareBytes(std::size_t{3} * 2048);
  ASSERT_THAT(Upgrade(image.size(), 3), ElementsAre(0));
  EXPECT_THAT(SendPacket(image, 1), ElementsAre(2));
  for (const auto& [number, status] :
       std::vector<std::pair<std::size_t, int>>{{0, 0}, {0, 0}, {2, 2}, {1, 0}, {0, 2}, {2, 0}}) {
    EXPECT_THAT(SendPacket(image, number), ElementsAre(status)) << number;
  }
  const Bytes beyond = FirmwareBytes(std::size_t{4} * 2048);
  EXPECT_THAT(SendPacket(beyond, 3), ElementsAre(2));
  EXPECT_THAT(Ask(kFinishId), ElementsAre(0));
  Ask(kRestartId);
  EXPECT_TRUE(hand_.Firmware().InstalledImage() == image);
}

TEST_F(FirmwarePartitionTest, StartsAPacketAnewAfterALostFrame) {
  const Bytes image = FirmwareBytes(2048);
  ASSERT_THAT(Upgrade(image.size(), 1), ElementsAre(0));
  Announce(0, Crc16Modbus(image.data(), image.size()));
  EXPECT_THAT(SendData(image, 0, 9), IsEmpty());
  EXPECT_THAT(SendData(image, 10, 32), IsEmpty());
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(0));
  // Frames that aren't packet data don't count as such.
  Announce(0, Crc16Modbus(image.data(), image.size()));
  EXPECT_THAT(Ask(kDataId, {}, 48), IsEmpty());
  EXPECT_THAT(Ask(0x02F001A7), IsEmpty());
  EXPECT_THAT(Ask(0x01F00127), IsEmpty());
  EXPECT_THAT(SendData(image), ElementsAre(0));
}

TEST_F(FirmwarePartitionTest, NeedsAWholeImageAndAFinishBeforeItInstalls) {
  const Bytes image = FirmwareBytes(5000);
  EXPECT_THAT(SendPacket(image, 0), IsEmpty());
  EXPECT_THAT(Ask(kFinishId), ElementsAre(1));
  ASSERT_THAT(Upgrade(image.size(), 3), ElementsAre(0));
  EXPECT_THAT(Ask(kFinishId), ElementsAre(2));
  SendPacket(image, 0);
  SendPacket(image, 1);
  EXPECT_THAT(Ask(kFinishId), ElementsAre(2));

  // A new request starts over.
  ASSERT_THAT(Upgrade(image.size(), 3), ElementsAre(0));
  EXPECT_THAT(SendPacket(image, 2), ElementsAre(2));
  Transmit(image);
  EXPECT_THAT(Ask(kRestartId), ElementsAre(0));
  EXPECT_THAT(hand_.Firmware().InstalledImage(), IsEmpty()) << "it wasn't told to finish";
  EXPECT_EQ(MinorVersion(), 0);
  now_ += seconds(2);
  EXPECT_THAT(Ask(kFinishId), ElementsAre(1)) << "a restart ends an update";
}

TEST_F(FirmwarePartitionTest, IsSilentWhileItRestartsAndComesBackAtRest) {
  hand_.Firmware().SetRestartTime(milliseconds(300));
  Send(0x031301A7, {0, 0});
  now_ += seconds(1);
  hand_.Advance(now_);
  ASSERT_EQ(hand_.JointMotor(3).Position(), 0);
  Send(0x031301A7, {0, 16});
  Install(FirmwareBytes(10));
  for (const std::uint32_t id : {0x00010127U, 0x00020100U, 0x00130127U, kRestartId, kResultId}) {
    EXPECT_THAT(Send(id), IsEmpty()) << std::hex << id;
  }
  EXPECT_THAT(Upgrade(1, 1), IsEmpty());
  now_ += milliseconds(300) - std::chrono::nanoseconds(1);
  EXPECT_THAT(Send(0x00010127), IsEmpty());
  now_ += milliseconds(1);
  EXPECT_EQ(Send(0x00010127).size(), 1U);
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
  const Bytes image = FirmwareBytes(std::size_t{2} * 2048);
  const auto early = Send(kUpgradeId, {0, 16, 0, 0, 2, 0}, 6);
  ASSERT_EQ(early.size(), 1U);
  EXPECT_EQ(early[0].id, 0x04F201A7U);
  EXPECT_THAT(SendPacket(image, 0), IsEmpty()) << "the request didn't count";

  ASSERT_THAT(Upgrade(image.size(), 2), ElementsAre(0));
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(5));
  EXPECT_THAT(SendPacket(image, 0), ElementsAre(0, 0));
  EXPECT_THAT(SendPacket(image, 1), IsEmpty());
  EXPECT_THAT(SendPacket(image, 1), ElementsAre(0)) << "it had been stored all the same";
  const auto cut = Send(kFinishId);
  ASSERT_EQ(cut.size(), 1U);
  EXPECT_EQ(cut[0].len, 3);
  EXPECT_THAT(Ask(kFinishId), ElementsAre(0));
  Ask(kRestartId);
  EXPECT_TRUE(firmware.InstalledImage() == image);

  // A reset keeps what was installed, and cleared faults count anew.
  now_ += seconds(2);
  firmware.ClearFaults();
  firmware.AddFault({Kind::kReset, UpdateChild::kPacket, 0, 1});
  ASSERT_THAT(Upgrade(1, 1), ElementsAre(0));
  EXPECT_THAT(SendPacket(FirmwareBytes(1), 0), IsEmpty());
  EXPECT_THAT(Send(0x00010127), IsEmpty());
  now_ += seconds(2);
  EXPECT_THAT(Ask(kFinishId), ElementsAre(1));
  EXPECT_TRUE(firmware.InstalledImage() == image);
  EXPECT_EQ(MinorVersion(), 1);
}

TEST_F(FirmwarePartitionTest, SurvivesAnyFrame) {
  std::mt19937 random(1);
  hand_.Firmware().SetRestartTime(milliseconds(1));
  for (int i = 0; i < 20000; ++i) {
    // Mostly data, so that packets become whole; small numbers, so that requests are taken.
    Bytes data(64);
    for (auto& byte : data) byte = static_cast<std::uint8_t>(random() % 3);
    const bool is_data = random() % 4 != 0;
    const auto child = static_cast<std::uint32_t>(random() % (is_data ? 2 : 32));
    Send((is_data ? 0xF001A7U : 0xF101A7U) | child << 24, data,
         static_cast<std::uint8_t>(random() % 8 == 0 ? random() % 65 : 64));
    now_ += milliseconds(1);
  }
  now_ += seconds(1);
  Install(FirmwareBytes(4000));
  EXPECT_TRUE(hand_.Firmware().InstalledImage() == FirmwareBytes(4000));
}

}  // namespace
}  // namespace talvera::korvane::sim
