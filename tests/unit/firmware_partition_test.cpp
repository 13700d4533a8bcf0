#include "korvane_sim/firmware_partition.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/exchange_script.h"
#include "support/temporary_file.h"
#include "util/crc16.h"

namespace talvera::korvane::sim {
namespace {

using test::Bytes;
using test::FirmwareBytes;
using test::Hex;
using test::MakeFrame;
using Child = UpdateChild;

std::uint8_t Byte(std::size_t value) { return static_cast<std::uint8_t>(value); }

class FirmwarePartitionTest : public testing::Test {
 protected:
  static Bytes StatusesOf(const std::vector<FirmwarePartition::Reply>& replies, Child child) {
    Bytes statuses;
    for (const auto& reply : replies) {
      EXPECT_EQ(reply.child, child);
      EXPECT_EQ(reply.len, 4);
      statuses.push_back(Byte(reply.status));
    }
    return statuses;
  }
  Bytes Ask(Child child, const Bytes& data = {}) {
    return StatusesOf(firmware_.HandleRequest(child, MakeFrame(0, data)), child);
  }
  Bytes Announce(std::size_t packet) {
    const unsigned crc = checksum_(&image_[packet * 2048], 2048);
    return Ask(Child::kPacket, {Byte(packet), Byte(packet >> 8), Byte(crc), Byte(crc >> 8)});
  }
  Bytes SendData(std::size_t packet, std::size_t first, std::size_t last) {
    Bytes statuses;
    for (std::size_t i = first; i < last; ++i) {
      const std::uint8_t* const from = &image_[packet * 2048 + i * 64];
      EXPECT_EQ(statuses, Bytes{}) << "only whole packets are answered";
      statuses = StatusesOf(firmware_.HandleData(MakeFrame(0, {from, from + 64})), Child::kPacket);
    }
    return statuses;
  }

  Bytes Do(const std::string& request) {
    std::istringstream words(request);
    std::string verb, rest;
    std::getline(words >> verb, rest);
    if (verb == "upgrade") return Ask(Child::kUpgrade, Hex(rest));
    if (verb == "finish") return Ask(Child::kFinish);
    if (verb == "restart") return Ask(Child::kRestart);
    std::size_t packet = 0, from = 0, to = 32;
    std::istringstream(rest) >> packet >> from >> to;
    if (verb == "announce") return Announce(packet);
    EXPECT_TRUE(verb == "data" || Announce(packet).empty());  // "packet" is both.
    return SendData(packet, from, to);
  }
  /// "data 0 9 20 > 01" are frames 9 to 19 of packet 0, and the statuses that must come.
  void Play(const std::string& script) {
    test::Play(
        script, [this](auto text) { return Do(text); }, [](auto) {}, [] {});
  }

  FirmwarePartition firmware_;
  Bytes image_ = FirmwareBytes(4096);
  std::uint16_t (*checksum_)(const std::uint8_t*, std::size_t) = Crc16Modbus;
};

TEST_F(FirmwarePartitionTest, RefusesLengthsThatDoNotFit) {
  Play(
      "upgrade 000000000000 > 03; upgrade 000000000100 > 03; upgrade 000800000200 > 03;"
      "upgrade 010800000100 > 03; upgrade 010000000000 > 03; upgrade 010040000108 > 03;"
      "upgrade FFFFFFFF0000 > 03; upgrade 000000080000 > 03; upgrade 000040000008 > 00;"
      "upgrade 0100000001 >");
  EXPECT_EQ(Ask(Child::kPacket, {0, 0, 0}), Bytes{});
}

/// Over the service protocol a frame has a byte less for them, and the last piece isn't full.
TEST_F(FirmwarePartitionTest, TakesAPacketInPiecesOfAnySize) {
  Play("upgrade 000800000100 > 00; announce 0 >");
  Bytes statuses;
  for (auto at = image_.begin(); at < image_.begin() + 2048; at += 63) {
    EXPECT_EQ(statuses, Bytes{});
    const Bytes piece(at, std::min(at + 63, image_.begin() + 2048));
    statuses = StatusesOf(firmware_.HandleData(MakeFrame(0, piece), 63), Child::kPacket);
  }
  EXPECT_EQ(statuses, Bytes{0});
}

TEST_F(FirmwarePartitionTest, TakesAPacketAgainAfterADamagedOrALostFrameOrAWrongChecksum) {
  Play("upgrade 001000000200 > 00; announce 0 >");
  image_[2047] ^= 1;
  Play("data 0 > 01");
  image_[2047] ^= 1;
  Play("data 0 >; announce 0 >; data 0 0 9 >; data 0 10 >");
  firmware_.SetChecksum(UpdateChecksum::kXmodem);
  Play("packet 0 > 01");
  checksum_ = Crc16Xmodem;
  Play("packet 0 > 00; announce 1 >");
  EXPECT_TRUE(firmware_.HandleData(MakeFrame(0, Bytes(48))).empty()) << "too short to count";
  Play("data 1 > 00; finish > 00; restart > 00");
  EXPECT_TRUE(firmware_.TakeRestart() && !firmware_.TakeRestart());
  EXPECT_TRUE(firmware_.TakeNewImage());
  EXPECT_TRUE(firmware_.InstalledImage() == image_);
  EXPECT_EQ(Ask(Child::kResult), Bytes{0});
  Play("finish > 01");  // A restart ends an update.
}

}  // namespace
}  // namespace talvera::korvane::sim
