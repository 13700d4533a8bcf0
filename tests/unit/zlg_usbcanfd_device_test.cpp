#include "can/zlg_usbcanfd_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "support/capture.h"
#include "support/fake_usbcanfd.h"

namespace talvera::korvane {
namespace {

using test::Bytes;
using test::CaptureStreams;
using test::FakeUsbCanFd;
using test::operator+;  // NOLINT(misc-unused-using-decls): the check misses operators
using test::Streams;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Calls = std::vector<std::string>;

constexpr std::size_t kRecordSize = 80;

Calls operator+(Calls left, const Calls& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// How a channel is set up once its device is open. `place` is type, index and channel.
Calls ChannelStart(const std::string& place) {
  return {"VCI_InitCAN " + place, "VCI_SetReference " + place + " 24 1",
          "VCI_SetReference " + place + " 50 0", "VCI_SetReference " + place + " 68 20",
          "VCI_StartCAN " + place};
}

Calls Opened(const std::string& place) {
  const std::string device = place.substr(0, place.rfind(' '));
  return Calls{"VCI_OpenDevice " + device, "VCI_ReadBoardInfo " + device} + ChannelStart(place);
}

Bytes ReceivedRecord(std::uint32_t id, std::uint8_t len, std::uint8_t fill) {
  Bytes record(kRecordSize, fill);
  for (unsigned i = 0; i < 4; ++i) record[4 + i] = static_cast<std::uint8_t>(id >> (8 * i));
  record[15] = len;
  return record;
}

class ZlgUsbcanfd : public testing::Test {
 protected:
  ZlgUsbcanfd() {
    fake_.Reset();
    CanfdDevices().canfd_device_info_cache.clear();
    CanfdDevices().cache_valid_ = false;
  }

  static CanfdDeviceInfo& Entry(std::uint8_t index) {
    return CanfdDevices().canfd_device_info_cache[index];
  }

  /// A live hand's channel, the calls of whose opening are forgotten.
  std::unique_ptr<ZlgUsbcanfdDevice> Live(std::uint8_t index, std::uint8_t channel) {
    std::unique_ptr<ZlgUsbcanfdDevice> device;
    CaptureStreams([&] { device = std::make_unique<ZlgUsbcanfdDevice>(index, channel, 0); });
    EXPECT_TRUE(device->IsInit());
    fake_.TakeCalls();
    return device;
  }

  test::FakeLibrary& fake_ = FakeUsbCanFd();
};

// Opening and closing

TEST_F(ZlgUsbcanfd, ByIndexProbesOpensAndClosesInOrderAndTellsIt) {
  fake_.Plug(3, {"ABC123  ", "USBCANFD-200U   ", 2});
  std::unique_ptr<ZlgUsbcanfdDevice> device;
  Streams written = CaptureStreams([&] { device = std::make_unique<ZlgUsbcanfdDevice>(3, 1, 0); });
  EXPECT_EQ(written.err, "");
  EXPECT_EQ(written.out,
            "[INFO]: Found device 3 (type=33): USBCANFD-200U, SN=ABC123, Channels=2\n"
            "[INFO]: Device 3 already open, reusing.\n"
            "[INFO]: Init canfd device 3 channel 1 successfully.\n"
            "[INFO]: Start canfd device 3 channel 1 successfully.\n"
            "[INFO]: Device 3 ref count: 1\n");
  EXPECT_EQ(fake_.TakeCalls(), Opened("33 3 1"));
  EXPECT_THAT(fake_.Records("VCI_InitCAN"),
              ElementsAre(ElementsAre(0x00, 0x87, 0x93, 0x03, 0, 0, 0, 0,  // 60 MHz, mode 0
                                      46, 11, 3, 0, 0, 0,                  // arbitration
                                      7, 2, 1, 0, 0, 0)));                 // data
  EXPECT_TRUE(device->IsInit());
  fake_.AwaitRead(3, 1);
  EXPECT_THAT(fake_.ReceiveCalls(), ElementsAre("VCI_ReceiveFD 33 3 1 256 50"));

  written = CaptureStreams([&] { device.reset(); });
  EXPECT_EQ(fake_.TakeCalls(), (Calls{"VCI_ResetCAN 33 3 1", "VCI_CloseDevice 33 3"}));
  EXPECT_EQ(written.err, "");
  EXPECT_EQ(written.out,
            "[INFO]: Reset canfd device 3 channel 1 successfully.\n"
            "[INFO]: Device 3 ref count: 0\n"
            "[INFO]: Close canfd device 3 successfully.\n");
}

TEST_F(ZlgUsbcanfd, TheLastChannelClosesTheDeviceWhicheverItIs) {
  fake_.Plug(0, {"A"});
  for (const bool first_goes_first : {true, false}) {
    auto first = Live(0, 0);
    std::unique_ptr<ZlgUsbcanfdDevice> second;
    const Streams written =
        CaptureStreams([&] { second = std::make_unique<ZlgUsbcanfdDevice>(0, 1, 0); });
    EXPECT_EQ(written.out,
              "[INFO]: Device 0 already open, reusing.\n"
              "[INFO]: Init canfd device 0 channel 1 successfully.\n"
              "[INFO]: Start canfd device 0 channel 1 successfully.\n"
              "[INFO]: Device 0 ref count: 2\n");
    EXPECT_EQ(fake_.TakeCalls(), ChannelStart("33 0 1"));
    auto& leaves = first_goes_first ? first : second;
    auto& stays = first_goes_first ? second : first;
    const std::string left = first_goes_first ? "0" : "1";
    const std::string last = first_goes_first ? "1" : "0";
    CaptureStreams([&] { leaves.reset(); });
    EXPECT_EQ(fake_.TakeCalls(), (Calls{"VCI_ResetCAN 33 0 " + left}));
    EXPECT_TRUE(stays->IsInit());
    CaptureStreams([&] { stays.reset(); });
    EXPECT_EQ(fake_.TakeCalls(), (Calls{"VCI_ResetCAN 33 0 " + last, "VCI_CloseDevice 33 0"}));
    EXPECT_EQ(Entry(0).ref_count, 0);
  }
}

TEST_F(ZlgUsbcanfd, TwoHandsOnOneChannelShareTheCountAndBothInitialiseIt) {
  fake_.Plug(0, {"A"});
  const auto first = Live(0, 0);
  CaptureStreams([&] {
    ZlgUsbcanfdDevice second(0, 0, 255);
    EXPECT_EQ(fake_.TakeCalls(), ChannelStart("33 0 0"));
    EXPECT_EQ(Entry(0).ref_count, 2);
  });
  EXPECT_EQ(Entry(0).ref_count, 1);
}

// Settled: the process keeps an adapter once it had it; initialising a channel brings it back.
TEST_F(ZlgUsbcanfd, AClosedDeviceStaysMarkedAsOpenAndIsNotOpenedAgain) {
  fake_.Plug(0, {"A"});
  CaptureStreams([&] { Live(0, 0).reset(); });
  EXPECT_TRUE(Entry(0).opened);
  fake_.TakeCalls();
  std::unique_ptr<ZlgUsbcanfdDevice> again;
  CaptureStreams([&] { again = std::make_unique<ZlgUsbcanfdDevice>(0, 1, 0); });
  EXPECT_EQ(fake_.TakeCalls(), ChannelStart("33 0 1"));
  EXPECT_TRUE(again->IsInit());
}

struct OpeningFailure {
  std::string name;
  std::string refused;
  bool opens;
  Calls calls;
  std::string err;
};

void PrintTo(const OpeningFailure& failure, std::ostream* out) { *out << failure.name; }

class ZlgOpeningFailure : public ZlgUsbcanfd, public testing::WithParamInterface<OpeningFailure> {};

INSTANTIATE_TEST_SUITE_P(
    Cases, ZlgOpeningFailure,
    testing::Values(
        OpeningFailure{"Open",
                       "VCI_OpenDevice",
                       false,
                       {"VCI_OpenDevice 33 2", "VCI_OpenDevice 0 2"},
                       "[ERROR]: Open device 2 usbcanfd failed!\n"},
        OpeningFailure{"BoardInfo",
                       "VCI_ReadBoardInfo",
                       false,
                       {"VCI_OpenDevice 33 2", "VCI_ReadBoardInfo 33 2", "VCI_CloseDevice 33 2",
                        "VCI_OpenDevice 0 2"},
                       "[ERROR]: Open device 2 usbcanfd failed!\n"},
        OpeningFailure{"Init",
                       "VCI_InitCAN",
                       false,
                       {"VCI_OpenDevice 33 2", "VCI_ReadBoardInfo 33 2", "VCI_InitCAN 33 2 1"},
                       "[ERROR]: Init canfd device 2 channel 1 failed!\n"},
        OpeningFailure{"Resistor", "VCI_SetReference 33 2 1 24 1", true, Opened("33 2 1"),
                       "[ERROR]: CMD_CAN_TRES failed for device 2 channel 1\n"},
        OpeningFailure{"Merge", "VCI_SetReference 33 2 1 50 0", true, Opened("33 2 1"),
                       "[ERROR]: ZCAN_CMD_SET_CHNL_RECV_MERGE failed!\n"},
        OpeningFailure{"SendTimeout", "VCI_SetReference 33 2 1 68 20", true, Opened("33 2 1"),
                       "[WARN]: CMD_CAN_TX_TIMEOUT failed for device 2 channel 1\n"},
        OpeningFailure{"Start", "VCI_StartCAN", false, Opened("33 2 1"),
                       "[ERROR]: Start canfd device 2 channel 1 failed!\n"}),
    [](const auto& tested) { return tested.param.name; });

TEST_P(ZlgOpeningFailure, IsToldAndLeavesNothingCounted) {
  fake_.Plug(2, {"A"});
  fake_.Answer(GetParam().refused, 0);
  std::unique_ptr<ZlgUsbcanfdDevice> device;
  const Streams written =
      CaptureStreams([&] { device = std::make_unique<ZlgUsbcanfdDevice>(2, 1, 0); });
  EXPECT_EQ(written.err, GetParam().err);
  EXPECT_EQ(fake_.TakeCalls(), GetParam().calls);
  EXPECT_EQ(device->IsInit(), GetParam().opens);
  EXPECT_EQ(Entry(2).ref_count, GetParam().opens ? 1 : 0);
  CaptureStreams([&] { device.reset(); });
  EXPECT_EQ(Entry(2).ref_count, 0);
}

TEST_F(ZlgUsbcanfd, AStartThatFailsClosesTheDeviceOnlyIfThisObjectOpenedIt) {
  fake_.Plug(1, {"SN-1"});
  fake_.Answer("VCI_StartCAN", 0);
  CaptureStreams([&] {
    ZlgUsbcanfdDevice alone("SN-1", 0, 0);
    EXPECT_FALSE(alone.IsInit());
    EXPECT_EQ(fake_.TakeCalls().back(), "VCI_CloseDevice 33 1");
  });
  EXPECT_EQ(Entry(1).ref_count, 0);

  fake_.Answer("VCI_StartCAN", 1);
  const auto live = Live(1, 0);
  fake_.Answer("VCI_StartCAN 33 1 1", 0);
  CaptureStreams([&] { ZlgUsbcanfdDevice beside(1, 1, 0); });
  EXPECT_EQ(fake_.TakeCalls(), ChannelStart("33 1 1")) << "neither reset nor closed";
  EXPECT_EQ(Entry(1).ref_count, 1);
}

TEST_F(ZlgUsbcanfd, FailuresOfClosingAreToldAndTheCountGoesDownAllTheSame) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  fake_.Answer("VCI_ResetCAN", 0);
  fake_.Answer("VCI_CloseDevice", 0);
  int result = 0;
  const Streams written = CaptureStreams([&] { result = device->CloseDevice(); });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(written.err,
            "[ERROR]: Reset canfd device 0 channel 1 failed!\n"
            "[ERROR]: Close canfd device 0 failed!\n");
  EXPECT_EQ(Entry(0).ref_count, 0);
}

TEST_F(ZlgUsbcanfd, AnObjectThatOpenedSeveralTimesGivesEveryCountBack) {
  fake_.Plug(0, {"A"});
  CaptureStreams([&] {
    auto device = Live(0, 0);
    EXPECT_EQ(device->OpenDevice(), 0);
    EXPECT_EQ(device->OpenDevice(), 0);
    EXPECT_EQ(Entry(0).ref_count, 3);
    EXPECT_EQ(device->CloseDevice(), 0);
    EXPECT_EQ(Entry(0).ref_count, 2);
    device.reset();
  });
  EXPECT_EQ(Entry(0).ref_count, 0) << "the adapter would never be closed";
}

// Serial numbers

TEST_F(ZlgUsbcanfd, ASerialNumberIsLookedForOnEightIndicesAndAPartOfItIsEnough) {
  fake_.Plug(2, {"LEFT-0001   "});
  fake_.Plug(5, {"12345678901234567890", std::string(40, 'h'), 8});
  std::unique_ptr<ZlgUsbcanfdDevice> device;
  const Streams written =
      CaptureStreams([&] { device = std::make_unique<ZlgUsbcanfdDevice>("567890", 7, 0); });
  EXPECT_TRUE(device->IsInit());
  EXPECT_EQ(device->adapter_index_, 5);
  Calls expected;
  for (int i = 0; i < 8; ++i) {
    const std::string at = " 33 " + std::to_string(i);
    expected.push_back("VCI_OpenDevice" + at);
    if (i != 2 && i != 5) continue;
    expected.insert(expected.end(), {"VCI_ReadBoardInfo" + at, "VCI_CloseDevice" + at});
  }
  expected.push_back("VCI_OpenDevice 33 5");
  EXPECT_EQ(fake_.TakeCalls(), expected + ChannelStart("33 5 7"));
  EXPECT_EQ(written.out,
            "[INFO]: Found device 2 (type=33): fake adapter, SN=LEFT-0001, Channels=2\n"
            "[INFO]: Found device 5 (type=33): " +
                std::string(40, 'h') +
                ", SN=12345678901234567890, Channels=8\n"
                "[INFO]: Open device 5 usbcanfd successfully.\n"
                "[INFO]: Init canfd device 5 channel 7 successfully.\n"
                "[INFO]: Start canfd device 5 channel 7 successfully.\n"
                "[INFO]: Device 5 ref count: 1\n");
  // What a scan has met isn't looked for again, and several matches give the lowest index.
  CaptureStreams([&] { ZlgUsbcanfdDevice("0001", 0, 0); });
  EXPECT_EQ(fake_.TakeCalls().front(), "VCI_OpenDevice 33 2");
  CaptureStreams([&] { EXPECT_EQ(ZlgUsbcanfdDevice("0", 0, 0).adapter_index_, 2); });
}

TEST_F(ZlgUsbcanfd, AFailedLookAtOneDeviceLeavesItOutAndClosesIt) {
  fake_.Plug(0, {"A"});
  fake_.Answer("VCI_ReadBoardInfo 33 0", 0);
  const Streams written = CaptureStreams([&] { ZlgUsbcanfdDevice("A", 0, 0); });
  EXPECT_EQ(written.err, "[ERROR]: Device with serial number \"A\" not found!\n");
  EXPECT_EQ(fake_.TakeCalls()[2], "VCI_CloseDevice 33 0");
  EXPECT_THAT(CanfdDevices().canfd_device_info_cache, IsEmpty());
}

TEST_F(ZlgUsbcanfd, AScanLeavesDevicesInUseAloneAndKeepsWhatIsKnownOfThem) {
  fake_.Plug(0, {"ZERO"});
  const auto live = Live(0, 0);
  fake_.Plug(4, {"FOUR"});
  CaptureStreams([&] { ZlgUsbcanfdDevice("FOUR", 0, 0); });
  for (const auto& call : fake_.TakeCalls()) EXPECT_EQ(call.find(" 33 0"), std::string::npos);
  EXPECT_TRUE(Entry(0).opened);
  EXPECT_EQ(Entry(0).ref_count, 1);
  EXPECT_EQ(Entry(0).serial_number, "ZERO");
}

TEST_F(ZlgUsbcanfd, ASerialNumberThatIsNotThereDisturbsNobody) {
  fake_.Plug(0, {"ZERO"});
  const auto live = Live(0, 0);
  std::unique_ptr<ZlgUsbcanfdDevice> device;
  const Streams written =
      CaptureStreams([&] { device = std::make_unique<ZlgUsbcanfdDevice>("NONE", 0, 0); });
  EXPECT_EQ(written.err, "[ERROR]: Device with serial number \"NONE\" not found!\n");
  EXPECT_FALSE(device->IsInit());
  fake_.TakeCalls();
  device.reset();
  EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
  EXPECT_EQ(Entry(0).ref_count, 1);
}

TEST_F(ZlgUsbcanfd, OnlyACacheThatHoldsTheFirstEightIndicesSavesTheScan) {
  CanfdDevices().cache_valid_ = true;
  for (std::uint8_t i = 0; i < 8; ++i) Entry(i).serial_number = "KNOWN";
  CaptureStreams([] { ZlgUsbcanfdDevice("OTHER", 0, 0); });
  EXPECT_THAT(fake_.TakeCalls(), IsEmpty());

  CanfdDevices().canfd_device_info_cache.erase(0);  // eight entries, but index 0 isn't known
  Entry(9).serial_number = "KNOWN";
  fake_.Plug(0, {"OTHER"});
  std::unique_ptr<ZlgUsbcanfdDevice> device;
  CaptureStreams([&] { device = std::make_unique<ZlgUsbcanfdDevice>("OTHER", 0, 0); });
  EXPECT_TRUE(device->IsInit());
}

// Frames

TEST_F(ZlgUsbcanfd, AFrameGoesOutAsARecordWithItsFlagsAndItsChannel) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  struct Row {
    std::uint32_t id;
    std::uint8_t len;
    std::uint8_t information[4];  // CAN FD with bit-rate switch; extended or not
  };
  const Row rows[] = {{0x7FF, 0, {0x10, 0x08, 0, 0}},
                      {0x800, 1, {0x10, 0x0A, 0, 0}},
                      {0x07130127, 13, {0x10, 0x0A, 0, 0}},
                      {9, 64, {0x10, 0x08, 0, 0}}};
  for (const Row& row : rows) {
    Bytes data(64, 0xEE);
    for (std::uint8_t i = 0; i < row.len; ++i) data[i] = static_cast<std::uint8_t>(i + 1);
    EXPECT_EQ(device->SendFrame(row.id, data.data(), row.len), 0);
    Bytes expected(kRecordSize, 0);
    for (unsigned i = 0; i < 4; ++i) {
      expected[4 + i] = static_cast<std::uint8_t>(row.id >> (8 * i));
      expected[8 + i] = row.information[i];
    }
    expected[14] = 1;
    expected[15] = row.len;
    std::copy_n(data.begin(), row.len, expected.begin() + 16);
    EXPECT_THAT(fake_.Records("VCI_TransmitFD").back(), ElementsAreArray(expected));
    EXPECT_THAT(fake_.TakeCalls(), ElementsAre("VCI_TransmitFD 33 0 1 1"));
  }
}

TEST_F(ZlgUsbcanfd, AFrameThatIsNotTakenIsToldAndOneThatIsTooLongIsNotSent) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  Bytes data(255, 1);
  EXPECT_EQ(device->SendFrame(9, data.data(), 65), -1);
  EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
  fake_.Answer("VCI_TransmitFD", 0);
  const Streams written =
      CaptureStreams([&] { EXPECT_EQ(device->SendFrame(0x2AB, data.data(), 12), -1); });
  EXPECT_EQ(written.err,
            "[ZLG CAN ERROR] VCI_TransmitFD failed: returned 0 (expected 1), device_type=33, "
            "canfd_id=0, channel_id=1, id=0x000002ab, len=12\n");
}

