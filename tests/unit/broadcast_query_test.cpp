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

/// Time that passes while the query sleeps, and not before the frames so far have come in.
class QueryClock : public Clock {
 public:
  explicit QueryClock(RecordingDevice& device) : device_(device) {}
  TimePoint Now() const override { return now_; }
  void SleepFor(std::chrono::nanoseconds duration) override {
    device_.Settle();
    now_ += duration;
  }
  void WaitUntil(std::unique_lock<std::mutex>&, std::condition_variable&, TimePoint) override {}
  void NotifyAll(std::condition_variable&) override {}

 private:
  RecordingDevice& device_;
  TimePoint now_{};
};

struct Asked {
  DeviceInfo info;
  std::string told;
  std::vector<CanfdFrame> sent;
  std::chrono::nanoseconds took;
};

Asked Ask(const RecordingDevice::Script& script, const char* prefix = "[Error]: ") {
  RecordingDevice device;
  device.script = script;
  QueryClock clock(device);
  Asked asked;
  asked.told = CaptureStreams([&] { asked.info = QueryBus(device, prefix, clock); }).err;
  asked.sent = device.TakeSent();
  asked.took = clock.Now().time_since_epoch();
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
  EXPECT_EQ(test::Show(asked.sent), test::Show({FullFrame(kQuery, {})}));
}

TEST(BroadcastQuery, HearsEveryIdThatAHandCanHave) {
  for (const std::uint8_t id : test::Bytes{1, 2, 127}) {
    EXPECT_EQ(Ask(Answers({FullFrame(kQuery | id, {id})})).info.device_id, id);
  }
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
  const Asked asked = Ask(Answers({}), "[ERROR]: ");
  EXPECT_EQ(asked.took, std::chrono::milliseconds(51));
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
