// The tactile readings over CAN: summaries and raw arrays of one-axis sensors, and the three-axis
// sensors of the KorvaneTessel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>

#include "korvane_diagnostics.h"
#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

using namespace test;

/// `count` bytes of which neighbours differ, going on from `first`.
Bytes Counting(std::size_t count, std::size_t first = 0) {
  Bytes bytes(count);
  std::iota(bytes.begin(), bytes.end(), static_cast<std::uint8_t>(first));
  return bytes;
}

/// The frames of a raw reply that holds Counting(count).
std::vector<Bytes> RawFrames(std::size_t count) {
  std::vector<Bytes> payloads((count + 61) / 62);
  for (std::size_t i = 0; i < payloads.size(); ++i) {
    payloads[i] = {static_cast<std::uint8_t>(payloads.size()), static_cast<std::uint8_t>(i)};
    const Bytes data = Counting(std::min<std::size_t>(62, count - 62 * i), 62 * i);
    payloads[i].insert(payloads[i].end(), data.begin(), data.end());
  }
  return payloads;
}

std::string Show(const std::vector<TactileSensorData>& records) {
  std::string text;
  for (const auto& record : records) {
    text += std::to_string(static_cast<int>(record.finger)) + ": " + test::Show(record.data) + "\n";
  }
  return text;
}

/// A read of one sensor or, with index 0, of all.
CanfdFrame Request(std::uint32_t fields, Finger finger = Finger{}) {
  return FullFrame(fields | kId | static_cast<std::uint32_t>(finger) << 24, {});
}

const std::vector<Finger> kSeven{Finger::THUMB,  Finger::INDEX, Finger::MIDDLE, Finger::RING,
                                 Finger::LITTLE, Finger::PALM,  Finger::DORSUM};
const std::vector<Finger> kSix(kSeven.begin(), kSeven.end() - 1);

class TactileSensors : public testing::TestWithParam<TestedHand>, protected HandPair<KorvaneBase> {
 protected:
  TactileSensors() : HandPair(GetParam().make) {}

  const std::uint32_t raw_ = 0x00060000 | GetParam().family;
  const bool is_brisa_ = GetParam().class_name == kBrisa.class_name;
  const std::vector<Finger>& order_ = is_brisa_ ? kSeven : kSix;
  const IBR7TactileSensor1D& hand_ = dynamic_cast<IBR7TactileSensor1D&>(*rig_.hand);
};

INSTANTIATE_TEST_SUITE_P(Both, TactileSensors, testing::Values(kBrisa, kQuill),
                         testing::PrintToStringParamName());

TEST_P(TactileSensors, AreReadFromAsManyFramesAsTheirRawArrayTakes) {
  const StreamCapture errors(stderr);
  for (const Finger finger : order_) {
    const std::size_t length = hand_.GetSensorDataLength(finger);
    device_.script = RepliesInFrames(RawFrames(length));
    EXPECT_EQ(Show({hand_.GetTactileSensorDataRaw(finger)}), Show({{finger, Counting(length)}}));
    EXPECT_EQ(test::Show(device_.TakeSent()), test::Show({Request(raw_, finger)}));
  }
  // Whatever the length of a frame says.
  device_.script = [](const CanfdFrame& sent) {
    return std::vector<CanfdFrame>{FullFrame(sent.can_id, RawFrames(62)[0], 8)};
  };
  EXPECT_EQ(hand_.GetTactileSensorDataRaw(Finger::INDEX).data, Counting(18));
  EXPECT_EQ(errors.Text(), "");
}

TEST_P(TactileSensors, KeepWhatArrivedWhenTheirRawArrayIsCutOff) {
  rig_.hand->SetFrameRecvTimeout(10);
  Bytes only = RawFrames(62)[0];
  for (const std::uint8_t announced : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{2}}) {
    only[0] = announced;
    // There before the wait begins, which is short.
    device_.script = [&](const CanfdFrame& sent) {
      const auto key = device_.matched_rep_id_(sent.can_id);
      device_.umap_multiframe_rep_[key][0] = MakeFrame(sent.can_id, only);
      return std::vector<CanfdFrame>{};
    };
    const StreamCapture errors(stderr);
    EXPECT_EQ(Show({hand_.GetTactileSensorDataRaw(Finger::PALM)}),
              Show({{Finger::PALM, Counting(62)}}));
    const std::string lines = errors.Text();
    EXPECT_EQ(lines.substr(announced == 2 ? lines.find('\n') + 1 : 0),
              "[Warning]: Incomplete data for sensor 6. Expected 78 bytes, got 62\n");
  }
}

