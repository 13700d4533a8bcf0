// The tactile readings of a KorvaneBrisa over CAN, summaries and raw arrays.

#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>

#include "impl/korvane_brisa_can_impl.h"
#include "support/capture.h"
#include "support/recording_device.h"

namespace talvera::korvane {
namespace {

using namespace test;
using Hand = KorvaneBrisaCanImpl;

constexpr std::uint8_t kId = 0x27;
constexpr char kOfClass[] = "[ERROR][KorvaneBrisaCanImpl]";
constexpr char kNoFrames[] = "[ERROR][CanBusDeviceBase][SendRequestSynchMultiFrame] ";

const std::vector<Finger> kFingers{Finger::THUMB,  Finger::INDEX, Finger::MIDDLE, Finger::RING,
                                   Finger::LITTLE, Finger::PALM,  Finger::DORSUM};

/// `count` bytes of which neighbours differ, going on from `first`.
Bytes Counting(std::size_t count, std::size_t first = 0) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), static_cast<std::uint8_t>(first));
  return bytes;
}

/// The frames of a raw reply that holds Counting(count).
std::vector<Bytes> RawFrames(std::size_t count) {
  const std::size_t total = (count + 61) / 62;
  std::vector<Bytes> payloads;
  for (std::size_t i = 0; i < total; ++i) {
    Bytes payload{static_cast<std::uint8_t>(total), static_cast<std::uint8_t>(i)};
    const Bytes data = Counting(std::min<std::size_t>(62, count - 62 * i), 62 * i);
    payload.insert(payload.end(), data.begin(), data.end());
    payloads.push_back(payload);
  }
  return payloads;
}

std::string Show(const TactileSensorData& record) {
  return std::to_string(static_cast<int>(record.finger)) + ": " + test::Show(record.data);
}

std::string ShowAll(const std::vector<TactileSensorData>& records) {
  std::string text;
  for (const auto& record : records) text += Show(record) + "\n";
  return text;
}

class BrisaTactile : public testing::Test {
 protected:
  const Rig<Hand> rig_{kId};
  Hand& hand_ = *rig_.hand;
  RecordingDevice& device_ = *rig_.device;
  Hand without_transport_{HandType::RIGHT, kId, NoTransport()};
  const StreamCapture errors_{stderr};
};

TEST_F(BrisaTactile, KnowsItsSensors) {
  EXPECT_EQ(hand_.GetSensorOrder(), kFingers);
  EXPECT_EQ(&hand_.GetSensorOrder(), &without_transport_.GetSensorOrder());
  const std::vector<std::size_t> lengths{0, 16, 18, 18, 18, 18, 78, 102, 0, 0};
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    EXPECT_EQ(hand_.GetSensorDataLength(static_cast<Finger>(i)), lengths[i]) << i;
  }
}

TEST_F(BrisaTactile, RefusesFingersThatDontExistBeforeItSendsAnything) {
  for (const int finger : {0, 8, 255}) {
    for (Hand* const hand : {&hand_, &without_transport_}) {
      for (const bool raw : {false, true}) {
        try {
          const auto which = static_cast<Finger>(finger);
          raw ? (void)hand->GetTactileSensorDataRaw(which)
              : (void)hand->GetTactileSensorData(which);
          ADD_FAILURE() << "finger " << finger;
        } catch (const std::invalid_argument& error) {
          EXPECT_STREQ(error.what(), "Invalid finger type");
        }
      }
    }
  }
  EXPECT_TRUE(device_.TakeSent().empty());
  EXPECT_EQ(errors_.Text(), "");
}

// --- Summaries ------------------------------------------------------------------------------

std::size_t SummaryLength(Finger finger) { return finger >= Finger::PALM ? 25 : 16; }