TEST_F(ZlgUsbcanfd, ReceivedBatchesGoThroughTheDispatchInOrder) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 0);
  std::vector<CanfdFrame> processed;
  device->BindCallbacks([&](const CanfdFrame& frame) { processed.push_back(frame); },
                        [](std::uint32_t id) { return id; },
                        [](std::uint32_t, std::uint32_t) { return false; });
  const Bytes records = ReceivedRecord(0xA0000815, 3, 0x33) + ReceivedRecord(0x7FF, 255, 0x44);
  const Streams written = CaptureStreams([&] {
    fake_.Feed(0, 0, 2, records);
    fake_.AwaitRead(0, 0);
  });
  EXPECT_EQ(written.err,
            "[CAN] recv can_id=0x815 did not match any request\n"
            "[CAN] recv can_id=0x7ff did not match any request\n");
  ASSERT_EQ(processed.size(), 2U);
  EXPECT_EQ(processed[0].can_id, 0xA0000815);
  EXPECT_EQ(processed[0].len, 3);
  Bytes expected(64, 0);
  std::fill_n(expected.begin(), 3, std::uint8_t{0x33});
  EXPECT_THAT(processed[0].data, ElementsAreArray(expected)) << "nothing past the length";
  EXPECT_EQ(processed[1].len, 64) << "a length beyond the record is cut";
}