TEST_P(TactileSensors, AreEmptyWithALineWhereNothingComes) {
  rig_.hand->SetFrameRecvTimeout(10);
  EXPECT_EQ(hand_.GetSensorOrder(), order_);
  const std::string lines =
      Told([&] { EXPECT_TRUE(hand_.GetTactileSensorDataRaw(Finger::PALM).data.empty()); });
  EXPECT_THAT(lines, testing::EndsWith("No tactile sensor data available for sensor 6\n"));
  EXPECT_EQ(LastFailure(*rig_.hand).kind, FailureKind::NO_REPLY);
  const std::string line = is_brisa_ ? "[Warning]: No tactile sensor data available\n" : "";
  EXPECT_THAT(Told([&] { EXPECT_EQ(Show(hand_.GetAllTactileSensorDataRaw()), ""); }),
              testing::EndsWith(line));
  EXPECT_EQ(LastFailure(*rig_.hand).operation, "GetAllTactileSensorDataRaw");
  EXPECT_EQ(LastFailure(*rig_.hand).kind, FailureKind::NO_REPLY);
}

TEST_P(TactileSensors, AreCutFromTheStreamOfAllInTheirOrder) {
  device_.script = RepliesInFrames(RawFrames(620));
  std::vector<TactileSensorData> expected;
  std::size_t offset = 0;
  for (const Finger finger : order_) {
    const std::size_t length = hand_.GetSensorDataLength(finger);
    expected.push_back({finger, Counting(length, offset)});
    offset += length;
  }
  EXPECT_EQ(Told([&] { EXPECT_EQ(Show(hand_.GetAllTactileSensorDataRaw()), Show(expected)); }), "");
  EXPECT_EQ(test::Show(device_.TakeSent()), test::Show({Request(raw_)}));
}

/// HCAN keeps one frame of a reply.
TEST_P(TactileSensors, GiveOneFrameOfTheirRawArrayOverHcan) {
  auto adapter = std::make_unique<RecordingDevice>(true, kHcanDispatch);
  auto& device = *adapter;
  device.script = RepliesInFrames(RawFrames(78));
  const auto hand = GetParam().make(HandType::RIGHT, kId, std::move(adapter));
  device.frame_recv_timeout_ms_ = 60'000;
  device.process_msg_ = [&](const CanfdFrame& frame) {
    if (frame.data[1] != 1) return;
    const std::lock_guard lock(device.request_mutex_);  // ends the wait for the second frame
    device.frame_recv_timeout_ms_ = 10;
    device.reply_cv_.notify_all();
  };
  const auto& touch = dynamic_cast<const IBR7TactileSensor1D&>(*hand);
  EXPECT_THAT(
      Told([&] { EXPECT_EQ(touch.GetTactileSensorDataRaw(Finger::PALM).data, Counting(62)); }),
      testing::EndsWith("sensor 6. Expected 78 bytes, got 62\n"));
}

TEST(BrisaTactile, GivesTheRemainderToEverySensorThatItIsTooShortFor) {
  const Rig<KorvaneBrisaCanImpl> rig(kId);
  const StreamCapture errors(stderr);
  rig.device->script = RepliesInFrames(RawFrames(100));
  const auto records = rig.hand->GetAllTactileSensorDataRaw();
  ASSERT_EQ(records.size(), 7U);
  EXPECT_EQ(records[4].data, Counting(18, 70));
  EXPECT_EQ(Show({records[5], records[6]}),
            Show({{Finger::PALM, Counting(12, 88)}, {Finger::DORSUM, Counting(12, 88)}}));
  EXPECT_EQ(errors.Text(),
            "[Warning]: Incomplete data for sensor 6, expected 78 bytes, got 12\n"
            "[Warning]: Incomplete data for sensor 7, expected 102 bytes, got 12\n");
  for (const Bytes& header : {Bytes{1, 0}, Bytes{1}, Bytes{}}) {
    rig.device->script = RepliesInFrames({header});
    EXPECT_EQ(Show(rig.hand->GetAllTactileSensorDataRaw()), "1: \n2: \n3: \n4: \n5: \n6: \n7: \n");
  }
}

TEST(QuillTactile, LeavesOutTheFirstSensorThatIsCutOffAndThoseAfterIt) {
  const struct {
    std::size_t bytes;
    std::size_t records;
    const char* line;
  } rows[] = {{166, 6, ""},
              {165, 5, "[Warning]: Incomplete data for sensor 6\n"},
              {88, 5, ""},
              {33, 1, "[Warning]: Incomplete data for sensor 2\n"},
              {1, 0, "[Warning]: Incomplete data for sensor 1\n"}};
  const Rig<KorvaneQuillCanImpl> rig(kId);
  for (const auto& row : rows) {
    rig.device->script = RepliesInFrames(RawFrames(row.bytes));
    const auto read = [&] { return rig.hand->GetAllTactileSensorDataRaw().size(); };
    EXPECT_EQ(Told([&] { EXPECT_EQ(read(), row.records) << row.bytes; }), row.line);
    EXPECT_EQ(LastFailure(*rig.hand).kind,
              row.records == 6 ? FailureKind::NONE : FailureKind::BAD_REPLY);
  }
}