TEST_F(BrisaTactile, ReadsSummariesOfTheLengthOfTheSensorWhateverTheReplysIs) {
  for (const Finger finger : kFingers) {
    device_.script = Replies(Counting(64, 1), 4);
    EXPECT_EQ(hand_.GetTactileSensorData(finger), Counting(SummaryLength(finger), 1));
    const auto index = static_cast<std::uint32_t>(finger) << 24;
    EXPECT_EQ(test::Show(device_.TakeSent()), test::Show({FullFrame(0x00050127 | index, {})}));
  }
  EXPECT_EQ(errors_.Text(), "");
}

TEST_F(BrisaTactile, GivesZeroSummariesOnFailure) {
  device_.script = CantSend();
  EXPECT_EQ(hand_.GetTactileSensorData(Finger::PALM), Bytes(25));
  EXPECT_EQ(without_transport_.GetTactileSensorData(Finger::THUMB), Bytes(16));
  EXPECT_EQ(errors_.Text(), std::string(kOfClass) + "[GetTactileSensorData][finger:6] " +
                                FrameText(FullFrame(0x06050127, {})) + " request send failed\n" +
                                kOfClass + "[GetTactileSensorData][finger:1] no transport\n");
}

TEST_F(BrisaTactile, ReadsAllSummariesOneByOneAlsoWhenSomeFail) {
  device_.script = [](const CanfdFrame& sent) -> std::optional<std::vector<CanfdFrame>> {
    if (sent.can_id >> 24 == 2) return std::nullopt;
    return std::vector<CanfdFrame>{FullFrame(sent.can_id, Counting(64, 1))};
  };
  std::vector<TactileSensorData> expected;
  for (const Finger finger : kFingers) {
    const std::size_t length = SummaryLength(finger);
    expected.push_back({finger, finger == Finger::INDEX ? Bytes(length) : Counting(length, 1)});
  }
  EXPECT_EQ(ShowAll(hand_.GetAllTactileSensorData()), ShowAll(expected));
  EXPECT_EQ(device_.TakeSent().size(), 7U);
  EXPECT_EQ(without_transport_.GetAllTactileSensorData().size(), 7U);
}

// --- Raw array of one sensor ----------------------------------------------------------------

TEST_F(BrisaTactile, ReadsARawArrayFromAsManyFramesAsItTakes) {
  for (const Finger finger : kFingers) {
    const std::size_t length = hand_.GetSensorDataLength(finger);
    device_.script = RepliesInFrames(RawFrames(length));
    EXPECT_EQ(Show(hand_.GetTactileSensorDataRaw(finger)), Show({finger, Counting(length)}));
    const auto index = static_cast<std::uint32_t>(finger) << 24;
    EXPECT_EQ(test::Show(device_.TakeSent()), test::Show({FullFrame(0x00060127 | index, {})}));
  }
  EXPECT_EQ(errors_.Text(), "");
}

TEST_F(BrisaTactile, TakesRawBytesWithoutLookingAtTheLengthOfTheFrame) {
  device_.script = [](const CanfdFrame& sent) {
    return std::vector<CanfdFrame>{FullFrame(sent.can_id, RawFrames(62)[0], 8)};
  };
  EXPECT_EQ(hand_.GetTactileSensorDataRaw(Finger::INDEX).data, Counting(18));
  EXPECT_EQ(errors_.Text(), "");
}

TEST_F(BrisaTactile, WarnsOfARawArrayThatIsCutOff) {
  Bytes only = RawFrames(62)[0];
  for (const bool announced : {false, true}) {
    only[0] = announced;
    device_.script = RepliesInFrames({only});
    const StreamCapture errors(stderr);
    EXPECT_EQ(Show(hand_.GetTactileSensorDataRaw(Finger::DORSUM)),
              Show({Finger::DORSUM, Counting(62)}));
    EXPECT_EQ(errors.Text(),
              "[Warning]: Incomplete data for sensor 7. Expected 102 bytes, got 62\n");
  }
}