TEST_F(ZlgUsbcanfd, CountsBeyondTheBufferAreNoFramesAndAFullBufferIs) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 0);
  std::size_t processed = 0;
  device->BindCallbacks([&](const CanfdFrame&) { ++processed; }, nullptr, nullptr);
  Bytes full;
  for (int i = 0; i < 256; ++i) full = std::move(full) + ReceivedRecord(1, 64, 7);
  CaptureStreams([&] {
    for (const std::int64_t count : {std::int64_t{257}, std::int64_t{0xFFFFFFFF}}) {
      fake_.Feed(0, 0, count, full);
      fake_.AwaitRead(0, 0);
    }
  });
  EXPECT_EQ(processed, 0U);
  CaptureStreams([&] {
    fake_.Feed(0, 0, 256, full);
    fake_.AwaitRead(0, 0);
  });
  EXPECT_EQ(processed, 256U);
}

TEST_F(ZlgUsbcanfd, ARequestGetsTheReplyThatTheAdapterReceives) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 0);
  device->BindCallbacks(
      nullptr, [](std::uint32_t id) { return id; },
      [](std::uint32_t request, std::uint32_t id) { return request == id; });
  device->frame_recv_timeout_ms_ = 60'000;
  fake_.OnTransmit([&] { fake_.Feed(0, 0, 1, ReceivedRecord(0x321, 2, 0x5A)); });
  CanfdFrame request;
  request.can_id = 0x321;
  const CanfdFrame reply = device->SendRequestSynch(request);
  EXPECT_EQ(reply.len, 2);
  EXPECT_EQ(reply.data[1], 0x5A);
}