/// A hand with other sensors than the usual, as an application may derive it.
template <class Impl>
struct OtherSensors : Impl {
  using Impl::Impl;
  const std::vector<Finger>& GetSensorOrder() const override { return order; }
  std::size_t GetSensorDataLength(Finger finger) const override {
    if (finger == Finger::PALM) throw std::runtime_error("broken palm");
    if (finger == Finger::INDEX) return 62;
    return finger == Finger::DORSUM ? 70 : 20;
  }
  std::vector<Finger> order{Finger::DORSUM, Finger::RING, Finger::THUMB};
};

struct BrisaWithOtherSensors : OtherSensors<KorvaneBrisaCanImpl> {
  using OtherSensors::OtherSensors;
  std::vector<std::uint8_t> GetTactileSensorData(Finger) const override { return {1, 2}; }
};

TEST(BrisaTactile, AsksOverriddenOperationsForTheSensorsAndKeepsWhatItHasWhenTheyThrow) {
  const Rig<BrisaWithOtherSensors> rig(kId);
  const StreamCapture errors(stderr);
  EXPECT_EQ(Show(rig.hand->GetAllTactileSensorData()), "7: 1 2\n4: 1 2\n1: 1 2\n");

  // A sensor that fills one frame: the second isn't waited for.
  rig.device->script = RepliesInFrames({RawFrames(124)[0]});
  EXPECT_EQ(rig.hand->GetTactileSensorDataRaw(Finger::INDEX).data, Counting(62));

  // The first sensor is short; what is left still fills the second, and then not the third.
  rig.device->script = RepliesInFrames(RawFrames(30));
  EXPECT_EQ(Show(rig.hand->GetAllTactileSensorDataRaw()),
            Show({{Finger::DORSUM, Counting(30)},
                  {Finger::RING, Counting(20)},
                  {Finger::THUMB, Counting(10, 20)}}));
  rig.hand->order = {Finger::RING, Finger::PALM, Finger::THUMB};
  EXPECT_EQ(Show(rig.hand->GetAllTactileSensorDataRaw()), Show({{Finger::RING, Counting(20)}}));
  EXPECT_EQ(Show({rig.hand->GetTactileSensorDataRaw(Finger::PALM)}), "6: \n");
  const std::string of_class = kBrisa.OfClass();
  EXPECT_EQ(errors.Text(),
            "[Warning]: Incomplete data for sensor 7, expected 70 bytes, got 30\n"
            "[Warning]: Incomplete data for sensor 1, expected 20 bytes, got 10\n" +
                of_class + "[GetAllTactileSensorDataRaw] broken palm\n" + of_class +
                "[GetTactileSensorDataRaw][finger:6] broken palm\n");
}

TEST(BrisaTactile, TakesTenFramesOfAllSensorsAndNoMore) {
  const Rig<BrisaWithOtherSensors> rig(kId);
  rig.hand->order.assign(9, Finger::DORSUM);  // 630 bytes, and ten frames hold 620
  rig.device->script = RepliesInFrames(RawFrames(682));
  EXPECT_EQ(Told([&] {
              EXPECT_EQ(rig.hand->GetAllTactileSensorDataRaw().back().data, Counting(60, 560));
            }),
            "[Warning]: Incomplete data for sensor 7, expected 70 bytes, got 60\n");
}

TEST(QuillTactile, WalksItsOwnOrderAndKeepsWhatItHasWhenAnOverriddenOperationThrows) {
  const Rig<OtherSensors<KorvaneQuillCanImpl>> rig(kId);
  rig.device->script = RepliesInFrames(RawFrames(166));
  const auto read = [&] { return rig.hand->GetAllTactileSensorDataRaw().size(); };
  EXPECT_EQ(Told([&] { EXPECT_EQ(read(), 5U); }),
            kQuill.OfClass() + "[GetAllTactileSensorDataRaw] broken palm\n");
}