TEST_F(BrisaTactile, KeepsWhatArrivedWhenALaterFrameIsMissing) {
  hand_.SetFrameRecvTimeout(10);
  device_.script = RepliesInFrames({RawFrames(78)[0]});
  EXPECT_EQ(hand_.GetTactileSensorDataRaw(Finger::PALM).data, Counting(62));
  const std::string lines = errors_.Text();
  EXPECT_EQ(lines.rfind("[DEBUG][MultiFrame] timeout waiting for frame 1/2", 0), 0U) << lines;
  EXPECT_EQ(lines.substr(lines.find('\n') + 1),
            "[Warning]: Incomplete data for sensor 6. Expected 78 bytes, got 62\n");
}

TEST_F(BrisaTactile, GivesARawRecordWithoutDataWhenThereIsNone) {
  const std::string warning = "[Warning]: No tactile sensor data available for sensor 3\n";
  const std::string request = FrameText(FullFrame(0x03060127, {}));
  const auto expect_none = [](Hand& hand, const std::string& lines) {
    const StreamCapture errors(stderr);
    EXPECT_EQ(Show(hand.GetTactileSensorDataRaw(Finger::MIDDLE)), "3: ");
    EXPECT_EQ(errors.Text(), lines);
  };
  device_.script = CantSend();
  expect_none(hand_, kNoFrames + request + " request send failed\n" + warning);
  device_.script = Throws(std::runtime_error("adapter broke"));
  expect_none(hand_, kNoFrames + std::string("adapter broke\n") + warning);
  expect_none(without_transport_,
              std::string(kOfClass) + "[GetTactileSensorDataRaw][finger:3] no transport\n");
}

TEST_F(BrisaTactile, WarnsOfASilentHand) {
  hand_.SetFrameRecvTimeout(10);
  EXPECT_EQ(Show(hand_.GetTactileSensorDataRaw(Finger::MIDDLE)), "3: ");
  EXPECT_TRUE(hand_.GetAllTactileSensorDataRaw().empty());
  // A line of the transport's comes before each, unless the last wait ends to the millisecond.
  const std::string lines = errors_.Text();
  EXPECT_NE(lines.find("[Warning]: No tactile sensor data available for sensor 3\n"),
            std::string::npos);
  EXPECT_NE(lines.find("[Warning]: No tactile sensor data available\n"), std::string::npos);
}

// --- Raw arrays of all sensors --------------------------------------------------------------

TEST_F(BrisaTactile, CutsTheStreamOfAllSensorsInTheirOrder) {
  device_.script = RepliesInFrames(RawFrames(620));
  std::vector<TactileSensorData> expected;
  std::size_t offset = 0;
  for (const Finger finger : kFingers) {
    const std::size_t length = hand_.GetSensorDataLength(finger);
    expected.push_back({finger, Counting(length, offset)});
    offset += length;
  }
  EXPECT_EQ(ShowAll(hand_.GetAllTactileSensorDataRaw()), ShowAll(expected));
  EXPECT_EQ(test::Show(device_.TakeSent()), test::Show({FullFrame(0x00060127, {})}));
  EXPECT_EQ(errors_.Text(), "");
}

TEST_F(BrisaTactile, GivesTheRemainderToEverySensorThatItIsTooShortFor) {
  device_.script = RepliesInFrames(RawFrames(100));
  const auto records = hand_.GetAllTactileSensorDataRaw();
  ASSERT_EQ(records.size(), 7U);
  EXPECT_EQ(records[4].data, Counting(18, 70));
  EXPECT_EQ(Show(records[5]), Show({Finger::PALM, Counting(12, 88)}));
  EXPECT_EQ(Show(records[6]), Show({Finger::DORSUM, Counting(12, 88)}));
  EXPECT_EQ(errors_.Text(),
            "[Warning]: Incomplete data for sensor 6, expected 78 bytes, got 12\n"
            "[Warning]: Incomplete data for sensor 7, expected 102 bytes, got 12\n");
}

