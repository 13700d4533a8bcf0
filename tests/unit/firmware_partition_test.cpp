#include "korvane_sim/firmware_partition.h"

#include <gtest/gtest.h>

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
    if (verb == "result") return Ask(Child::kResult);
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

  void ExpectRestart(std::size_t installed, bool is_new) {
    EXPECT_TRUE(firmware_.TakeRestart() && !firmware_.TakeRestart());
    EXPECT_EQ(firmware_.TakeNewImage(), is_new);
    EXPECT_TRUE(firmware_.InstalledImage() == FirmwareBytes(installed));
    Play(installed == 0 ? "result > 01" : "result > 00");
    Play("finish > 01");  // A restart ends an update.
  }

  FirmwarePartition firmware_;
  Bytes image_ = FirmwareBytes(std::size_t{513} * 2048);
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
  ExpectRestart(4096, true);
}

TEST_F(FirmwarePartitionTest, TakesTheNextPacketAndDropsOneThatItHas) {
  Play(
      "upgrade 001800000300 > 00; packet 1 > 02; packet 0 > 00; packet 0 >; packet 2 > 02;"
      "packet 1 > 00; packet 0 >; packet 2 > 00; packet 2 >; packet 3 > 02");
  // Nothing waits for the rest of a dropped packet.
  Play("announce 0 >; data 0 0 9 >; finish > 00; data 0 9 20 >; restart > 00; data 0 20 >");
  ExpectRestart(6144, true);
}

TEST_F(FirmwarePartitionTest, InstallsAWholeImageAfterAFinishAndNothingElse) {
  constexpr std::size_t kSize = (1U << 20) + 1;  // Packet numbers take two bytes.
  Play(
      "packet 0 >; finish > 01; upgrade 001000000200 > 00; finish > 02; packet 0 > 00; finish > 02;"
      "upgrade 001000000200 > 00; packet 1 > 02");  // A new request starts over.
  for (const bool finishes : {false, true}) {
    Play("upgrade 010010000102 > 00");
    for (std::size_t i = 0; i < 513; ++i) Play("packet " + std::to_string(i) + " > 00");
    Play(finishes ? "finish > 00; restart > 00" : "restart > 00");
    ExpectRestart(finishes ? kSize : 0, finishes);
  }
  firmware_.AddFault({UpdateFault::Kind::kReset, Child::kPacket, 0, 0});
  Play("upgrade 000800000100 > 00; packet 0 >");
  ExpectRestart(kSize, false);
}

}  // namespace
}  // namespace talvera::korvane::sim
