// Firmware files and the checksums of their packets.

#include "ota_load.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "support/allocation_hook.h"
#include "support/capture.h"
#include "support/temporary_file.h"
#include "util/crc16.h"

namespace talvera::korvane {
namespace {

using test::CaptureStreams;
using test::FirmwareBytes;
using test::TemporaryFile;

TEST(LoadFirmwareOnly, CutsAFileIntoPacketsPaddedWithErasedFlash) {
  struct Case {
    std::size_t size;
    std::int32_t packets;
  };
  for (const auto& [size, packets] :
       {Case{1, 1}, Case{2047, 1}, Case{2048, 1}, Case{2049, 2}, Case{4096, 2}, Case{5000, 3}}) {
    const auto bytes = FirmwareBytes(size);
    const TemporaryFile file(bytes);
    ASSERT_TRUE(file.Complete());
    const FirmwareImage image = LoadFirmwareOnly(file.Path());
    EXPECT_EQ(image.error_code, 0);
    EXPECT_EQ(image.packet_count, packets);
    EXPECT_EQ(image.file_size, static_cast<std::int64_t>(size));
    std::vector<std::uint8_t> joined;
    for (const auto& packet : image.packets)
      joined.insert(joined.end(), packet.begin(), packet.end());
    ASSERT_EQ(joined.size(), static_cast<std::size_t>(packets) * 2048);
    const auto end = joined.begin() + static_cast<std::ptrdiff_t>(size);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), joined.begin()));
    EXPECT_TRUE(std::all_of(end, joined.end(), [](std::uint8_t byte) { return byte == 0xFF; }));
  }
}

TEST(LoadFirmwareOnly, TellsWhyAFileIsNoImageAndNeverThrowsOrPrints) {
  const std::string pipe = TemporaryFile({}).Path() + ".pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const TemporaryFile empty({});
  const auto written = CaptureStreams([&] {
    for (const auto& [path, code] : {std::pair<std::string, int>{"/no/such/file", -2},
                                     {empty.Path(), -3},
                                     {"/tmp", -3},
                                     {"/dev/zero", -3},
                                     {pipe, -3},
                                     {"/proc/self/mem", -3},  // can't be measured
                                     {"", -2}}) {
      const FirmwareImage image = LoadFirmwareOnly(path);
      EXPECT_EQ(image.error_code, code) << path;
      EXPECT_EQ(image.packet_count, 0);
      EXPECT_EQ(image.file_size, 0);
      EXPECT_TRUE(image.packets.empty());
    }
  });
  unlink(pipe.c_str());
  EXPECT_EQ(written.out + written.err, "");
}

TEST(LoadFirmwareOnly, GivesUpOnAFileThatCannotBeReadOrKept) {
  if (!test::AllocationHook::Works()) GTEST_SKIP() << "a sanitizer allocates";
  const std::size_t size = 5000;
  const TemporaryFile file(FirmwareBytes(size));
  bool failed = true;
  for (int allocation = 1; failed; ++allocation) {
    FirmwareImage image;
    {
      const test::AllocationHook none_left(1, allocation, &test::ThrowBadAlloc);
      image = LoadFirmwareOnly(file.Path());
      failed = none_left.Ran();
    }
    EXPECT_EQ(image.error_code, failed ? -3 : 0) << allocation;
    EXPECT_EQ(image.packets.size(), failed ? 0U : 3U);
  }
  // The stream's buffer is the first piece of that size, the bytes of the file are the second.
  const test::AllocationHook shrinks(size, 2,
                                     [&] { EXPECT_EQ(truncate(file.Path().c_str(), 1), 0); });
  const FirmwareImage image = LoadFirmwareOnly(file.Path());
  EXPECT_TRUE(shrinks.Ran());
  EXPECT_EQ(image.error_code, -3);
  EXPECT_EQ(image.packet_count, 3);
  EXPECT_EQ(image.file_size, 5000);
  EXPECT_TRUE(image.packets.empty());
}

// The check values of the two checksums' own definitions.
TEST(Crc16, GivesTheCheckValueOfItsDefinition) {
  const std::uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(Crc16Modbus(digits, sizeof digits), 0x4B37);
  EXPECT_EQ(Crc16Xmodem(digits, sizeof digits), 0x31C3);
  EXPECT_EQ(Crc16Modbus(digits, 0), 0xFFFF);
  EXPECT_EQ(Crc16Xmodem(digits, 0), 0);
}

}  // namespace
}  // namespace talvera::korvane