TEST(BrisaTactile, ReadsSummariesOneByOneWhateverTheLengthOfTheReplyAlsoWhenSomeFail) {
  const HandPair<KorvaneBrisaCanImpl> hands;
  hands.device_.script = [](const CanfdFrame& sent) -> std::optional<std::vector<CanfdFrame>> {
    if (sent.can_id >> 24 == 2) return std::nullopt;
    return std::vector<CanfdFrame>{FullFrame(sent.can_id, Counting(64, 1), 4)};
  };
  std::vector<TactileSensorData> expected;
  std::vector<CanfdFrame> requests;
  for (const Finger finger : kSeven) {
    const std::size_t length = finger >= Finger::PALM ? 25 : 16;
    expected.push_back({finger, finger == Finger::INDEX ? Bytes(length) : Counting(length, 1)});
    requests.push_back(Request(0x00050100, finger));
  }
  const StreamCapture errors(stderr);
  EXPECT_EQ(Show(hands.hand_.GetAllTactileSensorData()), Show(expected));
  EXPECT_EQ(LastFailure(hands.hand_).text, "the reply ends after 4 of 16 bytes");
  EXPECT_EQ(test::Show(hands.device_.TakeSent()), test::Show(requests));
  EXPECT_EQ(hands.without_transport_->GetTactileSensorData(Finger::PALM), Bytes(25));
  const std::string failed = kBrisa.OfClass() + "[GetTactileSensorData][finger:";
  EXPECT_EQ(errors.Text(), failed + "2] " + FrameText(requests[1]) + " request send failed\n" +
                               failed + "6] no transport\n");
}

Bytes Read3D(const KorvaneTessel& hand, int finger) {
  const auto record = hand.GetTactileSensor3DData(static_cast<Finger>(finger));
  return {std::begin(record.data), std::end(record.data)};
}

TEST(TesselTactile, ReadsTwentyNineBytesOfAFingertipWhateverTheLengthOfTheReply) {
  const HandPair<KorvaneTesselCanImpl> hands;
  for (int finger = 1; finger <= 5; ++finger) {
    hands.device_.script = Replies(Counting(64, 1), finger);
    EXPECT_EQ(Read3D(hands.hand_, finger), Counting(29, 1));
    EXPECT_EQ(LastFailure(hands.hand_).kind, FailureKind::BAD_REPLY);
    EXPECT_EQ(test::Show(hands.device_.TakeSent()),
              test::Show({Request(0x00050100, static_cast<Finger>(finger))}));
  }
  hands.device_.script = CantSend();
  const std::string failed = kTessel.OfClass() + "[GetTactileSensor3DData] ";
  EXPECT_EQ(Told([&] { EXPECT_EQ(Read3D(hands.hand_, 2), Bytes(29)); }),
            failed + FrameText(Request(0x02050100)) + " request send failed\n");
  EXPECT_EQ(Told([&] { EXPECT_EQ(Read3D(*hands.without_transport_, 2), Bytes(29)); }),
            failed + "no transport\n");
}

/// A finger that a model doesn't have is refused before anything is sent.
TEST(TactileRefusals, AreOfTheFingersThatAModelDoesNotHave) {
  const Rig<KorvaneBrisaCanImpl> brisa(kId);
  const Rig<KorvaneQuillCanImpl> quill(kId);
  const Rig<KorvaneTesselCanImpl> tessel(kId);
  const auto throws = testing::ThrowsMessage<std::invalid_argument>("Invalid finger type");
  for (const int number : {0, 6, 7, 8, 255}) {
    const auto finger = static_cast<Finger>(number);
    const bool exists = number == 6 || number == 7;
    if (!exists) {
      EXPECT_THAT([&] { brisa.hand->GetTactileSensorData(finger); }, throws);
      EXPECT_THAT([&] { brisa.hand->GetTactileSensorDataRaw(finger); }, throws);
    }
    EXPECT_EQ(Told([&] { EXPECT_EQ(Read3D(*tessel.hand, number), Bytes(29)); }),
              exists ? "[ERROR]: Korvane Tessel does not support PALM or DORSUM sensors. Only "
                       "THUMB, INDEX, MIDDLE, RING, LITTLE are supported.\n"
                     : "[ERROR]: Invalid finger type\n");
    if (number == 6) continue;
    const auto read = [&] { return Show({quill.hand->GetTactileSensorDataRaw(finger)}); };
    EXPECT_EQ(Told([&] { EXPECT_EQ(read(), std::to_string(number) + ": \n"); }),
              "[Error]: Invalid sensor finger index for Quill (must be 0x01-0x06, no Dorsum): " +
                  std::to_string(number) + "\n");
  }
  for (auto* const device : {brisa.device, quill.device, tessel.device}) {
    EXPECT_TRUE(device->TakeSent().empty());
  }
}

}  // namespace
}  // namespace talvera::korvane
