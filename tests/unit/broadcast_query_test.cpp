// The query that finds a hand on an unknown bus.

#include "protocol/can/broadcast_query.h"

#include <gtest/gtest.h>

#include "support/capture.h"
#include "support/recording_device.h"

namespace talvera::korvane {
namespace {

using test::CaptureStreams;
using test::FullFrame;
using test::RecordingDevice;

constexpr std::uint32_t kQuery = 0x00020100;

struct Asked {
  DeviceInfo info;
  std::string told;
  std::vector<CanfdFrame> sent;
};

Asked Ask(const RecordingDevice::Script& script, const char* prefix = "[Error]: ") {
  RecordingDevice device;
  device.script = script;
  Asked asked;
  asked.told = CaptureStreams([&] { asked.info = QueryBus(device, prefix); }).err;
  asked.sent = device.TakeSent();
  return asked;
}

RecordingDevice::Script Answers(const std::vector<CanfdFrame>& frames) {
  return [frames](const CanfdFrame&) { return frames; };
}

TEST(BroadcastQuery, AsksOnceAndTakesTheFirstAnswer) {
  const Asked asked = Ask(
      Answers({FullFrame(kQuery | 0x31, {0x31, 1, 2, 3, 4}), FullFrame(kQuery | 0x32, {0x32})}));
  EXPECT_EQ(asked.info.device_id, 0x31);
  EXPECT_EQ(asked.info.reserved[0], 1);
  EXPECT_EQ(asked.info.reserved[3], 4);
  EXPECT_EQ(asked.told, "");
  ASSERT_EQ(asked.sent.size(), 1U);
  EXPECT_EQ(asked.sent[0].can_id, kQuery);
  EXPECT_EQ(asked.sent[0].len, 64);
}

TEST(BroadcastQuery, IgnoresWhatIsNoAnswer) {
  const Asked asked = Ask(Answers({
      FullFrame(kQuery, {9}),                   // from id 0
      FullFrame(kQuery | 0x80 | 5, {9}),        // the echo of a write
      FullFrame(0x00010100 | 5, {9}),           // another function
      FullFrame(kQuery | 0x01000000 | 5, {9}),  // another index
      FullFrame(0x00020700 | 5, {9}),           // another family
  }));
  EXPECT_EQ(asked.info.device_id, 0);
  EXPECT_EQ(asked.told, "[Error]: Broadcast request timeout\n");
}

TEST(BroadcastQuery, GivesUpAfterFiftyMilliseconds) {
  const auto start = std::chrono::steady_clock::now();
  const Asked asked = Ask(Answers({}), "[ERROR]: ");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(51));
  EXPECT_EQ(asked.info.device_id, 0);
  EXPECT_EQ(asked.told, "[ERROR]: Broadcast request timeout\n");
}

TEST(BroadcastQuery, FailsWhenTheBusTakesNoFrame) {
  const Asked asked = Ask(test::CantSend());
  EXPECT_EQ(asked.info.device_id, 0);
  EXPECT_EQ(asked.told, "[Error]: Failed to send broadcast request\n");
}

}  // namespace
}  // namespace talvera::korvane