// Send time-out

TEST_F(ZlgUsbcanfd, TheSendTimeoutIsHeldWithinBoundsAndReachesAChannelInUse) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  EXPECT_EQ(device->GetFrameSendTimeout(), 20);
  const std::pair<int, int> rows[] = {{20000, 10000}, {10000, 10000}, {1, 1}, {0, 0}, {-5, 0}};
  for (const auto& [set, held] : rows) {
    device->SetFrameSendTimeout(set);
    EXPECT_EQ(device->GetFrameSendTimeout(), held);
    const Calls told = {"VCI_SetReference 33 0 1 68 " + std::to_string(held)};
    EXPECT_EQ(fake_.TakeCalls(), held > 0 ? told : Calls{});
  }
  fake_.Answer("VCI_SetReference", 0);
  const Streams written = CaptureStreams([&] { device->SetFrameSendTimeout(30); });
  EXPECT_EQ(written.err, "[WARN]: SetFrameSendTimeout runtime CMD_CAN_TX_TIMEOUT failed\n");
}

TEST_F(ZlgUsbcanfd, TheSendTimeoutOfAClosedChannelIsKeptForTheNextOpening) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  CaptureStreams([&] { device->CloseDevice(); });
  fake_.TakeCalls();
  device->SetFrameSendTimeout(70);
  EXPECT_THAT(fake_.TakeCalls(), IsEmpty()) << "nobody uses the device";
  CaptureStreams([&] { device->OpenDevice(); });
  EXPECT_EQ(fake_.TakeCalls()[3], "VCI_SetReference 33 0 1 68 70");
  CaptureStreams([&] { device->CloseDevice(); });
  device->SetFrameSendTimeout(0);
  fake_.TakeCalls();
  CaptureStreams([&] { device->OpenDevice(); });
  EXPECT_EQ(fake_.TakeCalls()[3], "VCI_StartCAN 33 0 1") << "0 leaves the adapter's own";
}

}  // namespace
}  // namespace talvera::korvane