TEST_F(BrisaTactile, GivesEverySensorAnEmptyRecordWhenTheFramesHoldNoData) {
  for (const Bytes& header : {Bytes{1, 0}, Bytes{1}, Bytes{}}) {
    device_.script = RepliesInFrames({header});
    const StreamCapture errors(stderr);
    const auto records = hand_.GetAllTactileSensorDataRaw();
    EXPECT_EQ(ShowAll(records), "1: \n2: \n3: \n4: \n5: \n6: \n7: \n") << header.size();
    EXPECT_NE(errors.Text().find("sensor 1, expected 16 bytes, got 0\n"), std::string::npos);
  }
}

TEST_F(BrisaTactile, GivesNoRecordsWhenNoFrameCame) {
  const auto expect_none = [](Hand& hand, const std::string& lines) {
    const StreamCapture errors(stderr);
    EXPECT_TRUE(hand.GetAllTactileSensorDataRaw().empty());
    EXPECT_EQ(errors.Text(), lines);
  };
  device_.script = CantSend();
  expect_none(hand_, kNoFrames + FrameText(FullFrame(0x00060127, {})) +
                         " request send failed\n[Warning]: No tactile sensor data available\n");
  expect_none(without_transport_,
              std::string(kOfClass) + "[GetAllTactileSensorDataRaw] no transport\n");
}

/// A hand with other sensors than the usual, as an application may derive it.
struct HandWithOtherSensors : Hand {
  using Hand::Hand;
  const std::vector<Finger>& GetSensorOrder() const override { return order; }
  std::size_t GetSensorDataLength(Finger finger) const override {
    if (finger == Finger::PALM) throw std::runtime_error("broken palm");
    if (finger == Finger::INDEX) return 62;
    return finger == Finger::DORSUM ? 70 : 20;
  }
  std::vector<std::uint8_t> GetTactileSensorData(Finger) const override { return {1, 2}; }
  std::vector<Finger> order{Finger::DORSUM, Finger::RING, Finger::THUMB};
};

TEST_F(BrisaTactile, AsksOverriddenOperationsForTheSensors) {
  const Rig<HandWithOtherSensors> rig(kId);
  EXPECT_EQ(ShowAll(rig.hand->GetAllTactileSensorData()), "7: 1 2\n4: 1 2\n1: 1 2\n");

  rig.device->script = RepliesInFrames(RawFrames(70));
  EXPECT_EQ(rig.hand->GetTactileSensorDataRaw(Finger::DORSUM).data, Counting(70));

  // A sensor that fills one frame: the second isn't waited for.
  rig.device->script = RepliesInFrames({RawFrames(124)[0]});
  EXPECT_EQ(rig.hand->GetTactileSensorDataRaw(Finger::INDEX).data, Counting(62));

  // The first sensor is short; what is left still fills the second, and then not the third.
  rig.device->script = RepliesInFrames(RawFrames(30));
  EXPECT_EQ(ShowAll(rig.hand->GetAllTactileSensorDataRaw()),
            ShowAll({{Finger::DORSUM, Counting(30)},
                     {Finger::RING, Counting(20)},
                     {Finger::THUMB, Counting(10, 20)}}));
  EXPECT_EQ(errors_.Text(),
            "[Warning]: Incomplete data for sensor 7, expected 70 bytes, got 30\n"
            "[Warning]: Incomplete data for sensor 1, expected 20 bytes, got 10\n");
}

TEST_F(BrisaTactile, KeepsWhatItHasWhenAnOverriddenOperationThrows) {
  const Rig<HandWithOtherSensors> rig(kId);
  rig.hand->order = {Finger::RING, Finger::PALM, Finger::THUMB};
  rig.device->script = RepliesInFrames(RawFrames(100));
  EXPECT_EQ(ShowAll(rig.hand->GetAllTactileSensorDataRaw()),
            ShowAll({{Finger::RING, Counting(20)}}));
  EXPECT_EQ(Show(rig.hand->GetTactileSensorDataRaw(Finger::PALM)), "6: ");
  EXPECT_EQ(errors_.Text(), std::string(kOfClass) + "[GetAllTactileSensorDataRaw] broken palm\n" +
                                kOfClass + "[GetTactileSensorDataRaw][finger:6] broken palm\n");
}

}  // namespace
}  // namespace talvera::korvane
